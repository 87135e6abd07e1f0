#include "agent/kernel/Floods.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent::Kernel {

namespace {

Key keyOf(const Domain& domain, Mac mac) {
  return {Key::Kind::flood, domain.vlan, mac.bits};
}

Row rowOf(const Domain& domain, Mac mac, Ip4 dst, NexthopId nexthop) {
  return {Table::device, domain.device, 0, mac, dst, nexthop, false, false};
}

}  // namespace

Flood& Floods::flood(Domain& domain, Mac mac) {
  require(mac.group(), "a flood set has a group address");
  auto [at, added] = domain.floods.try_emplace(mac);
  if (added) {
    at->second.deviceLife = domain.deviceLife;
  }
  freshen(domain, at->second);
  return at->second;
}

void Floods::freshen(const Domain& domain, Flood& flood) {
  if (flood.deviceLife == domain.deviceLife) {
    return;
  }
  flood.deviceLife = domain.deviceLife;
  flood.there.clear();
  nexthopIs(flood, 0, Mark::none);
  syncHeld(domain, flood);
}

void Floods::nexthopIs(Flood& flood, NexthopId id, Mark mark) {
  flood.nexthopMark = mark;
  NexthopId before = std::exchange(flood.nexthop, id);
  if (before == id) {
    return;
  }
  if (id != 0) {
    state_.nexthops.used(id, true);
  }
  if (before != 0) {
    state_.nexthops.used(before, false);
  }
}

// Whether there is to be one row, to a group, of a set of type any.
bool Floods::leadsToAny(const Domain& domain, const Flood& flood) const {
  return domain.mapping && flood.wanted && flood.wanted->type == FloodType::any &&
         state_.nexthops.supported() && !domain.remote(flood.wanted->vteps).empty();
}

// The VTEPs that have a row each: those of a set of type all, or what type any comes down to without nexthop
// groups.
std::vector<Ip4> Floods::wantedAddresses(const Domain& domain, const Flood& flood) const {
  if (!domain.mapping || !flood.wanted || leadsToAny(domain, flood)) {
    return {};
  }
  std::vector<Ip4> vteps = domain.remote(flood.wanted->vteps);
  if (flood.wanted->type == FloodType::any && vteps.size() > 1) {
    vteps.resize(1);
  }
  return vteps;
}

void Floods::syncHeld(const Domain& domain, Flood& flood) {
  std::set<Ip4> hold;
  if (state_.nexthops.supported()) {
    for (Ip4 vtep : wantedAddresses(domain, flood)) {
      hold.insert(vtep);
    }
    for (const auto& [dst, destination] : flood.there) {
      if (destination.mark == Mark::ours) {
        hold.insert(dst);
      }
    }
  }
  for (Ip4 vtep : hold) {
    if (!flood.held.contains(vtep)) {
      state_.nexthops.holdVtep(vtep);
    }
  }
  for (Ip4 vtep : flood.held) {
    if (!hold.contains(vtep)) {
      state_.nexthops.releaseVtep(vtep);
    }
  }
  flood.held = std::move(hold);
}

void Floods::is(Domain& domain, Mac mac, FloodSet set) {
  Flood& flood = this->flood(domain, mac);
  flood.adopted = false;
  if (flood.wanted == set) {
    return;
  }
  flood.wanted = std::move(set);
  for (Ip4 vtep : flood.wanted->vteps) {
    auto there = flood.there.find(vtep);
    if (there != flood.there.end()) {
      there->second.adopted = false;
    }
  }
  syncHeld(domain, flood);
  state_.failures.cleared(keyOf(domain, mac));
  state_.contention.wanted(keyOf(domain, mac), flood.strife);
  state_.queue(domain, mac, flood.queued);
}

void Floods::del(Domain& domain, Mac mac) {
  auto at = domain.floods.find(mac);
  if (at == domain.floods.end()) {
    return;
  }
  at->second.wanted.reset();
  at->second.adopted = false;
  for (auto& [dst, destination] : at->second.there) {
    destination.adopted = false;
  }
  syncHeld(domain, at->second);
  state_.queue(domain, mac, at->second.queued);
}

bool Floods::oursFromBefore(const Domain& domain, Mac mac, Ip4 dst) const {
  if (!state_.adopting && !domain.blind) {
    return false;
  }
  auto left = domain.left.find(domain.device);
  if (left != domain.left.end() && left->second.contains({mac, dst})) {
    return true;
  }
  if (state_.nexthops.knows(dst)) {
    return true;
  }
  const Link* device = state_.links.at(domain.device);
  return !state_.nexthops.supported() && device != nullptr && state_.links.ours(*device);
}

void Floods::rowIs(Domain& domain, const Row& row, bool dumped) {
  Flood& flood = this->flood(domain, row.mac);
  bool fresh = flood.there.empty() && flood.nexthop == 0;
  if (fresh && !flood.wanted && !state_.settled) {
    flood.adopted = true;
  }
  if (row.nexthop != 0) {
    if (dumped && flood.seen == state_.dump) {
      return;
    }
    flood.seen = state_.dump;
    flood.strife.lost |= flood.nexthopMark == Mark::ours && flood.nexthop != row.nexthop;
    nexthopIs(flood, row.nexthop, state_.nexthops.ours(row.nexthop) ? Mark::ours : Mark::foreign);
  } else {
    if (dumped && flood.gone.contains(row.dst)) {
      return;
    }
    flood.gone.erase(row.dst);
    auto [at, added] = flood.there.try_emplace(row.dst);
    if (added) {
      bool ours = oursFromBefore(domain, row.mac, row.dst);
      std::vector<Ip4> wanted = wantedAddresses(domain, flood);
      at->second.mark = ours ? Mark::ours : Mark::foreign;
      at->second.adopted = ours && !std::binary_search(wanted.begin(), wanted.end(), row.dst);
    }
    at->second.seen = state_.dump;
    syncHeld(domain, flood);
  }
  changed(domain, row.mac, flood, false);
}

void Floods::rowDel(Domain& domain, const Row& row) {
  auto at = domain.floods.find(row.mac);
  if (at == domain.floods.end()) {
    return;
  }
  Flood& flood = at->second;
  freshen(domain, flood);
  flood.seen = state_.dump;
  if (row.nexthop != 0) {
    if (flood.nexthop == row.nexthop) {
      flood.strife.lost |= flood.nexthopMark == Mark::ours;
      nexthopIs(flood, 0, Mark::none);
    }
  } else {
    const auto there = flood.there.find(row.dst);
    flood.strife.lost |= there != flood.there.end() && there->second.mark == Mark::ours;
    forget(flood, row.dst);
    syncHeld(domain, flood);
  }
  state_.contention.cleared(keyOf(domain, row.mac), flood.strife, state_.now);
  changed(domain, row.mac, flood, true);
}

void Floods::dumped(Domain& domain, Mac mac) {
  Flood& flood = domain.floods.at(mac);
  freshen(domain, flood);
  if (flood.nexthop != 0 && flood.seen != state_.dump) {
    flood.strife.lost |= flood.nexthopMark == Mark::ours;
    nexthopIs(flood, 0, Mark::none);
  }
  std::erase_if(flood.there, [&](const auto& entry) {
    const bool gone = entry.second.seen != state_.dump;
    flood.strife.lost |= gone && entry.second.mark == Mark::ours;
    return gone;
  });
  flood.seen = state_.dump;
  flood.gone.clear();
  syncHeld(domain, flood);
  if (differs(domain, flood)) {
    if (flood.wanted && !state_.adopting && !flood.queued) {
      ++state_.counters.repairs;
    }
    state_.queue(domain, mac, flood.queued);
  } else {
    eraseIfIdle(domain, mac, flood);
  }
}

void Floods::changed(Domain& domain, Mac mac, Flood& flood, bool byOthers) {
  if (differs(domain, flood)) {
    if (byOthers && flood.wanted && !flood.queued) {
      ++state_.counters.repairs;
    }
    state_.queue(domain, mac, flood.queued);
  } else {
    eraseIfIdle(domain, mac, flood);
  }
}

bool Floods::differs(const Domain& domain, const Flood& flood) const {
  if (flood.deviceLife != domain.deviceLife) {
    return domain.mapping && flood.wanted;
  }
  std::vector<Ip4> wanted = wantedAddresses(domain, flood);
  for (Ip4 vtep : wanted) {
    if (!flood.there.contains(vtep)) {
      return true;
    }
  }
  for (const auto& [dst, destination] : flood.there) {
    if (destination.mark == Mark::ours && !std::binary_search(wanted.begin(), wanted.end(), dst)) {
      return true;
    }
  }
  if (!leadsToAny(domain, flood)) {
    return flood.nexthopMark == Mark::ours;
  }
  if (flood.group == nullptr || flood.nexthop == 0 || flood.nexthop != flood.group->id) {
    return true;
  }
  return flood.group->members != domain.remote(flood.wanted->vteps);
}

void Floods::eraseIfIdle(Domain& domain, Mac mac, Flood& flood) {
  if (state_.dumping || flood.wanted || flood.queued || flood.group != nullptr || !flood.there.empty() ||
      flood.nexthop != 0) {
    return;
  }
  require(flood.held.empty(), "a flood set that is nowhere keeps no VTEP");
  domain.floods.erase(mac);
}

void Floods::forget(Flood& flood, Ip4 dst) {
  flood.there.erase(dst);
  if (state_.dumping) {
    flood.gone.insert(dst);
  }
}

void Floods::removeDestinations(Domain& domain, Mac mac, const Flood& flood, Batch& out) {
  std::vector<Ip4> wanted = wantedAddresses(domain, flood);
  for (const auto& [dst, destination] : flood.there) {
    bool stays = destination.mark != Mark::ours || (destination.adopted && !state_.settled);
    if (stays || std::binary_search(wanted.begin(), wanted.end(), dst)) {
      continue;
    }
    out.add(keyOf(domain, mac), RowDel{rowOf(domain, mac, dst, 0)});
  }
}

void Floods::work(Domain& domain, Mac mac, Batch& out) {
  auto at = domain.floods.find(mac);
  if (at == domain.floods.end()) {
    return;
  }
  Flood& flood = at->second;
  if (std::exchange(flood.queued, false)) {
    --domain.queuedRows;
  }
  freshen(domain, flood);
  syncHeld(domain, flood);  // The switch's own address may have changed.
  Key key = keyOf(domain, mac);
  const bool any = leadsToAny(domain, flood);
  if (!any && flood.group != nullptr) {
    state_.nexthops.release(std::exchange(flood.group, nullptr));
  }
  if (!domain.mapping) {
    const Link* device = state_.links.at(domain.device);
    if (device == nullptr || state_.links.ours(*device)) {
      state_.failures.cleared(key);
      eraseIfIdle(domain, mac, flood);
      return;
    }
  } else if (!domain.ready() || domain.turning()) {
    return;
  }
  if (state_.contention.holdsBack(key, flood.strife, differs(domain, flood), state_.now) ||
      state_.failures.pausing(key, state_.now)) {
    return;
  }
  if (any) {
    workAny(domain, mac, flood, out);
  } else {
    workAll(domain, mac, flood, out);
  }
  if (!differs(domain, flood)) {
    state_.failures.cleared(key);
  }
  eraseIfIdle(domain, mac, flood);
}

void Floods::workAll(Domain& domain, Mac mac, Flood& flood, Batch& out) {
  Key key = keyOf(domain, mac);
  std::vector<Ip4> wanted = wantedAddresses(domain, flood);
  if (flood.nexthop != 0) {
    if (flood.nexthopMark == Mark::foreign) {
      if (!wanted.empty()) {
        state_.failures.waits(key, state_.now, state_.options.retryMost,
                              "the VXLAN device has a row of somebody else for it");
      }
      return;
    }
    if (flood.adopted && !state_.settled) {
      return;
    }
    out.add(key, RowDel{rowOf(domain, mac, {}, flood.nexthop)});
  }
  for (Ip4 vtep : wanted) {
    if (!flood.there.contains(vtep)) {
      out.add(key, RowAdd{RowAdd::How::append, rowOf(domain, mac, vtep, 0)});
    }
  }
  removeDestinations(domain, mac, flood, out);
}

void Floods::workAny(Domain& domain, Mac mac, Flood& flood, Batch& out) {
  Key key = keyOf(domain, mac);
  if (flood.nexthop != 0 && flood.nexthopMark == Mark::foreign) {
    state_.failures.waits(key, state_.now, state_.options.retryMost,
                          "the VXLAN device has a row of somebody else for it");
    return;
  }
  if (flood.group == nullptr) {
    flood.group = state_.nexthops.holdOwn(domain.remote(flood.wanted->vteps), flood.nexthop);
  } else {
    state_.nexthops.membersAre(*flood.group, domain.remote(flood.wanted->vteps));
  }
  if (flood.nexthop != 0 && flood.nexthop == flood.group->id) {
    return;
  }
  if (!state_.nexthops.ready(*flood.group)) {
    if (flood.group->queued) {
      state_.queue(domain, mac, flood.queued);  // The next batch asks for the group, and then for the row.
    } else {
      state_.failures.failed(key, state_.now, "waits for the nexthop group of its VTEPs");
    }
    return;
  }
  for (const auto& [dst, destination] : flood.there) {
    if (destination.mark != Mark::foreign) {
      continue;
    }
    state_.failures.waits(key, state_.now, state_.options.retryMost,
                          "a row to a nexthop group is not possible beside the destination " + dst.text() +
                              " of somebody else");
    return;
  }
  if (flood.nexthop != 0) {
    out.add(key, RowDel{rowOf(domain, mac, {}, flood.nexthop)});
  }
  for (const auto& [dst, destination] : flood.there) {
    out.add(key, RowDel{rowOf(domain, mac, dst, 0)});
  }
  out.add(key, RowAdd{RowAdd::How::create, rowOf(domain, mac, {}, flood.group->id)});
}

void Floods::answered(const Request& request, const Key& key, int error, std::string_view text) {
  Domain* domain = state_.find(key.vlan);
  if (domain == nullptr) {
    return;
  }
  Mac mac{key.id};
  auto at = domain->floods.find(mac);
  if (at == domain->floods.end()) {
    return;
  }
  Flood& flood = at->second;
  freshen(*domain, flood);
  const auto* del = std::get_if<RowDel>(&request);
  const Row& row = del != nullptr ? del->row : std::get<RowAdd>(request).row;
  if (row.device != domain->device) {
    return;
  }
  if (del != nullptr && (error == ENOENT || error == ENODEV)) {
    error = 0;
  }
  if (error != 0) {
    state_.failures.failed(key, state_.now, std::string(text));
    if (error == EEXIST) {
      state_.auditWanted = true;
    }
    return;
  }
  if (row.nexthop != 0) {
    flood.seen = state_.dump;
    nexthopIs(flood, del != nullptr ? 0 : row.nexthop, del != nullptr ? Mark::none : Mark::ours);
  } else if (del != nullptr) {
    forget(flood, row.dst);
  } else {
    flood.gone.erase(row.dst);
    flood.there[row.dst] = {Mark::ours, state_.dump, false};
  }
  syncHeld(*domain, flood);
  if (!differs(*domain, flood)) {
    state_.failures.cleared(key);
    eraseIfIdle(*domain, mac, flood);
  } else if (!state_.failures.pausing(key, state_.now)) {
    state_.queue(*domain, mac, flood.queued);
  }
}

}  // namespace Agent::Kernel
