// How what was decided becomes patches.
#include <algorithm>

#include "agent/ovsdb/Mapper.h"

namespace Agent::Ovsdb {

namespace {

using nlohmann::json;

// The mode of the hardware's BUM status in which the controller says where frames are flooded to.
constexpr int controllerReplicationMode = 3;

const char* floodTable(bool multipath) {
  return multipath ? "macVtepMultiPathTable" : "macVtepFloodListTable";
}

json inController(const char* member, json value) {
  return {{"controller", {{member, std::move(value)}}}};
}

}  // namespace

std::optional<json> Mapper::next(std::size_t hosts) {
  if (updateOpen_ || settling()) {
    return std::nullopt;
  }
  if (std::optional<json> patch = frontPatch()) {
    return patch;
  }
  if (std::optional<json> patch = withdrawalPatch(hosts)) {
    return patch;
  }
  if (std::optional<json> patch = vlanPatch(hosts)) {
    return patch;
  }
  if (std::optional<json> patch = fdbPatch(hosts)) {
    return patch;
  }
  return endPatch();
}

bool Mapper::pending() const {
  return !updateOpen_ && !settling() &&
         (!frontPublished_ || vtepPublished_ != topology_.localVtep() ||
          flagPublished_ != convergence_.inProgress() || !withdrawals_.empty() || vlansDirty_ ||
          !queue_.empty());
}

// The VTI, the replication mode, and the beginning of convergence.
std::optional<json> Mapper::frontPatch() {
  json patch = json::object();
  json& vti = patch["vtiStatus"][options_.vti] = json::object();
  if (!frontPublished_) {
    vti = {{"controllerClientMode", true}, {"datapathLearning", false}};
    patch["vlanVniMap"][options_.vti] = json::object();
    patch["hardware"]["bumStatus"]["bumReplicationMode"] = controllerReplicationMode;
  }
  if (vtepPublished_ != topology_.localVtep()) {
    vtepPublished_ = topology_.localVtep();
    vti["localVtepAddr"] = vtepPublished_ == 0 ? json() : json(ipv4Text(vtepPublished_));
  }
  if (vti.empty()) {
    patch.erase("vtiStatus");
  }
  if (!frontPublished_ || (convergence_.inProgress() && !flagPublished_)) {
    flagPublished_ = convergence_.inProgress();
    patch["controller"]["state"][options_.stateName]["convergenceInProgress"] = flagPublished_;
  }
  frontPublished_ = true;
  return patch.empty() ? std::nullopt : std::optional{std::move(patch)};
}

std::optional<json> Mapper::withdrawalPatch(std::size_t hosts) {
  json entries = json::object();
  while (!withdrawals_.empty()) {
    const auto [vni, size] = *withdrawals_.begin();
    if (!entries.empty() && size > hosts) {
      break;
    }
    entries[std::to_string(vni)] = nullptr;
    hosts -= std::min(hosts, size + 1);
    withdrawals_.erase(withdrawals_.begin());
  }
  return entries.empty() ? std::nullopt : std::optional{inController("fdb", std::move(entries))};
}

// The difference between the VLANs decided and those published. As one patch if it is small; else in several,
// of which those that remove come first, so that no VNI has two VLANs in between.
std::optional<json> Mapper::vlanPatch(std::size_t most) {
  if (!vlansDirty_) {
    return std::nullopt;
  }
  std::vector<std::uint16_t> gone;
  std::vector<std::uint16_t> come;
  for (const auto& [vlan, vni] : vlansPublished_) {
    const auto decided = topology_.vlans().find(vlan);
    if (decided == topology_.vlans().end() || decided->second.vni != vni) {
      gone.push_back(vlan);
    }
  }
  for (const auto& [vlan, entry] : topology_.vlans()) {
    const auto published = vlansPublished_.find(vlan);
    if (published == vlansPublished_.end() || published->second != entry.vni) {
      come.push_back(vlan);
    }
  }
  const std::size_t limit = std::max<std::size_t>(most, 1);
  vlansDirty_ = gone.size() + come.size() > limit;
  json map = json::object();
  if (vlansDirty_) {
    come.resize(gone.empty() ? std::min(come.size(), limit) : 0);
    gone.resize(std::min(gone.size(), limit));
  }
  for (const std::uint16_t vlan : gone) {
    map[std::to_string(vlan)] = nullptr;
    vlansPublished_.erase(vlan);
  }
  for (const std::uint16_t vlan : come) {
    const std::uint32_t vni = topology_.vlans().at(vlan).vni;
    map[std::to_string(vlan)] = vni;
    vlansPublished_[vlan] = vni;
  }
  if (map.empty()) {
    return std::nullopt;
  }
  return json{{"vlanVniMap", {{options_.vti, std::move(map)}}}};
}

std::optional<json> Mapper::fdbPatch(std::size_t hosts) {
  json fdb = json::object();
  std::size_t room = std::max<std::size_t>(hosts, 1);
  while (room > 0 && !queue_.empty()) {
    publish(queue_.front(), fdb, room);
  }
  return fdb.empty() ? std::nullopt : std::optional{inController("fdb", std::move(fdb))};
}

std::optional<json> Mapper::endPatch() {
  if (!flagPublished_ || convergence_.inProgress()) {
    return std::nullopt;
  }
  flagPublished_ = false;
  return inController("state", {{options_.stateName, {{"convergenceInProgress", false}}}});
}

void Mapper::enqueue(Slot slot) {
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  if (!row.queued) {
    row.queued = true;
    queue_.push_back(slot);
  }
}

// Takes the logical switch at the front of the queue off it.
void Mapper::dequeue(Slot slot) {
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  queue_.pop_front();
  row.queued = false;
  for (const Slot host : std::exchange(row.pendingHosts, {})) {
    rows_.hosts[host].queued = false;
    retire(host);
  }
  for (const Mac mac : std::exchange(row.pendingFloods, {})) {
    const auto flood = row.floods.find(mac);
    if (flood->second.rows.empty() && flood->second.publishedIn != row.generation) {
      row.floods.erase(flood);
    }
  }
}

// Drops a MAC that has neither a row nor anything published.
void Mapper::retire(Slot slot) {
  const Host& host = rows_.hosts[slot];
  const LogicalSwitch& row = rows_.logicalSwitches[rows_.hosts.key(slot).logicalSwitch];
  if (host.newest == noSlot && !host.dirty && !host.queued && host.publishedIn != row.generation) {
    rows_.drop(slot);
  }
}

void Mapper::withdraw(Slot slot) {
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  withdrawals_[row.vni] = row.publishedHosts;
  publishedHosts_ -= std::exchange(row.publishedHosts, 0);
  row.published = false;
  ++row.generation;
}

// Everything is decided upon once more afterwards.
void Mapper::withdrawAll() {
  for (Slot slot = 0; slot < rows_.logicalSwitches.slots(); ++slot) {
    if (rows_.logicalSwitches.live(slot) && rows_.logicalSwitches[slot].published) {
      withdraw(slot);
      walk(slot);
    }
  }
}

bool Mapper::mayInstantiate(Slot slot) {
  const LogicalSwitch& row = rows_.logicalSwitches[slot];
  if (!row.publishable) {
    return false;
  }
  if (!convergence_.inProgress()) {
    return true;
  }
  const auto hasVtep = [&](Slot host) { return rows_.hosts[host].vtep != 0; };
  const auto hasDestination = [&](Mac mac) { return rows_.resolveFlood(slot, mac).has_value(); };
  return std::any_of(row.pendingFloods.begin(), row.pendingFloods.end(), hasDestination) ||
         std::any_of(row.pendingHosts.begin(), row.pendingHosts.end(), hasVtep);
}

// Puts what is pending of the logical switch at the front of the queue into `fdb`, as far as there is room;
// the switch leaves the queue when nothing is left.
void Mapper::publish(Slot slot, json& fdb, std::size_t& room) {
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  const bool instantiates = !row.published;
  if (instantiates && !mayInstantiate(slot)) {
    dequeue(slot);
    return;
  }
  row.published = true;
  json entry = json::object();
  while (room > 0 && !row.pendingFloods.empty()) {
    const Mac mac = *row.pendingFloods.begin();
    row.pendingFloods.erase(row.pendingFloods.begin());
    publishFlood(slot, mac, entry, room);
  }
  for (; room > 0 && !row.pendingHosts.empty(); --room) {
    const Slot host = row.pendingHosts.back();
    row.pendingHosts.pop_back();
    publishHost(host, row, entry);
  }
  if (instantiates || !entry.empty()) {
    fdb[std::to_string(row.vni)] = std::move(entry);
    room -= std::min<std::size_t>(room, 1);
  }
  if (row.pendingFloods.empty() && row.pendingHosts.empty()) {
    dequeue(slot);
  }
}

void Mapper::publishHost(Slot slot, LogicalSwitch& row, json& entry) {
  Host& host = rows_.hosts[slot];
  host.queued = false;
  const bool published = host.publishedIn == row.generation;
  const bool same =
      published ? host.publishedVtep == host.vtep && host.publishedMoves == host.moves : host.vtep == 0;
  if (!same) {
    json& value = entry["macVtepTable"][macText(rows_.hosts.key(slot).mac)];
    if (host.vtep != 0) {
      value = {{"vtepIp", ipv4Text(host.vtep)}, {"moveCount", host.moves}};
      row.publishedHosts += published ? 0 : 1;
      publishedHosts_ += published ? 0 : 1;
      host.publishedIn = row.generation;
    } else {
      --row.publishedHosts;
      --publishedHosts_;
      host.publishedIn = 0;
    }
    host.publishedVtep = host.vtep;
    host.publishedMoves = host.moves;
  }
  retire(slot);
}

bool Mapper::floodDiffers(const LogicalSwitch& row, const Flood& flood,
                          const std::optional<std::vector<Ipv4>>& decided) const {
  if (flood.publishedIn != row.generation) {
    return decided.has_value();
  }
  return !decided || flood.publishedMultipath != (row.mode != "source_node") || flood.published != *decided;
}

void Mapper::publishFlood(Slot slot, Mac mac, json& entry, std::size_t& room) {
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  const auto found = row.floods.find(mac);
  Flood& flood = found->second;
  const std::optional<std::vector<Ipv4>> decided = rows_.resolveFlood(slot, mac);
  const bool multipath = row.mode != "source_node";
  const bool published = flood.publishedIn == row.generation;
  if (published && !decided && convergence_.inProgress()) {
    flood.heldBack = true;
    return;
  }
  if (published && (!decided || flood.publishedMultipath != multipath)) {
    entry[floodTable(flood.publishedMultipath)][macText(mac)] = nullptr;
    flood.publishedIn = 0;
  }
  if (decided) {
    flood.publishedMultipath = multipath;
    json addresses = json::object();
    patchFlood(row, flood, *decided, addresses);
    room -= std::min(room, addresses.size());
    if (!addresses.empty()) {
      entry[floodTable(multipath)][macText(mac)] = std::move(addresses);
    }
  } else if (flood.rows.empty()) {
    row.floods.erase(found);
  }
}

// The addresses that come and go. While converging none goes.
void Mapper::patchFlood(LogicalSwitch& row, Flood& flood, const std::vector<Ipv4>& decided, json& addresses) {
  if (flood.publishedIn != row.generation) {
    flood.published.clear();
    flood.publishedIn = row.generation;
  }
  std::vector<Ipv4> now = decided;
  for (const Ipv4 address : flood.published) {
    if (std::binary_search(decided.begin(), decided.end(), address)) {
      continue;
    }
    if (convergence_.inProgress()) {
      flood.heldBack = true;
      now.push_back(address);
    } else {
      addresses[ipv4Text(address)] = nullptr;
    }
  }
  for (const Ipv4 address : decided) {
    if (!std::binary_search(flood.published.begin(), flood.published.end(), address)) {
      addresses[ipv4Text(address)] = true;
    }
  }
  std::sort(now.begin(), now.end());
  flood.published = std::move(now);
}

}  // namespace Agent::Ovsdb
