#include "agent/kernel/Links.h"

#include <charconv>
#include <tuple>

namespace Agent::Kernel {

namespace {

auto fields(const Link& link) {
  return std::tie(link.name, link.kind, link.alias, link.master, link.up, link.vni, link.local, link.port,
                  link.learning, link.portLearning, link.portIsolated, link.group);
}

}  // namespace

void Links::enter(const Link& link) {
  names_[link.name] = link.index;
  if (link.kind == LinkKind::vxlan) {
    vnis_[link.vni].insert(link.index);
  }
  if (link.master != 0) {
    members_[link.master].insert(link.index);
  }
  if (link.kind == LinkKind::other || !ours(link)) {
    return;
  }
  ours_.insert(link.index);
  const std::optional<Vlan> vlan = this->vlan(link);
  if (link.kind == LinkKind::bridge && vlan) {
    bridges_[*vlan].insert(link.index);
  }
}

void Links::leave(const Link& link) {
  // The name may have gone to another device by now.
  const auto name = names_.find(link.name);
  if (name != names_.end() && name->second == link.index) {
    names_.erase(name);
  }
  const auto drop = [&link](auto& index, const auto& key) {
    const auto at = index.find(key);
    if (at != index.end() && at->second.erase(link.index) != 0 && at->second.empty()) {
      index.erase(at);
    }
  };
  drop(vnis_, link.vni);
  drop(members_, link.master);
  ours_.erase(link.index);
  const std::optional<Vlan> vlan = this->vlan(link);
  if (vlan) {
    drop(bridges_, *vlan);
  }
}

bool Links::is(const Link& link, std::uint32_t dump) {
  seen_[link.index] = dump;
  const auto there = links_.find(link.index);
  if (there != links_.end()) {
    if (fields(there->second) == fields(link)) {
      return false;
    }
    leave(there->second);
  }
  if (expected_.erase(link.name) != 0) {
    fresh_.insert(link.index);
  }
  links_[link.index] = link;
  enter(link);
  return true;
}

bool Links::portIs(const BridgePort& port) {
  const auto there = links_.find(port.index);
  if (there == links_.end() || there->second.master != port.bridge) {
    return false;
  }
  Link& link = there->second;
  const bool same = link.portLearning == port.learning && link.portIsolated == port.isolated;
  link.portLearning = port.learning;
  link.portIsolated = port.isolated;
  return !same;
}

void Links::del(IfIndex index) {
  const auto there = links_.find(index);
  if (there == links_.end()) {
    return;
  }
  leave(there->second);
  links_.erase(there);
  fresh_.erase(index);
  seen_.erase(index);
}

const std::set<IfIndex>& Links::members(IfIndex master) const {
  static const std::set<IfIndex> none;
  const auto at = members_.find(master);
  return at == members_.end() ? none : at->second;
}

const std::set<IfIndex>& Links::ofVni(Vni vni) const {
  static const std::set<IfIndex> none;
  const auto at = vnis_.find(vni);
  return at == vnis_.end() ? none : at->second;
}

const std::set<IfIndex>& Links::bridgesOf(Vlan vlan) const {
  static const std::set<IfIndex> none;
  const auto at = bridges_.find(vlan);
  return at == bridges_.end() ? none : at->second;
}

const Link* Links::bridgeOf(Vlan vlan) const {
  const std::set<IfIndex>& bridges = bridgesOf(vlan);
  return bridges.empty() ? nullptr : at(*bridges.begin());
}

const Link* Links::at(IfIndex index) const {
  ++visits_;
  auto there = links_.find(index);
  return there == links_.end() ? nullptr : &there->second;
}

const Link* Links::named(const std::string& name) const {
  auto there = names_.find(name);
  return there == names_.end() ? nullptr : at(there->second);
}

const Link* Links::vxlan(Vni vni, std::uint16_t port) const {
  const Link* best = nullptr;
  for (const IfIndex index : ofVni(vni)) {
    const Link* link = at(index);
    if (link->port != port) {
      continue;
    }
    if (ours(*link)) {
      return link;
    }
    if (best == nullptr) {
      best = link;
    }
  }
  return best;
}

void Links::dumpEnds() {
  for (const std::string& name : overdue_) {
    expected_.erase(name);
  }
  overdue_.clear();
}

void Links::made(const std::string& name) {
  const Link* link = named(name);
  if (link != nullptr) {
    fresh_.insert(link->index);
  } else {
    expected_.insert(name);
  }
}

bool Links::ours(const Link& link) const {
  if (link.group == birthGroup_ && link.kind != LinkKind::other) {
    return true;
  }
  return link.alias.size() > owner_.size() && link.alias.starts_with(owner_) &&
         link.alias[owner_.size()] == ':';
}

std::string Links::alias(Vlan vlan, const std::string& rest) const {
  return owner_ + ": vlan " + std::to_string(vlan) + rest;
}

std::optional<Vlan> Links::vlan(const Link& link) const {
  std::string before = owner_ + ": vlan ";
  if (!link.alias.starts_with(before)) {
    return std::nullopt;
  }
  Vlan vlan = 0;
  const char* end = link.alias.data() + link.alias.size();
  auto [stop, error] = std::from_chars(link.alias.data() + before.size(), end, vlan);
  if (error != std::errc{} || (stop != end && *stop != ' ')) {
    return std::nullopt;
  }
  return vlan;
}

void Links::applied(const LinkSet& change) {
  auto there = links_.find(change.index);
  if (there == links_.end()) {
    return;
  }
  Link& link = there->second;
  leave(link);
  if (change.alias) {
    link.alias = *change.alias;
  }
  if (change.master) {
    link.master = *change.master;
  }
  if (change.up) {
    link.up = *change.up;
  }
  if (change.local) {
    link.local = *change.local;
  }
  if (change.learning) {
    link.learning = *change.learning;
  }
  if (change.portLearning) {
    link.portLearning = *change.portLearning;
  }
  if (change.group) {
    link.group = *change.group;
  }
  if (change.portIsolated) {
    link.portIsolated = *change.portIsolated;
  }
  enter(link);
}

std::vector<IfIndex> Links::unseen(std::uint32_t dump) const {
  std::vector<IfIndex> found;
  for (const auto& [index, last] : seen_) {
    ++visits_;
    if (last != dump) {
      found.push_back(index);
    }
  }
  return found;
}

}  // namespace Agent::Kernel
