#include "agent/kernel/Hosts.h"

#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

Key keyOf(const BridgeDomain& domain, Mac mac) {
  return {Key::Kind::host, domain.vlan, mac.bits};
}

}  // namespace

Host& Hosts::host(BridgeDomain& domain, Mac mac) {
  require(!mac.group(), "a host has a unicast address");
  auto [at, added] = domain.hosts.try_emplace(mac);
  if (added) {
    at->second.deviceLife = domain.deviceLife;
    at->second.bridgeLife = domain.bridgeLife;
    domain.hostCounts.enter(at->second.counted);
  }
  dropStale(domain, at->second);
  return at->second;
}

// Forgets what was known of entries in an earlier device or bridge. They are not counted any more.
void Hosts::dropStale(BridgeDomain& domain, Host& host) {
  if (host.bridgeLife != domain.bridgeLife) {
    host.bridgeLife = domain.bridgeLife;
    host.counted = HostCounts::withoutBridge(host.counted);
    host.port = 0;
    host.portOwner = Owner::none;
  }
  if (host.deviceLife == domain.deviceLife) {
    return;
  }
  host.deviceLife = domain.deviceLife;
  host.counted = HostCounts::withoutDevice(host.counted);
  host.moved = false;
  actualIs(domain, host, {}, Owner::none);
  if (host.port != 0 && observed_.links.at(host.port) == nullptr) {
    portIs(domain, host, 0, Owner::none);
  }
}

void Hosts::actualIs(BridgeDomain& domain, Host& host, Target target, Owner owner) {
  if (host.actual.nexthop != target.nexthop) {
    if (target.nexthop != 0) {
      nexthops_.used(target.nexthop, true);
    }
    if (host.actual.nexthop != 0) {
      nexthops_.used(host.actual.nexthop, false);
    }
  }
  host.actual = target;
  host.owner = owner;
  recount(domain, host);
}

void Hosts::portIs(BridgeDomain& domain, Host& host, IfIndex port, Owner owner) {
  host.port = port;
  host.portOwner = owner;
  recount(domain, host);
}

void Hosts::recount(BridgeDomain& domain, Host& host) {
  const auto flag = [](bool holds, HostCounts::State state) { return holds ? state : HostCounts::State{}; };
  domain.hostCounts.leave(host.counted);
  host.counted = flag(host.group != nullptr, HostCounts::desired) |
                 flag(host.owner == Owner::ours, HostCounts::inDevice) |
                 flag(host.portOwner == Owner::ours, HostCounts::inBridge) |
                 flag(matches(domain, host), HostCounts::matching);
  domain.hostCounts.enter(host.counted);
}

// Where the entry is to lead: to the VTEPs of the flood list if there are any, else to the host's.
void Hosts::resolve(BridgeDomain& domain, Mac mac, Host& host) {
  const FloodSet* set = domain.desired.flood(mac);
  const auto vtep = domain.desired.hosts.find(mac);
  const std::vector<Ip4> members = set != nullptr ? domain.desired.remote(set->vteps) : std::vector<Ip4>{};
  Nexthops::Group* group = nullptr;
  if (!members.empty()) {
    group = nexthops_.hold(members);
  } else if (vtep != domain.desired.hosts.end()) {
    group = nexthops_.hold({vtep->second});
  }
  Nexthops::Group* before = std::exchange(host.group, group);
  if (before != nullptr) {
    nexthops_.release(before);
  }
  host.adopted = false;
  if (before == group) {
    return;
  }
  recount(domain, host);
  host.moved = before != nullptr;
  if (std::exchange(host.seenLocally, false)) {
    work_.failures.cleared(keyOf(domain, mac));
  }
  work_.contention.wanted(keyOf(domain, mac), host.pending.strife);
  work_.queue(domain.vlan, mac, host.pending);
}

void Hosts::changed(BridgeDomain& domain, Mac mac) {
  const bool wanted = domain.desired.hosts.contains(mac) || domain.desired.flood(mac) != nullptr;
  if (wanted || domain.hosts.contains(mac)) {
    resolve(domain, mac, host(domain, mac));
  }
}

void Hosts::localChanged(BridgeDomain& domain) {
  for (const auto& [mac, set] : domain.desired.floods) {
    if (!mac.group()) {
      changed(domain, mac);
    }
  }
}

void Hosts::nexthopsLost() {
  for (auto& [vlan, domain] : observed_.domains) {
    for (auto& [mac, host] : domain.hosts) {
      dropStale(domain, host);
      recount(domain, host);
    }
  }
}

Target Hosts::desiredTarget(const Host& host) const {
  FdbEntry entry;
  nexthops_.target(*host.group, entry);
  return {entry.dst, entry.nexthop};
}

void Hosts::entryIs(BridgeDomain& domain, const FdbEntry& entry, bool dumped) {
  if (entry.table == Table::bridge && entry.learned && !domain.hosts.contains(entry.mac)) {
    return;
  }
  Host& host = this->host(domain, entry.mac);
  if (host.owner == Owner::none && host.portOwner == Owner::none && host.group == nullptr &&
      !desired_.initialSyncComplete) {
    host.adopted = true;
  }
  std::uint32_t& seen = entry.table == Table::device ? host.seen : host.portSeen;
  if (dumped && seen == observed_.dump) {
    return;
  }
  seen = observed_.dump;
  if (entry.table == Table::device) {
    deviceEntryIs(domain, host, entry);
  } else {
    bridgeEntryIs(domain, host, entry, dumped);
  }
  if (differs(domain, host)) {
    if (host.group != nullptr && !observed_.adopting) {
      ++work_.counters.repairs;
    }
    work_.queue(domain.vlan, entry.mac, host.pending);
  } else {
    eraseIfIdle(domain, entry.mac, host);
  }
}

// Our entries lead to a group of ours or carry the ownership mark. If another program changes an entry of
// ours in place, it stays ours.
void Hosts::deviceEntryIs(BridgeDomain& domain, Host& host, const FdbEntry& entry) {
  bool ours = entry.nexthop != 0 ? nexthops_.ours(entry.nexthop) : entry.marked;
  if (host.owner == Owner::ours && host.group != nullptr) {
    ours = true;
  }
  if (host.owner == Owner::foreign && ours) {
    work_.contention.cleared(keyOf(domain, entry.mac), host.pending.strife, work_.now);
  }
  host.pending.strife.lost |= host.owner == Owner::ours && host.actual != Target{entry.dst, entry.nexthop};
  actualIs(domain, host, {entry.dst, entry.nexthop}, ours ? Owner::ours : Owner::foreign);
}

void Hosts::bridgeEntryIs(BridgeDomain& domain, Host& host, const FdbEntry& entry, bool dumped) {
  const Link* port = observed_.links.at(entry.device);
  bool toDevice = entry.device == domain.device || (port != nullptr && observed_.links.ours(*port));
  Owner before = host.portOwner;
  const IfIndex portBefore = host.port;
  const bool ours = entry.marked && (toDevice || (before == Owner::ours && host.group != nullptr));
  portIs(domain, host, entry.device, entry.learned ? Owner::learned : ours ? Owner::ours : Owner::foreign);
  const bool moved = before == Owner::ours && host.portOwner != Owner::learned && host.port != portBefore;
  host.pending.strife.lost |= moved || (before == Owner::ours && host.portOwner == Owner::foreign);
  if (host.portOwner == Owner::ours && std::exchange(host.seenLocally, false)) {
    work_.failures.cleared(keyOf(domain, entry.mac));
  }
  if (dumped || host.portOwner != Owner::learned || before != Owner::ours || toDevice) {
    return;
  }
  if (host.group == nullptr) {
    return;
  }
  host.seenLocally = true;
  work_.failures.waits(keyOf(domain, entry.mac), work_.now, options_.yieldFor,
                       "seen at local port " + (port != nullptr ? port->name : std::to_string(entry.device)) +
                           " although the controller says VTEP " + host.group->members.front().text());
}

void Hosts::entryDel(BridgeDomain& domain, const FdbEntry& entry) {
  auto at = domain.hosts.find(entry.mac);
  if (at == domain.hosts.end()) {
    return;
  }
  Host& host = at->second;
  dropStale(domain, host);
  if (entry.table == Table::device) {
    host.seen = observed_.dump;
    host.pending.strife.lost |= host.owner == Owner::ours;
    actualIs(domain, host, {}, Owner::none);
  } else {
    if (host.port != entry.device) {
      return;
    }
    host.pending.strife.lost |= host.portOwner == Owner::ours;
    host.portSeen = observed_.dump;
    portIs(domain, host, 0, Owner::none);
    host.seenLocally = false;
  }
  if (!differs(domain, host)) {
    eraseIfIdle(domain, entry.mac, host);
    return;
  }
  if (host.group != nullptr) {
    ++work_.counters.repairs;
  }
  work_.contention.cleared(keyOf(domain, entry.mac), host.pending.strife, work_.now);
  work_.queue(domain.vlan, entry.mac, host.pending);
}

void Hosts::dumped(BridgeDomain& domain, Mac mac) {
  Host& host = domain.hosts.at(mac);
  dropStale(domain, host);
  if (host.owner != Owner::none && host.seen != observed_.dump) {
    host.pending.strife.lost |= host.owner == Owner::ours;
    actualIs(domain, host, {}, Owner::none);
  }
  if (host.portOwner != Owner::none && host.portSeen != observed_.dump) {
    host.pending.strife.lost |= host.portOwner == Owner::ours;
    portIs(domain, host, 0, Owner::none);
    host.seenLocally = false;
  }
  host.seen = host.portSeen = observed_.dump;
  if (!differs(domain, host)) {
    eraseIfIdle(domain, mac, host);
    return;
  }
  if (host.group != nullptr && !observed_.adopting && !host.pending.queued &&
      !work_.failures.pausing(keyOf(domain, mac), work_.now)) {
    ++work_.counters.repairs;
  }
  work_.queue(domain.vlan, mac, host.pending);
}

bool Hosts::matches(const BridgeDomain& domain, const Host& host) const {
  return host.group != nullptr && host.owner == Owner::ours && host.actual == desiredTarget(host) &&
         host.portOwner == Owner::ours && host.port == domain.device;
}

bool Hosts::differs(const BridgeDomain& domain, const Host& host) const {
  const bool deviceKnown = host.deviceLife == domain.deviceLife;
  const bool bridgeKnown = host.bridgeLife == domain.bridgeLife;
  if (host.group == nullptr || !domain.mapped()) {
    return (deviceKnown && host.owner == Owner::ours) || (bridgeKnown && host.portOwner == Owner::ours);
  }
  return !deviceKnown || !bridgeKnown || !matches(domain, host);
}

void Hosts::eraseIfIdle(BridgeDomain& domain, Mac mac, Host& host) {
  // During a dump the record of a deleted entry guards against the dump's older view of it.
  bool needed = observed_.dumping || host.group != nullptr || host.pending.queued ||
                host.owner != Owner::none ||
                (host.portOwner != Owner::none && host.portOwner != Owner::learned);
  if (!needed) {
    domain.hostCounts.leave(host.counted);
    domain.hosts.erase(mac);
  }
}

void Hosts::work(BridgeDomain& domain, Mac mac, Batch& out) {
  auto at = domain.hosts.find(mac);
  if (at == domain.hosts.end()) {
    return;
  }
  Host& host = at->second;
  host.pending.queued = false;
  dropStale(domain, host);
  recount(domain, host);  // Its group may have got its number.
  Key key = keyOf(domain, mac);
  if (host.group == nullptr || !domain.mapped()) {
    workUnwanted(domain, mac, host, out);
    return;
  }
  if (!domain.ready() ||
      work_.contention.holdsBack(key, host.pending.strife, differs(domain, host), work_.now) ||
      work_.failures.pausing(key, work_.now)) {
    return;
  }
  if (!nexthops_.ready(*host.group)) {
    work_.failures.failed(key, work_.now, "waits for the nexthop group of its VTEP");
    return;
  }
  bool asked = workDeviceEntry(domain, mac, host, out);
  asked = workBridgeEntry(domain, mac, host, out) || asked;
  if (!asked && !differs(domain, host)) {
    work_.failures.cleared(key);
  }
}

bool Hosts::workDeviceEntry(BridgeDomain& domain, Mac mac, Host& host, Batch& out) {
  const Target desired = desiredTarget(host);
  if (host.owner == Owner::ours && host.actual == desired) {
    return false;
  }
  Key key = keyOf(domain, mac);
  if (host.owner == Owner::foreign) {
    work_.failures.waits(key, work_.now, options_.retryMost,
                         "the VXLAN device has a row of somebody else for it");
    return false;
  }
  const FdbEntry entry{.table = Table::device,
                       .device = domain.device,
                       .mac = mac,
                       .dst = desired.dst,
                       .nexthop = desired.nexthop,
                       .marked = true};
  auto how = FdbAdd::How::create;
  if (host.owner == Owner::ours) {
    if ((host.actual.nexthop != 0) == (desired.nexthop != 0)) {
      how = FdbAdd::How::replace;
    } else {
      out.add(key, FdbDel{{.table = Table::device, .device = domain.device, .mac = mac}});
    }
  }
  out.add(key, FdbAdd{how, entry});
  return true;
}

bool Hosts::workBridgeEntry(BridgeDomain& domain, Mac mac, Host& host, Batch& out) {
  if (host.portOwner == Owner::ours && host.port == domain.device) {
    return false;
  }
  if (renumbering_.beforeCutOver(domain.vlan) && host.portOwner == Owner::ours &&
      host.port == renumbering_.oldDevice(domain.vlan) && !host.moved) {
    return false;
  }
  if (host.portOwner == Owner::learned && std::exchange(host.seenLocally, false)) {
    work_.failures.cleared(keyOf(domain, mac));
  }
  Key key = keyOf(domain, mac);
  if (host.portOwner == Owner::foreign) {
    work_.failures.waits(key, work_.now, options_.retryMost, "the bridge has a row of somebody else for it");
    return false;
  }
  out.add(key, FdbAdd{FdbAdd::How::replace,
                      {.table = Table::bridge,
                       .device = domain.device,
                       .bridge = domain.bridge,
                       .mac = mac,
                       .marked = true}});
  return true;
}

void Hosts::workUnwanted(BridgeDomain& domain, Mac mac, Host& host, Batch& out) {
  Key key = keyOf(domain, mac);
  work_.failures.cleared(key);
  if (host.adopted && !desired_.initialSyncComplete) {
    return;
  }
  const Link* device = observed_.links.at(domain.device);
  // Without a mapping a device of ours goes as a whole.
  if (!domain.mapped() && (device == nullptr || observed_.links.ours(*device))) {
    eraseIfIdle(domain, mac, host);
    return;
  }
  if (host.portOwner == Owner::ours && host.port != 0) {
    out.add(key, FdbDel{{.table = Table::bridge, .device = host.port, .bridge = domain.bridge, .mac = mac}});
  }
  if (host.owner == Owner::ours && domain.device != 0) {
    out.add(key, FdbDel{{.table = Table::device, .device = domain.device, .mac = mac}});
  }
  eraseIfIdle(domain, mac, host);
}

void Hosts::answeredAdd(BridgeDomain& domain, Host& host, const FdbEntry& entry) {
  if (entry.table == Table::bridge) {
    portIs(domain, host, entry.device, Owner::ours);
    host.portSeen = observed_.dump;
  } else if (entry.device == domain.device) {
    actualIs(domain, host, {entry.dst, entry.nexthop}, Owner::ours);
    host.seen = observed_.dump;
  }
}

void Hosts::answered(const Request& request, const Key& key, int error, std::string_view text) {
  BridgeDomain* domain = observed_.find(key.vlan);
  if (domain == nullptr) {
    return;
  }
  Mac mac{key.id};
  auto at = domain->hosts.find(mac);
  if (at == domain->hosts.end()) {
    return;
  }
  Host& host = at->second;
  dropStale(*domain, host);
  if (const auto* del = std::get_if<FdbDel>(&request)) {
    if (error == 0 || error == ENOENT || error == ENODEV) {
      if (del->entry.table == Table::device) {
        actualIs(*domain, host, {}, Owner::none);
        host.seen = observed_.dump;
      } else if (host.port == del->entry.device) {
        portIs(*domain, host, 0, Owner::none);
        host.portSeen = observed_.dump;
      }
    } else {
      work_.failures.failed(key, work_.now, std::string(text));
    }
  } else if (error == 0) {
    answeredAdd(*domain, host, std::get<FdbAdd>(request).entry);
  } else {
    work_.failures.failed(key, work_.now, std::string(text));
    if (error == EEXIST || error == ENOENT || error == EOPNOTSUPP) {
      work_.auditWanted = true;
    }
    return;
  }
  if (host.group != nullptr && !differs(*domain, host)) {
    work_.failures.cleared(key);
  }
  eraseIfIdle(*domain, mac, host);
}

}  // namespace Agent::Kernel
