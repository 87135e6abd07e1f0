#include "agent/vtep/Publisher.h"

#include <algorithm>
#include <utility>

namespace Agent::Vtep {

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

bool differs(const HostDecision& host, const SwitchDecision& logicalSwitch) {
  return host.publishedIn == logicalSwitch.generation
             ? host.publishedVtep != host.vtep || host.publishedMoves != host.moves
             : host.vtep != 0;
}

bool differs(const FloodDecision& flood, const RowStore::LogicalSwitch& logicalSwitch) {
  return flood.publishedIn == logicalSwitch.decision.generation
             ? flood.publishedMultipath == logicalSwitch.isSourceNode() || flood.published != flood.addresses
             : !flood.addresses.empty();
}

// Lists of pending MACs, linked through their decisions; `link` finds the link of one.
template <typename LinkOf>
void push(Slot& first, Slot slot, LinkOf linkOf) {
  PendingLink& link = linkOf(slot);
  if (std::exchange(link.queued, true)) {
    return;
  }
  link.next = std::exchange(first, slot);
  if (link.next != noSlot) {
    linkOf(link.next).previous = slot;
  }
}

template <typename LinkOf>
void remove(Slot& first, Slot slot, LinkOf linkOf) {
  const PendingLink link = std::exchange(linkOf(slot), PendingLink());
  if (!link.queued) {
    return;
  }
  if (link.previous != noSlot) {
    linkOf(link.previous).next = link.next;
  } else {
    first = link.next;
  }
  if (link.next != noSlot) {
    linkOf(link.next).previous = link.previous;
  }
}

auto hostLinks(RowStore& rows) {
  return [&rows](Slot host) -> PendingLink& { return rows.decisionOnHost(host).pending; };
}

auto floodLinks(RowStore& rows) {
  return [&rows](Slot flood) -> PendingLink& { return rows.decisionOnFlood(flood).pending; };
}

}  // namespace

Publisher::Publisher(RowStore& rows, const Topology& topology, const Convergence& convergence,
                     std::string vti, std::string stateName)
    : rows_(rows),
      topology_(topology),
      convergence_(convergence),
      vti_(std::move(vti)),
      stateName_(std::move(stateName)) {}

// --- what is decided

void Publisher::enqueue(Slot slot) {
  if (!std::exchange(rows_.decisionOn(slot).queued, true)) {
    queue_.push_back(rows_.hold(slot));
  }
}

void Publisher::withdraw(Slot slot) {
  SwitchDecision& row = rows_.decisionOn(slot);
  withdrawals_[row.vni] = row.publishedHosts;
  publishedHosts_ -= std::exchange(row.publishedHosts, 0);
  row.published = false;
  ++row.generation;
  rows_.touchSwitch(slot);
  published_.erase(slot);
}

void Publisher::withdrawAll() {
  while (!published_.empty()) {
    withdraw(published_.begin()->first);
  }
}

void Publisher::hostDecided(Slot slot) {
  const Slot logicalSwitch = rows_.hosts().key(slot).logicalSwitch;
  SwitchDecision& row = rows_.decisionOn(logicalSwitch);
  if (row.publishable && differs(rows_.decisionOnHost(slot), row)) {
    push(row.firstPendingHost, slot, hostLinks(rows_));
    enqueue(logicalSwitch);
  } else {
    remove(row.firstPendingHost, slot, hostLinks(rows_));
    retireHost(slot);
  }
}

void Publisher::floodDecided(Slot slot) {
  const Slot logicalSwitch = rows_.floods().key(slot).logicalSwitch;
  SwitchDecision& row = rows_.decisionOn(logicalSwitch);
  if (row.publishable && differs(rows_.decisionOnFlood(slot), rows_.logicalSwitches()[logicalSwitch])) {
    push(row.firstPendingFlood, slot, floodLinks(rows_));
    enqueue(logicalSwitch);
  } else {
    remove(row.firstPendingFlood, slot, floodLinks(rows_));
    retireFlood(slot);
  }
}

// The difference between the VLANs decided and those published.
void Publisher::vlansDecided() {
  vlansGone_.clear();
  vlansCome_.clear();
  for (const auto& [vlan, vni] : vlansPublished_) {
    const auto decided = topology_.vlans().find(vlan);
    if (decided == topology_.vlans().end() || decided->second.vni != vni) {
      vlansGone_[vlan] = vni;
    }
  }
  for (const auto& [vlan, entry] : topology_.vlans()) {
    const auto published = vlansPublished_.find(vlan);
    if (published == vlansPublished_.end() || published->second != entry.vni) {
      vlansCome_[vlan] = entry.vni;
    }
  }
}

void Publisher::holdBack(FloodDecision& flood, SlotId id) {
  if (!std::exchange(flood.heldBack, true)) {
    heldBack_.push_back(id);
  }
}

bool Publisher::releaseHeldBack(Steps& steps) {
  for (; steps.left() && !heldBack_.empty(); steps.spend()) {
    const Slot slot = rows_.floods().slotOf(heldBack_.back());
    heldBack_.pop_back();
    if (slot != noSlot) {
      rows_.decisionOnFlood(slot).heldBack = false;
      rows_.markFloodDirty(slot);
    }
  }
  return !heldBack_.empty();
}

// Drops a MAC that has neither a row nor anything published.
void Publisher::retireHost(Slot slot) {
  const std::uint32_t generation = rows_.hosts().entry(slot).logicalSwitch->decision.generation;
  const HostDecision& host = rows_.decisionOnHost(slot);
  if (!host.pending.queued && host.publishedIn != generation) {
    rows_.dropHost(slot);
  }
}

void Publisher::retireFlood(Slot slot) {
  const std::uint32_t generation = rows_.floods().entry(slot).logicalSwitch->decision.generation;
  const FloodDecision& flood = rows_.decisionOnFlood(slot);
  if (!flood.pending.queued && flood.publishedIn != generation) {
    rows_.dropFlood(slot);
  }
}

// --- patches

std::optional<json> Publisher::next(std::size_t hosts) {
  Steps steps(std::max<std::size_t>(hosts, 1));
  const auto patch = [&]() -> std::optional<json> {
    if (std::optional<json> front = frontPatch()) {
      return front;
    }
    if (std::optional<json> withdrawal = withdrawalPatch(hosts)) {
      return withdrawal;
    }
    if (std::optional<json> vlans = vlanPatch(steps)) {
      return vlans;
    }
    if (std::optional<json> fdb = fdbPatch(steps)) {
      return fdb;
    }
    return endPatch();
  };
  std::optional<json> next = patch();
  lastSpent_ = steps.spent();
  return next;
}

bool Publisher::pending() const {
  return !frontPublished_ || vtepPublished_ != topology_.localVtep() ||
         flagPublished_ != convergence_.inProgress() || !withdrawals_.empty() || !vlansGone_.empty() ||
         !vlansCome_.empty() || !queue_.empty();
}

// The VTI, the replication mode, and the beginning of convergence.
std::optional<json> Publisher::frontPatch() {
  json patch = json::object();
  json& vti = patch["vtiStatus"][vti_] = json::object();
  if (!frontPublished_) {
    vti = {{"controllerClientMode", true}, {"datapathLearning", false}};
    patch["vlanVniMap"][vti_] = json::object();
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
    patch["controller"]["state"][stateName_]["convergenceInProgress"] = flagPublished_;
  }
  frontPublished_ = true;
  return patch.empty() ? std::nullopt : std::optional{std::move(patch)};
}

std::optional<json> Publisher::withdrawalPatch(std::size_t hosts) {
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

// One patch if the difference is small; else several, of which those that remove come first, so that no VNI
// has two VLANs in between.
std::optional<json> Publisher::vlanPatch(Steps& steps) {
  if (vlansGone_.empty() && vlansCome_.empty()) {
    return std::nullopt;
  }
  const bool small = vlansGone_.size() + vlansCome_.size() <= steps.limit();
  const bool removes = !vlansGone_.empty();
  json map = json::object();
  for (; !vlansGone_.empty() && steps.left(); steps.spend()) {
    const std::uint16_t vlan = vlansGone_.begin()->first;
    map[std::to_string(vlan)] = nullptr;
    vlansPublished_.erase(vlan);
    vlansGone_.erase(vlansGone_.begin());
  }
  for (; !vlansCome_.empty() && steps.left() && (small || !removes); steps.spend()) {
    const auto [vlan, vni] = *vlansCome_.begin();
    map[std::to_string(vlan)] = vni;
    vlansPublished_[vlan] = vni;
    vlansCome_.erase(vlansCome_.begin());
  }
  return json{{"vlanVniMap", {{vti_, std::move(map)}}}};
}

std::optional<json> Publisher::fdbPatch(Steps& steps) {
  json fdb = json::object();
  while (steps.left() && !queue_.empty()) {
    publish(queue_.front().slot(), fdb, steps);
  }
  // A patch may turn out empty when nothing changed; then another one follows.
  return fdb.empty() && queue_.empty() ? std::nullopt : std::optional{inController("fdb", std::move(fdb))};
}

std::optional<json> Publisher::endPatch() {
  if (!flagPublished_ || convergence_.inProgress()) {
    return std::nullopt;
  }
  flagPublished_ = false;
  return inController("state", {{stateName_, {{"convergenceInProgress", false}}}});
}

// Takes the logical switch at the front of the queue off it.
void Publisher::dequeue() {
  rows_.decisionOn(queue_.front().slot()).queued = false;
  queue_.pop_front();
}

// Puts what is pending of the logical switch at the front of the queue into `fdb`, as far as there is room;
// the switch leaves the queue when nothing is left. While converging a VNI without any row is not
// instantiated.
void Publisher::publish(Slot slot, json& fdb, Steps& steps) {
  SwitchDecision& row = rows_.decisionOn(slot);
  const bool instantiates = !row.published;
  if (!row.publishable || (instantiates && convergence_.inProgress() && row.decided == 0)) {
    dequeue();
    steps.spend();
    return;
  }
  if (instantiates) {
    row.published = true;
    published_.emplace(slot, rows_.hold(slot));
  }
  const bool multipath = !rows_.logicalSwitches()[slot].isSourceNode();
  json entry = json::object();
  while (steps.left() && row.firstPendingFlood != noSlot) {
    publishFlood(row.firstPendingFlood, row, multipath, entry, steps);
  }
  for (; steps.left() && row.firstPendingHost != noSlot; steps.spend()) {
    publishHost(row.firstPendingHost, row, entry);
  }
  if (instantiates || !entry.empty()) {
    fdb[std::to_string(row.vni)] = std::move(entry);
  }
  steps.spend();
  if (row.firstPendingFlood == noSlot && row.firstPendingHost == noSlot) {
    dequeue();
  }
}

void Publisher::publishHost(Slot slot, SwitchDecision& row, json& entry) {
  remove(row.firstPendingHost, slot, hostLinks(rows_));
  HostDecision& host = rows_.decisionOnHost(slot);
  if (differs(host, row)) {
    const bool published = host.publishedIn == row.generation;
    json& value = entry["macVtepTable"][macText(rows_.hosts().key(slot).mac)];
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
  retireHost(slot);
}

void Publisher::publishFlood(Slot slot, const SwitchDecision& row, bool multipath, json& entry,
                             Steps& steps) {
  const std::uint32_t generation = row.generation;
  remove(rows_.decisionOn(rows_.floods().key(slot).logicalSwitch).firstPendingFlood, slot, floodLinks(rows_));
  FloodDecision& flood = rows_.decisionOnFlood(slot);
  const std::string mac = macText(rows_.floods().key(slot).mac);
  const bool published = flood.publishedIn == generation;
  steps.spend();
  if (published && flood.addresses.empty() && convergence_.inProgress()) {
    holdBack(flood, rows_.floods().id(slot));
    return;
  }
  if (published && (flood.addresses.empty() || flood.publishedMultipath != multipath)) {
    entry[floodTable(flood.publishedMultipath)][mac] = nullptr;
    flood.publishedIn = 0;
  }
  if (!flood.addresses.empty()) {
    flood.publishedMultipath = multipath;
    json addresses = json::object();
    patchFlood(flood, generation, addresses, rows_.floods().id(slot));
    steps.spend(addresses.size());
    if (!addresses.empty()) {
      entry[floodTable(multipath)][mac] = std::move(addresses);
    }
  }
  retireFlood(slot);
}

// The addresses that come and go. While converging none goes.
void Publisher::patchFlood(FloodDecision& flood, std::uint32_t generation, json& addresses, SlotId id) {
  if (flood.publishedIn != generation) {
    flood.published.clear();
    flood.publishedIn = generation;
  }
  const std::vector<Ipv4>& decided = flood.addresses;
  std::vector<Ipv4> now = decided;
  for (const Ipv4 address : flood.published) {
    if (std::binary_search(decided.begin(), decided.end(), address)) {
      continue;
    }
    if (convergence_.inProgress()) {
      holdBack(flood, id);
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

}  // namespace Agent::Vtep
