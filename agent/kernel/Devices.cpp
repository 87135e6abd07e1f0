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
  if (domain.mapping == mapping) return;
  if (domain.mapping) {
    for (std::size_t at = 0; at < domain.mapping->ports.size(); ++at) {
      state_.failures.cleared(portKey(domain, at));
    }
    if (domain.mapping->vni != mapping.vni) state_.released.insert(domain.device);
  }
  domain.mapping = mapping;
  state_.failures.cleared(keyOf(domain));
  state_.queue(domain);
  state_.walk(domain);
  state_.linksDirty = true;
}

void Devices::del(Vlan vlan) {
  Domain* domain = state_.find(vlan);
  if (domain == nullptr || !domain->mapping) return;
  for (std::size_t at = 0; at < domain->mapping->ports.size(); ++at) {
    state_.failures.cleared(portKey(*domain, at));
  }
  domain->mapping.reset();
  state_.failures.cleared(keyOf(*domain));
  state_.released.insert(domain->device);
  state_.released.insert(domain->bridge);
  state_.queue(*domain);
  state_.walk(*domain);
  state_.linksDirty = true;
}

void Devices::deviceIs(Domain& domain, IfIndex device, bool blind) {
  if (domain.device == device) return;
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
  if (device != 0) beginTurn(domain);
  domain.device = device;
  state_.links.used(device);
  ++domain.deviceLife;
  domain.blind = device != 0 && blind;
  if (domain.blind) state_.auditWanted = true;
  state_.walk(domain);
  state_.linksDirty = true;
}

// Its flood rows stay until it goes, and bear no mark.
void Devices::leaveDevice(Domain& domain) {
  if (state_.links.at(domain.device) == nullptr) return;
  auto& left = domain.left[domain.device];
  left.clear();
  for (const auto& [mac, flood] : domain.floods) {
    if (flood.deviceLife != domain.deviceLife) continue;
    for (const auto& [dst, destination] : flood.there) {
      if (destination.mark == Mark::ours) left.emplace(mac, dst);
    }
  }
}

void Devices::beginTurn(Domain& domain) {
  const Link* previous = state_.links.at(domain.device);
  if (previous == nullptr || !state_.links.ours(*previous) || previous->master != domain.bridge) return;
  domain.turn = Turn{domain.device, state_.now + state_.options.renumberPause};
  state_.turns.insert(domain.vlan);
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
  if (state_.now < turn.next) return;
  turn.next = state_.now + state_.options.renumberPause;
  if (!turn.turned) {
    turn.turned = domain.ready();
    state_.walk(domain);
  } else if (turn.silenced) {
    domain.turn.reset();
    state_.turns.erase(domain.vlan);
    state_.linksDirty = true;
  }
}

void Devices::turn(Batch& out) {
  std::vector<Vlan> vlans(state_.turns.begin(), state_.turns.end());
  for (Vlan vlan : vlans) step(*state_.find(vlan), out);
}

Time Devices::nextTurn() const {
  Time next = Time::max();
  for (Vlan vlan : state_.turns) {
    const Turn& turn = *state_.find(vlan)->turn;
    next = std::min(next, turn.turned && !turn.silenced ? state_.now : turn.next);
  }
  return next;
}

void Devices::bridgeIs(Domain& domain, IfIndex bridge) {
  if (domain.bridge == bridge) return;
  auto before = state_.bridgeOf.find(domain.bridge);
  if (before != state_.bridgeOf.end() && before->second == domain.vlan) state_.bridgeOf.erase(before);
  domain.bridge = bridge;
  if (bridge != 0) state_.bridgeOf[bridge] = domain.vlan;
  state_.walk(domain);
}

// At the start: what the alias says belongs to a VLAN is its until a mapping says otherwise.
void Devices::adopt(const Link& link) {
  std::optional<Vlan> vlan = state_.links.vlan(link);
  if (!vlan) return;
  Domain& domain = state_.domain(*vlan);
  if (link.kind == LinkKind::bridge && domain.bridge == 0) bridgeIs(domain, link.index);
  if (link.kind == LinkKind::vxlan && domain.device == 0 &&
      (!domain.mapping || domain.mapping->vni == link.vni)) {
    deviceIs(domain, link.index, false);
  }
}

void Devices::requeueUsers(const Link& link) {
  auto queue = [this](const std::map<IfIndex, Vlan>& users, IfIndex index) {
    auto at = users.find(index);
    if (at != users.end()) state_.queue(*state_.find(at->second));
  };
  queue(state_.deviceOf, link.index);
  queue(state_.bridgeOf, link.index);
  queue(state_.bridgeOf, link.master);
  for (auto& [vlan, domain] : state_.domains) {
    if (!domain.mapping || domain.queued) continue;
    const Mapping& mapping = *domain.mapping;
    bool waits = domain.device == 0 && (link.kind == LinkKind::vxlan && link.vni == mapping.vni);
    waits = waits || domain.bridge == 0;
    waits = waits || std::find(mapping.ports.begin(), mapping.ports.end(), link.name) != mapping.ports.end();
    if (waits) state_.queue(domain);
  }
}

void Devices::linkIs(const Link& link) {
  if (!state_.links.is(link, state_.dump)) return;
  if (state_.adopting) adopt(link);
  state_.linksDirty = state_.linksDirty || state_.links.ours(link);
  requeueUsers(link);
}

void Devices::linkDel(IfIndex index) {
  const Link* there = state_.links.at(index);
  if (there == nullptr) return;
  Link link = *there;
  state_.links.del(index);
  state_.released.erase(index);
  auto device = state_.deviceOf.find(index);
  if (device != state_.deviceOf.end()) {
    Domain& domain = *state_.find(device->second);
    if (domain.mapping) ++state_.counters.repairs;
    deviceIs(domain, 0, false);
    state_.queue(domain);
  }
  auto bridge = state_.bridgeOf.find(index);
  if (bridge != state_.bridgeOf.end()) {
    Domain& domain = *state_.find(bridge->second);
    bridgeIs(domain, 0);
    state_.queue(domain);
  }
  for (auto& [vlan, domain] : state_.domains) {
    domain.enslaved.erase(index);
    domain.left.erase(index);
    if (!domain.turn || domain.turn->previous != index) continue;
    domain.turn.reset();
    state_.turns.erase(vlan);
    state_.walk(domain);
  }
  state_.linksDirty = true;
  requeueUsers(link);
}

const Link* Devices::device(const Domain& domain) const {
  return state_.links.vxlan(domain.mapping->vni, state_.options.udpPort);
}

const Link* Devices::bridge(const Domain& domain, const Link* device) const {
  const Link* named = state_.links.named(state_.options.bridgePrefix + std::to_string(domain.vlan));
  if (device == nullptr || device->master == 0 || state_.links.ours(*device)) return named;
  const Link* master = state_.links.at(device->master);
  return master != nullptr && master->kind == LinkKind::bridge ? master : named;
}

void Devices::work(Domain& domain, Batch& out) {
  domain.queued = false;
  if (!domain.mapping) {
    freePorts(domain, out);
    return;
  }
  const Key key = keyOf(domain);
  const Failures::Failure* failure = state_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0 && failure->next > state_.now) return;
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
  if (correctBridge(domain, *bridge, out)) return;
  bridgeIs(domain, bridge->index);
  workPorts(domain, *bridge, out);
  if (device == nullptr) {
    askDevice(domain, *bridge, out);
    return;
  }
  if (correctDevice(domain, *bridge, *device, out)) return;
  deviceIs(domain, device->index, !state_.links.fresh(device->index));
  std::string why = complaint(domain, *device);
  if (why.empty()) {
    state_.failures.cleared(key);
  } else {
    fail(key, why);
  }
}

void Devices::askBridge(Domain& domain, Batch& out) {
  std::string name = state_.options.bridgePrefix + std::to_string(domain.vlan);
  if (!state_.links.expected(name))
    out.add(keyOf(domain), LinkAdd{name, LinkKind::bridge, 0, 0, {}, 0, state_.options.birthGroup});
}

void Devices::askDevice(Domain& domain, const Link& bridge, Batch& out) {
  std::string name = state_.options.devicePrefix + std::to_string(domain.mapping->vni);
  if (state_.links.expected(name)) return;
  if (state_.links.named(name) != nullptr) {
    fail(keyOf(domain), "the device " + name + " is in the way: it is not the VXLAN device of VNI " +
                            std::to_string(domain.mapping->vni) + " at port " +
                            std::to_string(state_.options.udpPort));
    return;
  }
  out.add(keyOf(domain), LinkAdd{name, LinkKind::vxlan, bridge.index, domain.mapping->vni,
                                 domain.mapping->local, state_.options.udpPort, state_.options.birthGroup});
}

bool Devices::correctBridge(Domain& domain, const Link& bridge, Batch& out) {
  if (!state_.links.ours(bridge)) return false;
  LinkSet set{bridge.index, LinkKind::bridge, {}, {}, {}, {}, {}, {}, {}, {}};
  std::string alias = state_.links.alias(domain.vlan, "");
  if (bridge.alias != alias) set.alias = alias;
  if (!bridge.up) set.up = true;
  if (bridge.group == state_.options.birthGroup) set.group = 0;
  if (!set.alias && !set.up && !set.group) return false;
  out.add(keyOf(domain), set);
  return true;
}

// Two devices of ours in a bridge, while a VNI is being replaced: nothing may pass from one to the other.
bool Devices::isolate(const Link& bridge, const Link& device, Batch& out) {
  bool others = false;
  for (const auto& [index, link] : state_.links.all()) {
    if (index == device.index || link.kind != LinkKind::vxlan || link.master != bridge.index) continue;
    if (!state_.links.ours(link)) continue;
    others = true;
    if (link.portIsolated) continue;
    LinkSet set{index, LinkKind::vxlan, {}, {}, {}, {}, {}, {}, true, {}};
    std::optional<Vlan> vlan = state_.links.vlan(link);
    out.add({Key::Kind::link, vlan.value_or(0), static_cast<std::uint64_t>(index)}, set);
  }
  return others;
}

bool Devices::correctDevice(Domain& domain, const Link& bridge, const Link& device, Batch& out) {
  LinkSet set{device.index, LinkKind::vxlan, {}, {}, {}, {}, {}, {}, {}, {}};
  bool ours = state_.links.ours(device);
  const Link* master = state_.links.at(device.master);
  bool free = device.master == 0 || (ours && (master == nullptr || state_.links.ours(*master)));
  if (device.master != bridge.index && free) set.master = bridge.index;
  if (ours) {
    std::string alias =
        state_.links.alias(domain.vlan, " vni " + std::to_string(device.vni) + " " + domain.mapping->vti);
    if (device.alias != alias) set.alias = alias;
    if (device.group == state_.options.birthGroup) set.group = 0;
    if (!device.up) set.up = true;
    if (device.local != domain.mapping->local) set.local = domain.mapping->local;
    if (device.learning) set.learning = false;
    // The port's own attributes can be set once it is a port.
    if (device.master == bridge.index) {
      bool isolated = isolate(bridge, device, out);
      if (device.portLearning) set.portLearning = false;
      if (device.portIsolated != isolated) set.portIsolated = isolated;
    } else {
      set.up.reset();
    }
  }
  bool complete = !set.alias && !set.master && !set.up && !set.local && !set.learning && !set.portLearning &&
                  !set.portIsolated && !set.group;
  if (complete) return false;
  out.add(keyOf(domain), set);
  return true;
}

std::string Devices::complaint(const Domain& domain, const Link& device) const {
  bool ours = state_.links.ours(device);
  std::string what;
  auto say = [&what](bool wrong, const std::string& text) {
    if (wrong) what += (what.empty() ? "" : ", ") + text;
  };
  say(!ours && device.local != domain.mapping->local,
      "its local address is " + device.local.text() + " instead of " + domain.mapping->local.text());
  say(!ours && device.learning, "it learns by itself");
  say(!ours && !device.up, "it is down");
  say(device.master != domain.bridge, "it is not in the bridge");
  if (what.empty()) return {};
  return "the device " + device.name +
         (ours ? " cannot be used: " : " was made by somebody else and is used as it is: ") + what;
}

void Devices::workPorts(Domain& domain, const Link& bridge, Batch& out) {
  for (std::size_t at = 0; at < domain.mapping->ports.size(); ++at) workPort(domain, bridge, at, out);
  freePorts(domain, out);
}

void Devices::workPort(Domain& domain, const Link& bridge, std::size_t at, Batch& out) {
  const std::string& name = domain.mapping->ports[at];
  Key key = portKey(domain, at);
  const Failures::Failure* failure = state_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0 && failure->next > state_.now) return;
  const Link* port = state_.links.named(name);
  if (port == nullptr) {
    fail(key, "the port " + name + " does not exist");
    return;
  }
  if (port->master == bridge.index) {
    state_.failures.cleared(key);
    domain.enslaved.insert(port->index);
    return;
  }
  const Link* master = state_.links.at(port->master);
  if (master != nullptr && !state_.links.ours(*master)) {
    fail(key, "the port " + name + " belongs to " + master->name + ", which is not ours");
    return;
  }
  out.add(key, LinkSet{port->index, port->kind, {}, bridge.index, {}, {}, {}, {}, {}, {}});
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

bool Devices::used(const Link& link) const {
  auto uses = [this, &link](const Domain& domain) {
    if (!domain.mapping) return false;
    if (link.kind == LinkKind::vxlan) return link.vni == domain.mapping->vni;
    return link.index == domain.bridge ||
           link.name == state_.options.bridgePrefix + std::to_string(domain.vlan);
  };
  std::optional<Vlan> vlan = state_.links.vlan(link);
  if (!vlan) {  // Just made, and without its alias yet.
    return std::any_of(state_.domains.begin(), state_.domains.end(),
                       [&uses](const auto& entry) { return uses(entry.second); });
  }
  auto domain = state_.domains.find(*vlan);
  if (domain != state_.domains.end() && uses(domain->second)) return true;
  const auto& users = link.kind == LinkKind::bridge ? state_.bridgeOf : state_.deviceOf;
  auto at = users.find(link.index);
  return at != users.end() && uses(state_.domains.at(at->second));
}

// A device may go when its VLAN's rows have been turned to another, a bridge when its devices have gone.
bool Devices::mayGo(const Link& link) const {
  if (!state_.settled && !state_.released.contains(link.index)) return false;
  if (link.kind == LinkKind::bridge) {
    return std::none_of(state_.links.all().begin(), state_.links.all().end(), [&](const auto& other) {
      return other.second.master == link.index && state_.links.ours(other.second);
    });
  }
  std::optional<Vlan> vlan = state_.links.vlan(link);
  auto domain = vlan ? state_.domains.find(*vlan) : state_.domains.end();
  if (domain == state_.domains.end() || !domain->second.mapping) return true;
  const Domain& user = domain->second;
  if (user.turn && user.turn->previous == link.index) return false;
  return user.ready() && user.device != link.index && !user.walk && user.queuedRows == 0;
}

std::vector<IfIndex> Devices::unwanted() const {
  std::vector<IfIndex> found;
  for (const auto& [index, link] : state_.links.all()) {
    if (link.kind != LinkKind::other && state_.links.ours(link) && !used(link)) found.push_back(index);
  }
  return found;
}

std::size_t Devices::stale() const {
  return unwanted().size();
}

void Devices::sweep(Batch& out) {
  if (!state_.linksDirty) return;
  state_.linksDirty = false;
  for (IfIndex index : unwanted()) {
    const Link& link = *state_.links.at(index);
    Key key{Key::Kind::link, state_.links.vlan(link).value_or(0), static_cast<std::uint64_t>(index)};
    if (mayGo(link) && !state_.failures.pausing(key, state_.now)) {
      out.add(key, LinkDel{index});
    } else {
      state_.linksDirty = true;
    }
  }
}

void Devices::answered(const Request& request, const Key& key, int error, std::string_view text) {
  if (std::holds_alternative<RowDel>(request)) return;  // Of a device that goes soon.
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
    state_.linksDirty = true;
  }
  const Failures::Failure* failure = state_.failures.find(key);
  if (failure != nullptr && failure->attempts > 0) state_.failures.cleared(key);
  if (domain != nullptr) state_.queue(*domain);
}

bool Devices::differs(const Domain& domain) const {
  if (!domain.mapping) return false;
  const Link* device = this->device(domain);
  if (!domain.ready() || device == nullptr || device->index != domain.device || !device->up) return true;
  if (device->master != domain.bridge || device->local != domain.mapping->local) return true;
  return std::any_of(domain.mapping->ports.begin(), domain.mapping->ports.end(), [&](const auto& name) {
    const Link* port = state_.links.named(name);
    return port == nullptr || port->master != domain.bridge;
  });
}

}  // namespace Agent::Kernel
