#include "agent/kernel/DeviceReports.h"

#include "agent/kernel/Names.h"

namespace Agent::Kernel {

// At the start a device belongs to the VLAN in its alias, until a mapping says otherwise.
void DeviceReports::adopt(const Link& link) {
  const std::optional<Vlan> vlan = observed_.links.vlan(link);
  if (!vlan) {
    return;
  }
  BridgeDomain& domain = observed_.domain(*vlan, desired_.vlan(*vlan));
  if (link.kind == LinkKind::bridge && domain.bridge == 0) {
    devices_.bridgeIs(domain, link.index);
  }
  if (link.kind == LinkKind::vxlan && domain.device == 0 &&
      (!domain.mapped() || domain.desired.mapping->vni == link.vni)) {
    devices_.deviceIs(domain, link.index, false);
  }
}

void DeviceReports::requeue(Vlan vlan) {
  ++work_.counters.steps;
  if (observed_.find(vlan) != nullptr) {
    work_.queueDevices(vlan);
  }
}

void DeviceReports::requeueVni(const Link& device) {
  if (device.kind != LinkKind::vxlan) {
    return;
  }
  if (const std::optional<Vlan> vlan = desired_.mappings.vlanOf(device.vni)) {
    requeue(*vlan);
  }
}

void DeviceReports::requeueUsers(const Link& link) {
  const auto requeueUser = [this](const std::map<IfIndex, Vlan>& users, IfIndex index) {
    const auto at = users.find(index);
    if (at != users.end()) {
      requeue(at->second);
    }
  };
  requeueUser(observed_.deviceOf, link.index);
  requeueUser(observed_.bridgeOf, link.index);
  requeueUser(observed_.bridgeOf, link.master);
  requeueVni(link);
  for (const IfIndex member : observed_.links.members(link.index)) {
    requeueVni(*observed_.links.at(member));
  }
  for (const std::optional<Vlan>& vlan :
       {vlanOfBridgeName(options_, link.name), observed_.links.vlan(link)}) {
    if (vlan) {
      requeue(*vlan);
    }
  }
  for (const Vlan vlan : desired_.mappings.usersOf(link.name)) {
    requeue(vlan);
  }
}

void DeviceReports::linkIs(const Link& link) {
  const Link* known = observed_.links.at(link.index);
  const std::optional<Link> before = known == nullptr ? std::nullopt : std::optional(*known);
  if (!observed_.links.is(link, observed_.dump)) {
    return;
  }
  if (observed_.adopting) {
    adopt(link);
  }
  if (observed_.links.ours(link)) {
    work_.suspects.insert(link.index);
  }
  if (before) {
    requeueUsers(*before);
  }
  requeueUsers(link);
}

void DeviceReports::portIs(const BridgePort& port) {
  if (observed_.links.portIs(port)) {
    requeueUsers(*observed_.links.at(port.index));
  }
}

void DeviceReports::linkDel(IfIndex index) {
  const Link* known = observed_.links.at(index);
  if (known == nullptr) {
    return;
  }
  const Link link = *known;
  observed_.links.del(index);
  work_.released.erase(index);
  work_.suspects.erase(index);
  const auto device = observed_.deviceOf.find(index);
  if (device != observed_.deviceOf.end()) {
    BridgeDomain& domain = *observed_.find(device->second);
    lost(domain);
    devices_.deviceIs(domain, 0, false);
    work_.queueDevices(domain.vlan);
  }
  const auto bridge = observed_.bridgeOf.find(index);
  if (bridge != observed_.bridgeOf.end()) {
    BridgeDomain& domain = *observed_.find(bridge->second);
    lost(domain);
    domain.enslaved.clear();
    devices_.bridgeIs(domain, 0);
    work_.queueDevices(domain.vlan);
  }
  forget(index);
  // A bridge goes when its devices have gone.
  work_.suspects.insert(link.master);
  requeueUsers(link);
}

// Another program has deleted a device of the domain.
void DeviceReports::lost(BridgeDomain& domain) {
  if (!domain.mapped()) {
    return;
  }
  ++work_.counters.repairs;
  domain.strife.lost = true;
  domain.complete = false;
}

// The device has gone: no domain names it any more.
void DeviceReports::forget(IfIndex index) {
  const auto mentions = observed_.mentions.find(index);
  if (mentions == observed_.mentions.end()) {
    return;
  }
  for (const Vlan vlan : mentions->second) {
    ++work_.counters.steps;
    BridgeDomain& domain = *observed_.find(vlan);
    domain.enslaved.erase(index);
    domain.leftBehind.erase(index);
    renumbering_.deviceGone(vlan, index);
  }
  observed_.mentions.erase(mentions);
}

}  // namespace Agent::Kernel
