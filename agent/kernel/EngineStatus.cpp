#include <algorithm>

#include "agent/kernel/Engine.h"

// What the engine tells of itself.
namespace Agent::Kernel {

namespace {

const char* word(Mark mark) {
  switch (mark) {
    case Mark::none:
      return "none";
    case Mark::ours:
      return "ours";
    case Mark::foreign:
      return "foreign";
    case Mark::learned:
      return "learned";
  }
  return "";
}

}  // namespace

Tally Engine::tallyDevices() const {
  Tally tally{"devices", 0, 0, 0, 0};
  for (const auto& [vlan, domain] : state_.domains) {
    if (!domain.mapping) {
      continue;
    }
    tally.wanted += 2;
    tally.there += (domain.bridge != 0 ? 1U : 0U) + (domain.device != 0 ? 1U : 0U);
    tally.differing += devices_.differs(domain) ? 1U : 0U;
  }
  tally.differing += devices_.stale();
  return tally;
}

// In doubt, nothing is said to be as wanted or otherwise.
void Engine::doubt(Tally& tally) const {
  if (!certain()) {
    tally.unknown = tally.wanted;
    tally.differing = 0;
  }
}

std::vector<Tally> Engine::tallies() const {
  Nexthops::Counts nexthops = state_.nexthops.counts();
  Tally hosts{"hosts", 0, 0, 0, 0};
  Tally floods{"floods", 0, 0, 0, 0};
  const auto count = [](Tally& tally, bool known, bool wanted, bool there, bool differs) {
    tally.wanted += wanted ? 1U : 0U;
    tally.there += known && there ? 1U : 0U;
    tally.differing += known && differs ? 1U : 0U;
    tally.unknown += !known && wanted ? 1U : 0U;
  };
  for (const auto& [vlan, domain] : state_.domains) {
    for (const auto& [mac, host] : domain.hosts) {
      const bool there = host.deviceLife == domain.deviceLife && host.mark == Mark::ours &&
                         host.bridgeLife == domain.bridgeLife && host.portMark == Mark::ours;
      count(hosts, domain.read(), domain.mapping && host.group != nullptr, there,
            hosts_.differs(domain, host));
    }
    for (const auto& [mac, flood] : domain.floods) {
      const bool wanted = domain.mapping && flood.wanted && !domain.remote(flood.wanted->vteps).empty();
      const bool there = flood.nexthopMark == Mark::ours ||
                         std::any_of(flood.there.begin(), flood.there.end(),
                                     [](const auto& entry) { return entry.second.mark == Mark::ours; });
      count(floods, !domain.blind, wanted, there && flood.deviceLife == domain.deviceLife,
            floods_.differs(domain, flood));
    }
  }
  std::vector<Tally> all{
      tallyDevices(), {"nexthops", nexthops.wanted, nexthops.there, nexthops.differing, 0}, hosts, floods};
  for (Tally& tally : all) {
    doubt(tally);
  }
  return all;
}

std::string Engine::what(const Key& key) const {
  std::string vlan = "VLAN " + std::to_string(key.vlan);
  switch (key.kind) {
    case Key::Kind::permission:
      return "the kernel";
    case Key::Kind::dump:
      return "comparison with the kernel";
    case Key::Kind::contention:
      return "the kernel's tables";
    case Key::Kind::domain:
      return vlan;
    case Key::Kind::link: {
      const Link* link = state_.links.at(static_cast<IfIndex>(key.id));
      return "device " + (link != nullptr ? link->name : std::to_string(key.id));
    }
    case Key::Kind::port:
      return vlan + " port";
    case Key::Kind::vtep:
      return key.id == 0 ? "nexthops" : "nexthop of VTEP " + Ip4{static_cast<std::uint32_t>(key.id)}.text();
    case Key::Kind::group:
      return "nexthop group " + std::to_string(key.id);
    case Key::Kind::host:
      return vlan + " host " + Mac{key.id}.text();
    case Key::Kind::flood:
      return vlan + " flood set " + Mac{key.id}.text();
  }
  return {};
}

std::pair<std::vector<Problem>, std::size_t> Engine::problems(std::size_t most) const {
  std::vector<Problem> found;
  for (const auto& [key, failure] : state_.failures.all()) {
    if (found.size() == most) {
      break;
    }
    std::string why = failure.why;
    if (key.kind == Key::Kind::contention) {
      why += "; the last: " + what(state_.contention.last());
    }
    found.push_back({what(key), std::move(why), failure.attempts, failure.next});
  }
  return {std::move(found), state_.failures.all().size()};
}

void Engine::explainFlood(const Domain& domain, const Flood& flood, Explanation& out) const {
  out.wanted = flood.wanted.has_value();
  if (flood.wanted) {
    out.wantedKind = flood.wanted->type == FloodType::any ? "any" : "all";
    out.wantedVteps = domain.remote(flood.wanted->vteps);
  }
  Mark mark = flood.nexthopMark;
  for (const auto& [dst, destination] : flood.there) {
    out.deviceVteps.push_back(dst);
    if (mark != Mark::ours) {
      mark = destination.mark;
    }
  }
  out.deviceMark = word(mark);
  out.deviceNexthop = flood.nexthop;
  out.differs = floods_.differs(domain, flood);
}

void Engine::explainHost(const Domain& domain, const Host& host, Explanation& out) const {
  out.wanted = host.group != nullptr;
  if (host.group != nullptr) {
    out.wantedKind = host.group->members.size() > 1 ? "any" : "vtep";
    out.wantedVteps = host.group->members;
  }
  bool known = host.deviceLife == domain.deviceLife;
  out.deviceMark = word(known ? host.mark : Mark::none);
  if (known) {
    out.deviceNexthop = host.there.nexthop;
  }
  if (known && host.there.dst) {
    out.deviceVteps = {host.there.dst};
  }
  if (known && host.group != nullptr && host.there.nexthop == host.group->id) {
    out.deviceVteps = host.group->there;
  }
  out.portMark = word(host.bridgeLife == domain.bridgeLife ? host.portMark : Mark::none);
  const Link* port = state_.links.at(host.port);
  if (port != nullptr) {
    out.port = port->name;
  }
  out.differs = hosts_.differs(domain, host);
}

Explanation Engine::explain(Vlan vlan, Mac mac) const {
  Explanation out;
  out.deviceMark = out.portMark = word(Mark::none);
  const Domain* domain = state_.find(vlan);
  if (domain == nullptr) {
    return out;
  }
  out.mapped = domain->mapping.has_value();
  if (domain->mapping) {
    out.vni = domain->mapping->vni;
  }
  out.bridgeIndex = domain->bridge;
  out.deviceIndex = domain->device;
  if (const Link* bridge = state_.links.at(domain->bridge)) {
    out.bridge = bridge->name;
  }
  if (const Link* device = state_.links.at(domain->device)) {
    out.device = device->name;
  }
  auto host = domain->hosts.find(mac);
  if (host != domain->hosts.end()) {
    explainHost(*domain, host->second, out);
  }
  auto flood = domain->floods.find(mac);
  if (flood != domain->floods.end()) {
    explainFlood(*domain, flood->second, out);
  }
  auto kind = mac.group() ? Key::Kind::flood : Key::Kind::host;
  const Failures::Failure* failure = state_.failures.find({kind, vlan, mac.bits});
  if (failure == nullptr) {
    failure = state_.failures.find({Key::Kind::host, vlan, mac.bits});
  }
  if (failure != nullptr) {
    out.problem = failure->why;
  }
  return out;
}

}  // namespace Agent::Kernel
