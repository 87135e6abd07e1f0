#include "agent/kernel/Floods.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

Key keyOf(const BridgeDomain& domain, Mac mac) {
  return {Key::Kind::flood, domain.vlan, mac.bits};
}

FdbEntry entryOf(const BridgeDomain& domain, Mac mac, Ip4 dst, NexthopId nexthop) {
  return {.table = Table::device, .device = domain.device, .mac = mac, .dst = dst, .nexthop = nexthop};
}

}  // namespace

Flood& Floods::flood(BridgeDomain& domain, Mac mac) {
  require(mac.group(), "a flood list has a group address");
  auto [at, added] = domain.floods.try_emplace(mac);
  if (added) {
    at->second.deviceLife = domain.deviceLife;
    domain.floodCounts.enter(at->second.counted);
  }
  dropStale(domain, mac, at->second);
  return at->second;
}

// Forgets what was known of entries in an earlier device. They are not counted any more.
void Floods::dropStale(BridgeDomain& domain, Mac mac, Flood& flood) {
  if (flood.deviceLife == domain.deviceLife) {
    return;
  }
  flood.deviceLife = domain.deviceLife;
  flood.counted = FloodCounts::withoutDevice(flood.counted);
  flood.actual.clear();
  nexthopIs(flood, 0, Owner::none);
  syncHeld(domain, mac, flood);
}

void Floods::recount(BridgeDomain& domain, Mac mac, Flood& flood) {
  const auto flag = [](bool holds, FloodCounts::State state) { return holds ? state : FloodCounts::State{}; };
  const FloodSet* set = domain.desired.flood(mac);
  const bool ours = flood.nexthopOwner == Owner::ours ||
                    std::any_of(flood.actual.begin(), flood.actual.end(),
                                [](const auto& each) { return each.second.owner == Owner::ours; });
  domain.floodCounts.leave(flood.counted);
  flood.counted = flag(set != nullptr, FloodCounts::listed) |
                  flag(set != nullptr && !domain.desired.remote(set->vteps).empty(), FloodCounts::desired) |
                  flag(ours, FloodCounts::actual) | flag(differs(domain, mac, flood), FloodCounts::differs);
  domain.floodCounts.enter(flood.counted);
}

void Floods::nexthopIs(Flood& flood, NexthopId id, Owner owner) {
  flood.nexthopOwner = owner;
  NexthopId before = std::exchange(flood.nexthop, id);
  if (before == id) {
    return;
  }
  if (id != 0) {
    nexthops_.used(id, true);
  }
  if (before != 0) {
    nexthops_.used(before, false);
  }
}

// Whether one entry to a nexthop group is desired: a list of type any.
bool Floods::leadsToAny(const BridgeDomain& domain, Mac mac) const {
  const FloodSet* set = domain.mapped() ? domain.desired.flood(mac) : nullptr;
  return set != nullptr && set->type == FloodType::any && nexthops_.supported() &&
         !domain.desired.remote(set->vteps).empty();
}

// The VTEPs with a desired entry each: those of a list of type all, or the first of a list of type any if the
// kernel has no nexthop groups.
std::vector<Ip4> Floods::desiredAddresses(const BridgeDomain& domain, Mac mac) const {
  const FloodSet* set = domain.mapped() ? domain.desired.flood(mac) : nullptr;
  if (set == nullptr || leadsToAny(domain, mac)) {
    return {};
  }
  std::vector<Ip4> vteps = domain.desired.remote(set->vteps);
  if (set->type == FloodType::any && vteps.size() > 1) {
    vteps.resize(1);
  }
  return vteps;
}

void Floods::syncHeld(const BridgeDomain& domain, Mac mac, Flood& flood) {
  std::set<Ip4> hold;
  if (nexthops_.supported()) {
    for (Ip4 vtep : desiredAddresses(domain, mac)) {
      hold.insert(vtep);
    }
    for (const auto& [dst, destination] : flood.actual) {
      if (destination.owner == Owner::ours) {
        hold.insert(dst);
      }
    }
  }
  for (Ip4 vtep : hold) {
    if (!flood.held.contains(vtep)) {
      nexthops_.holdVtep(vtep);
    }
  }
  for (Ip4 vtep : flood.held) {
    if (!hold.contains(vtep)) {
      nexthops_.releaseVtep(vtep);
    }
  }
  flood.held = std::move(hold);
}

void Floods::changed(BridgeDomain& domain, Mac mac) {
  const FloodSet* set = domain.desired.flood(mac);
  if (set == nullptr && !domain.floods.contains(mac)) {
    return;
  }
  Flood& flood = this->flood(domain, mac);
  flood.adopted = false;
  for (auto& [dst, destination] : flood.actual) {
    if (set == nullptr || std::binary_search(set->vteps.begin(), set->vteps.end(), dst)) {
      destination.adopted = false;
    }
  }
  syncHeld(domain, mac, flood);
  recount(domain, mac, flood);
  if (set != nullptr) {
    work_.failures.cleared(keyOf(domain, mac));
    work_.contention.wanted(keyOf(domain, mac), flood.pending.strife);
  }
  work_.queue(domain.vlan, mac, flood.pending);
}

void Floods::mappingChanged(BridgeDomain& domain) {
  for (auto& [mac, flood] : domain.floods) {
    dropStale(domain, mac, flood);
    recount(domain, mac, flood);
  }
}

void Floods::nexthopsLost() {
  for (auto& [vlan, domain] : observed_.domains) {
    mappingChanged(domain);
  }
}

bool Floods::oursFromBefore(const BridgeDomain& domain, Mac mac, Ip4 dst) const {
  if (!observed_.adopting && !domain.deviceUnread) {
    return false;
  }
  auto left = domain.leftBehind.find(domain.device);
  if (left != domain.leftBehind.end() && left->second.contains({mac, dst})) {
    return true;
  }
  if (nexthops_.knows(dst)) {
    return true;
  }
  const Link* device = observed_.links.at(domain.device);
  return !nexthops_.supported() && device != nullptr && observed_.links.ours(*device);
}

void Floods::entryIs(BridgeDomain& domain, const FdbEntry& entry, bool dumped) {
  const Mac mac = entry.mac;
  Flood& flood = this->flood(domain, mac);
  bool fresh = flood.actual.empty() && flood.nexthop == 0;
  if (fresh && domain.desired.flood(mac) == nullptr && !desired_.initialSyncComplete) {
    flood.adopted = true;
  }
  if (entry.nexthop != 0) {
    if (dumped && flood.seen == observed_.dump) {
      return;
    }
    flood.seen = observed_.dump;
    flood.pending.strife.lost |= flood.nexthopOwner == Owner::ours && flood.nexthop != entry.nexthop;
    nexthopIs(flood, entry.nexthop, nexthops_.ours(entry.nexthop) ? Owner::ours : Owner::foreign);
  } else {
    if (dumped && flood.gone.contains(entry.dst)) {
      return;
    }
    flood.gone.erase(entry.dst);
    auto [at, added] = flood.actual.try_emplace(entry.dst);
    if (added) {
      bool ours = oursFromBefore(domain, mac, entry.dst);
      const std::vector<Ip4> desired = desiredAddresses(domain, mac);
      at->second.owner = ours ? Owner::ours : Owner::foreign;
      at->second.adopted = ours && !std::binary_search(desired.begin(), desired.end(), entry.dst);
    }
    at->second.seen = observed_.dump;
    syncHeld(domain, mac, flood);
  }
  reported(domain, mac, flood, false);
}

void Floods::entryDel(BridgeDomain& domain, const FdbEntry& entry) {
  const Mac mac = entry.mac;
  auto at = domain.floods.find(mac);
  if (at == domain.floods.end()) {
    return;
  }
  Flood& flood = at->second;
  dropStale(domain, mac, flood);
  flood.seen = observed_.dump;
  if (entry.nexthop != 0) {
    if (flood.nexthop == entry.nexthop) {
      flood.pending.strife.lost |= flood.nexthopOwner == Owner::ours;
      nexthopIs(flood, 0, Owner::none);
    }
  } else {
    const auto known = flood.actual.find(entry.dst);
    flood.pending.strife.lost |= known != flood.actual.end() && known->second.owner == Owner::ours;
    forget(flood, entry.dst);
    syncHeld(domain, mac, flood);
  }
  work_.contention.cleared(keyOf(domain, mac), flood.pending.strife, work_.now);
  reported(domain, mac, flood, true);
}

void Floods::dumped(BridgeDomain& domain, Mac mac) {
  Flood& flood = domain.floods.at(mac);
  dropStale(domain, mac, flood);
  if (flood.nexthop != 0 && flood.seen != observed_.dump) {
    flood.pending.strife.lost |= flood.nexthopOwner == Owner::ours;
    nexthopIs(flood, 0, Owner::none);
  }
  std::erase_if(flood.actual, [&](const auto& entry) {
    const bool gone = entry.second.seen != observed_.dump;
    flood.pending.strife.lost |= gone && entry.second.owner == Owner::ours;
    return gone;
  });
  flood.seen = observed_.dump;
  flood.gone.clear();
  syncHeld(domain, mac, flood);
  if (differs(domain, mac, flood)) {
    if (domain.desired.flood(mac) != nullptr && !observed_.adopting && !flood.pending.queued) {
      ++work_.counters.repairs;
    }
    work_.queue(domain.vlan, mac, flood.pending);
  }
  done(domain, mac, flood);
}

void Floods::reported(BridgeDomain& domain, Mac mac, Flood& flood, bool byOthers) {
  if (differs(domain, mac, flood)) {
    if (byOthers && domain.desired.flood(mac) != nullptr && !flood.pending.queued) {
      ++work_.counters.repairs;
    }
    work_.queue(domain.vlan, mac, flood.pending);
  }
  done(domain, mac, flood);
}

bool Floods::differs(const BridgeDomain& domain, Mac mac, const Flood& flood) const {
  if (flood.deviceLife != domain.deviceLife) {
    return domain.mapped() && domain.desired.flood(mac) != nullptr;
  }
  const std::vector<Ip4> desired = desiredAddresses(domain, mac);
  for (const Ip4 vtep : desired) {
    if (!flood.actual.contains(vtep)) {
      return true;
    }
  }
  for (const auto& [dst, destination] : flood.actual) {
    if (destination.owner == Owner::ours && !std::binary_search(desired.begin(), desired.end(), dst)) {
      return true;
    }
  }
  if (!leadsToAny(domain, mac)) {
    return flood.nexthopOwner == Owner::ours;
  }
  if (flood.group == nullptr || flood.nexthop == 0 || flood.nexthop != flood.group->id) {
    return true;
  }
  return flood.group->members != domain.desired.remote(domain.desired.flood(mac)->vteps);
}

void Floods::done(BridgeDomain& domain, Mac mac, Flood& flood) {
  recount(domain, mac, flood);
  const bool needed = observed_.dumping || domain.desired.flood(mac) != nullptr || flood.pending.queued ||
                      flood.group != nullptr || !flood.actual.empty() || flood.nexthop != 0;
  if (needed) {
    return;
  }
  require(flood.held.empty(), "a flood list that is nowhere keeps no VTEP");
  domain.floodCounts.leave(flood.counted);
  domain.floods.erase(mac);
}

void Floods::forget(Flood& flood, Ip4 dst) {
  flood.actual.erase(dst);
  if (observed_.dumping) {
    flood.gone.insert(dst);
  }
}

void Floods::removeDestinations(BridgeDomain& domain, Mac mac, const Flood& flood, Batch& out) {
  const std::vector<Ip4> desired = desiredAddresses(domain, mac);
  for (const auto& [dst, destination] : flood.actual) {
    bool stays = destination.owner != Owner::ours || (destination.adopted && !desired_.initialSyncComplete);
    if (stays || std::binary_search(desired.begin(), desired.end(), dst)) {
      continue;
    }
    out.add(keyOf(domain, mac), FdbDel{entryOf(domain, mac, dst, 0)});
  }
}

void Floods::work(BridgeDomain& domain, Mac mac, Batch& out) {
  auto at = domain.floods.find(mac);
  if (at == domain.floods.end()) {
    return;
  }
  Flood& flood = at->second;
  flood.pending.queued = false;
  dropStale(domain, mac, flood);
  syncHeld(domain, mac, flood);  // The switch's own address may have changed.
  Key key = keyOf(domain, mac);
  const bool any = leadsToAny(domain, mac);
  if (!any && flood.group != nullptr) {
    nexthops_.release(std::exchange(flood.group, nullptr));
  }
  recount(domain, mac, flood);
  if (!domain.mapped()) {
    const Link* device = observed_.links.at(domain.device);
    if (device == nullptr || observed_.links.ours(*device)) {
      work_.failures.cleared(key);
      done(domain, mac, flood);
      return;
    }
  } else if (!domain.ready() || renumbering_.beforeCutOver(domain.vlan)) {
    return;
  }
  if (work_.contention.holdsBack(key, flood.pending.strife, differs(domain, mac, flood), work_.now) ||
      work_.failures.pausing(key, work_.now)) {
    return;
  }
  if (any) {
    workAny(domain, mac, flood, out);
  } else {
    workAll(domain, mac, flood, out);
  }
  if (!differs(domain, mac, flood)) {
    work_.failures.cleared(key);
  }
  done(domain, mac, flood);
}

void Floods::workAll(BridgeDomain& domain, Mac mac, Flood& flood, Batch& out) {
  Key key = keyOf(domain, mac);
  const std::vector<Ip4> desired = desiredAddresses(domain, mac);
  if (flood.nexthop != 0) {
    if (flood.nexthopOwner == Owner::foreign) {
      if (!desired.empty()) {
        work_.failures.waits(key, work_.now, options_.retryMost,
                             "the VXLAN device has a row of somebody else for it");
      }
      return;
    }
    if (flood.adopted && !desired_.initialSyncComplete) {
      return;
    }
    out.add(key, FdbDel{entryOf(domain, mac, {}, flood.nexthop)});
  }
  for (Ip4 vtep : desired) {
    if (!flood.actual.contains(vtep)) {
      out.add(key, FdbAdd{FdbAdd::How::append, entryOf(domain, mac, vtep, 0)});
    }
  }
  removeDestinations(domain, mac, flood, out);
}

void Floods::workAny(BridgeDomain& domain, Mac mac, Flood& flood, Batch& out) {
  Key key = keyOf(domain, mac);
  if (flood.nexthop != 0 && flood.nexthopOwner == Owner::foreign) {
    work_.failures.waits(key, work_.now, options_.retryMost,
                         "the VXLAN device has a row of somebody else for it");
    return;
  }
  std::vector<Ip4> members = domain.desired.remote(domain.desired.flood(mac)->vteps);
  if (flood.group == nullptr) {
    flood.group = nexthops_.holdOwn(std::move(members), flood.nexthop);
  } else {
    nexthops_.membersAre(*flood.group, std::move(members));
  }
  if (flood.nexthop != 0 && flood.nexthop == flood.group->id) {
    return;
  }
  if (!nexthops_.ready(*flood.group)) {
    if (flood.group->queued) {
      work_.queue(domain.vlan, mac,
                  flood.pending);  // The next batch asks for the group, and then for the entry.
    } else {
      work_.failures.failed(key, work_.now, "waits for the nexthop group of its VTEPs");
    }
    return;
  }
  for (const auto& [dst, destination] : flood.actual) {
    if (destination.owner != Owner::foreign) {
      continue;
    }
    work_.failures.waits(key, work_.now, options_.retryMost,
                         "a row to a nexthop group is not possible beside the destination " + dst.text() +
                             " of somebody else");
    return;
  }
  if (flood.nexthop != 0) {
    out.add(key, FdbDel{entryOf(domain, mac, {}, flood.nexthop)});
  }
  for (const auto& [dst, destination] : flood.actual) {
    out.add(key, FdbDel{entryOf(domain, mac, dst, 0)});
  }
  out.add(key, FdbAdd{FdbAdd::How::create, entryOf(domain, mac, {}, flood.group->id)});
}

void Floods::answered(const Request& request, const Key& key, int error, std::string_view text) {
  BridgeDomain* domain = observed_.find(key.vlan);
  if (domain == nullptr) {
    return;
  }
  Mac mac{key.id};
  auto at = domain->floods.find(mac);
  if (at == domain->floods.end()) {
    return;
  }
  Flood& flood = at->second;
  dropStale(*domain, mac, flood);
  const auto* del = std::get_if<FdbDel>(&request);
  const FdbEntry& entry = del != nullptr ? del->entry : std::get<FdbAdd>(request).entry;
  if (entry.device != domain->device) {
    return;
  }
  if (del != nullptr && (error == ENOENT || error == ENODEV)) {
    error = 0;
  }
  if (error != 0) {
    work_.failures.failed(key, work_.now, std::string(text));
    if (error == EEXIST) {
      work_.auditWanted = true;
    }
    return;
  }
  if (entry.nexthop != 0) {
    flood.seen = observed_.dump;
    nexthopIs(flood, del != nullptr ? 0 : entry.nexthop, del != nullptr ? Owner::none : Owner::ours);
  } else if (del != nullptr) {
    forget(flood, entry.dst);
  } else {
    flood.gone.erase(entry.dst);
    flood.actual[entry.dst] = {Owner::ours, observed_.dump, false};
  }
  syncHeld(*domain, mac, flood);
  if (!differs(*domain, mac, flood)) {
    work_.failures.cleared(key);
  } else if (!work_.failures.pausing(key, work_.now)) {
    work_.queue(domain->vlan, mac, flood.pending);
  }
  done(*domain, mac, flood);
}

}  // namespace Agent::Kernel
