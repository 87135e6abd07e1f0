// A VLAN that changes its VNI.
#pragma once

#include <map>

#include "agent/kernel/Observed.h"
#include "agent/kernel/Options.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// Make before break, when a VLAN changes its VNI: the new device is made beside the old one in the same
// bridge (both isolated, so that nothing loops between them) and filled. After Options::renumberPause, by
// when other switches have made theirs, comes the cut-over: the flood entries are added to the new device
// and the bridge's entries are pointed to it one by one. When that is done the old device loses its flood
// entries; after another such pause it is deleted.
class VniRenumbering {
 public:
  VniRenumbering(const Options& options, Observed& observed, Work& work)
      : options_(options), observed_(observed), work_(work) {}

  // The domain is about to get another device. Begins a renumbering if the one that it has can stay for a
  // while: a device of ours in the same bridge.
  void begin(const BridgeDomain& domain);
  // The renumberings that are due take their next step.
  void advance(Batch& out);
  // When `advance` is due next; Time::max() for never.
  Time next() const;
  // A device has gone; ends the VLAN's renumbering if that was the old one.
  void deviceGone(Vlan vlan, IfIndex device);

  // Whether packets still leave by the old device.
  bool beforeCutOver(Vlan vlan) const;
  // The old device; 0 if the VLAN is not being renumbered.
  IfIndex oldDevice(Vlan vlan) const;

 private:
  struct Change {
    IfIndex oldDevice = 0;
    Time next{};  // The time of the next step.
    bool cutOver = false;
    bool floodsRemoved = false;  // The old device has no flood entries any more.
  };

  // Returns whether the renumbering is over.
  bool step(const BridgeDomain& domain, Change& change, Batch& out);

  const Options& options_;
  Observed& observed_;
  Work& work_;
  std::map<Vlan, Change> changes_;
};

}  // namespace Agent::Kernel
