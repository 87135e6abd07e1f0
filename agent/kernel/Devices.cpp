#include "agent/kernel/Devices.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "agent/kernel/Names.h"

namespace Agent::Kernel {

namespace {

Key keyOf(const BridgeDomain& domain) {
  return {Key::Kind::domain, domain.vlan, 0};
}
Key portKey(const BridgeDomain& domain, std::size_t at) {
  return {Key::Kind::port, domain.vlan, at};
}
Key linkKey(const BridgeDomain& domain, IfIndex index) {
  return {Key::Kind::link, domain.vlan, static_cast<std::uint64_t>(index)};
}

std::string lackingKind(LinkKind kind, std::string_view text) {
  bool bridge = kind == LinkKind::bridge;
  return std::string("the kernel has no ") + (bridge ? "bridges" : "VXLAN devices") + " (" +
         std::string(text) + "): its module " + (bridge ? "bridge" : "vxlan") + " is needed";
}

}  // namespace

void Devices::fail(const Key& key, std::string why) {
  work_.failures.waits(key, work_.now, options_.retryMost, std::move(why));
}

void Devices::mappingChanged(BridgeDomain& domain, const std::optional<Mapping>& before) {
  if (before) {
    const bool goes = !domain.mapped();
    if (goes || domain.desired.mapping->vni != before->vni) {
      work_.released.insert(domain.device);
    }
    if (goes) {
      work_.released.insert(domain.bridge);
    }
    unmapped(domain, *before);
  }
  work_.failures.cleared(keyOf(domain));
  work_.contention.wanted(keyOf(domain), domain.strife);
  domain.complete = false;
  work_.suspects.insert(domain.device);
  work_.queueAll(domain.vlan);
}

// Drops problems and marks devices that belong to the previous mapping.
void Devices::unmapped(BridgeDomain& domain, const Mapping& before) {
  for (std::size_t at = 0; at < before.ports.size(); ++at) {
    work_.failures.cleared(portKey(domain, at));
  }
  const std::set<IfIndex>& devices = observed_.links.ofVni(before.vni);
  work_.suspects.insert(devices.begin(), devices.end());
  suspectBridges(domain);
}

// The bridges that are, or could have become, the domain's.
void Devices::suspectBridges(const BridgeDomain& domain) {
  const std::set<IfIndex>& bridges = observed_.links.bridgesOf(domain.vlan);
  work_.suspects.insert(bridges.begin(), bridges.end());
  const Link* named = observed_.links.named(bridgeName(options_, domain.vlan));
  if (named != nullptr) {
    work_.suspects.insert(named->index);
  }
  work_.suspects.insert(domain.bridge);
}

void Devices::deviceIs(BridgeDomain& domain, IfIndex device, bool unread) {
  if (domain.device == device) {
    return;
  }
  observed_.deviceOf.erase(domain.device);
  if (device != 0) {
    auto [at, added] = observed_.deviceOf.try_emplace(device, domain.vlan);
    if (!added) {
      BridgeDomain* before = observed_.find(std::exchange(at->second, domain.vlan));
      before->deviceReplaced(0);
      work_.queueDevices(before->vlan);
      unread = true;
    }
  }
  leaveDevice(domain);
  if (device != 0) {
    renumbering_.begin(domain);
  }
  work_.suspects.insert(domain.device);
  domain.deviceReplaced(device);
  observed_.links.used(device);
  domain.deviceUnread = device != 0 && unread;
  if (domain.deviceUnread) {
    work_.auditWanted = true;
  }
  work_.queueAddresses(domain.vlan);
}

// The device's flood entries remain until it is deleted; they carry no ownership mark.
void Devices::leaveDevice(BridgeDomain& domain) {
  if (observed_.links.at(domain.device) == nullptr) {
    return;
  }
  auto& left = domain.leftBehind[domain.device];
  left.clear();
  observed_.mention(domain.device, domain.vlan);
  for (const auto& [mac, flood] : domain.floods) {
    if (flood.deviceLife != domain.deviceLife) {
      continue;
    }
    for (const auto& [dst, destination] : flood.actual) {
      if (destination.owner == Owner::ours) {
        left.emplace(mac, dst);
      }
    }
  }
}

// The entries that were in the bridge before are not in the one that it has now.
void Devices::bridgeIs(BridgeDomain& domain, IfIndex bridge) {
  if (domain.bridge == bridge) {
    return;
  }
  const auto before = observed_.bridgeOf.find(domain.bridge);
  if (before != observed_.bridgeOf.end() && before->second == domain.vlan) {
    observed_.bridgeOf.erase(before);
  }
  suspectBridges(domain);
  domain.bridgeReplaced(bridge);
  domain.bridgeUnread = bridge != 0 && !observed_.adopting && !observed_.links.fresh(bridge);
  if (domain.bridgeUnread) {
    work_.auditWanted = true;
  }
  if (bridge != 0) {
    observed_.bridgeOf[bridge] = domain.vlan;
    observed_.links.used(bridge);
  }
  work_.queueAddresses(domain.vlan);
}

const Link* Devices::device(const BridgeDomain& domain) const {
  return observed_.links.vxlan(domain.desired.mapping->vni, options_.udpPort);
}

// A foreign device stays in its bridge. Ours stays in the bridge that is in use, or joins our bridge for the
// VLAN even if that was renamed: a new bridge of the right name would have none of the entries.
const Link* Devices::bridge(const BridgeDomain& domain, const Link* device) const {
  const Link* master = device == nullptr ? nullptr : observed_.links.at(device->master);
  if (master != nullptr && master->kind == LinkKind::bridge &&
      (!observed_.links.ours(*device) || master->index == domain.bridge)) {
    return master;
  }
  const Link* current = observed_.links.at(domain.bridge);
  if (current != nullptr && observed_.links.ours(*current) && observed_.links.vlan(*current) == domain.vlan) {
    return current;
  }
  const Link* known = observed_.links.bridgeOf(domain.vlan);
  return known != nullptr ? known : observed_.links.named(bridgeName(options_, domain.vlan));
}

void Devices::work(BridgeDomain& domain, Batch& out) {
  if (!domain.mapped()) {
    freePorts(domain, out);
    return;
  }
  const Key key = keyOf(domain);
  const Failures::Failure* failure = work_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0 && failure->next > work_.now) {
    return;
  }
  const Link* device = this->device(domain);
  const Link* bridge = this->bridge(domain, device);
  if (bridge == nullptr) {
    bridgeIs(domain, 0);
    askBridge(domain, out);
    return;
  }
  if (bridge->kind != LinkKind::bridge) {
    fail(key, "the device " + bridge->name + " is in the way: it is not a bridge");
    return;
  }
  if (const std::optional<LinkSet> set = bridgeCorrection(domain, *bridge)) {
    correct(domain, *set, out);
    return;
  }
  bridgeIs(domain, bridge->index);
  workPorts(domain, *bridge, out);
  if (device == nullptr) {
    askDevice(domain, *bridge, out);
    return;
  }
  if (observed_.links.ours(*device) && device->master == bridge->index) {
    isolateOthers(*bridge, *device, out);
  }
  if (const std::optional<LinkSet> set = deviceCorrection(domain, *bridge, *device)) {
    correct(domain, *set, out);
    return;
  }
  deviceIs(domain, device->index, !observed_.links.fresh(device->index));
  domain.complete = true;
  std::string why = complaint(domain, *device);
  if (why.empty()) {
    work_.contention.cleared(key, domain.strife, work_.now);
  } else {
    fail(key, why);
  }
}

// Whether other programs have changed the domain's devices so often that they have to wait.
bool Devices::heldBack(BridgeDomain& domain) {
  return work_.contention.holdsBack(keyOf(domain), domain.strife, true, work_.now);
}

void Devices::askBridge(BridgeDomain& domain, Batch& out) {
  const std::string name = bridgeName(options_, domain.vlan);
  if (observed_.links.expected(name) || heldBack(domain)) {
    return;
  }
  out.add(keyOf(domain), LinkAdd{.name = name, .kind = LinkKind::bridge, .group = options_.birthGroup});
}

void Devices::askDevice(BridgeDomain& domain, const Link& bridge, Batch& out) {
  std::string name = deviceName(options_, domain.desired.mapping->vni);
  if (observed_.links.expected(name)) {
    return;
  }
  if (observed_.links.named(name) != nullptr) {
    fail(keyOf(domain), "the device " + name + " is in the way: it is not the VXLAN device of VNI " +
                            std::to_string(domain.desired.mapping->vni) + " at port " +
                            std::to_string(options_.udpPort));
    return;
  }
  if (heldBack(domain)) {
    return;
  }
  out.add(keyOf(domain), LinkAdd{.name = name,
                                 .kind = LinkKind::vxlan,
                                 .master = bridge.index,
                                 .vni = domain.desired.mapping->vni,
                                 .local = domain.desired.mapping->local,
                                 .port = options_.udpPort,
                                 .group = options_.birthGroup});
}

// If the devices were as desired before, another program has changed them; isolation of two devices of ours
// in a bridge is our own change.
void Devices::correct(BridgeDomain& domain, const LinkSet& set, Batch& out) {
  const bool byOther =
      set.alias || set.master || set.up || set.local || set.learning || set.portLearning || set.group;
  if (std::exchange(domain.complete, false) && byOther) {
    domain.strife.lost = true;
    ++work_.counters.repairs;
  }
  if (!heldBack(domain)) {
    out.add(keyOf(domain), set);
  }
}

std::optional<LinkSet> Devices::bridgeCorrection(const BridgeDomain& domain, const Link& bridge) const {
  if (!observed_.links.ours(bridge)) {
    return std::nullopt;
  }
  LinkSet set{.index = bridge.index, .kind = LinkKind::bridge};
  const std::string alias = observed_.links.alias(domain.vlan, "");
  if (bridge.alias != alias) {
    set.alias = alias;
  }
  if (!bridge.up) {
    set.up = true;
  }
  if (bridge.group == options_.birthGroup) {
    set.group = 0;
  }
  return set.alias || set.up || set.group ? std::optional(set) : std::nullopt;
}

// The other VXLAN devices of ours in the bridge, while a VNI is being replaced.
std::vector<const Link*> Devices::others(const Link& bridge, const Link& device) const {
  std::vector<const Link*> found;
  for (const IfIndex index : observed_.links.members(bridge.index)) {
    ++work_.counters.steps;
    const Link* link = observed_.links.at(index);
    if (index != device.index && link->kind == LinkKind::vxlan && observed_.links.ours(*link)) {
      found.push_back(link);
    }
  }
  return found;
}

// Nothing may pass from one of them to the other.
void Devices::isolateOthers(const Link& bridge, const Link& device, Batch& out) {
  for (const Link* other : others(bridge, device)) {
    if (!other->portIsolated) {
      const Vlan vlan = observed_.links.vlan(*other).value_or(0);
      out.add(Key{Key::Kind::link, vlan, static_cast<std::uint64_t>(other->index)},
              LinkSet{.index = other->index, .kind = LinkKind::vxlan, .portIsolated = true});
    }
  }
}

std::optional<LinkSet> Devices::deviceCorrection(const BridgeDomain& domain, const Link& bridge,
                                                 const Link& device) const {
  LinkSet set{.index = device.index, .kind = LinkKind::vxlan};
  const bool ours = observed_.links.ours(device);
  const Link* master = observed_.links.at(device.master);
  const bool free = device.master == 0 || (ours && (master == nullptr || observed_.links.ours(*master)));
  const bool inPlace = device.master == bridge.index;
  if (!inPlace && free) {
    set.master = bridge.index;
  }
  if (ours) {
    const std::string alias = observed_.links.alias(
        domain.vlan, " vni " + std::to_string(device.vni) + " " + domain.desired.mapping->vti);
    if (device.alias != alias) {
      set.alias = alias;
    }
    if (device.group == options_.birthGroup) {
      set.group = 0;
    }
    if (device.local != domain.desired.mapping->local) {
      set.local = domain.desired.mapping->local;
    }
    if (device.learning) {
      set.learning = false;
    }
  }
  // It is set up, and the port's own attributes can be set, once it is a port.
  if (ours && inPlace) {
    if (!device.up) {
      set.up = true;
    }
    if (device.portLearning) {
      set.portLearning = false;
    }
    const bool isolated = !others(bridge, device).empty();
    if (device.portIsolated != isolated) {
      set.portIsolated = isolated;
    }
  }
  const bool complete = !set.alias && !set.master && !set.up && !set.local && !set.learning &&
                        !set.portLearning && !set.portIsolated && !set.group;
  return complete ? std::nullopt : std::optional(set);
}

std::string Devices::complaint(const BridgeDomain& domain, const Link& device) const {
  bool ours = observed_.links.ours(device);
  std::string what;
  auto say = [&what](bool wrong, const std::string& text) {
    if (wrong) {
      what += (what.empty() ? "" : ", ") + text;
    }
  };
  say(!ours && device.local != domain.desired.mapping->local,
      "its local address is " + device.local.text() + " instead of " + domain.desired.mapping->local.text());
  say(!ours && device.learning, "it learns by itself");
  say(!ours && !device.up, "it is down");
  say(device.master != domain.bridge, "it is not in the bridge");
  if (what.empty()) {
    return {};
  }
  return "the device " + device.name +
         (ours ? " cannot be used: " : " was made by somebody else and is used as it is: ") + what;
}

void Devices::workPorts(BridgeDomain& domain, const Link& bridge, Batch& out) {
  for (std::size_t at = 0; at < domain.desired.mapping->ports.size(); ++at) {
    workPort(domain, bridge, at, out);
  }
  freePorts(domain, out);
}

void Devices::workPort(BridgeDomain& domain, const Link& bridge, std::size_t at, Batch& out) {
  const std::string& name = domain.desired.mapping->ports[at];
  Key key = portKey(domain, at);
  const Failures::Failure* failure = work_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0 && failure->next > work_.now) {
    return;
  }
  const Link* port = observed_.links.named(name);
  if (port == nullptr) {
    fail(key, "the port " + name + " does not exist");
    return;
  }
  if (port->master == bridge.index) {
    work_.failures.cleared(key);
    domain.enslaved.insert(port->index);
    observed_.mention(port->index, domain.vlan);
    return;
  }
  const Link* master = observed_.links.at(port->master);
  if (master != nullptr && !observed_.links.ours(*master)) {
    fail(key, "the port " + name + " belongs to " + master->name + ", which is not ours");
    return;
  }
  if (domain.enslaved.erase(port->index) != 0) {
    domain.strife.lost = true;
    ++work_.counters.repairs;
  }
  if (!heldBack(domain)) {
    out.add(key, LinkSet{.index = port->index, .kind = port->kind, .master = bridge.index});
  }
}

void Devices::freePorts(BridgeDomain& domain, Batch& out) {
  for (auto at = domain.enslaved.begin(); at != domain.enslaved.end();) {
    const Link* port = observed_.links.at(*at);
    auto wanted = [&] {
      const auto& ports = domain.desired.mapping->ports;
      return std::find(ports.begin(), ports.end(), port->name) != ports.end();
    };
    if (port != nullptr && domain.mapped() && wanted()) {
      ++at;
      continue;
    }
    if (port != nullptr && port->master != 0 && port->master == domain.bridge) {
      out.add(linkKey(domain, port->index), LinkSet{.index = port->index, .kind = port->kind, .master = 0});
    }
    at = domain.enslaved.erase(at);
  }
}

void Devices::answered(const Request& request, const Key& key, int error, std::string_view text) {
  if (std::holds_alternative<FdbDel>(request)) {
    return;  // Of a device that goes soon.
  }
  const auto* add = std::get_if<LinkAdd>(&request);
  if (error != 0) {
    bool lacking = add != nullptr && error == EOPNOTSUPP;
    work_.failures.failed(key, work_.now, lacking ? lackingKind(add->kind, text) : std::string(text));
    return;
  }
  if (add != nullptr) {
    observed_.links.made(add->name);
  } else if (const auto* set = std::get_if<LinkSet>(&request)) {
    observed_.links.applied(*set);
    work_.suspects.insert(set->index);
  }
  const Failures::Failure* failure = work_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0) {
    work_.failures.cleared(key);
  }
  if (observed_.find(key.vlan) != nullptr) {
    work_.queueDevices(key.vlan);
  }
}

bool Devices::differs(const BridgeDomain& domain) const {
  if (!domain.mapped()) {
    return false;
  }
  const Link* device = this->device(domain);
  const Link* bridge = this->bridge(domain, device);
  if (device == nullptr || bridge == nullptr || device->index != domain.device ||
      bridge->index != domain.bridge) {
    return true;
  }
  if (bridgeCorrection(domain, *bridge) || deviceCorrection(domain, *bridge, *device) ||
      !complaint(domain, *device).empty()) {
    return true;
  }
  return std::any_of(domain.desired.mapping->ports.begin(), domain.desired.mapping->ports.end(),
                     [&](const auto& name) {
                       const Link* port = observed_.links.named(name);
                       return port == nullptr || port->master != domain.bridge;
                     });
}

}  // namespace Agent::Kernel
