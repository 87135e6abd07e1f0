#include "agent/kernel/DeviceSweep.h"

#include <algorithm>

#include "agent/kernel/Names.h"

namespace Agent::Kernel {

bool DeviceSweep::usedBy(const Link& link, Vlan vlan) const {
  ++work_.counters.steps;
  const BridgeDomain* domain = observed_.find(vlan);
  if (domain == nullptr || !domain->mapped()) {
    return false;
  }
  if (link.kind == LinkKind::vxlan) {
    return link.vni == domain->desired.mapping->vni;
  }
  return link.index == domain->bridge ||
         (domain->bridge == 0 && vlanOfBridgeName(options_, link.name) == vlan);
}

bool DeviceSweep::used(const Link& link) const {
  const std::optional<Vlan> vlan = observed_.links.vlan(link);
  if (vlan && usedBy(link, *vlan)) {
    return true;
  }
  // Its alias may be of another VLAN, or not there yet.
  const auto& users = link.kind == LinkKind::bridge ? observed_.bridgeOf : observed_.deviceOf;
  const auto user = users.find(link.index);
  if (user != users.end() && usedBy(link, user->second)) {
    return true;
  }
  if (vlan) {
    return false;
  }
  if (link.kind == LinkKind::bridge) {
    const std::optional<Vlan> named = vlanOfBridgeName(options_, link.name);
    return named && usedBy(link, *named);
  }
  return desired_.mappings.vlanOf(link.vni).has_value();
}

bool DeviceSweep::mayGo(const Link& link) const {
  if (!desired_.initialSyncComplete && !work_.released.contains(link.index)) {
    return false;
  }
  if (link.kind == LinkKind::bridge) {
    const std::set<IfIndex>& members = observed_.links.members(link.index);
    return std::none_of(members.begin(), members.end(), [&](IfIndex member) {
      ++work_.counters.steps;
      return observed_.links.ours(*observed_.links.at(member));
    });
  }
  const std::optional<Vlan> vlan = observed_.links.vlan(link);
  const BridgeDomain* user = vlan ? observed_.find(*vlan) : nullptr;
  if (user == nullptr || !user->mapped()) {
    return true;
  }
  if (renumbering_.oldDevice(*vlan) == link.index) {
    return false;
  }
  return user->ready() && user->device != link.index && work_.addressesDone(*vlan);
}

bool DeviceSweep::unwanted(IfIndex index) const {
  ++work_.counters.steps;
  const Link* link = observed_.links.at(index);
  return link != nullptr && link->kind != LinkKind::other && observed_.links.ours(*link) && !used(*link);
}

std::size_t DeviceSweep::stale() const {
  return static_cast<std::size_t>(std::count_if(work_.suspects.begin(), work_.suspects.end(),
                                                [this](IfIndex index) { return unwanted(index); }));
}

void DeviceSweep::suspectAll() {
  const std::set<IfIndex>& ours = observed_.links.ofOurs();
  work_.suspects.insert(ours.begin(), ours.end());
}

// Before the initial sync is complete, only what was withdrawn in this run is looked at.
void DeviceSweep::sweep(Batch& out) {
  const std::set<IfIndex>& candidates = desired_.initialSyncComplete ? work_.suspects : work_.released;
  for (auto at = candidates.begin(); at != candidates.end() && !out.full();) {
    const IfIndex index = *at++;
    if (!unwanted(index)) {
      work_.suspects.erase(index);
      continue;
    }
    const Link& link = *observed_.links.at(index);
    const Key key{Key::Kind::link, observed_.links.vlan(link).value_or(0), static_cast<std::uint64_t>(index)};
    if (mayGo(link) && !work_.failures.pausing(key, work_.now)) {
      out.add(key, LinkDel{index});
    }
  }
}

}  // namespace Agent::Kernel
