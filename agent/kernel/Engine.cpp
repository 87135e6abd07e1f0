#include "agent/kernel/Engine.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

const Key denied{Key::Kind::permission, 0, 0};
const Key dump{Key::Kind::dump, 0, 0};
constexpr std::size_t walkedAtOnce = 1024;
constexpr std::size_t lookedAtInOneTurn = 2048;

}  // namespace

Engine::Engine(Options options)
    : state_(std::move(options)), hosts_(state_), floods_(state_), devices_(state_) {
  if (!state_.options.nexthops) {
    state_.nexthops.unsupported(
        "nexthop groups are switched off: rows lead to addresses, and of a set of type any only its first "
        "VTEP is "
        "used");
  }
}

void Engine::vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports) {
  auto before = vnis_.find(vni);
  if (before != vnis_.end() && before->second != vlan) {
    vniDel(vni);
  }
  vnis_[vni] = vlan;
  devices_.is(vlan, {vni, std::move(vti), local, std::move(ports)});
  hosts_.localIs(state_.domain(vlan));
}

void Engine::vniDel(Vni vni) {
  auto at = vnis_.find(vni);
  if (at == vnis_.end()) {
    return;
  }
  Vlan vlan = at->second;
  vnis_.erase(at);
  Domain* domain = state_.find(vlan);
  if (domain != nullptr && domain->mapping && domain->mapping->vni == vni) {
    devices_.del(vlan);
  }
}

void Engine::hostIs(Vlan vlan, Mac mac, Ip4 vtep) {
  if (mac.group()) {
    // What is published for it need not make sense; it stays a problem until it is withdrawn.
    state_.failures.waits({Key::Kind::host, vlan, mac.bits}, Time{}, Time::max(),
                          "a host has a unicast address");
    return;
  }
  hosts_.is(state_.domain(vlan), mac, vtep);
}

void Engine::hostDel(Vlan vlan, Mac mac) {
  if (mac.group()) {
    state_.failures.cleared({Key::Kind::host, vlan, mac.bits});
    return;
  }
  Domain* domain = state_.find(vlan);
  if (domain != nullptr) {
    hosts_.del(*domain, mac);
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
  } else if (mac.group()) {
    floods_.is(state_.domain(vlan), mac, {type, std::move(vteps)});
  } else {
    hosts_.setIs(state_.domain(vlan), mac, {FloodType::any, std::move(vteps)});
  }
}

void Engine::floodDel(Vlan vlan, Mac mac) {
  Domain* domain = state_.find(vlan);
  if (domain == nullptr) {
    return;
  }
  if (mac.group()) {
    floods_.del(*domain, mac);
  } else {
    hosts_.setDel(*domain, mac);
  }
}

void Engine::settled() {
  if (std::exchange(state_.settled, true)) {
    return;
  }
  for (auto& [vlan, domain] : state_.domains) {
    domainChanged(domain);
  }
  state_.nexthops.requeue();
  devices_.suspectAll();
}

void Engine::domainChanged(Domain& domain) {
  state_.queue(domain);
  state_.walk(domain);
}

void Engine::linkIs(const Link& link) {
  ++state_.counters.notifications;
  devices_.linkIs(link);
}

void Engine::linkDel(IfIndex index) {
  ++state_.counters.notifications;
  devices_.linkDel(index);
}

void Engine::portIs(const BridgePort& port) {
  ++state_.counters.notifications;
  devices_.portIs(port);
}

void Engine::nexthopIs(const Nexthop& nexthop) {
  ++state_.counters.notifications;
  state_.nexthops.is(nexthop);
}

void Engine::nexthopDel(NexthopId id) {
  ++state_.counters.notifications;
  if (!state_.nexthops.del(id)) {
    return;
  }
  // The kernel removes rows with the group that they lead to, and does not report it.
  ++state_.counters.repairs;
  ++state_.doubts;
  state_.auditWanted = true;
}

void Engine::rowIs(const Row& row, bool dumped) {
  ++state_.counters.notifications;
  const auto& owners = row.table == Table::device ? state_.deviceOf : state_.bridgeOf;
  auto at = owners.find(row.table == Table::device ? row.device : row.bridge);
  if (at == owners.end()) {
    return;
  }
  Domain& domain = *state_.find(at->second);
  if (!row.mac.group()) {
    hosts_.rowIs(domain, row, dumped);
  } else if (row.table == Table::device) {
    floods_.rowIs(domain, row, dumped);
  }
}

void Engine::rowDel(const Row& row) {
  ++state_.counters.notifications;
  const auto& owners = row.table == Table::device ? state_.deviceOf : state_.bridgeOf;
  auto at = owners.find(row.table == Table::device ? row.device : row.bridge);
  if (at == owners.end()) {
    return;
  }
  Domain& domain = *state_.find(at->second);
  if (!row.mac.group()) {
    hosts_.rowDel(domain, row);
  } else if (row.table == Table::device) {
    floods_.rowDel(domain, row);
  }
}

void Engine::overrun() {
  ++state_.counters.overruns;
  ++state_.doubts;
  state_.auditWanted = true;
}

void Engine::requeueDue() {
  for (const Key& key : state_.failures.due(state_.now, state_.options.batchRequests)) {
    Domain* domain = state_.find(key.vlan);
    switch (key.kind) {
      case Key::Kind::permission:
      case Key::Kind::dump:
      case Key::Kind::link:
        break;
      case Key::Kind::contention:
        state_.contention.quiet();
        break;
      case Key::Kind::vtep:
      case Key::Kind::group:
        state_.nexthops.requeue(key);
        break;
      case Key::Kind::domain:
      case Key::Kind::port:
        if (domain != nullptr) {
          state_.queue(*domain);
        }
        break;
      case Key::Kind::host: {
        if (domain == nullptr) {
          break;
        }
        auto at = domain->hosts.find(Mac{key.id});
        if (at != domain->hosts.end()) {
          state_.queue(*domain, at->first, at->second.queued);
        }
        break;
      }
      case Key::Kind::flood: {
        if (domain == nullptr) {
          break;
        }
        auto at = domain->floods.find(Mac{key.id});
        if (at != domain->floods.end()) {
          state_.queue(*domain, at->first, at->second.queued);
        }
        break;
      }
    }
  }
}

const Batch& Engine::batch() {
  require(outstanding_ == 0, "a batch is taken when the last one is answered");
  batch_.clear();
  batch_.limitIs(denied_ ? 1 : state_.options.batchRequests);
  if (denied_ && state_.failures.pausing(denied, state_.now)) {
    return batch_;
  }
  requeueDue();
  audit();
  std::size_t dumps = batch_.size();
  if (state_.adopting) {
    return batch_;
  }
  devices_.turn(batch_);
  devices_.sweep(batch_);
  for (std::size_t n = state_.domainQueue.size(); n > 0 && !batch_.full(); --n) {
    Domain& domain = *state_.find(state_.domainQueue.front());
    state_.domainQueue.pop_front();
    devices_.work(domain, batch_);
  }
  state_.nexthops.work(batch_, state_.now, state_.settled);
  walkDomains();
  if (!state_.nexthops.pending()) {
    workRows();
  }
  outstanding_ = batch_.size() - dumps;
  state_.counters.requests += batch_.size();
  return batch_;
}

void Engine::walkDomains() {
  std::size_t left = walkedAtOnce;
  while (!state_.walks.empty() && left > 0 && state_.rowQueue.size() < walkedAtOnce) {
    Domain& domain = *state_.find(state_.walks.front());
    if (domain.walk == Mac{}) {
      for (auto& [mac, flood] : domain.floods) {
        state_.queue(domain, mac, flood.queued);
      }
    }
    auto at = domain.hosts.lower_bound(domain.walk.value_or(Mac{}));
    for (; at != domain.hosts.end() && left > 0; ++at, --left) {
      state_.queue(domain, at->first, at->second.queued);
    }
    if (at != domain.hosts.end()) {
      domain.walk = at->first;
      return;
    }
    domain.walk.reset();
    domain.walking = false;
    state_.walks.pop_front();
  }
}

void Engine::workRows() {
  std::size_t n = std::min(state_.rowQueue.size(), lookedAtInOneTurn);
  for (; n > 0 && !batch_.full(); --n) {
    Key key = state_.rowQueue.front();
    state_.rowQueue.pop_front();
    Domain& domain = *state_.find(key.vlan);
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
  const Key key = batch_.key(at);
  require(!std::holds_alternative<Dump>(request), "a dump is answered by its end");
  if (error == EPERM || error == EACCES) {
    if (!denied_ || !state_.failures.pausing(denied, state_.now)) {
      state_.failures.failed(denied, state_.now,
                             "the kernel does not let this process change it (" + std::string(text) +
                                 "): the capability CAP_NET_ADMIN in this network namespace is needed");
    }
    denied_ = true;
  } else if (error == 0 && denied_) {
    denied_ = false;
    state_.failures.cleared(denied);
  }
  ++(error == 0 ? state_.counters.acknowledged : state_.counters.refused);
  answeredRow(request, key, error, text);
}

void Engine::answeredRow(const Request& request, const Key& key, int error, std::string_view text) {
  switch (key.kind) {
    case Key::Kind::vtep:
    case Key::Kind::group: {
      bool before = state_.nexthops.supported();
      state_.nexthops.answered(request, key, error, text, state_.now);
      if (before != state_.nexthops.supported()) {
        for (auto& [vlan, domain] : state_.domains) {
          domainChanged(domain);
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
  ++state_.counters.overruns;
  ++state_.doubts;
  state_.auditWanted = true;
  state_.nexthops.requeue();
  for (auto& [vlan, domain] : state_.domains) {
    domainChanged(domain);
  }
}

bool Engine::moreWork() const {
  if (denied_) {
    return false;
  }
  bool dumpToAsk = phase_ == Phase::comparing ||
                   (phase_ != Phase::idle && !asked_ && state_.failures.find(dump) == nullptr);
  if (state_.adopting) {
    return dumpToAsk;
  }
  return dumpToAsk || !state_.rowQueue.empty() || !state_.domainQueue.empty() || !state_.walks.empty() ||
         state_.nexthops.pending();
}

Time Engine::nextWakeup() const {
  if (denied_) {
    return state_.failures.find(denied)->next;
  }
  Time next = Time::max();
  if (phase_ == Phase::idle) {
    next = state_.auditWanted ? auditNotBefore_ : std::max(auditNext_, auditNotBefore_);
  }
  return std::min({next, devices_.nextTurn(), state_.failures.next().value_or(Time::max())});
}

}  // namespace Agent::Kernel
