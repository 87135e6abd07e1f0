#pragma once

#include <string_view>

#include "agent/kernel/State.h"

namespace Agent::Kernel {

// Keeps the rows of group addresses in the VXLAN device's table; the bridge sends what is for them to all
// its ports without a row. A set of type all is a destination for each VTEP, added and deleted one by one; a
// set of type any is a nexthop group of its own, whose members are replaced in place. The kernel does not
// replace such a row, so that a change of type deletes and adds, in one batch.
//
// The switch's own address is left out of a set: the kernel would give what is sent there back to the
// bridge, and the sender would hear itself.
//
// A destination in the kernel has no place for a mark: it is ours if we added it in this run, or if it was
// there at the start and we keep a nexthop object for its VTEP.
class Floods {
 public:
  explicit Floods(State& state) : state_(state) {}

  void is(Domain& domain, Mac mac, FloodSet set);
  void del(Domain& domain, Mac mac);

  void rowIs(Domain& domain, const Row& row, bool dumped);
  void rowDel(Domain& domain, const Row& row);
  void dumped(Domain& domain, Mac mac);

  void work(Domain& domain, Mac mac, Batch& out);
  void answered(const Request& request, const Key& key, int error, std::string_view text);

  bool differs(const Domain& domain, const Flood& flood) const;

 private:
  Flood& flood(Domain& domain, Mac mac);
  void freshen(const Domain& domain, Flood& flood);
  void syncHeld(const Domain& domain, Flood& flood);
  void nexthopIs(Flood& flood, NexthopId id, Mark mark);
  bool oursFromBefore(const Domain& domain, Mac mac, Ip4 dst) const;
  bool leadsToAny(const Domain& domain, const Flood& flood) const;
  std::vector<Ip4> wantedAddresses(const Domain& domain, const Flood& flood) const;
  void changed(Domain& domain, Mac mac, Flood& flood, bool byOthers);
  void workAll(Domain& domain, Mac mac, Flood& flood, Batch& out);
  void workAny(Domain& domain, Mac mac, Flood& flood, Batch& out);
  void forget(Flood& flood, Ip4 dst);
  void removeDestinations(Domain& domain, Mac mac, const Flood& flood, Batch& out);
  void eraseIfIdle(Domain& domain, Mac mac, Flood& flood);

  State& state_;
};

}  // namespace Agent::Kernel
