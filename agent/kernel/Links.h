#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/kernel/Messages.h"

namespace Agent::Kernel {

// The network devices, as the kernel last described them. Ours carry an alias that begins with the
// owner's name and contains the VLAN, so that they are recognised after a restart: "vxlan-agent: vlan 10";
// until they have it they are in the birth group.
class Links {
 public:
  Links(std::string owner, std::uint32_t birthGroup) : owner_(std::move(owner)), birthGroup_(birthGroup) {}

  // Takes the kernel's description; returns whether anything of it is new.
  bool is(const Link& link, std::uint32_t dump);
  void del(IfIndex index);
  // Takes a bridge's description of its port; returns whether anything of it is new.
  bool portIs(const BridgePort& port);
  // We have made a device of this name.
  void made(const std::string& name);
  // Whether a device of this name was made and has not been described yet.
  bool expected(const std::string& name) const { return expected_.contains(name); }
  // Whether we made it in this run and have not used it yet: it has no FDB entries.
  bool fresh(IfIndex index) const { return fresh_.contains(index); }
  // It is in use from now on: it may contain entries unknown to its next user.
  void used(IfIndex index) { fresh_.erase(index); }
  // A link that was expected at `dumpBegins` and not described by `dumpEnds` has gone again.
  void dumpBegins() { overdue_ = expected_; }
  void dumpEnds();
  const Link* at(IfIndex index) const;
  const Link* named(const std::string& name) const;
  // The VXLAN device of this VNI and UDP port: ours before others, then the lowest index; null if none.
  const Link* vxlan(Vni vni, std::uint16_t port) const;
  bool ours(const Link& link) const;
  // The VLAN that the alias of a device of ours names.
  std::optional<Vlan> vlan(const Link& link) const;
  // The alias for a device of ours; `rest` says more to a human reader.
  std::string alias(Vlan vlan, const std::string& rest) const;
  // Applies an acknowledged change.
  void applied(const LinkSet& change);
  // The devices that were described neither by dump number `dump` nor since.
  std::vector<IfIndex> unseen(std::uint32_t dump) const;
  // The devices whose master this is.
  const std::set<IfIndex>& members(IfIndex master) const;
  // The VXLAN devices of this VNI.
  const std::set<IfIndex>& ofVni(Vni vni) const;
  // The bridge of ours for the VLAN, whatever its name is by now: the lowest index; null if none.
  const Link* bridgeOf(Vlan vlan) const;
  // All bridges of ours for the VLAN.
  const std::set<IfIndex>& bridgesOf(Vlan vlan) const;
  // The bridges and VXLAN devices of ours.
  const std::set<IfIndex>& ofOurs() const { return ours_; }
  // How many devices have been looked at, from the start on.
  std::uint64_t visits() const { return visits_; }

 private:
  void enter(const Link& link);
  void leave(const Link& link);

  std::string owner_;
  std::uint32_t birthGroup_;
  std::map<IfIndex, Link> links_;
  std::map<IfIndex, std::uint32_t> seen_;
  std::set<std::string> expected_;
  std::set<std::string> overdue_;
  std::set<IfIndex> fresh_;
  // Each of these follows links_: enter() and leave() alone change them.
  std::map<std::string, IfIndex> names_;
  std::map<Vni, std::set<IfIndex>> vnis_;
  std::map<IfIndex, std::set<IfIndex>> members_;
  std::map<Vlan, std::set<IfIndex>> bridges_;
  std::set<IfIndex> ours_;
  mutable std::uint64_t visits_ = 0;
};

}  // namespace Agent::Kernel
