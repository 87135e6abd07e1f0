#include <algorithm>

#include "agent/kernel/Devices.h"

// Devices of ours that nothing wants, and when they may go.
namespace Agent::Kernel {

bool Devices::used(const Link& link) const {
  const auto usedBy = [&](Vlan vlan) {
    ++state_.steps;
    const Domain* domain = state_.find(vlan);
    if (domain == nullptr || !domain->mapping) {
      return false;
    }
    if (link.kind == LinkKind::vxlan) {
      return link.vni == domain->mapping->vni;
    }
    return link.index == domain->bridge || (domain->bridge == 0 && vlanOfName(link.name) == vlan);
  };
  const std::optional<Vlan> vlan = state_.links.vlan(link);
  if (vlan && usedBy(*vlan)) {
    return true;
  }
  // Its alias may be of another VLAN, or not there yet.
  const auto& users = link.kind == LinkKind::bridge ? state_.bridgeOf : state_.deviceOf;
  const auto user = users.find(link.index);
  if (user != users.end() && usedBy(user->second)) {
    return true;
  }
  if (vlan) {
    return false;
  }
  if (link.kind == LinkKind::bridge) {
    const std::optional<Vlan> named = vlanOfName(link.name);
    return named && usedBy(*named);
  }
  return state_.vlanOf.contains(link.vni);
}

// A device may go when its VLAN's rows have been turned to another, a bridge when its devices have gone.
bool Devices::mayGo(const Link& link) const {
  if (!state_.settled && !state_.released.contains(link.index)) {
    return false;
  }
  if (link.kind == LinkKind::bridge) {
    const std::set<IfIndex>& members = state_.links.members(link.index);
    return std::none_of(members.begin(), members.end(), [&](IfIndex member) {
      ++state_.steps;
      return state_.links.ours(*state_.links.at(member));
    });
  }
  const std::optional<Vlan> vlan = state_.links.vlan(link);
  const Domain* user = vlan ? state_.find(*vlan) : nullptr;
  if (user == nullptr || !user->mapping) {
    return true;
  }
  if (user->turn && user->turn->previous == link.index) {
    return false;
  }
  return user->ready() && user->device != link.index && !user->walk && user->queuedRows == 0;
}

bool Devices::unwanted(IfIndex index) const {
  ++state_.steps;
  const Link* link = state_.links.at(index);
  return link != nullptr && link->kind != LinkKind::other && state_.links.ours(*link) && !used(*link);
}

std::size_t Devices::stale() const {
  return static_cast<std::size_t>(std::count_if(state_.suspects.begin(), state_.suspects.end(),
                                                [this](IfIndex index) { return unwanted(index); }));
}

void Devices::suspectAll() {
  const std::set<IfIndex>& ours = state_.links.ofOurs();
  state_.suspects.insert(ours.begin(), ours.end());
}

// Before all is said, only what was withdrawn in this run is looked at.
void Devices::sweep(Batch& out) {
  const std::set<IfIndex>& looked = state_.settled ? state_.suspects : state_.released;
  for (auto at = looked.begin(); at != looked.end() && !out.full();) {
    const IfIndex index = *at++;
    if (!unwanted(index)) {
      state_.suspects.erase(index);
      continue;
    }
    const Link& link = *state_.links.at(index);
    const Key key{Key::Kind::link, state_.links.vlan(link).value_or(0), static_cast<std::uint64_t>(index)};
    if (mayGo(link) && !state_.failures.pausing(key, state_.now)) {
      out.add(key, LinkDel{index});
    }
  }
}

}  // namespace Agent::Kernel
