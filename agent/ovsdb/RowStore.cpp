#include "agent/ovsdb/RowStore.h"

#include <algorithm>

#include "agent/loop/Fatal.h"
#include "agent/ovsdb/JsonReader.h"

namespace Agent::Ovsdb {

void RowStore::count(Table table, int by) {
  counts_[static_cast<std::size_t>(table)] += static_cast<std::size_t>(by);
}

// --- links

void RowStore::linkHost(Slot host) {
  LogicalSwitch& logicalSwitch = logicalSwitches[hosts.key(host).logicalSwitch];
  hosts[host].next = logicalSwitch.firstHost;
  if (logicalSwitch.firstHost != noSlot) {
    hosts[logicalSwitch.firstHost].previous = host;
  }
  logicalSwitch.firstHost = host;
  ++logicalSwitch.hosts;
}

void RowStore::linkUcast(Slot slot) {
  Ucast& row = ucasts[slot];
  ++logicalSwitches[row.logicalSwitch].users;
  Locator& locator = locators[row.locator];
  ++locator.users;
  row.sameLocatorPrevious = noSlot;
  row.sameLocatorNext = locator.firstUcast;
  if (locator.firstUcast != noSlot) {
    ucasts[locator.firstUcast].sameLocatorPrevious = slot;
  }
  locator.firstUcast = slot;
  if (badMacs_.contains(ucasts.key(slot))) {
    row.host = noSlot;
    problemIs(slot, ProblemKind::badMac);
    return;
  }
  const auto [host, created] = hosts.insert({row.logicalSwitch, row.mac});
  if (created) {
    linkHost(host);
  }
  row.host = host;
  row.newer = noSlot;
  row.older = hosts[host].newest;
  if (row.older != noSlot) {
    ucasts[row.older].newer = slot;
  }
  hosts[host].newest = slot;
  markDirty(host);
}

void RowStore::unlinkUcast(Slot slot) {
  Ucast& row = ucasts[slot];
  problemIs(slot, ProblemKind::none);
  if (row.sameLocatorPrevious != noSlot) {
    ucasts[row.sameLocatorPrevious].sameLocatorNext = row.sameLocatorNext;
  } else {
    locators[row.locator].firstUcast = row.sameLocatorNext;
  }
  if (row.sameLocatorNext != noSlot) {
    ucasts[row.sameLocatorNext].sameLocatorPrevious = row.sameLocatorPrevious;
  }
  if (row.host != noSlot) {
    if (row.newer != noSlot) {
      ucasts[row.newer].older = row.older;
    } else {
      hosts[row.host].newest = row.older;
    }
    if (row.older != noSlot) {
      ucasts[row.older].newer = row.newer;
    }
    markDirty(row.host);
  }
  row.host = row.newer = row.older = row.sameLocatorNext = row.sameLocatorPrevious = noSlot;
  --logicalSwitches[row.logicalSwitch].users;
  if (!logicalSwitches[row.logicalSwitch].exists) {
    gone_.insert(row.logicalSwitch);
  }
  releaseLocator(row.locator);
}

void RowStore::removeUcast(Slot slot) {
  unlinkUcast(slot);
  badMacs_.erase(ucasts.key(slot));
  ucasts.erase(slot);
  count(Table::ucastMacsRemote, -1);
}

void RowStore::linkMcast(const Uuid& uuid) {
  Mcast& row = mcasts[uuid];
  LogicalSwitch& logicalSwitch = logicalSwitches[row.logicalSwitch];
  ++logicalSwitch.users;
  locatorSets[row.set].rows.insert(uuid);
  if (!row.mac) {
    problemIs(uuid, row, ProblemKind::badMac);
    return;
  }
  logicalSwitch.floods[*row.mac].rows.push_back(uuid);
  dirtyFloods.emplace(row.logicalSwitch, *row.mac);
}

void RowStore::unlinkMcast(const Uuid& uuid) {
  Mcast& row = mcasts[uuid];
  problemIs(uuid, row, ProblemKind::none);
  LogicalSwitch& logicalSwitch = logicalSwitches[row.logicalSwitch];
  if (row.mac) {
    std::erase(logicalSwitch.floods[*row.mac].rows, uuid);
    dirtyFloods.emplace(row.logicalSwitch, *row.mac);
  }
  locatorSets[row.set].rows.erase(uuid);
  dropSetIfUnused(row.set);
  --logicalSwitch.users;
  if (!logicalSwitch.exists) {
    gone_.insert(row.logicalSwitch);
  }
}

void RowStore::removeMcast(const Uuid& uuid) {
  unlinkMcast(uuid);
  mcasts.erase(uuid);
  count(Table::mcastMacsRemote, -1);
}

void RowStore::removeLogicalSwitch(Slot slot) {
  LogicalSwitch& row = logicalSwitches[slot];
  row.exists = false;
  row.key.reset();
  row.keyCleared = false;
  comeAndGone.push_back(slot);
  gone_.insert(slot);
  topologyChanged = true;
  count(Table::logicalSwitch, -1);
}

void RowStore::removeLocator(Slot slot) {
  Locator& row = locators[slot];
  if (badLocators_.erase(locators.key(slot)) > 0) {
    moveCount(ProblemKind::locatorNotIpv4, ProblemKind::none);
  }
  row.exists = false;
  row.address = 0;
  row.text.clear();
  count(Table::physicalLocator, -1);
  touchLocator(slot);
  ++row.users;
  releaseLocator(slot);
}

void RowStore::removeLocatorSet(const Uuid& uuid) {
  LocatorSet& row = locatorSets[uuid];
  row.exists = false;
  for (const Slot locator : row.locators) {
    --locators[locator].inSets;
    releaseLocator(locator);
  }
  row.locators.clear();
  count(Table::physicalLocatorSet, -1);
  touchSet(row);
  dropSetIfUnused(uuid);
}

void RowStore::touchLocator(Slot slot) {
  Locator& row = locators[slot];
  allFloodsDirty |= row.inSets > 0;
  if (row.firstUcast != noSlot && !row.touched) {
    row.touched = true;
    touchedLocators.push_back(slot);
  }
}

void RowStore::touchSet(const LocatorSet& set) {
  for (const Uuid& uuid : set.rows) {
    const Mcast& row = mcasts[uuid];
    if (row.mac) {
      dirtyFloods.emplace(row.logicalSwitch, *row.mac);
    }
  }
}

// One row less names the locator; a placeholder that none names goes.
void RowStore::releaseLocator(Slot slot) {
  Locator& row = locators[slot];
  --row.users;
  if (!row.exists && row.users == 0 && !row.touched) {
    locators.erase(slot);
  }
}

void RowStore::dropSetIfUnused(const Uuid& uuid) {
  const auto set = locatorSets.find(uuid);
  if (set != locatorSets.end() && !set->second.exists && set->second.rows.empty()) {
    locatorSets.erase(set);
  }
}

void RowStore::markDirty(Slot host) {
  if (!hosts[host].dirty) {
    hosts[host].dirty = true;
    dirtyMacs.push_back(host);
  }
}

void RowStore::drop(Slot slot) {
  const Host& host = hosts[slot];
  require(host.newest == noSlot && !host.dirty && !host.queued, "a host is dropped that is still of use");
  LogicalSwitch& logicalSwitch = logicalSwitches[hosts.key(slot).logicalSwitch];
  if (host.previous != noSlot) {
    hosts[host.previous].next = host.next;
  } else {
    logicalSwitch.firstHost = host.next;
  }
  if (host.next != noSlot) {
    hosts[host.next].previous = host.previous;
  }
  --logicalSwitch.hosts;
  hosts.erase(slot);
}

void RowStore::dropUnused() {
  std::erase_if(gone_, [&](Slot slot) {
    const LogicalSwitch& row = logicalSwitches[slot];
    if (row.exists) {
      return true;
    }
    const bool used = row.users > 0 || row.firstHost != noSlot || !row.floods.empty() || row.published ||
                      row.queued || row.walking;
    if (!used) {
      logicalSwitches.erase(slot);
    }
    return !used;
  });
}

void RowStore::settleLocator(Slot slot) {
  Locator& row = locators[slot];
  row.touched = false;
  if (!row.exists && row.users == 0) {
    locators.erase(slot);
  }
}

// --- the sweep after a whole update

template <typename Map, typename Remove>
bool RowStore::sweepMap(Map& map, Remove remove) {
  for (auto at = map.begin(); at != map.end();) {
    const auto row = at++;
    if (row->second.epoch != epoch_) {
      remove(row->first);
    }
  }
  return false;
}

bool RowStore::sweep(std::size_t rows) {
  for (; rows > 0 && sweepUcast_ < ucasts.slots(); --rows, ++sweepUcast_) {
    if (ucasts.live(sweepUcast_) && ucasts[sweepUcast_].epoch != epoch_) {
      removeUcast(sweepUcast_);
    }
  }
  if (sweepUcast_ < ucasts.slots()) {
    return true;
  }
  sweepUcast_ = 0;
  RowEvent gone;
  gone.change = RowChange::removed;
  const auto remove = [&](Table table) {
    return [&, table](const Uuid& uuid) {
      gone.table = table;
      gone.uuid = uuid;
      apply(gone);
    };
  };
  sweepMap(mcasts, remove(Table::mcastMacsRemote));
  // A placeholder has never come.
  for (auto at = locatorSets.begin(); at != locatorSets.end();) {
    const auto row = at++;
    if (row->second.exists && row->second.epoch != epoch_) {
      removeLocatorSet(Uuid{row->first});
    }
  }
  for (Slot slot = 0; slot < locators.slots(); ++slot) {
    if (locators.live(slot) && locators[slot].exists && locators[slot].epoch != epoch_) {
      removeLocator(slot);
    }
  }
  for (Slot slot = 0; slot < logicalSwitches.slots(); ++slot) {
    if (logicalSwitches.live(slot) && logicalSwitches[slot].exists && logicalSwitches[slot].epoch != epoch_) {
      removeLogicalSwitch(slot);
    }
  }
  sweepMap(ports, remove(Table::physicalPort));
  sweepMap(physicalSwitches, remove(Table::physicalSwitch));
  sweepMap(globals, remove(Table::global));
  return false;
}

// --- decisions

ProblemKind RowStore::objectionTo(const Ucast& row) const {
  if (!logicalSwitches[row.logicalSwitch].exists || !locators[row.locator].exists) {
    return ProblemKind::referenceMissing;
  }
  return locators[row.locator].address == 0 ? ProblemKind::locatorUnusable : ProblemKind::none;
}

Ipv4 RowStore::resolve(Slot host) {
  Ipv4 vtep = 0;
  for (Slot row = hosts[host].newest; row != noSlot; row = ucasts[row].older) {
    if (vtep == 0) {
      const ProblemKind objection = objectionTo(ucasts[row]);
      problemIs(row, objection);
      vtep = objection == ProblemKind::none ? locators[ucasts[row].locator].address : 0;
    } else if (ucasts[row].problem == ProblemKind::duplicateMac) {
      break;  // and so are those below it
    } else {
      problemIs(row, ProblemKind::duplicateMac);
    }
  }
  return vtep;
}

ProblemKind RowStore::objectionTo(const Mcast& row, std::vector<Ipv4>& addresses) const {
  const auto set = locatorSets.find(row.set);
  if (!logicalSwitches[row.logicalSwitch].exists || set == locatorSets.end() || !set->second.exists) {
    return ProblemKind::referenceMissing;
  }
  ProblemKind objection = ProblemKind::none;
  for (const Slot locator : set->second.locators) {
    if (locators[locator].address != 0) {
      addresses.push_back(locators[locator].address);
    } else {
      objection = locators[locator].exists ? ProblemKind::locatorUnusable : ProblemKind::referenceMissing;
    }
  }
  std::sort(addresses.begin(), addresses.end());
  addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
  return objection;
}

std::optional<std::vector<Ipv4>> RowStore::resolveFlood(Slot logicalSwitch, Mac mac) {
  const auto flood = logicalSwitches[logicalSwitch].floods.find(mac);
  if (flood == logicalSwitches[logicalSwitch].floods.end()) {
    return std::nullopt;
  }
  std::optional<std::vector<Ipv4>> decided;
  const std::vector<Uuid>& rows = flood->second.rows;
  for (auto uuid = rows.rbegin(); uuid != rows.rend(); ++uuid) {
    Mcast& row = mcasts[*uuid];
    if (decided) {
      problemIs(*uuid, row, ProblemKind::duplicateMac);
      continue;
    }
    std::vector<Ipv4> addresses;
    problemIs(*uuid, row, objectionTo(row, addresses));
    if (!addresses.empty()) {
      decided = std::move(addresses);
    }
  }
  return decided;
}

// --- problems

void RowStore::moveCount(ProblemKind from, ProblemKind to) {
  if (from != ProblemKind::none) {
    --problemCounts_[static_cast<std::size_t>(from)];
  }
  if (to != ProblemKind::none) {
    ++problemCounts_[static_cast<std::size_t>(to)];
  }
}

void RowStore::problemIs(Slot row, ProblemKind kind) {
  const ProblemKind old = std::exchange(ucasts[row].problem, kind);
  if (old == kind) {
    return;
  }
  moveCount(old, kind);
  if (kind == ProblemKind::none) {
    badUcasts_.erase(ucasts.key(row));
  } else {
    badUcasts_.insert(ucasts.key(row));
  }
}

void RowStore::problemIs(const Uuid& uuid, Mcast& row, ProblemKind kind) {
  const ProblemKind old = std::exchange(row.problem, kind);
  if (old == kind) {
    return;
  }
  moveCount(old, kind);
  if (kind == ProblemKind::none) {
    badMcasts_.erase(uuid);
  } else {
    badMcasts_.insert(uuid);
  }
}

std::string RowStore::describe(const Ucast& row) const {
  const std::string mac = macText(row.mac);
  const std::string in = " in logical switch \"" + logicalSwitches[row.logicalSwitch].name + "\"";
  switch (row.problem) {
    case ProblemKind::duplicateMac:
      return mac + in + ": another row of this MAC came later";
    case ProblemKind::locatorUnusable:
      return mac + in + ": the locator's address \"" + printable(locators[row.locator].text) +
             "\" cannot be used";
    case ProblemKind::referenceMissing:
      return mac + ": its logical switch or locator is not there";
    default:
      return mac + in;
  }
}

std::vector<Problem> RowStore::problems(std::size_t most) const {
  std::vector<Problem> list;
  for (const Uuid& uuid : badLocators_) {
    if (list.size() >= most) {
      return list;
    }
    list.push_back({ProblemKind::locatorNotIpv4, Table::physicalLocator, uuid,
                    "the address \"" + printable(locators[locators.find(uuid)].text) +
                        "\" is not an IPv4 address at which a tunnel can end"});
  }
  for (const Uuid& uuid : badMcasts_) {
    if (list.size() >= most) {
      return list;
    }
    const Mcast& row = mcasts.at(uuid);
    const char* const why = row.problem == ProblemKind::badMac ? "\" is not a MAC"
                            : row.problem == ProblemKind::duplicateMac
                                ? "\": another row of this MAC came later"
                            : row.problem == ProblemKind::referenceMissing
                                ? "\": its logical switch, locator set or one of its locators is not there"
                                : "\": a locator of its set cannot be used";
    list.push_back({row.problem, Table::mcastMacsRemote, uuid, "\"" + printable(row.text) + why});
  }
  for (const Uuid& uuid : badUcasts_) {
    if (list.size() >= most) {
      return list;
    }
    const Ucast& row = ucasts[ucasts.find(uuid)];
    const auto bad = badMacs_.find(uuid);
    list.push_back({row.problem, Table::ucastMacsRemote, uuid,
                    bad == badMacs_.end() ? describe(row)
                                          : "\"" + printable(bad->second) + "\" is not the MAC of a host"});
  }
  return list;
}

}  // namespace Agent::Ovsdb
