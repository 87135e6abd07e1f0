#include "agent/kernel/Engine.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

const Key denied{Key::Kind::permission, 0, 0};
constexpr std::size_t scannedAtOnce = 1024;
constexpr std::size_t addressesAtOnce = 2048;

}  // namespace

Engine::Engine(Options options)
    : options_(std::move(options)),
      observed_(options_),
      work_(options_),
      nexthops_(options_, work_.failures, work_.contention),
      renumbering_(options_, observed_, work_),
      sweep_(options_, desired_, observed_, renumbering_, work_),
      devices_(options_, observed_, renumbering_, work_),
      reports_(options_, desired_, observed_, renumbering_, devices_, work_),
      hosts_(options_, desired_, renumbering_, observed_, nexthops_, work_),
      floods_(options_, desired_, renumbering_, observed_, nexthops_, work_),
      audit_(options_, observed_, nexthops_, reports_, hosts_, floods_, work_),
      status_(observed_, nexthops_, devices_, sweep_, hosts_, floods_, audit_, work_) {
  if (!options_.nexthops) {
    nexthops_.unsupported(
        "nexthop groups are switched off: rows lead to addresses, and of a set of type any only its first "
        "VTEP is "
        "used");
  }
}

void Engine::vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports) {
  mappingsChanged(desired_.mappings.is(vlan, {vni, std::move(vti), local, std::move(ports)}));
}

void Engine::vniDel(Vlan vlan, const std::string& vti) {
  mappingsChanged(desired_.mappings.del(vlan, vti));
}

void Engine::mappingsChanged(const std::vector<Vlan>& vlans) {
  for (const Vlan vlan : vlans) {
    const Mapping* mapping = desired_.mappings.find(vlan);
    const std::optional<Mapping> before = std::exchange(
        desired_.vlan(vlan).mapping, mapping == nullptr ? std::nullopt : std::optional(*mapping));
    BridgeDomain& domain = this->domain(vlan);
    devices_.mappingChanged(domain, before);
    if (mapping != nullptr) {
      hosts_.localChanged(domain);
    }
    floods_.mappingChanged(domain);
  }
}

void Engine::desiredChanged(Vlan vlan, Mac mac) {
  if (mac.group()) {
    floods_.changed(domain(vlan), mac);
  } else {
    hosts_.changed(domain(vlan), mac);
  }
}

void Engine::hostIs(Vlan vlan, Mac mac, Ip4 vtep) {
  if (mac.group()) {
    // The controller may publish nonsense; it stays a problem until it is withdrawn.
    work_.failures.waits({Key::Kind::host, vlan, mac.bits}, Time{}, Time::max(),
                         "a host has a unicast address");
    return;
  }
  desired_.vlan(vlan).hosts[mac] = vtep;
  desiredChanged(vlan, mac);
}

void Engine::hostDel(Vlan vlan, Mac mac) {
  if (mac.group()) {
    work_.failures.cleared({Key::Kind::host, vlan, mac.bits});
    return;
  }
  if (desired_.vlan(vlan).hosts.erase(mac) != 0) {
    desiredChanged(vlan, mac);
  }
}

void Engine::floodIs(Vlan vlan, Mac mac, FloodType type, std::vector<Ip4> vteps) {
  constexpr std::size_t mostMembers = 4096;  // A nexthop group has to fit into one netlink attribute.
  std::erase(vteps, Ip4{});
  std::sort(vteps.begin(), vteps.end());
  vteps.erase(std::unique(vteps.begin(), vteps.end()), vteps.end());
  if (type == FloodType::any && vteps.size() > mostMembers) {
    vteps.resize(mostMembers);
  }
  if (vteps.empty()) {
    floodDel(vlan, mac);
    return;
  }
  // The kernel does not copy unicast.
  FloodSet set{mac.group() ? type : FloodType::any, std::move(vteps)};
  const auto [at, added] = desired_.vlan(vlan).floods.try_emplace(mac, set);
  if (added || at->second != set) {
    at->second = std::move(set);
    desiredChanged(vlan, mac);
  }
}

void Engine::floodDel(Vlan vlan, Mac mac) {
  if (desired_.vlan(vlan).floods.erase(mac) != 0) {
    desiredChanged(vlan, mac);
  }
}

void Engine::initialSyncComplete() {
  if (std::exchange(desired_.initialSyncComplete, true)) {
    return;
  }
  for (const auto& [vlan, domain] : observed_.domains) {
    work_.queueAll(vlan);
  }
  nexthops_.requeue();
  sweep_.suspectAll();
}

void Engine::linkIs(const Link& link) {
  ++work_.counters.notifications;
  reports_.linkIs(link);
}

void Engine::linkDel(IfIndex index) {
  ++work_.counters.notifications;
  reports_.linkDel(index);
}

void Engine::portIs(const BridgePort& port) {
  ++work_.counters.notifications;
  reports_.portIs(port);
}

void Engine::nexthopIs(const Nexthop& nexthop) {
  ++work_.counters.notifications;
  nexthops_.is(nexthop);
}

void Engine::nexthopDel(NexthopId id) {
  ++work_.counters.notifications;
  if (!nexthops_.del(id)) {
    return;
  }
  // The kernel removes entries with the group that they lead to, and does not report it.
  ++work_.counters.repairs;
  ++observed_.doubts;
  work_.auditWanted = true;
}

void Engine::entryIs(const FdbEntry& entry, bool dumped) {
  ++work_.counters.notifications;
  BridgeDomain* domain = observed_.domainOf(entry);
  if (domain == nullptr) {
    return;
  }
  if (!entry.mac.group()) {
    hosts_.entryIs(*domain, entry, dumped);
  } else if (entry.table == Table::device) {
    floods_.entryIs(*domain, entry, dumped);
  }
}

void Engine::entryDel(const FdbEntry& entry) {
  ++work_.counters.notifications;
  BridgeDomain* domain = observed_.domainOf(entry);
  if (domain == nullptr) {
    return;
  }
  if (!entry.mac.group()) {
    hosts_.entryDel(*domain, entry);
  } else if (entry.table == Table::device) {
    floods_.entryDel(*domain, entry);
  }
}

void Engine::overrun() {
  ++work_.counters.overruns;
  ++observed_.doubts;
  work_.auditWanted = true;
}

void Engine::requeueDue() {
  for (const Key& key : work_.failures.due(work_.now, options_.batchRequests)) {
    requeue(key);
  }
}

void Engine::requeue(const Key& key) {
  BridgeDomain* domain = observed_.find(key.vlan);
  const auto requeueIn = [&](auto& addresses) {
    const auto at = addresses.find(Mac{key.id});
    if (at != addresses.end()) {
      work_.queue(key.vlan, at->first, at->second.pending);
    }
  };
  switch (key.kind) {
    case Key::Kind::permission:
    case Key::Kind::dump:
    case Key::Kind::link:
      break;
    case Key::Kind::contention:
      work_.contention.quiet();
      break;
    case Key::Kind::vtep:
    case Key::Kind::group:
      nexthops_.requeue(key);
      break;
    case Key::Kind::domain:
    case Key::Kind::port:
      if (domain != nullptr) {
        work_.queueDevices(key.vlan);
      }
      break;
    case Key::Kind::host:
      if (domain != nullptr) {
        requeueIn(domain->hosts);
      }
      break;
    case Key::Kind::flood:
      if (domain != nullptr) {
        requeueIn(domain->floods);
      }
      break;
  }
}

const Batch& Engine::batch() {
  require(outstanding_ == 0, "a batch is taken when the last one is answered");
  batch_.clear();
  batch_.limitIs(denied_ ? 1 : options_.batchRequests);
  if (denied_ && work_.failures.pausing(denied, work_.now)) {
    return batch_;
  }
  requeueDue();
  audit_.advance(batch_);
  const std::size_t dumps = batch_.size();
  if (observed_.adopting) {
    return batch_;
  }
  renumbering_.advance(batch_);
  sweep_.sweep(batch_);
  for (std::size_t n = work_.devicesQueued(); n > 0 && !batch_.full(); --n) {
    devices_.work(*observed_.find(work_.takeDevices()), batch_);
  }
  nexthops_.work(batch_, work_.now, desired_.initialSyncComplete);
  scanDomains();
  if (!nexthops_.pending()) {
    workAddresses();
  }
  outstanding_ = batch_.size() - dumps;
  work_.counters.requests += batch_.size();
  return batch_;
}

void Engine::scanDomains() {
  std::size_t left = scannedAtOnce;
  while (work_.scanning() && left > 0 && work_.addressesQueued() < scannedAtOnce) {
    const Work::Scan scan = work_.scan();
    BridgeDomain& domain = *observed_.find(scan.vlan);
    if (scan.from.zero()) {
      for (auto& [mac, flood] : domain.floods) {
        work_.queue(scan.vlan, mac, flood.pending);
      }
    }
    auto at = domain.hosts.lower_bound(scan.from);
    for (; at != domain.hosts.end() && left > 0; ++at, --left) {
      work_.queue(scan.vlan, at->first, at->second.pending);
    }
    if (at != domain.hosts.end()) {
      work_.scanGoesOn(at->first);
      return;
    }
    work_.scanDone();
  }
}

void Engine::workAddresses() {
  for (std::size_t n = std::min(work_.addressesQueued(), addressesAtOnce); n > 0 && !batch_.full(); --n) {
    const Key key = work_.takeAddress();
    BridgeDomain& domain = *observed_.find(key.vlan);
    if (key.kind == Key::Kind::flood) {
      floods_.work(domain, Mac{key.id}, batch_);
    } else {
      hosts_.work(domain, Mac{key.id}, batch_);
    }
  }
}

void Engine::answered(std::size_t at, int error, std::string_view text) {
  require(at < batch_.size() && outstanding_ > 0, "an answer is to a request of the batch");
  --outstanding_;
  const Request& request = batch_.requests()[at];
  require(!std::holds_alternative<Dump>(request), "a dump is answered by its end");
  if (error == EPERM || error == EACCES) {
    if (!denied_ || !work_.failures.pausing(denied, work_.now)) {
      work_.failures.failed(denied, work_.now,
                            "the kernel does not let this process change it (" + std::string(text) +
                                "): the capability CAP_NET_ADMIN in this network namespace is needed");
    }
    denied_ = true;
  } else if (error == 0 && denied_) {
    denied_ = false;
    work_.failures.cleared(denied);
  }
  ++(error == 0 ? work_.counters.acknowledged : work_.counters.refused);
  route(request, batch_.key(at), error, text);
}

// Gives the answer to the part that asked.
void Engine::route(const Request& request, const Key& key, int error, std::string_view text) {
  const auto* linkDel = std::get_if<LinkDel>(&request);
  if (linkDel != nullptr && (error == 0 || error == ENODEV)) {
    work_.failures.cleared(key);
    reports_.linkDel(linkDel->index);
    return;
  }
  switch (key.kind) {
    case Key::Kind::vtep:
    case Key::Kind::group: {
      const bool before = nexthops_.supported();
      nexthops_.answered(request, key, error, text, work_.now);
      if (before != nexthops_.supported()) {
        hosts_.nexthopsLost();
        floods_.nexthopsLost();
        for (const auto& [vlan, domain] : observed_.domains) {
          work_.queueAll(vlan);
        }
      }
      break;
    }
    case Key::Kind::host:
      hosts_.answered(request, key, error, text);
      break;
    case Key::Kind::flood:
      floods_.answered(request, key, error, text);
      break;
    default:
      devices_.answered(request, key, error, text);
      break;
  }
}

void Engine::answersLost() {
  outstanding_ = 0;
  ++work_.counters.overruns;
  ++observed_.doubts;
  work_.auditWanted = true;
  nexthops_.requeue();
  for (const auto& [vlan, domain] : observed_.domains) {
    work_.queueAll(vlan);
  }
}

bool Engine::moreWork() const {
  if (denied_) {
    return false;
  }
  if (observed_.adopting) {
    return audit_.moreWork();
  }
  return audit_.moreWork() || work_.addressesQueued() > 0 || work_.devicesQueued() > 0 || work_.scanning() ||
         nexthops_.pending();
}

Time Engine::nextWakeup() const {
  if (denied_) {
    return work_.failures.find(denied)->next;
  }
  return std::min({audit_.next(), renumbering_.next(), work_.failures.next().value_or(Time::max())});
}

}  // namespace Agent::Kernel
