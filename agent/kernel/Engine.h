#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/kernel/Devices.h"
#include "agent/kernel/Floods.h"
#include "agent/kernel/Hosts.h"
#include "agent/kernel/State.h"

namespace Agent::Kernel {

// How much of a kind is wanted, there, and other than wanted (missing, different, or ours and not wanted).
struct Tally {
  std::string kind;
  std::size_t wanted = 0;
  std::size_t there = 0;
  std::size_t differing = 0;  // Of those that are known.
  std::size_t unknown = 0;    // Wanted, and not compared with the kernel since there was reason to doubt it.
};

// An object that is not as it should be, and why.
struct Problem {
  std::string what;
  std::string why;
  unsigned attempts = 0;  // Refusals so far; 0 when it is not the kernel that refuses.
  Time next{};            // When it is tried again.
};

// What is known of an address: what is wanted, and what the kernel has acknowledged or reported.
struct Explanation {
  bool mapped = false;
  Vni vni = 0;
  std::string bridge;
  std::string device;
  IfIndex bridgeIndex = 0;
  IfIndex deviceIndex = 0;
  bool wanted = false;
  std::string wantedKind;  // "vtep", "any" or "all".
  std::vector<Ip4> wantedVteps;
  std::string deviceMark;  // "none", "ours", "foreign" or "learned".
  std::vector<Ip4> deviceVteps;
  NexthopId deviceNexthop = 0;
  std::string portMark;
  std::string port;
  bool differs = false;
  std::string problem;
};

// Brings the kernel to what is wanted. Sans-io: it takes what is wanted, what the kernel reports and the
// time, and gives batches of requests; it opens no socket and reads no clock.
//
// The turn of a caller: say what time it is (`timeIs`); report everything that the kernel has to say
// (`linkIs` and so on) until there is nothing more; take a `batch`; send it; report each `answered`; begin
// again. No batch is taken while answers of the last are outstanding, except that of a dump, which ends with
// `dumpEnd` some turns later. Because the kernel's reports are read to their end before each batch, the last
// report of an object is the truth.
//
// At the start, and when reports were lost (`overrun`) or auditEvery has passed, everything is dumped and
// compared; what was acknowledged or reported during the dump counts more than what the dump shows.
class Engine {
 public:
  explicit Engine(Options options);

  // The VNI is mapped to the VLAN. `ports` join the VLAN's bridge. Replaces the VNI's earlier mapping; a
  // VLAN that had another VNI changes to this one.
  void vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports);
  // The mapping goes, with its devices as far as they are ours.
  void vniDel(Vni vni);
  // The unicast address is behind the VTEP. A VLAN need not be mapped yet.
  void hostIs(Vlan vlan, Mac mac, Ip4 vtep);
  void hostDel(Vlan vlan, Mac mac);
  // What is sent to the address goes to all VTEPs or to any one of them; the all-zero address stands for
  // what has no row of its own. An empty list is as good as floodDel.
  void floodIs(Vlan vlan, Mac mac, FloodType type, std::vector<Ip4> vteps);
  void floodDel(Vlan vlan, Mac mac);
  // Everything that is wanted has been said: what is there of an earlier run beyond it is stale and goes.
  void settled();

  // The time of the reports and batches that follow.
  void timeIs(Time now) { state_.now = now; }
  void linkIs(const Link& link);
  void linkDel(IfIndex index);
  void portIs(const BridgePort& port);
  void nexthopIs(const Nexthop& nexthop);
  void nexthopDel(NexthopId id);
  // `dumped`: the row is part of a dump, not a report of a change.
  void rowIs(const Row& row, bool dumped);
  void rowDel(const Row& row);
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
  void dumpEnd(bool whole);
  void dumpFailed(int error, std::string_view text);

  bool moreWork() const;
  // The time of the next thing to do by itself.
  Time nextWakeup() const;

  std::vector<Tally> tallies() const;
  // At most `most` of them, and their number altogether.
  std::pair<std::vector<Problem>, std::size_t> problems(std::size_t most) const;
  Explanation explain(Vlan vlan, Mac mac) const;
  const Counters& counters() const { return state_.counters; }
  const Link* link(IfIndex index) const { return state_.links.at(index); }
  // Whether the first comparison with the kernel is over.
  bool adopted() const { return !state_.adopting; }
  // Whether all that is known of the kernel has been compared with it, and reported since.
  bool certain() const { return !state_.adopting && state_.doubts == resolved_; }
  // Domains and devices looked at because of reports, from the start on.
  std::uint64_t steps() const { return state_.steps + state_.links.visits(); }

 private:
  enum class Phase : std::uint8_t { idle, links, nexthops, rows, comparing };

  void requeueDue();
  void audit();
  void askDump(Dump::What what);
  void compare();
  std::size_t compare(Domain& domain, std::size_t most);
  void compareDone();
  void walkDomains();
  void workRows();
  void answeredRow(const Request& request, const Key& key, int error, std::string_view text);
  void domainChanged(Domain& domain);
  std::string what(const Key& key) const;
  Tally tallyDevices() const;
  void doubt(Tally& tally) const;
  void explainFlood(const Domain& domain, const Flood& flood, Explanation& out) const;
  void explainHost(const Domain& domain, const Host& host, Explanation& out) const;

  State state_;
  Hosts hosts_;
  Floods floods_;
  Devices devices_;
  std::map<Vni, Vlan> vnis_;
  Batch batch_;
  std::size_t outstanding_ = 0;
  Phase phase_ = Phase::idle;
  bool asked_ = false;  // The dump of this phase is under way.
  std::optional<std::pair<Vlan, Mac>> compareAt_;
  // A domain whose rows this dump tells first, with its device and bridge.
  struct Blind {
    Vlan vlan = 0;
    IfIndex device = 0;
    IfIndex bridge = 0;
  };
  std::vector<Blind> blind_;
  std::uint32_t auditDoubts_ = 0;  // State::doubts when the comparison began, and when the last one did.
  std::uint32_t resolved_ = 0;
  Time auditBegan_{};
  Time auditNext_{};
  Time auditNotBefore_{};
  bool denied_ = false;  // The kernel refuses everything: the right to change it is missing.
};

}  // namespace Agent::Kernel
