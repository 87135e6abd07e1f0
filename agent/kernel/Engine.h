// Reconciles the kernel with the controller's desired state.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/kernel/Audit.h"
#include "agent/kernel/DeviceReports.h"
#include "agent/kernel/DeviceSweep.h"
#include "agent/kernel/Devices.h"
#include "agent/kernel/Floods.h"
#include "agent/kernel/Hosts.h"
#include "agent/kernel/Status.h"
#include "agent/kernel/VniRenumbering.h"

namespace Agent::Kernel {

// Reconciles the kernel's actual state with the desired state. Sans-io: it takes what is desired, what the
// kernel reports and the time, and gives batches of requests; it opens no socket and reads no clock.
//
// The caller's loop: say what time it is (`timeIs`); report everything that the kernel has to say (`linkIs`
// and so on) until there is nothing more; take a `batch`; send it; report each `answered`; begin again. No
// batch is taken while answers of the last are outstanding, except that of a dump, which ends with `dumpEnd`
// some rounds later. Because the kernel's reports are read to their end before each batch, the last report of
// an object is the truth.
//
//   Desired          what the controller wants             written by the Engine
//   Observed         what the kernel has                   written by those below
//   Work             what is to be done: queues, retries   written by all
//     Devices          bridges, VXLAN devices, ports         + VniRenumbering, DeviceReports, DeviceSweep
//     Nexthops         nexthop objects and groups
//     Hosts, Floods    FDB entries of unicast and of group addresses
//     Audit            compares all with the kernel
//     Status           counts and explains                   reads only
class Engine {
 public:
  explicit Engine(Options options);

  // The tunnel interface maps the VLAN to the VNI. `ports` join the VLAN's bridge. Replaces its earlier
  // mapping of the VLAN; a VLAN that had another VNI changes to this one. Several interfaces may map the
  // same VLAN to the same VNI and share its device.
  void vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports);
  // The tunnel interface maps the VLAN no longer. When none does any more, the VLAN's devices go as far as
  // they are ours.
  void vniDel(Vlan vlan, const std::string& vti);
  // The unicast address is behind the VTEP. A VLAN need not be mapped yet.
  void hostIs(Vlan vlan, Mac mac, Ip4 vtep);
  void hostDel(Vlan vlan, Mac mac);
  // Frames to the address go to all VTEPs or to any one of them; the all-zero address stands for
  // what has no FDB entry of its own. An empty list is as good as floodDel.
  void floodIs(Vlan vlan, Mac mac, FloodType type, std::vector<Ip4> vteps);
  void floodDel(Vlan vlan, Mac mac);
  // The initial sync is complete: everything that is wanted has been said. What an earlier run left beyond it
  // is stale and goes.
  void initialSyncComplete();

  // The time of the reports and batches that follow.
  void timeIs(Time now) { work_.now = now; }
  void linkIs(const Link& link);
  void linkDel(IfIndex index);
  void portIs(const BridgePort& port);
  void nexthopIs(const Nexthop& nexthop);
  void nexthopDel(NexthopId id);
  // `dumped`: the entry is part of a dump, not a report of a change.
  void entryIs(const FdbEntry& entry, bool dumped);
  void entryDel(const FdbEntry& entry);
  // The kernel could not deliver all its reports.
  void overrun();

  // The next requests; empty when there is nothing to do, or nothing before `nextWakeup`.
  const Batch& batch();
  // The kernel's answer to the batch's request number `at`: 0 or an errno, with the kernel's text if it has
  // one.
  void answered(std::size_t at, int error, std::string_view text);
  // The answers to the rest of the batch were lost.
  void answersLost();
  // The dump is complete; `whole` is false when the tables changed so that it has to be repeated.
  void dumpEnd(bool whole) { audit_.dumpEnd(whole); }
  void dumpFailed(int error, std::string_view text) { audit_.dumpFailed(error, text); }

  bool moreWork() const;
  // The time of the next thing to do by itself.
  Time nextWakeup() const;

  const Status& status() const { return status_; }
  const Desired& desired() const { return desired_; }
  const Observed& observed() const { return observed_; }
  const Counters& counters() const { return work_.counters; }
  // Whether the first comparison with the kernel is over.
  bool adopted() const { return !observed_.adopting; }
  // Whether all that is known of the kernel has been compared with it, and reported since.
  bool certain() const { return audit_.certain(); }
  // Domains and devices looked at because of reports, from the start on.
  std::uint64_t steps() const { return work_.counters.steps + observed_.links.visits(); }

 private:
  BridgeDomain& domain(Vlan vlan) { return observed_.domain(vlan, desired_.vlan(vlan)); }
  void mappingsChanged(const std::vector<Vlan>& vlans);
  void desiredChanged(Vlan vlan, Mac mac);
  void requeueDue();
  void requeue(const Key& key);
  void scanDomains();
  void workAddresses();
  void route(const Request& request, const Key& key, int error, std::string_view text);

  const Options options_;
  Desired desired_;
  Observed observed_;
  Work work_;
  Nexthops nexthops_;
  VniRenumbering renumbering_;
  DeviceSweep sweep_;
  Devices devices_;
  DeviceReports reports_;
  Hosts hosts_;
  Floods floods_;
  Audit audit_;
  Status status_;
  Batch batch_;
  std::size_t outstanding_ = 0;
  bool denied_ = false;  // The kernel refuses everything: the right to change it is missing.
};

}  // namespace Agent::Kernel
