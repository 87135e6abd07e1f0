// The kernel's reports on devices.
#pragma once

#include "agent/kernel/Devices.h"
#include "agent/kernel/Observed.h"
#include "agent/kernel/Options.h"
#include "agent/kernel/VniRenumbering.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// Takes the kernel's reports of devices, and queues the domains that have to look at theirs again: those
// that use the device, and those that have waited for one such. The cost of a report follows from these, not
// from the number of devices or domains.
class DeviceReports {
 public:
  DeviceReports(const Options& options, const Desired& desired, Observed& observed,
                VniRenumbering& renumbering, Devices& devices, Work& work)
      : options_(options),
        desired_(desired),
        observed_(observed),
        renumbering_(renumbering),
        devices_(devices),
        work_(work) {}

  void linkIs(const Link& link);
  void portIs(const BridgePort& port);
  void linkDel(IfIndex index);

 private:
  void adopt(const Link& link);
  void requeue(Vlan vlan);
  void requeueVni(const Link& device);
  void requeueUsers(const Link& link);
  void lost(BridgeDomain& domain);
  void forget(IfIndex index);

  const Options& options_;
  const Desired& desired_;
  Observed& observed_;
  VniRenumbering& renumbering_;
  Devices& devices_;
  Work& work_;
};

}  // namespace Agent::Kernel
