#include "agent/kernel/Nexthops.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

namespace Agent::Kernel {

namespace {

constexpr NexthopId rangeMask = (1U << 20U) - 1;

Key vtepKey(Ip4 ip) {
  return {Key::Kind::vtep, 0, ip.bits};
}
Key groupKey(NexthopId id) {
  return {Key::Kind::group, 0, id};
}

}  // namespace

bool Nexthops::ours(NexthopId id) const {
  return vtepIds_.contains(id) || groupIds_.contains(id);
}

bool Nexthops::knows(Ip4 vtep) const {
  auto at = vteps_.find(vtep);
  return at != vteps_.end() && at->second.id != 0;
}

NexthopId Nexthops::take(unsigned range) {
  for (;;) {
    NexthopId id = base(range) + (next_[range]++ & rangeMask);
    if (id != 0 && !ours(id) && !taken_.contains(id) && !orphans_.contains(id)) {
      return id;
    }
  }
}

void Nexthops::unsupported(std::string why) {
  supported_ = false;
  failures_.waits(vtepKey({}), Time{}, Time{}, std::move(why));
  requeue();
}

void Nexthops::holdVtep(Ip4 vtep) {
  Vtep& state = vteps_[vtep];
  state.adopted = false;
  if (state.users++ == 0) {
    vtepQueue_.insert(vtep);
  }
}

void Nexthops::releaseVtep(Ip4 vtep) {
  auto at = vteps_.find(vtep);
  require(at != vteps_.end() && at->second.users > 0, "a VTEP is released as often as it was held");
  if (--at->second.users == 0) {
    vtepQueue_.insert(vtep);
  }
}

void Nexthops::queue(Group& group) {
  if (std::exchange(group.queued, true)) {
    return;
  }
  groupQueue_.push_back(&group);
}

void Nexthops::syncHeld(Group& group) {
  std::vector<Ip4> hold = group.members;
  if (group.exists) {
    hold.insert(hold.end(), group.actual.begin(), group.actual.end());
  }
  std::erase(hold, Ip4{});
  std::sort(hold.begin(), hold.end());
  hold.erase(std::unique(hold.begin(), hold.end()), hold.end());
  for (Ip4 vtep : hold) {
    holdVtep(vtep);
  }
  for (Ip4 vtep : std::exchange(group.held, hold)) {
    releaseVtep(vtep);
  }
}

Nexthops::Group* Nexthops::hold(const std::vector<Ip4>& members) {
  require(!members.empty(), "a group has members");
  Group*& group = sharedGroups_[members];
  if (group == nullptr) {
    auto made = std::make_unique<Group>();
    group = made.get();
    group->members = members;
    groups_.emplace(group, std::move(made));
  }
  group->adopted = false;
  if (group->users++ == 0) {
    syncHeld(*group);
    queue(*group);
  }
  return group;
}

Nexthops::Group* Nexthops::holdOwn(std::vector<Ip4> members, NexthopId id) {
  auto at = groupIds_.find(id);
  Group* group = at == groupIds_.end() || at->second->shared || at->second->users > 0 ? nullptr : at->second;
  if (group == nullptr) {
    auto made = std::make_unique<Group>();
    group = made.get();
    group->shared = false;
    groups_.emplace(group, std::move(made));
  }
  group->adopted = false;
  ++group->users;
  membersAre(*group, std::move(members));
  return group;
}

void Nexthops::membersAre(Group& group, std::vector<Ip4> members) {
  require(!group.shared && !members.empty(), "a group of its own has members");
  if (group.members == members && group.held == members) {
    return;
  }
  group.members = std::move(members);
  syncHeld(group);
  queue(group);
}

void Nexthops::release(Group* group) {
  require(group != nullptr && group->users > 0, "a group is released as often as it was held");
  if (--group->users == 0) {
    queue(*group);
  }
}

void Nexthops::used(NexthopId id, bool used) {
  auto at = groupIds_.find(id);
  if (at == groupIds_.end()) {
    return;
  }
  Group& group = *at->second;
  if (used) {
    ++group.entries;
  } else if (group.entries > 0 && --group.entries == 0) {
    queue(group);
  }
}

void Nexthops::target(const Group& group, FdbEntry& entry) const {
  if (supported_) {
    entry.nexthop = group.id;
  } else {
    entry.dst = group.members.front();
  }
}

void Nexthops::drop(Group& group) {
  if (group.queued) {
    std::erase(groupQueue_, &group);
  }
  auto shared = sharedGroups_.find(group.members);
  if (group.shared && shared != sharedGroups_.end() && shared->second == &group) {
    sharedGroups_.erase(shared);
  }
  if (group.id != 0) {
    groupIds_.erase(group.id);
    failures_.cleared(groupKey(group.id));
  }
  for (Ip4 vtep : std::exchange(group.held, {})) {
    releaseVtep(vtep);
  }
  groups_.erase(&group);
}

std::vector<Ip4> Nexthops::addresses(const std::vector<NexthopId>& ids) const {
  std::vector<Ip4> found;
  for (NexthopId id : ids) {
    auto at = vtepIds_.find(id);
    found.push_back(at == vtepIds_.end() ? Ip4{} : at->second);
  }
  std::sort(found.begin(), found.end());
  return found;
}

void Nexthops::isVtep(const Nexthop& nexthop) {
  auto known = vtepIds_.find(nexthop.id);
  if (known == vtepIds_.end()) {
    auto [at, added] = vteps_.try_emplace(nexthop.gateway);
    if (at->second.id != 0) {
      orphans_.insert(nexthop.id);
      return;
    }
    at->second.id = nexthop.id;
    at->second.adopted = added;
    known = vtepIds_.emplace(nexthop.id, nexthop.gateway).first;
  }
  Vtep& vtep = vteps_.at(known->second);
  const bool right = nexthop.gateway == known->second;
  vtep.strife.lost |= vtep.exists && !right;
  vtep.exists = right;
  vtep.seen = dump_;
  vtepQueue_.insert(known->second);
}

void Nexthops::isGroup(const Nexthop& nexthop) {
  std::vector<Ip4> members = addresses(nexthop.members);
  auto known = groupIds_.find(nexthop.id);
  if (known == groupIds_.end()) {
    bool shared = nexthop.id < base(2);
    Group* group = nullptr;
    auto at = shared ? sharedGroups_.find(members) : sharedGroups_.end();
    if (at != sharedGroups_.end() && at->second->id == 0) {
      group = at->second;
    } else {
      auto made = std::make_unique<Group>();
      group = made.get();
      group->members = members;
      group->shared = shared;
      group->adopted = true;
      groups_.emplace(group, std::move(made));
      if (shared) {
        sharedGroups_.try_emplace(members, group);
      }
    }
    group->id = nexthop.id;
    known = groupIds_.emplace(nexthop.id, group).first;
  }
  Group& group = *known->second;
  bool same = group.exists && group.actual == members;
  group.exists = true;
  group.seen = dump_;
  if (same) {
    return;
  }
  group.strife.lost |= group.actual == group.members;
  group.actual = std::move(members);
  syncHeld(group);
  queue(group);
}

void Nexthops::is(const Nexthop& nexthop) {
  if (nexthop.id < base(0) || nexthop.id >= base(3)) {
    return;
  }
  if (nexthop.protocol != options_.nexthopProtocol || !nexthop.fdb) {
    taken_.insert(nexthop.id);
  } else if (nexthop.id < base(1)) {
    isVtep(nexthop);
  } else {
    isGroup(nexthop);
  }
}

bool Nexthops::del(NexthopId id) {
  taken_.erase(id);
  orphans_.erase(id);
  auto vtep = vtepIds_.find(id);
  if (vtep != vtepIds_.end()) {
    vtepQueue_.insert(vtep->second);
    Vtep& gone = vteps_.at(vtep->second);
    gone.strife.lost |= gone.exists;
    return std::exchange(gone.exists, false);
  }
  auto group = groupIds_.find(id);
  if (group == groupIds_.end()) {
    return false;
  }
  queue(*group->second);
  group->second->strife.lost |= group->second->exists;
  return std::exchange(group->second->exists, false);
}

void Nexthops::dumped() {
  for (auto& [ip, vtep] : vteps_) {
    if (!vtep.exists || vtep.seen == dump_) {
      continue;
    }
    vtep.exists = false;
    vtep.strife.lost = true;
    vtepQueue_.insert(ip);
  }
  for (auto& [at, group] : groups_) {
    if (!group->exists || group->seen == dump_) {
      continue;
    }
    group->exists = false;
    group->strife.lost = true;
    queue(*group);
  }
}

void Nexthops::work(Batch& out, Time now, bool sweep) {
  while (!vtepQueue_.empty() && !out.full()) {
    Ip4 ip = *vtepQueue_.begin();
    vtepQueue_.erase(vtepQueue_.begin());
    workVtep(ip, out, now, sweep);
  }
  while (vtepQueue_.empty() && !groupQueue_.empty() && !out.full()) {
    Group& group = *groupQueue_.back();
    groupQueue_.pop_back();
    group.queued = false;
    workGroup(group, out, now, sweep);
  }
  while (sweep && !pending() && !orphans_.empty() && !out.full()) {
    NexthopId id = *orphans_.begin();
    orphans_.erase(orphans_.begin());
    out.add(groupKey(id), NexthopDel{id});
  }
}

void Nexthops::workVtep(Ip4 ip, Batch& out, Time now, bool sweep) {
  auto at = vteps_.find(ip);
  if (at == vteps_.end() || failures_.pausing(vtepKey(ip), now)) {
    return;
  }
  Vtep& vtep = at->second;
  if (supported_ && vtep.users > 0 && !vtep.exists) {
    if (contention_.holdsBack(vtepKey(ip), vtep.strife, true, now)) {
      return;
    }
    if (vtep.id == 0) {
      vtep.id = take(0);
    }
    vtepIds_[vtep.id] = ip;
    vtep.exists = true;
    out.add(vtepKey(ip), NexthopSet{{vtep.id, options_.nexthopProtocol, true, ip, {}}});
    return;
  }
  if (vtep.users > 0) {
    return;
  }
  if (!vtep.exists) {
    failures_.cleared(vtepKey(ip));
    vtepIds_.erase(vtep.id);
    vteps_.erase(at);
  } else if (!vtep.adopted || sweep) {
    out.add(vtepKey(ip), NexthopDel{vtep.id});
  }
}

void Nexthops::workGroup(Group& group, Batch& out, Time now, bool sweep) {
  if (group.users == 0) {
    if (group.exists && group.entries == 0 && (!group.adopted || sweep)) {
      if (!failures_.pausing(groupKey(group.id), now)) {
        out.add(groupKey(group.id), NexthopDel{group.id});
      }
    } else if (!group.exists && group.entries == 0) {
      drop(group);
    }
    return;
  }
  if (!supported_ || (group.exists && group.actual == group.members)) {
    return;
  }
  if (group.id == 0) {
    group.id = take(group.shared ? 1 : 2);
    groupIds_[group.id] = &group;
  }
  if (contention_.holdsBack(groupKey(group.id), group.strife, true, now) ||
      failures_.pausing(groupKey(group.id), now)) {
    return;
  }
  Nexthop nexthop{group.id, options_.nexthopProtocol, true, {}, {}};
  for (Ip4 member : group.members) {
    const Vtep& vtep = vteps_.at(member);
    if (!vtep.exists) {
      failures_.failed(groupKey(group.id), now, "waits for the nexthop of VTEP " + member.text());
      return;
    }
    nexthop.members.push_back(vtep.id);
  }
  group.exists = true;
  out.add(groupKey(group.id), NexthopSet{std::move(nexthop)});
}

void Nexthops::answered(const Request& request, const Key& key, int error, std::string_view text, Time now) {
  if (const auto* del = std::get_if<NexthopDel>(&request)) {
    if (error == 0 || error == ENOENT) {
      failures_.cleared(key);
      removed(del->id);
    } else {
      failures_.failed(key, now, std::string(text));
    }
    return;
  }
  const Nexthop& nexthop = std::get<NexthopSet>(request).nexthop;
  if (error != 0) {
    refused(nexthop, key, error, text, now);
    return;
  }
  confirmed_ = true;
  failures_.cleared(key);
  if (key.kind == Key::Kind::vtep) {
    vteps_.at(Ip4{static_cast<std::uint32_t>(key.id)}).seen = dump_;
    return;
  }
  Group& group = *groupIds_.at(nexthop.id);
  group.actual = addresses(nexthop.members);
  group.seen = dump_;
  syncHeld(group);
  if (group.actual != group.members || group.users == 0) {
    queue(group);
  }
}

void Nexthops::refused(const Nexthop& nexthop, const Key& key, int error, std::string_view text, Time now) {
  if (key.kind == Key::Kind::vtep) {
    vteps_.at(Ip4{static_cast<std::uint32_t>(key.id)}).exists = false;
    if (!confirmed_ && (error == EOPNOTSUPP || error == EINVAL || error == EAFNOSUPPORT)) {
      unsupported("the kernel has no nexthop groups for forwarding rows (" + std::string(text) +
                  "): rows lead to addresses, and of a set of type any only its first VTEP is used");
      return;
    }
  } else {
    groupIds_.at(nexthop.id)->exists = false;
  }
  if (supported_) {
    failures_.failed(key, now, std::string(text));
  }
}

void Nexthops::removed(NexthopId id) {
  orphans_.erase(id);
  auto vtep = vtepIds_.find(id);
  if (vtep != vtepIds_.end()) {
    vteps_.at(vtep->second).exists = false;
    vtepQueue_.insert(vtep->second);
    return;
  }
  auto group = groupIds_.find(id);
  if (group == groupIds_.end()) {
    return;
  }
  group->second->exists = false;
  queue(*group->second);
}

void Nexthops::requeue() {
  for (auto& [ip, vtep] : vteps_) {
    vtepQueue_.insert(ip);
  }
  for (auto& [at, group] : groups_) {
    queue(*group);
  }
}

void Nexthops::requeue(const Key& key) {
  if (key.kind == Key::Kind::vtep) {
    if (key.id != 0) {
      vtepQueue_.insert(Ip4{static_cast<std::uint32_t>(key.id)});
    }
    return;
  }
  auto group = groupIds_.find(static_cast<NexthopId>(key.id));
  if (group != groupIds_.end()) {
    queue(*group->second);
  }
}

Nexthops::Counts Nexthops::counts() const {
  Counts counts;
  if (!supported_) {
    return counts;
  }
  const auto count = [&counts](bool desired, bool actual, bool same) {
    counts.desired += desired ? 1 : 0;
    counts.actual += actual ? 1 : 0;
    counts.differing += desired != actual || (desired && !same) ? 1 : 0;
  };
  for (const auto& [ip, vtep] : vteps_) {
    count(vtep.users > 0, vtep.exists, true);
  }
  for (const auto& [at, group] : groups_) {
    count(group->users > 0, group->exists, group->actual == group->members);
  }
  return counts;
}

}  // namespace Agent::Kernel
