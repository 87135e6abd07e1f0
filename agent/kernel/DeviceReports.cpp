#include <charconv>
#include <utility>

#include "agent/kernel/Devices.h"

// What the kernel reports of devices, and which domains look again at theirs because of it.
namespace Agent::Kernel {

// At the start: what the alias says belongs to a VLAN is its until a mapping says otherwise.
void Devices::adopt(const Link& link) {
  std::optional<Vlan> vlan = state_.links.vlan(link);
  if (!vlan) {
    return;
  }
  Domain& domain = state_.domain(*vlan);
  if (link.kind == LinkKind::bridge && domain.bridge == 0) {
    bridgeIs(domain, link.index);
  }
  if (link.kind == LinkKind::vxlan && domain.device == 0 &&
      (!domain.mapping || domain.mapping->vni == link.vni)) {
    deviceIs(domain, link.index, false);
  }
}

// The VLAN that a bridge of ours of this name is made for; none if it is no such name.
std::optional<Vlan> Devices::vlanOfName(const std::string& name) const {
  const std::string& prefix = state_.options.bridgePrefix;
  if (!name.starts_with(prefix)) {
    return std::nullopt;
  }
  Vlan vlan = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + prefix.size(), end, vlan);
  return error == std::errc{} && stop == end ? std::optional(vlan) : std::nullopt;
}

void Devices::requeue(Vlan vlan) {
  ++state_.steps;
  Domain* domain = state_.find(vlan);
  if (domain != nullptr) {
    state_.queue(*domain);
  }
}

void Devices::requeueVni(const Link& device) {
  const auto at = state_.vlanOf.find(device.vni);
  if (device.kind == LinkKind::vxlan && at != state_.vlanOf.end()) {
    requeue(at->second);
  }
}

// Looks again at the domains that use the device, or that have waited for one such.
void Devices::requeueUsers(const Link& link) {
  const auto requeueUser = [this](const std::map<IfIndex, Vlan>& users, IfIndex index) {
    const auto at = users.find(index);
    if (at != users.end()) {
      requeue(at->second);
    }
  };
  requeueUser(state_.deviceOf, link.index);
  requeueUser(state_.bridgeOf, link.index);
  requeueUser(state_.bridgeOf, link.master);
  requeueVni(link);
  for (const IfIndex member : state_.links.members(link.index)) {
    requeueVni(*state_.links.at(member));
  }
  for (const std::optional<Vlan>& vlan : {vlanOfName(link.name), state_.links.vlan(link)}) {
    if (vlan) {
      requeue(*vlan);
    }
  }
  const auto users = state_.portUsers.find(link.name);
  if (users != state_.portUsers.end()) {
    for (const Vlan vlan : users->second) {
      requeue(vlan);
    }
  }
}

void Devices::linkIs(const Link& link) {
  const Link* there = state_.links.at(link.index);
  const std::optional<Link> before = there == nullptr ? std::nullopt : std::optional(*there);
  if (!state_.links.is(link, state_.dump)) {
    return;
  }
  if (state_.adopting) {
    adopt(link);
  }
  if (state_.links.ours(link)) {
    state_.suspects.insert(link.index);
  }
  if (before) {
    requeueUsers(*before);
  }
  requeueUsers(link);
}

void Devices::portIs(const BridgePort& port) {
  if (state_.links.portIs(port)) {
    requeueUsers(*state_.links.at(port.index));
  }
}

void Devices::linkDel(IfIndex index) {
  const Link* there = state_.links.at(index);
  if (there == nullptr) {
    return;
  }
  const Link link = *there;
  state_.links.del(index);
  state_.released.erase(index);
  state_.suspects.erase(index);
  const auto device = state_.deviceOf.find(index);
  if (device != state_.deviceOf.end()) {
    Domain& domain = *state_.find(device->second);
    lost(domain);
    deviceIs(domain, 0, false);
    state_.queue(domain);
  }
  const auto bridge = state_.bridgeOf.find(index);
  if (bridge != state_.bridgeOf.end()) {
    Domain& domain = *state_.find(bridge->second);
    lost(domain);
    domain.enslaved.clear();
    bridgeIs(domain, 0);
    state_.queue(domain);
  }
  forget(index);
  // A bridge goes when its devices have gone.
  state_.suspects.insert(link.master);
  requeueUsers(link);
}

// Somebody else has deleted a device of the domain.
void Devices::lost(Domain& domain) {
  if (!domain.mapping) {
    return;
  }
  ++state_.counters.repairs;
  domain.strife.lost = true;
  domain.complete = false;
}

// The device has gone: no domain names it any more.
void Devices::forget(IfIndex index) {
  const auto mentions = state_.mentions.find(index);
  if (mentions == state_.mentions.end()) {
    return;
  }
  for (const Vlan vlan : mentions->second) {
    ++state_.steps;
    Domain& domain = *state_.find(vlan);
    domain.enslaved.erase(index);
    domain.left.erase(index);
    if (domain.turn && domain.turn->previous == index) {
      domain.turn.reset();
      state_.turns.erase(vlan);
      state_.walk(domain);
    }
  }
  state_.mentions.erase(mentions);
}

}  // namespace Agent::Kernel
