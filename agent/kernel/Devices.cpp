#include "agent/kernel/Devices.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

Key keyOf(const Domain& domain) {
  return {Key::Kind::domain, domain.vlan, 0};
}
Key portKey(const Domain& domain, std::size_t at) {
  return {Key::Kind::port, domain.vlan, at};
}
Key linkKey(const Domain& domain, IfIndex index) {
  return {Key::Kind::link, domain.vlan, static_cast<std::uint64_t>(index)};
}

std::string lackingKind(LinkKind kind, std::string_view text) {
  bool bridge = kind == LinkKind::bridge;
  return std::string("the kernel has no ") + (bridge ? "bridges" : "VXLAN devices") + " (" +
         std::string(text) + "): its module " + (bridge ? "bridge" : "vxlan") + " is needed";
}

}  // namespace

void Devices::fail(const Key& key, std::string why) {
  state_.failures.waits(key, state_.now, state_.options.retryMost, std::move(why));
}

void Devices::is(Vlan vlan, const Mapping& mapping) {
  Domain& domain = state_.domain(vlan);
  if (domain.mapping == mapping) {
    return;
  }
  if (domain.mapping) {
    if (domain.mapping->vni != mapping.vni) {
      state_.released.insert(domain.device);
    }
    unmap(domain);
  }
  domain.mapping = mapping;
  state_.vlanOf[mapping.vni] = vlan;
  for (const std::string& port : mapping.ports) {
    state_.portUsers[port].insert(vlan);
  }
  mappingChanged(domain);
}

void Devices::del(Vlan vlan) {
  Domain* domain = state_.find(vlan);
  if (domain == nullptr || !domain->mapping) {
    return;
  }
  unmap(*domain);
  state_.released.insert(domain->device);
  state_.released.insert(domain->bridge);
  mappingChanged(*domain);
}

// Forgets what is known of the domain by its mapping.
void Devices::unmap(Domain& domain) {
  const Mapping& mapping = *domain.mapping;
  for (std::size_t at = 0; at < mapping.ports.size(); ++at) {
    state_.failures.cleared(portKey(domain, at));
    const auto users = state_.portUsers.find(mapping.ports[at]);
    if (users != state_.portUsers.end() && users->second.erase(domain.vlan) != 0 && users->second.empty()) {
      state_.portUsers.erase(users);
    }
  }
  const auto user = state_.vlanOf.find(mapping.vni);
  if (user != state_.vlanOf.end() && user->second == domain.vlan) {
    state_.vlanOf.erase(user);
  }
  const std::set<IfIndex>& devices = state_.links.ofVni(mapping.vni);
  state_.suspects.insert(devices.begin(), devices.end());
  suspectBridges(domain);
  domain.mapping.reset();
}

// The bridges that are, or could have become, the domain's.
void Devices::suspectBridges(const Domain& domain) {
  const std::set<IfIndex>& bridges = state_.links.bridgesOf(domain.vlan);
  state_.suspects.insert(bridges.begin(), bridges.end());
  const Link* named = state_.links.named(state_.options.bridgePrefix + std::to_string(domain.vlan));
  if (named != nullptr) {
    state_.suspects.insert(named->index);
  }
  state_.suspects.insert(domain.bridge);
}

void Devices::mappingChanged(Domain& domain) {
  state_.failures.cleared(keyOf(domain));
  state_.contention.wanted(keyOf(domain), domain.strife);
  domain.complete = false;
  state_.suspects.insert(domain.device);
  state_.queue(domain);
  state_.walk(domain);
}

void Devices::deviceIs(Domain& domain, IfIndex device, bool blind) {
  if (domain.device == device) {
    return;
  }
  state_.deviceOf.erase(domain.device);
  if (device != 0) {
    auto [at, added] = state_.deviceOf.try_emplace(device, domain.vlan);
    if (!added) {
      Domain* before = state_.find(std::exchange(at->second, domain.vlan));
      before->device = 0;
      ++before->deviceLife;
      state_.queue(*before);
      blind = true;
    }
  }
  leaveDevice(domain);
  if (device != 0) {
    beginTurn(domain);
  }
  state_.suspects.insert(domain.device);
  domain.device = device;
  state_.links.used(device);
  ++domain.deviceLife;
  domain.blind = device != 0 && blind;
  if (domain.blind) {
    state_.auditWanted = true;
  }
  state_.walk(domain);
}

// Its flood rows stay until it goes, and bear no mark.
void Devices::leaveDevice(Domain& domain) {
  if (state_.links.at(domain.device) == nullptr) {
    return;
  }
  auto& left = domain.left[domain.device];
  left.clear();
  state_.mention(domain.device, domain.vlan);
  for (const auto& [mac, flood] : domain.floods) {
    if (flood.deviceLife != domain.deviceLife) {
      continue;
    }
    for (const auto& [dst, destination] : flood.there) {
      if (destination.mark == Mark::ours) {
        left.emplace(mac, dst);
      }
    }
  }
}

void Devices::beginTurn(Domain& domain) {
  const Link* previous = state_.links.at(domain.device);
  if (previous == nullptr || !state_.links.ours(*previous) || previous->master != domain.bridge) {
    return;
  }
  domain.turn = Turn{domain.device, state_.now + state_.options.renumberPause};
  state_.turns.insert(domain.vlan);
  state_.mention(domain.device, domain.vlan);
}

void Devices::step(Domain& domain, Batch& out) {
  Turn& turn = *domain.turn;
  if (turn.turned && !turn.silenced && !domain.walk && domain.queuedRows == 0) {
    turn.silenced = true;
    for (const auto& [mac, flood] : domain.floods) {
      out.add(linkKey(domain, turn.previous),
              RowDel{{Table::device, turn.previous, 0, mac, {}, 0, false, false}});
    }
  }
  if (state_.now < turn.next) {
    return;
  }
  turn.next = state_.now + state_.options.renumberPause;
  if (!turn.turned) {
    turn.turned = domain.ready();
    state_.walk(domain);
  } else if (turn.silenced) {
    state_.suspects.insert(turn.previous);
    domain.turn.reset();
    state_.turns.erase(domain.vlan);
  }
}

void Devices::turn(Batch& out) {
  std::vector<Vlan> vlans(state_.turns.begin(), state_.turns.end());
  for (Vlan vlan : vlans) {
    step(*state_.find(vlan), out);
  }
}

Time Devices::nextTurn() const {
  Time next = Time::max();
  for (Vlan vlan : state_.turns) {
    const Turn& turn = *state_.find(vlan)->turn;
    next = std::min(next, turn.turned && !turn.silenced ? state_.now : turn.next);
  }
  return next;
}

// The rows that were in the bridge before are not in the one that it has now.
void Devices::bridgeIs(Domain& domain, IfIndex bridge) {
  if (domain.bridge == bridge) {
    return;
  }
  const auto before = state_.bridgeOf.find(domain.bridge);
  if (before != state_.bridgeOf.end() && before->second == domain.vlan) {
    state_.bridgeOf.erase(before);
  }
  suspectBridges(domain);
  domain.bridge = bridge;
  ++domain.bridgeLife;
  domain.bridgeBlind = bridge != 0 && !state_.adopting && !state_.links.fresh(bridge);
  if (domain.bridgeBlind) {
    state_.auditWanted = true;
  }
  if (bridge != 0) {
    state_.bridgeOf[bridge] = domain.vlan;
    state_.links.used(bridge);
  }
  state_.walk(domain);
}

const Link* Devices::device(const Domain& domain) const {
  return state_.links.vxlan(domain.mapping->vni, state_.options.udpPort);
}

// Somebody else's device stays in its bridge. Ours stays in the bridge that is in use, or comes into that of
// ours for the VLAN, whatever its name is by now: a new one of the right name would have none of the rows.
const Link* Devices::bridge(const Domain& domain, const Link* device) const {
  const Link* master = device == nullptr ? nullptr : state_.links.at(device->master);
  if (master != nullptr && master->kind == LinkKind::bridge &&
      (!state_.links.ours(*device) || master->index == domain.bridge)) {
    return master;
  }
  const Link* current = state_.links.at(domain.bridge);
  if (current != nullptr && state_.links.ours(*current) && state_.links.vlan(*current) == domain.vlan) {
    return current;
  }
  const Link* known = state_.links.bridgeOf(domain.vlan);
  return known != nullptr ? known
                          : state_.links.named(state_.options.bridgePrefix + std::to_string(domain.vlan));
}

void Devices::work(Domain& domain, Batch& out) {
  domain.queued = false;
  if (!domain.mapping) {
    freePorts(domain, out);
    return;
  }
  const Key key = keyOf(domain);
  const Failures::Failure* failure = state_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0 && failure->next > state_.now) {
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
  if (state_.links.ours(*device) && device->master == bridge->index) {
    isolateOthers(*bridge, *device, out);
  }
  if (const std::optional<LinkSet> set = deviceCorrection(domain, *bridge, *device)) {
    correct(domain, *set, out);
    return;
  }
  deviceIs(domain, device->index, !state_.links.fresh(device->index));
  domain.complete = true;
  std::string why = complaint(domain, *device);
  if (why.empty()) {
    state_.contention.cleared(key, domain.strife, state_.now);
  } else {
    fail(key, why);
  }
}

// Whether somebody else has changed the domain's devices so often that they have to wait.
bool Devices::heldBack(Domain& domain) {
  return state_.contention.holdsBack(keyOf(domain), domain.strife, true, state_.now);
}

void Devices::askBridge(Domain& domain, Batch& out) {
  const std::string name = state_.options.bridgePrefix + std::to_string(domain.vlan);
  if (state_.links.expected(name) || heldBack(domain)) {
    return;
  }
  out.add(keyOf(domain), LinkAdd{name, LinkKind::bridge, 0, 0, {}, 0, state_.options.birthGroup});
}

void Devices::askDevice(Domain& domain, const Link& bridge, Batch& out) {
  std::string name = state_.options.devicePrefix + std::to_string(domain.mapping->vni);
  if (state_.links.expected(name)) {
    return;
  }
  if (state_.links.named(name) != nullptr) {
    fail(keyOf(domain), "the device " + name + " is in the way: it is not the VXLAN device of VNI " +
                            std::to_string(domain.mapping->vni) + " at port " +
                            std::to_string(state_.options.udpPort));
    return;
  }
  if (heldBack(domain)) {
    return;
  }
  out.add(keyOf(domain), LinkAdd{name, LinkKind::vxlan, bridge.index, domain.mapping->vni,
                                 domain.mapping->local, state_.options.udpPort, state_.options.birthGroup});
}

// Where the devices were as wanted before, somebody else has changed them; that two devices of ours in a
// bridge are isolated is our own doing.
void Devices::correct(Domain& domain, const LinkSet& set, Batch& out) {
  const bool byOther =
      set.alias || set.master || set.up || set.local || set.learning || set.portLearning || set.group;
  if (std::exchange(domain.complete, false) && byOther) {
    domain.strife.lost = true;
    ++state_.counters.repairs;
  }
  if (!heldBack(domain)) {
    out.add(keyOf(domain), set);
  }
}

std::optional<LinkSet> Devices::bridgeCorrection(const Domain& domain, const Link& bridge) const {
  if (!state_.links.ours(bridge)) {
    return std::nullopt;
  }
  LinkSet set{bridge.index, LinkKind::bridge, {}, {}, {}, {}, {}, {}, {}, {}};
  const std::string alias = state_.links.alias(domain.vlan, "");
  if (bridge.alias != alias) {
    set.alias = alias;
  }
  if (!bridge.up) {
    set.up = true;
  }
  if (bridge.group == state_.options.birthGroup) {
    set.group = 0;
  }
  return set.alias || set.up || set.group ? std::optional(set) : std::nullopt;
}

// The other VXLAN devices of ours in the bridge, while a VNI is being replaced.
std::vector<const Link*> Devices::others(const Link& bridge, const Link& device) const {
  std::vector<const Link*> found;
  for (const IfIndex index : state_.links.members(bridge.index)) {
    ++state_.steps;
    const Link* link = state_.links.at(index);
    if (index != device.index && link->kind == LinkKind::vxlan && state_.links.ours(*link)) {
      found.push_back(link);
    }
  }
  return found;
}

// Nothing may pass from one of them to the other.
void Devices::isolateOthers(const Link& bridge, const Link& device, Batch& out) {
  for (const Link* other : others(bridge, device)) {
    if (!other->portIsolated) {
      const Vlan vlan = state_.links.vlan(*other).value_or(0);
      out.add(Key{Key::Kind::link, vlan, static_cast<std::uint64_t>(other->index)},
              LinkSet{other->index, LinkKind::vxlan, {}, {}, {}, {}, {}, {}, true, {}});
    }
  }
}

std::optional<LinkSet> Devices::deviceCorrection(const Domain& domain, const Link& bridge,
                                                 const Link& device) const {
  LinkSet set{device.index, LinkKind::vxlan, {}, {}, {}, {}, {}, {}, {}, {}};
  const bool ours = state_.links.ours(device);
  const Link* master = state_.links.at(device.master);
  const bool free = device.master == 0 || (ours && (master == nullptr || state_.links.ours(*master)));
  const bool inPlace = device.master == bridge.index;
  if (!inPlace && free) {
    set.master = bridge.index;
  }
  if (ours) {
    const std::string alias =
        state_.links.alias(domain.vlan, " vni " + std::to_string(device.vni) + " " + domain.mapping->vti);
    if (device.alias != alias) {
      set.alias = alias;
    }
    if (device.group == state_.options.birthGroup) {
      set.group = 0;
    }
    if (device.local != domain.mapping->local) {
      set.local = domain.mapping->local;
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

std::string Devices::complaint(const Domain& domain, const Link& device) const {
  bool ours = state_.links.ours(device);
  std::string what;
  auto say = [&what](bool wrong, const std::string& text) {
    if (wrong) {
      what += (what.empty() ? "" : ", ") + text;
    }
  };
  say(!ours && device.local != domain.mapping->local,
      "its local address is " + device.local.text() + " instead of " + domain.mapping->local.text());
  say(!ours && device.learning, "it learns by itself");
  say(!ours && !device.up, "it is down");
  say(device.master != domain.bridge, "it is not in the bridge");
  if (what.empty()) {
    return {};
  }
  return "the device " + device.name +
         (ours ? " cannot be used: " : " was made by somebody else and is used as it is: ") + what;
}

void Devices::workPorts(Domain& domain, const Link& bridge, Batch& out) {
  for (std::size_t at = 0; at < domain.mapping->ports.size(); ++at) {
    workPort(domain, bridge, at, out);
  }
  freePorts(domain, out);
}

void Devices::workPort(Domain& domain, const Link& bridge, std::size_t at, Batch& out) {
  const std::string& name = domain.mapping->ports[at];
  Key key = portKey(domain, at);
  const Failures::Failure* failure = state_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0 && failure->next > state_.now) {
    return;
  }
  const Link* port = state_.links.named(name);
  if (port == nullptr) {
    fail(key, "the port " + name + " does not exist");
    return;
  }
  if (port->master == bridge.index) {
    state_.failures.cleared(key);
    domain.enslaved.insert(port->index);
    state_.mention(port->index, domain.vlan);
    return;
  }
  const Link* master = state_.links.at(port->master);
  if (master != nullptr && !state_.links.ours(*master)) {
    fail(key, "the port " + name + " belongs to " + master->name + ", which is not ours");
    return;
  }
  if (domain.enslaved.erase(port->index) != 0) {
    domain.strife.lost = true;
    ++state_.counters.repairs;
  }
  if (!heldBack(domain)) {
    out.add(key, LinkSet{port->index, port->kind, {}, bridge.index, {}, {}, {}, {}, {}, {}});
  }
}

void Devices::freePorts(Domain& domain, Batch& out) {
  for (auto at = domain.enslaved.begin(); at != domain.enslaved.end();) {
    const Link* port = state_.links.at(*at);
    auto wanted = [&] {
      const auto& ports = domain.mapping->ports;
      return std::find(ports.begin(), ports.end(), port->name) != ports.end();
    };
    if (port != nullptr && domain.mapping && wanted()) {
      ++at;
      continue;
    }
    if (port != nullptr && port->master != 0 && port->master == domain.bridge) {
      out.add(linkKey(domain, port->index), LinkSet{port->index, port->kind, {}, 0, {}, {}, {}, {}, {}, {}});
    }
    at = domain.enslaved.erase(at);
  }
}

void Devices::answered(const Request& request, const Key& key, int error, std::string_view text) {
  if (std::holds_alternative<RowDel>(request)) {
    return;  // Of a device that goes soon.
  }
  Domain* domain = state_.find(key.vlan);
  const auto* del = std::get_if<LinkDel>(&request);
  if (del != nullptr && (error == 0 || error == ENODEV)) {
    state_.failures.cleared(key);
    linkDel(del->index);
    return;
  }
  const auto* add = std::get_if<LinkAdd>(&request);
  if (error != 0) {
    bool lacking = add != nullptr && error == EOPNOTSUPP;
    state_.failures.failed(key, state_.now, lacking ? lackingKind(add->kind, text) : std::string(text));
    return;
  }
  if (add != nullptr) {
    state_.links.made(add->name);
  } else if (const auto* set = std::get_if<LinkSet>(&request)) {
    state_.links.applied(*set);
    state_.suspects.insert(set->index);
  }
  const Failures::Failure* failure = state_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0) {
    state_.failures.cleared(key);
  }
  if (domain != nullptr) {
    state_.queue(*domain);
  }
}

bool Devices::differs(const Domain& domain) const {
  if (!domain.mapping) {
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
  return std::any_of(domain.mapping->ports.begin(), domain.mapping->ports.end(), [&](const auto& name) {
    const Link* port = state_.links.named(name);
    return port == nullptr || port->master != domain.bridge;
  });
}

}  // namespace Agent::Kernel
