#include "agent/ovsdb/Mapper.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>

#include "agent/loop/Fatal.h"

namespace Agent::Ovsdb {

Mapper::Mapper(MapperOptions options)
    : options_(std::move(options)),
      topology_(options_.topology),
      convergence_(options_.convergence),
      moves_(options_.rememberedMacs) {
  if (options_.topology.untaggedFirst < leastVlan || options_.topology.untaggedLast > mostVlan ||
      options_.topology.untaggedFirst > options_.topology.untaggedLast) {
    throw std::invalid_argument("the range of VLANs for untagged ports is not within 1 to 4094");
  }
  if (options_.convergeAtStart) {
    convergence_.await();
  }
}

// --- taking rows in

void Mapper::beginUpdate(bool whole, double /*now*/) {
  require(!settling(), "an update begins before the last one has settled");
  require(whole || !updateOpen_, "a part of the rows comes on top of an update that did not end");
  updateOpen_ = true;
  whole_ = whole;
  updateChanged_ = false;
  if (whole) {
    rows_.beginWhole();
  }
}

void Mapper::row(const RowEvent& event) {
  updateChanged_ |= rows_.apply(event);
}

void Mapper::endUpdate(double now) {
  updateOpen_ = false;
  returned_ = std::exchange(awaitingSession_, false);
  if (updateChanged_ || whole_) {
    convergence_.changed(now);
  }
  phase_ = whole_ ? Phase::sweep : Phase::topology;
}

void Mapper::sessionLost(double now) {
  awaitingSession_ = true;
  convergence_.conditionIs(Convergence::Cause::session, true, now);
}

// --- settling

bool Mapper::settle(std::size_t steps, double now) {
  while (steps > 0 && settling()) {
    settlePart(steps, now);
  }
  return settling();
}

void Mapper::settlePart(std::size_t& steps, double now) {
  switch (phase_) {
    case Phase::idle:
      return;
    case Phase::sweep:
      phase_ = rows_.sweep(steps) ? Phase::sweep : Phase::topology;
      steps = 0;
      return;
    case Phase::topology:
      settleTopology(now);
      phase_ = Phase::locators;
      return;
    case Phase::locators:
      walkLocators(steps);
      return;
    case Phase::switches:
      walkSwitches(steps);
      return;
    case Phase::hosts:
      settleHosts(steps);
      return;
    case Phase::floods:
      settleFloods(steps);
      return;
    case Phase::finish:
      finish();
      return;
  }
}

// What the rows say of the controller itself comes first: whether tunnel keys are held depends on it.
void Mapper::settleTopology(double now) {
  if (returned_) {
    convergence_.conditionIs(Convergence::Cause::session, false, now);
    if (everUpdated_ || options_.convergeAtStart) {
      convergence_.begin(Convergence::Cause::session, now);
    }
    everUpdated_ = true;
  }
  if (rows_.topologyChanged) {
    watchController(now);
  }
  if (rows_.topologyChanged || returned_) {
    rows_.topologyChanged = false;
    topology_.derive(rows_, convergence_.inProgress());
    vlansDirty_ = true;
    for (const Topology::Decision& decision : topology_.decisions()) {
      decide(decision);
    }
  }
  for (const Slot slot : std::exchange(rows_.comeAndGone, {})) {
    if (rows_.logicalSwitches.live(slot)) {
      walk(slot);
    }
  }
}

void Mapper::watchController(double now) {
  bool flag = false;
  for (const auto& [uuid, row] : rows_.globals) {
    const auto value = row.otherConfig.find("converging");
    flag |= value != row.otherConfig.end() && value->second == "true";
  }
  std::size_t keys = 0;
  bool cleared = false;
  for (Slot slot = 0; slot < rows_.logicalSwitches.slots(); ++slot) {
    if (rows_.logicalSwitches.live(slot)) {
      keys += rows_.logicalSwitches[slot].key ? std::size_t{1} : std::size_t{0};
      cleared |= std::exchange(rows_.logicalSwitches[slot].keyCleared, false);
    }
  }
  const bool leaves = keysBefore_ > 0 && keys == 0 && cleared;
  const bool converges = flag && !flagBefore_;
  convergence_.conditionIs(Convergence::Cause::flag, flag, now);
  if (leaves || keys > 0) {
    convergence_.conditionIs(Convergence::Cause::leave, leaves, now);
  }
  keysBefore_ = keys;
  flagBefore_ = flag;
  if (leaves || converges) {
    convergence_.begin(leaves ? Convergence::Cause::leave : Convergence::Cause::flag, now);
    withdrawAll();
  }
}

void Mapper::decide(const Topology::Decision& decision) {
  const Slot slot = decision.logicalSwitch;
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  const bool another = row.vni != decision.vni;
  const bool begins = decision.publishable && !row.publishable;
  if (row.published && (another || !decision.publishable)) {
    withdraw(slot);
  }
  row.vni = decision.vni;
  row.vlan = decision.vlan;
  row.publishable = decision.publishable;
  if (another || begins) {
    walk(slot);
  }
  if (row.publishable && !row.published) {
    enqueue(slot);
  }
}

// All MACs and floods of a logical switch are to be decided again.
void Mapper::walk(Slot slot) {
  LogicalSwitch& row = rows_.logicalSwitches[slot];
  if (row.walking) {
    return;
  }
  row.walking = true;
  toWalk_.push_back(slot);
  for (const auto& [mac, flood] : row.floods) {
    rows_.dirtyFloods.emplace(slot, mac);
  }
}

void Mapper::walkLocators(std::size_t& steps) {
  while (steps > 0 && !rows_.touchedLocators.empty()) {
    const Slot slot = rows_.touchedLocators.back();
    RowStore::Locator& locator = rows_.locators[slot];
    walkUcast_ = std::exchange(walkBegun_, true) ? walkUcast_ : locator.firstUcast;
    for (; steps > 0 && walkUcast_ != noSlot; --steps) {
      if (rows_.ucasts[walkUcast_].host != noSlot) {
        rows_.markDirty(rows_.ucasts[walkUcast_].host);
      }
      walkUcast_ = rows_.ucasts[walkUcast_].sameLocatorNext;
    }
    if (walkUcast_ == noSlot) {
      walkBegun_ = false;
      rows_.touchedLocators.pop_back();
      rows_.settleLocator(slot);
    }
  }
  if (rows_.touchedLocators.empty()) {
    phase_ = Phase::switches;
  }
}

void Mapper::walkSwitches(std::size_t& steps) {
  while (steps > 0 && !toWalk_.empty()) {
    LogicalSwitch& row = rows_.logicalSwitches[toWalk_.front()];
    walkHost_ = std::exchange(walkBegun_, true) ? walkHost_ : row.firstHost;
    for (; steps > 0 && walkHost_ != noSlot; --steps) {
      rows_.markDirty(walkHost_);
      walkHost_ = rows_.hosts[walkHost_].next;
    }
    if (walkHost_ == noSlot) {
      walkBegun_ = false;
      row.walking = false;
      toWalk_.pop_front();
    }
  }
  if (toWalk_.empty()) {
    phase_ = Phase::hosts;
  }
}

void Mapper::settleHosts(std::size_t& steps) {
  for (; steps > 0 && !rows_.dirtyMacs.empty(); --steps) {
    const Slot slot = rows_.dirtyMacs.back();
    rows_.dirtyMacs.pop_back();
    rows_.hosts[slot].dirty = false;
    settleHost(slot);
  }
  if (rows_.dirtyMacs.empty()) {
    phase_ = Phase::floods;
  }
}

// Decides on one MAC, counts its moves, and queues it if that is not what is published.
void Mapper::settleHost(Slot slot) {
  const RowStore::HostKey key = rows_.hosts.key(slot);
  LogicalSwitch& row = rows_.logicalSwitches[key.logicalSwitch];
  const Ipv4 vtep = rows_.resolve(slot);
  Host& host = rows_.hosts[slot];
  if (host.vni != 0 && (host.vni != row.vni || vtep == 0)) {
    moves_.left(host.vni, key.mac);
  }
  const bool here = row.vni != 0 && vtep != 0;
  host.vni = here ? row.vni : 0;
  host.moves = here ? moves_.seen(row.vni, key.mac, vtep) : host.moves;
  host.vtep = vtep;
  const bool published = host.publishedIn == row.generation;
  row.lostHosts |= returned_ && published && vtep == 0;
  const bool same = published ? host.publishedVtep == vtep && host.publishedMoves == host.moves : vtep == 0;
  if (same || !row.publishable) {
    retire(slot);
    return;
  }
  if (!host.queued) {
    host.queued = true;
    row.pendingHosts.push_back(slot);
  }
  enqueue(key.logicalSwitch);
}

void Mapper::settleFloods(std::size_t& steps) {
  if (std::exchange(rows_.allFloodsDirty, false)) {
    for (const auto& [uuid, row] : rows_.mcasts) {
      if (row.mac) {
        rows_.dirtyFloods.emplace(row.logicalSwitch, *row.mac);
      }
    }
  }
  for (; steps > 0 && !rows_.dirtyFloods.empty(); --steps) {
    const auto [slot, mac] = *rows_.dirtyFloods.begin();
    rows_.dirtyFloods.erase(rows_.dirtyFloods.begin());
    if (!rows_.logicalSwitches.live(slot)) {
      continue;
    }
    LogicalSwitch& row = rows_.logicalSwitches[slot];
    const auto flood = row.floods.find(mac);
    if (flood == row.floods.end()) {
      continue;
    }
    if (floodDiffers(row, flood->second, rows_.resolveFlood(slot, mac))) {
      row.pendingFloods.insert(mac);
      enqueue(slot);
    } else if (flood->second.rows.empty() && flood->second.publishedIn != row.generation) {
      row.pendingFloods.erase(mac);
      row.floods.erase(flood);
    }
  }
  if (rows_.dirtyFloods.empty()) {
    phase_ = Phase::finish;
  }
}

// The last phase, unless a VNI lost hosts while the session was away: such a VNI is withdrawn and decided
// upon once more, so that the client keeps what is missing marked.
void Mapper::finish() {
  if (std::exchange(returned_, false)) {
    for (const Topology::Decision& decision : topology_.decisions()) {
      const Slot slot = decision.logicalSwitch;
      LogicalSwitch& row = rows_.logicalSwitches[slot];
      if (std::exchange(row.lostHosts, false) && row.published) {
        withdraw(slot);
        walk(slot);
        enqueue(slot);
      }
    }
    if (!toWalk_.empty()) {
      phase_ = Phase::switches;
      return;
    }
  }
  rows_.dropUnused();
  phase_ = Phase::idle;
}

// --- time

void Mapper::tick(double now) {
  if (updateOpen_ || settling() || !convergence_.tick(now)) {
    return;
  }
  // What was held is let go, and VNIs without a row are instantiated.
  for (const Topology::Decision& decision : topology_.decisions()) {
    LogicalSwitch& row = rows_.logicalSwitches[decision.logicalSwitch];
    for (auto& [mac, flood] : row.floods) {
      if (std::exchange(flood.heldBack, false)) {
        rows_.dirtyFloods.emplace(decision.logicalSwitch, mac);
      }
    }
  }
  rows_.topologyChanged = true;
  phase_ = Phase::topology;
}

double Mapper::nextWakeup() const {
  return updateOpen_ || settling() ? std::numeric_limits<double>::infinity() : convergence_.nextWakeup();
}

// --- what it tells

std::size_t Mapper::duplicates() const {
  return rows_.problemCounts()[static_cast<std::size_t>(ProblemKind::duplicateMac)];
}

ProblemCounts Mapper::problemCounts() const {
  ProblemCounts counts = rows_.problemCounts();
  for (const Problem& problem : topology_.problems()) {
    ++counts[static_cast<std::size_t>(problem.kind)];
  }
  return counts;
}

std::vector<Problem> Mapper::problems(std::size_t most) const {
  std::vector<Problem> list = topology_.problems();
  list.resize(std::min(list.size(), most));
  std::vector<Problem> ofRows = rows_.problems(most - list.size());
  std::move(ofRows.begin(), ofRows.end(), std::back_inserter(list));
  return list;
}

}  // namespace Agent::Ovsdb
