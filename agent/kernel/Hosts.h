// The FDB entries of unicast addresses.
#pragma once

#include <string_view>

#include "agent/kernel/Observed.h"
#include "agent/kernel/Options.h"
#include "agent/kernel/VniRenumbering.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// Keeps the FDB entries of unicast addresses: in the VXLAN device's table the way to the VTEP, in the
// bridge's table the way to the VXLAN device. An entry is replaced in place; only one that leads to an
// address (from a run without nexthop groups) and is to lead to a group, or the other way round, is deleted
// and added, both in one batch.
//
// A host that the bridge learned at a local port after our entry was there has moved here: it is left there
// until the controller says something new of it, at most for Options::yieldFor.
class Hosts {
 public:
  Hosts(const Options& options, const Desired& desired, const VniRenumbering& renumbering, Observed& observed,
        Nexthops& nexthops, Work& work)
      : options_(options),
        desired_(desired),
        renumbering_(renumbering),
        observed_(observed),
        nexthops_(nexthops),
        work_(work) {}

  // The desired state of the address has changed, or may have.
  void changed(BridgeDomain& domain, Mac mac);
  // The switch's own address has changed, which is left out of flood lists.
  void localChanged(BridgeDomain& domain);
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

  // For a host that is wanted: whether an entry is missing or different. For one that is not: whether there
  // is an entry of ours.
  bool differs(const BridgeDomain& domain, const Host& host) const;

 private:
  Host& host(BridgeDomain& domain, Mac mac);
  void dropStale(BridgeDomain& domain, Host& host);
  void resolve(BridgeDomain& domain, Mac mac, Host& host);
  void actualIs(BridgeDomain& domain, Host& host, Target target, Owner owner);
  void portIs(BridgeDomain& domain, Host& host, IfIndex port, Owner owner);
  bool matches(const BridgeDomain& domain, const Host& host) const;
  void recount(BridgeDomain& domain, Host& host);
  void deviceEntryIs(BridgeDomain& domain, Host& host, const FdbEntry& entry);
  void bridgeEntryIs(BridgeDomain& domain, Host& host, const FdbEntry& entry, bool dumped);
  bool workDeviceEntry(BridgeDomain& domain, Mac mac, Host& host, Batch& out);
  bool workBridgeEntry(BridgeDomain& domain, Mac mac, Host& host, Batch& out);
  void workUnwanted(BridgeDomain& domain, Mac mac, Host& host, Batch& out);
  void answeredAdd(BridgeDomain& domain, Host& host, const FdbEntry& entry);
  void eraseIfIdle(BridgeDomain& domain, Mac mac, Host& host);
  Target desiredTarget(const Host& host) const;

  const Options& options_;
  const Desired& desired_;
  const VniRenumbering& renumbering_;
  Observed& observed_;
  Nexthops& nexthops_;
  Work& work_;
};

}  // namespace Agent::Kernel
