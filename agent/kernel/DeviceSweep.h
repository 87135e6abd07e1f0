// Deletes what an earlier run or a withdrawn mapping leaves behind.
#pragma once

#include "agent/kernel/Observed.h"
#include "agent/kernel/Options.h"
#include "agent/kernel/VniRenumbering.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// Deletes the devices of ours that no mapping wants: those of withdrawn mappings, and once the initial sync
// is complete all others too. A VXLAN device goes when its VLAN's entries lead to another, a bridge when the
// devices of ours in it have gone. Looks only at Work::suspects and Work::released.
class DeviceSweep {
 public:
  DeviceSweep(const Options& options, const Desired& desired, const Observed& observed,
              const VniRenumbering& renumbering, Work& work)
      : options_(options), desired_(desired), observed_(observed), renumbering_(renumbering), work_(work) {}

  // Asks to delete what may go.
  void sweep(Batch& out);
  // Makes all devices of ours suspects.
  void suspectAll();
  // How many devices there are that nothing wants.
  std::size_t stale() const;

 private:
  bool unwanted(IfIndex index) const;
  bool used(const Link& link) const;
  bool usedBy(const Link& link, Vlan vlan) const;
  bool mayGo(const Link& link) const;

  const Options& options_;
  const Desired& desired_;
  const Observed& observed_;
  const VniRenumbering& renumbering_;
  Work& work_;
};

}  // namespace Agent::Kernel
