// The FDB entries of group addresses.
#pragma once

#include <string_view>

#include "agent/kernel/Observed.h"
#include "agent/kernel/Options.h"
#include "agent/kernel/VniRenumbering.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// Keeps the FDB entries of group addresses in the VXLAN device's table (head-end replication); the bridge
// sends what is for them to all its ports without an entry. A flood list of type all is a destination for
// each VTEP, added and deleted one by one; one of type any is a nexthop group of its own, whose members are
// replaced in place. The kernel does not replace such an entry, so that a change of type deletes and adds, in
// one batch.
//
// The switch's own address is left out of a list: the kernel would give what is sent there back to the
// bridge, and the sender would hear itself.
//
// A destination in the kernel has no place for an ownership mark: it is ours if we added it in this run, or
// if it was there at the start and we keep a nexthop object for its VTEP.
class Floods {
 public:
  Floods(const Options& options, const Desired& desired, const VniRenumbering& renumbering,
         Observed& observed, Nexthops& nexthops, Work& work)
      : options_(options),
        desired_(desired),
        renumbering_(renumbering),
        observed_(observed),
        nexthops_(nexthops),
        work_(work) {}

  // The flood list of the address has changed, or may have.
  void changed(BridgeDomain& domain, Mac mac);
  // The domain's mapping has changed: counts its addresses again.
  void mappingChanged(BridgeDomain& domain);
  // The kernel turned out to have no nexthop groups: entries lead elsewhere than thought.
  void nexthopsLost();

  // The kernel reports an entry; `dumped`: as part of a dump, thus maybe older than what is known.
  void entryIs(BridgeDomain& domain, const FdbEntry& entry, bool dumped);
  void entryDel(BridgeDomain& domain, const FdbEntry& entry);
  // A dump is complete: entries that it did not show and that nothing changed meanwhile are gone.
  void dumped(BridgeDomain& domain, Mac mac);

  // Asks for what is missing at this address.
  void work(BridgeDomain& domain, Mac mac, Batch& out);
  void answered(const Request& request, const Key& key, int error, std::string_view text);

  // Whether an entry is missing or different, or there is one of ours that is not wanted.
  bool differs(const BridgeDomain& domain, Mac mac, const Flood& flood) const;

 private:
  Flood& flood(BridgeDomain& domain, Mac mac);
  void dropStale(BridgeDomain& domain, Mac mac, Flood& flood);
  void recount(BridgeDomain& domain, Mac mac, Flood& flood);
  void syncHeld(const BridgeDomain& domain, Mac mac, Flood& flood);
  void nexthopIs(Flood& flood, NexthopId id, Owner owner);
  bool oursFromBefore(const BridgeDomain& domain, Mac mac, Ip4 dst) const;
  bool leadsToAny(const BridgeDomain& domain, Mac mac) const;
  std::vector<Ip4> desiredAddresses(const BridgeDomain& domain, Mac mac) const;
  void reported(BridgeDomain& domain, Mac mac, Flood& flood, bool byOthers);
  void workAll(BridgeDomain& domain, Mac mac, Flood& flood, Batch& out);
  void workAny(BridgeDomain& domain, Mac mac, Flood& flood, Batch& out);
  void forget(Flood& flood, Ip4 dst);
  void removeDestinations(BridgeDomain& domain, Mac mac, const Flood& flood, Batch& out);
  // Counts the address as it is by now, or drops it when nothing is left of it.
  void done(BridgeDomain& domain, Mac mac, Flood& flood);

  const Options& options_;
  const Desired& desired_;
  const VniRenumbering& renumbering_;
  Observed& observed_;
  Nexthops& nexthops_;
  Work& work_;
};

}  // namespace Agent::Kernel
