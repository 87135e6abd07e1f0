#include "agent/kernel/Status.h"

namespace Agent::Kernel {

Tally Status::tallyDevices() const {
  Tally tally{"devices", 0, 0, 0, 0};
  for (const auto& [vlan, domain] : observed_.domains) {
    if (!domain.mapped()) {
      continue;
    }
    tally.desired += 2;
    tally.actual += (domain.bridge != 0 ? 1U : 0U) + (domain.device != 0 ? 1U : 0U);
    tally.differing += devices_.differs(domain) ? 1U : 0U;
  }
  tally.differing += sweep_.stale();
  return tally;
}

// In doubt, nothing is said to be as wanted or otherwise.
void Status::doubt(Tally& tally) const {
  if (!audit_.certain()) {
    tally.unknown = tally.desired;
    tally.differing = 0;
  }
}

std::vector<Tally> Status::tallies() const {
  const Nexthops::Counts nexthops = nexthops_.counts();
  Tally hosts{"hosts", 0, 0, 0, 0};
  Tally floods{"floods", 0, 0, 0, 0};
  for (const auto& [vlan, domain] : observed_.domains) {
    const std::size_t desiredHosts = domain.mapped() ? domain.hostCounts.desiredHosts() : 0;
    hosts.desired += desiredHosts;
    hosts.actual += domain.read() ? domain.hostCounts.actualHosts() : 0;
    hosts.differing += domain.read() ? domain.hostCounts.differingHosts(domain.mapped()) : 0;
    hosts.unknown += domain.read() ? 0 : desiredHosts;
    const std::size_t desiredFloods = domain.floodCounts.desiredFloods(domain.mapped());
    floods.desired += desiredFloods;
    floods.actual += domain.deviceUnread ? 0 : domain.floodCounts.actualFloods();
    floods.differing += domain.deviceUnread ? 0 : domain.floodCounts.differingFloods(domain.mapped());
    floods.unknown += domain.deviceUnread ? desiredFloods : 0;
  }
  std::vector<Tally> all{
      tallyDevices(), {"nexthops", nexthops.desired, nexthops.actual, nexthops.differing, 0}, hosts, floods};
  for (Tally& tally : all) {
    doubt(tally);
  }
  return all;
}

std::string Status::what(const Key& key) const {
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
      const Link* link = observed_.links.at(static_cast<IfIndex>(key.id));
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

std::pair<std::vector<Problem>, std::size_t> Status::problems(std::size_t most) const {
  std::vector<Problem> found;
  for (const auto& [key, failure] : work_.failures.all()) {
    if (found.size() == most) {
      break;
    }
    std::string why = failure.why;
    if (key.kind == Key::Kind::contention) {
      why += "; the last: " + what(work_.contention.last());
    }
    found.push_back({what(key), std::move(why), failure.attempts, failure.next});
  }
  return {std::move(found), work_.failures.all().size()};
}

void Status::explainFlood(const BridgeDomain& domain, Mac mac, const Flood& flood, Explanation& out) const {
  if (const FloodSet* set = domain.desired.flood(mac)) {
    out.desired = set->type == FloodType::any ? Explanation::Kind::any : Explanation::Kind::all;
    out.desiredVteps = domain.desired.remote(set->vteps);
  }
  out.deviceOwner = flood.nexthopOwner;
  for (const auto& [dst, destination] : flood.actual) {
    out.deviceVteps.push_back(dst);
    if (out.deviceOwner != Owner::ours) {
      out.deviceOwner = destination.owner;
    }
  }
  out.deviceNexthop = flood.nexthop;
  out.differs = floods_.differs(domain, mac, flood);
}

void Status::explainHost(const BridgeDomain& domain, const Host& host, Explanation& out) const {
  if (host.group != nullptr) {
    out.desired = host.group->members.size() > 1 ? Explanation::Kind::any : Explanation::Kind::vtep;
    out.desiredVteps = host.group->members;
  }
  if (host.deviceLife == domain.deviceLife) {
    out.deviceOwner = host.owner;
    out.deviceNexthop = host.actual.nexthop;
    if (host.actual.dst) {
      out.deviceVteps = {host.actual.dst};
    }
    if (host.group != nullptr && host.actual.nexthop != 0 && host.actual.nexthop == host.group->id) {
      out.deviceVteps = host.group->actual;
    }
  }
  if (host.bridgeLife == domain.bridgeLife) {
    out.portOwner = host.portOwner;
  }
  const Link* port = observed_.links.at(host.port);
  if (port != nullptr) {
    out.port = port->name;
  }
  out.differs = hosts_.differs(domain, host);
}

Explanation Status::explain(Vlan vlan, Mac mac) const {
  Explanation out;
  const BridgeDomain* domain = observed_.find(vlan);
  if (domain == nullptr) {
    return out;
  }
  out.mapped = domain->mapped();
  if (domain->mapped()) {
    out.vni = domain->desired.mapping->vni;
  }
  out.bridgeIndex = domain->bridge;
  out.deviceIndex = domain->device;
  if (const Link* bridge = observed_.links.at(domain->bridge)) {
    out.bridge = bridge->name;
  }
  if (const Link* device = observed_.links.at(domain->device)) {
    out.device = device->name;
  }
  const auto host = domain->hosts.find(mac);
  if (host != domain->hosts.end()) {
    explainHost(*domain, host->second, out);
  }
  const auto flood = domain->floods.find(mac);
  if (flood != domain->floods.end()) {
    explainFlood(*domain, mac, flood->second, out);
  }
  const auto kind = mac.group() ? Key::Kind::flood : Key::Kind::host;
  const Failures::Failure* failure = work_.failures.find({kind, vlan, mac.bits});
  if (failure == nullptr) {
    failure = work_.failures.find({Key::Kind::host, vlan, mac.bits});
  }
  if (failure != nullptr) {
    out.problem = failure->why;
  }
  return out;
}

}  // namespace Agent::Kernel
