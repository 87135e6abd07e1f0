#pragma once

#include <string_view>

#include "agent/kernel/State.h"

namespace Agent::Kernel {

// Keeps the rows of unicast addresses: in the VXLAN device's table the way to the VTEP, in the bridge's
// table the way to the VXLAN device. A row is replaced in place; only one that leads to an address (from a
// run without nexthop groups) and is to lead to a group, or the other way round, is deleted and added, both
// in one batch.
//
// A host that the bridge learned at a local port after our row was there has moved here: it is left there
// until the controller says something new of it, at most for Options::yieldFor.
class Hosts {
 public:
  explicit Hosts(State& state) : state_(state) {}

  void is(Domain& domain, Mac mac, Ip4 vtep);
  void del(Domain& domain, Mac mac);
  void setIs(Domain& domain, Mac mac, FloodSet set);
  void setDel(Domain& domain, Mac mac);
  // The switch's own address has changed, which is left out of sets.
  void localIs(Domain& domain);

  // The kernel reports a row; `dumped`: as part of a dump, thus maybe older than what is known.
  void rowIs(Domain& domain, const Row& row, bool dumped);
  void rowDel(Domain& domain, const Row& row);
  // A dump is complete: rows that it did not show and that nothing changed meanwhile are gone.
  void dumped(Domain& domain, Mac mac);

  // Asks for what is missing at this address.
  void work(Domain& domain, Mac mac, Batch& out);
  void answered(const Request& request, const Key& key, int error, std::string_view text);

  // Whether what is wanted is there, for a host that is wanted; or nothing of ours, for one that is not.
  bool differs(const Domain& domain, const Host& host) const;
  // Forgets what was known of an earlier device.
  void freshen(const Domain& domain, Host& host);

 private:
  Host& host(Domain& domain, Mac mac);
  void wish(Domain& domain, Mac mac, Host& host);
  void there(Host& host, Target target, Mark mark);
  void deviceRowIs(Domain& domain, Host& host, const Row& row);
  void bridgeRowIs(Domain& domain, Host& host, const Row& row, bool dumped);
  bool workDeviceRow(Domain& domain, Mac mac, Host& host, Batch& out);
  bool workBridgeRow(Domain& domain, Mac mac, Host& host, Batch& out);
  void workUnwanted(Domain& domain, Mac mac, Host& host, Batch& out);
  void answeredAdd(Domain& domain, Host& host, const Row& row);
  void eraseIfIdle(Domain& domain, Mac mac, Host& host);
  Target wantedTarget(const Host& host) const;

  State& state_;
};

}  // namespace Agent::Kernel
