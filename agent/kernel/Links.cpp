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

bool Links::is(const Link& link, std::uint32_t dump) {
  seen_[link.index] = dump;
  auto there = links_.find(link.index);
  if (there != links_.end()) {
    if (fields(there->second) == fields(link)) return false;
    std::string name = there->second.name;
    auto owner = names_.find(name);
    if (owner != names_.end() && owner->second == link.index) names_.erase(owner);
  }
  if (expected_.erase(link.name) != 0) fresh_.insert(link.index);
  links_[link.index] = link;
  names_[link.name] = link.index;
  if (link.kind == LinkKind::vxlan) vnis_[link.vni].insert(link.index);
  return true;
}

void Links::del(IfIndex index) {
  auto there = links_.find(index);
  if (there == links_.end()) return;
  auto name = names_.find(there->second.name);
  if (name != names_.end() && name->second == index) names_.erase(name);
  auto vni = vnis_.find(there->second.vni);
  if (vni != vnis_.end()) vni->second.erase(index);
  links_.erase(there);
  fresh_.erase(index);
  seen_.erase(index);
}

const Link* Links::at(IfIndex index) const {
  auto there = links_.find(index);
  return there == links_.end() ? nullptr : &there->second;
}

const Link* Links::named(const std::string& name) const {
  auto there = names_.find(name);
  return there == names_.end() ? nullptr : at(there->second);
}

const Link* Links::vxlan(Vni vni, std::uint16_t port) const {
  auto there = vnis_.find(vni);
  if (there == vnis_.end()) return nullptr;
  const Link* best = nullptr;
  for (IfIndex index : there->second) {
    const Link* link = at(index);
    if (link == nullptr || link->port != port) continue;
    if (ours(*link)) return link;
    if (best == nullptr) best = link;
  }
  return best;
}

void Links::dumpEnds() {
  for (const std::string& name : overdue_) expected_.erase(name);
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
  if (link.group == birthGroup_ && link.kind != LinkKind::other) return true;
  return link.alias.size() > owner_.size() && link.alias.starts_with(owner_) &&
         link.alias[owner_.size()] == ':';
}

std::string Links::alias(Vlan vlan, const std::string& rest) const {
  return owner_ + ": vlan " + std::to_string(vlan) + rest;
}

std::optional<Vlan> Links::vlan(const Link& link) const {
  std::string before = owner_ + ": vlan ";
  if (!link.alias.starts_with(before)) return std::nullopt;
  Vlan vlan = 0;
  const char* end = link.alias.data() + link.alias.size();
  auto [stop, error] = std::from_chars(link.alias.data() + before.size(), end, vlan);
  if (error != std::errc{} || (stop != end && *stop != ' ')) return std::nullopt;
  return vlan;
}

void Links::applied(const LinkSet& change) {
  auto there = links_.find(change.index);
  if (there == links_.end()) return;
  Link& link = there->second;
  if (change.alias) link.alias = *change.alias;
  if (change.master) link.master = *change.master;
  if (change.up) link.up = *change.up;
  if (change.local) link.local = *change.local;
  if (change.learning) link.learning = *change.learning;
  if (change.portLearning) link.portLearning = *change.portLearning;
  if (change.group) link.group = *change.group;
  if (change.portIsolated) link.portIsolated = *change.portIsolated;
}

IfIndex Links::unseen(std::uint32_t dump) const {
  for (const auto& [index, last] : seen_) {
    if (last != dump) return index;
  }
  return 0;
}

}  // namespace Agent::Kernel
