// How a row's change is taken in: what is new is compared with what is there, so that a row that comes again
// as it was, as after a reconnect, touches nothing.
#include <algorithm>

#include "agent/ovsdb/JsonReader.h"
#include "agent/ovsdb/RowStore.h"

namespace Agent::Ovsdb {

namespace {

// Whether the row is to hold the cell's value: of a row that is whole, a column that was left out has its
// default value, which is that of an empty cell.
bool says(const RowEvent& event, std::size_t column) {
  return event.change == RowChange::present || event.cells[column].present;
}

template <typename Value>
bool assign(Value& to, Value value) {
  if (to == value) {
    return false;
  }
  to = std::move(value);
  return true;
}

// Sets come whole, or as the elements that came or went.
template <typename Element>
bool assignSet(std::set<Element>& to, const std::vector<Element>& elements, RowChange change) {
  if (change == RowChange::present) {
    return assign(to, std::set<Element>(elements.begin(), elements.end()));
  }
  for (const Element& element : elements) {
    if (to.erase(element) == 0) {
      to.insert(element);
    }
  }
  return !elements.empty();
}

// Maps come whole, or as the pairs that came, went (their value is the old one) or have a new value.
template <typename Key, typename Value>
bool assignMap(std::map<Key, Value>& to, const std::vector<std::pair<Key, Value>>& pairs, RowChange change) {
  if (change == RowChange::present) {
    return assign(to, std::map<Key, Value>(pairs.begin(), pairs.end()));
  }
  for (const auto& [key, value] : pairs) {
    const auto known = to.find(key);
    if (known != to.end() && known->second == value) {
      to.erase(known);
    } else {
      to[key] = value;
    }
  }
  return !pairs.empty();
}

[[noreturn]] void unknownRow(const RowEvent& event) {
  throw ProtocolError("table " + std::string{nameOf(event.table)} + ", row " + event.uuid.text() +
                      ": a row that is not known is modified");
}

// The row of a map that an event is about, made if it is new.
template <typename Map>
std::pair<typename Map::mapped_type*, bool> rowOf(Map& map, const RowEvent& event) {
  const auto known = map.find(event.uuid);
  if (known != map.end()) {
    return {&known->second, false};
  }
  if (event.change == RowChange::modified) {
    unknownRow(event);
  }
  return {&map[event.uuid], true};
}

}  // namespace

bool RowStore::apply(const RowEvent& event) {
  switch (event.table) {
    case Table::global:
      return applyGlobal(event);
    case Table::physicalSwitch:
      return applyPhysicalSwitch(event);
    case Table::physicalPort:
      return applyPort(event);
    case Table::logicalSwitch:
      return applyLogicalSwitch(event);
    case Table::physicalLocator:
      return applyLocator(event);
    case Table::physicalLocatorSet:
      return applyLocatorSet(event);
    case Table::ucastMacsRemote:
      return applyUcast(event);
    case Table::mcastMacsRemote:
      return applyMcast(event);
  }
  return false;
}

bool RowStore::applyGlobal(const RowEvent& event) {
  bool changed = false;
  if (event.change == RowChange::removed) {
    changed = globals.erase(event.uuid) > 0;
    count(event.table, changed ? -1 : 0);
  } else {
    const auto [row, created] = rowOf(globals, event);
    row->epoch = epoch_;
    changed = created;
    count(event.table, created ? 1 : 0);
    if (says(event, At::globalOtherConfig)) {
      changed |= assignMap(row->otherConfig, event.cells[At::globalOtherConfig].pairs, event.change);
    }
  }
  topologyChanged |= changed;
  return changed;
}

bool RowStore::applyPhysicalSwitch(const RowEvent& event) {
  bool changed = false;
  if (event.change == RowChange::removed) {
    changed = physicalSwitches.erase(event.uuid) > 0;
    count(event.table, changed ? -1 : 0);
  } else {
    const auto [row, created] = rowOf(physicalSwitches, event);
    row->epoch = epoch_;
    changed = created;
    count(event.table, created ? 1 : 0);
    if (says(event, At::switchName)) {
      changed |= assign(row->name, event.cells[At::switchName].text);
    }
    if (says(event, At::switchPorts)) {
      changed |= assignSet(row->ports, event.cells[At::switchPorts].uuids, event.change);
    }
    if (says(event, At::switchTunnelIps)) {
      changed |= assignSet(row->tunnelIps, event.cells[At::switchTunnelIps].texts, event.change);
    }
  }
  topologyChanged |= changed;
  return changed;
}

bool RowStore::applyPort(const RowEvent& event) {
  bool changed = false;
  if (event.change == RowChange::removed) {
    changed = ports.erase(event.uuid) > 0;
    count(event.table, changed ? -1 : 0);
  } else {
    const auto [row, created] = rowOf(ports, event);
    row->epoch = epoch_;
    changed = created;
    count(event.table, created ? 1 : 0);
    if (says(event, At::portName)) {
      changed |= assign(row->name, event.cells[At::portName].text);
    }
    if (says(event, At::portBindings)) {
      changed |= assignMap(row->bindings, event.cells[At::portBindings].bindings, event.change);
    }
  }
  topologyChanged |= changed;
  return changed;
}

bool RowStore::applyLogicalSwitch(const RowEvent& event) {
  Slot slot = logicalSwitches.find(event.uuid);
  const bool existed = slot != noSlot && logicalSwitches[slot].exists;
  if (event.change == RowChange::removed) {
    if (existed) {
      removeLogicalSwitch(slot);
    }
    return existed;
  }
  if (!existed) {
    if (event.change == RowChange::modified) {
      unknownRow(event);
    }
    slot = logicalSwitches.insert(event.uuid).first;
    logicalSwitches[slot].exists = true;
    comeAndGone.push_back(slot);
    count(event.table, 1);
  }
  LogicalSwitch& row = logicalSwitches[slot];
  row.epoch = epoch_;
  bool changed = !existed;
  if (says(event, At::logicalName)) {
    changed |= assign(row.name, event.cells[At::logicalName].text);
  }
  if (says(event, At::logicalKey)) {
    const Cell& cell = event.cells[At::logicalKey];
    row.keyCleared |= row.key.has_value() && cell.empty;
    changed |= assign(row.key, cell.empty ? std::nullopt : std::optional{cell.number});
  }
  if (says(event, At::logicalMode) && assign(row.mode, event.cells[At::logicalMode].text)) {
    changed = true;
    for (const auto& [mac, flood] : row.floods) {
      dirtyFloods.emplace(slot, mac);
    }
  }
  topologyChanged |= changed;
  return changed;
}

bool RowStore::applyLocator(const RowEvent& event) {
  Slot slot = locators.find(event.uuid);
  const bool existed = slot != noSlot && locators[slot].exists;
  if (event.change == RowChange::removed) {
    if (existed) {
      removeLocator(slot);
    }
    return existed;
  }
  if (!existed) {
    if (event.change == RowChange::modified) {
      unknownRow(event);
    }
    slot = locators.insert(event.uuid).first;
    locators[slot].exists = true;
    count(event.table, 1);
  }
  Locator& row = locators[slot];
  row.epoch = epoch_;
  const bool changed =
      (says(event, At::locatorIp) && assign(row.text, event.cells[At::locatorIp].text)) || !existed;
  if (!changed) {
    return false;
  }
  const Ipv4 address = parseIpv4(row.text).value_or(0);
  row.address = canEndTunnel(address) ? address : 0;
  moveCount(badLocators_.contains(event.uuid) ? ProblemKind::locatorNotIpv4 : ProblemKind::none,
            row.address == 0 ? ProblemKind::locatorNotIpv4 : ProblemKind::none);
  if (row.address == 0) {
    badLocators_.insert(event.uuid);
  } else {
    badLocators_.erase(event.uuid);
  }
  touchLocator(slot);
  return true;
}

bool RowStore::applyLocatorSet(const RowEvent& event) {
  const auto known = locatorSets.find(event.uuid);
  const bool existed = known != locatorSets.end() && known->second.exists;
  if (event.change == RowChange::removed) {
    if (existed) {
      removeLocatorSet(event.uuid);
    }
    return existed;
  }
  if (!existed && event.change == RowChange::modified) {
    unknownRow(event);
  }
  LocatorSet& row = locatorSets[event.uuid];
  row.epoch = epoch_;
  std::set<Uuid> members;
  for (const Slot locator : row.locators) {
    members.insert(locators.key(locator));
  }
  const bool changed = (says(event, At::setLocators) &&
                        assignSet(members, event.cells[At::setLocators].uuids, event.change)) ||
                       !existed;
  if (!existed) {
    row.exists = true;
    count(event.table, 1);
  }
  if (!changed) {
    return false;
  }
  const std::vector<Slot> old = std::exchange(row.locators, {});
  for (const Uuid& uuid : members) {
    const Slot locator = locators.insert(uuid).first;
    ++locators[locator].users;
    ++locators[locator].inSets;
    row.locators.push_back(locator);
  }
  for (const Slot locator : old) {
    --locators[locator].inSets;
    releaseLocator(locator);
  }
  touchSet(row);
  return true;
}

bool RowStore::applyUcast(const RowEvent& event) {
  Slot slot = ucasts.find(event.uuid);
  if (event.change == RowChange::removed) {
    if (slot != noSlot) {
      removeUcast(slot);
    }
    return slot != noSlot;
  }
  const bool existed = slot != noSlot;
  if (!existed) {
    if (event.change == RowChange::modified) {
      unknownRow(event);
    }
    slot = ucasts.insert(event.uuid).first;
    count(event.table, 1);
  }
  Ucast& row = ucasts[slot];
  row.epoch = epoch_;
  const Cell& text = event.cells[At::macMac];
  const Cell& logicalSwitch = event.cells[At::macSwitch];
  const Cell& locator = event.cells[At::macLocator];
  const std::optional<Mac> parsed = parseMac(text.text);
  const bool good = parsed && *parsed != 0 && !isGroup(*parsed);
  if (existed) {
    const auto bad = badMacs_.find(event.uuid);
    const bool sameMac =
        !says(event, At::macMac) || (good ? bad == badMacs_.end() && row.mac == *parsed
                                          : bad != badMacs_.end() && bad->second == text.text);
    const bool sameSwitch =
        !says(event, At::macSwitch) || logicalSwitches.key(row.logicalSwitch) == logicalSwitch.uuid;
    const bool sameLocator = !says(event, At::macLocator) || locators.key(row.locator) == locator.uuid;
    if (sameMac && sameSwitch && sameLocator) {
      return false;
    }
    unlinkUcast(slot);
  }
  if (says(event, At::macMac)) {
    row.mac = good ? *parsed : 0;
    if (good) {
      badMacs_.erase(event.uuid);
    } else {
      badMacs_[event.uuid] = text.text;
    }
  }
  if (says(event, At::macSwitch)) {
    row.logicalSwitch = logicalSwitches.insert(logicalSwitch.uuid).first;
  }
  if (says(event, At::macLocator)) {
    row.locator = locators.insert(locator.uuid).first;
  }
  linkUcast(slot);
  return true;
}

bool RowStore::applyMcast(const RowEvent& event) {
  if (event.change == RowChange::removed) {
    const bool existed = mcasts.contains(event.uuid);
    if (existed) {
      removeMcast(event.uuid);
    }
    return existed;
  }
  const auto [row, created] = rowOf(mcasts, event);
  row->epoch = epoch_;
  count(event.table, created ? 1 : 0);
  const Cell& text = event.cells[At::macMac];
  const Cell& logicalSwitch = event.cells[At::macSwitch];
  const Cell& set = event.cells[At::macLocator];
  if (!created) {
    const bool same =
        (!says(event, At::macMac) || row->text == text.text) &&
        (!says(event, At::macSwitch) || logicalSwitches.key(row->logicalSwitch) == logicalSwitch.uuid) &&
        (!says(event, At::macLocator) || row->set == set.uuid);
    if (same) {
      return false;
    }
    unlinkMcast(event.uuid);
  }
  if (says(event, At::macMac)) {
    row->text = text.text;
    row->mac = text.text == "unknown-dst" ? std::optional{unknownDestination} : parseMac(text.text);
  }
  if (says(event, At::macSwitch)) {
    row->logicalSwitch = logicalSwitches.insert(logicalSwitch.uuid).first;
  }
  if (says(event, At::macLocator)) {
    row->set = set.uuid;
  }
  linkMcast(event.uuid);
  return true;
}

}  // namespace Agent::Ovsdb
