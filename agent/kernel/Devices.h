// The devices of each mapped VLAN.
#pragma once

#include <string_view>
#include <vector>

#include "agent/kernel/Observed.h"
#include "agent/kernel/Options.h"
#include "agent/kernel/VniRenumbering.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// Keeps a bridge and a VXLAN device for each mapped VLAN, with its ports. A device that is there is used:
// one of ours (by its alias) is corrected; another's is used as it is, and misconfigurations are reported as
// problems. DeviceReports says what the kernel reports of devices, DeviceSweep deletes those that nothing
// wants any more.
class Devices {
 public:
  Devices(const Options& options, Observed& observed, VniRenumbering& renumbering, Work& work)
      : options_(options), observed_(observed), renumbering_(renumbering), work_(work) {}

  // The domain has another mapping than `before`.
  void mappingChanged(BridgeDomain& domain, const std::optional<Mapping>& before);

  // Asks for what is missing of the domain's devices, one step at a time.
  void work(BridgeDomain& domain, Batch& out);
  void answered(const Request& request, const Key& key, int error, std::string_view text);
  // Begins to use the device; `unread`: it may have entries that are not known. 0 is none.
  void deviceIs(BridgeDomain& domain, IfIndex device, bool unread);
  void bridgeIs(BridgeDomain& domain, IfIndex bridge);

  // Whether the domain's devices and ports are other than desired.
  bool differs(const BridgeDomain& domain) const;

 private:
  void unmapped(BridgeDomain& domain, const Mapping& before);
  void suspectBridges(const BridgeDomain& domain);
  void leaveDevice(BridgeDomain& domain);
  const Link* device(const BridgeDomain& domain) const;
  const Link* bridge(const BridgeDomain& domain, const Link* device) const;
  bool heldBack(BridgeDomain& domain);
  void askBridge(BridgeDomain& domain, Batch& out);
  void askDevice(BridgeDomain& domain, const Link& bridge, Batch& out);
  void correct(BridgeDomain& domain, const LinkSet& set, Batch& out);
  std::optional<LinkSet> bridgeCorrection(const BridgeDomain& domain, const Link& bridge) const;
  std::optional<LinkSet> deviceCorrection(const BridgeDomain& domain, const Link& bridge,
                                          const Link& device) const;
  std::string complaint(const BridgeDomain& domain, const Link& device) const;
  std::vector<const Link*> others(const Link& bridge, const Link& device) const;
  void isolateOthers(const Link& bridge, const Link& device, Batch& out);
  void workPorts(BridgeDomain& domain, const Link& bridge, Batch& out);
  void workPort(BridgeDomain& domain, const Link& bridge, std::size_t at, Batch& out);
  void freePorts(BridgeDomain& domain, Batch& out);
  void fail(const Key& key, std::string why);

  const Options& options_;
  Observed& observed_;
  VniRenumbering& renumbering_;
  Work& work_;
};

}  // namespace Agent::Kernel
