#include "agent/vtep/RowStore.h"

#include <algorithm>

#include "agent/vtep/Cells.h"
#include "service/ovsdb/JsonReader.h"

namespace Agent::Vtep {

namespace {

[[noreturn]] void unknownRow(const Ovsdb::RowEvent& event) {
  throw Ovsdb::ProtocolError("table " + std::string{nameOf(tableOf(event))} + ", row " + event.uuid.text() +
                             ": a row that is not known is modified");
}

// The row of a table that an event is about, made if it is new.
template <typename Row>
std::pair<Row*, bool> rowOf(SlotMap<Ovsdb::Uuid, Row>& table, const Ovsdb::RowEvent& event) {
  if (event.change == Ovsdb::RowChange::modified && table.find(event.uuid) == noSlot) {
    unknownRow(event);
  }
  const auto [slot, created] = table.insert(event.uuid);
  return {&table[slot], created};
}

template <typename Row>
bool eraseRow(SlotMap<Ovsdb::Uuid, Row>& table, const Ovsdb::Uuid& uuid) {
  const Slot slot = table.find(uuid);
  if (slot != noSlot) {
    table.erase(slot);
  }
  return slot != noSlot;
}

// The row of a table of named rows that an event is about, which begins to exist if it does not; and whether
// it existed.
template <typename Row>
std::pair<Slot, bool> namedRowOf(NamedRows<Row>& table, const Ovsdb::RowEvent& event) {
  const Slot known = table.find(event.uuid);
  const bool existed = table.exists(known);
  if (!existed && event.change == Ovsdb::RowChange::modified) {
    unknownRow(event);
  }
  return {existed ? known : table.appear(event.uuid), existed};
}

// The MAC of a host.
RowStore::Hosts::MacValue hostMac(const std::string& text) {
  const std::optional<Mac> parsed = parseMac(text);
  if (parsed && *parsed != 0 && !isGroup(*parsed)) {
    return {parsed, {}};
  }
  return {std::nullopt, BoundedText(text)};
}

// The MAC of a flood destination.
RowStore::Floods::MacValue floodMac(const std::string& text) {
  if (text == "unknown-dst") {
    return {unknownDestination, {}};
  }
  const std::optional<Mac> parsed = parseMac(text);
  return {parsed, parsed ? BoundedText() : BoundedText(text)};
}

}  // namespace

RowStore::RowStore()
    : hosts_(logicalSwitches_, &LogicalSwitch::hosts, locators_),
      floods_(logicalSwitches_, &LogicalSwitch::floods, locatorSets_) {}

// --- taking rows in: what is new is compared with what is there, so that a row that comes again as it was,
// as after a reconnect, touches nothing

bool RowStore::apply(const Ovsdb::RowEvent& event) {
  switch (tableOf(event)) {
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
      return applyMac(hosts_, locators_, event, hostMac(event.cells[At::macMac].text));
    case Table::mcastMacsRemote:
      return applyMac(floods_, locatorSets_, event, floodMac(event.cells[At::macMac].text));
  }
  return false;
}

bool RowStore::applyGlobal(const Ovsdb::RowEvent& event) {
  bool changed = false;
  if (event.change == Ovsdb::RowChange::removed) {
    changed = eraseRow(globals_, event.uuid);
  } else {
    const auto [row, created] = rowOf(globals_, event);
    row->epoch = epoch_;
    changed = created;
    if (says(event, At::globalOtherConfig)) {
      changed |=
          assignKey(row->converging, "converging", event.cells[At::globalOtherConfig].pairs, event.change);
    }
  }
  topologyChanged_ |= changed;
  return changed;
}

bool RowStore::applyPhysicalSwitch(const Ovsdb::RowEvent& event) {
  bool changed = false;
  if (event.change == Ovsdb::RowChange::removed) {
    changed = eraseRow(physicalSwitches_, event.uuid);
  } else {
    const auto [row, created] = rowOf(physicalSwitches_, event);
    row->epoch = epoch_;
    changed = created;
    if (says(event, At::switchName)) {
      changed |= assign(row->name, BoundedText(event.cells[At::switchName].text));
    }
    if (says(event, At::switchPorts)) {
      changed |= assignSet(row->ports, event.cells[At::switchPorts].uuids, event.change);
    }
    if (says(event, At::switchTunnelIps)) {
      changed |=
          assignSet(row->tunnelIps, boundedTexts(event.cells[At::switchTunnelIps].texts), event.change);
    }
  }
  topologyChanged_ |= changed;
  return changed;
}

bool RowStore::applyPort(const Ovsdb::RowEvent& event) {
  bool changed = false;
  if (event.change == Ovsdb::RowChange::removed) {
    changed = eraseRow(ports_, event.uuid);
  } else {
    const auto [row, created] = rowOf(ports_, event);
    row->epoch = epoch_;
    changed = created;
    if (says(event, At::portName)) {
      changed |= assign(row->name, BoundedText(event.cells[At::portName].text));
    }
    if (says(event, At::portBindings)) {
      changed |= assignMap(row->bindings, event.cells[At::portBindings].bindings, event.change);
    }
  }
  topologyChanged_ |= changed;
  return changed;
}

bool RowStore::applyLogicalSwitch(const Ovsdb::RowEvent& event) {
  if (event.change == Ovsdb::RowChange::removed) {
    const Slot slot = logicalSwitches_.find(event.uuid);
    const bool existed = logicalSwitches_.exists(slot);
    if (existed) {
      removeLogicalSwitch(slot);
    }
    return existed;
  }
  const auto [slot, existed] = namedRowOf(logicalSwitches_, event);
  logicalSwitches_.stamp(slot, epoch_);
  LogicalSwitch& row = logicalSwitches_.edit(slot);
  bool changed = !existed;
  if (says(event, At::logicalName)) {
    changed |= assign(row.name, BoundedText(event.cells[At::logicalName].text));
  }
  if (says(event, At::logicalKey)) {
    const Ovsdb::Cell& cell = event.cells[At::logicalKey];
    const std::optional<std::int64_t> key = cell.empty ? std::nullopt : std::optional{cell.number};
    changed |= row.key != key;
    keyIs(slot, key);
  }
  const bool anotherMode =
      says(event, At::logicalMode) && assign(row.mode, BoundedText(event.cells[At::logicalMode].text));
  changed |= anotherMode;
  if (!existed || anotherMode) {
    touchSwitch(slot);
  }
  topologyChanged_ |= changed;
  return changed;
}

void RowStore::removeLogicalSwitch(Slot slot) {
  keyIs(slot, std::nullopt);
  keysCleared_.erase(slot);
  touchSwitch(slot);
  logicalSwitches_.vanish(slot);
  topologyChanged_ = true;
}

void RowStore::keyIs(Slot slot, std::optional<std::int64_t> key) {
  LogicalSwitch& row = logicalSwitches_.edit(slot);
  keys_ -= row.key ? 1U : 0U;
  keys_ += key ? 1U : 0U;
  if (row.key && !key) {
    keysCleared_.insert(slot);
  }
  row.key = key;
}

bool RowStore::applyLocator(const Ovsdb::RowEvent& event) {
  if (event.change == Ovsdb::RowChange::removed) {
    const Slot slot = locators_.find(event.uuid);
    const bool existed = locators_.exists(slot);
    if (existed) {
      removeLocator(slot);
    }
    return existed;
  }
  const auto [slot, existed] = namedRowOf(locators_, event);
  locators_.stamp(slot, epoch_);
  const BoundedText text(says(event, At::locatorIp) ? event.cells[At::locatorIp].text : std::string{});
  const bool changed = !existed || (says(event, At::locatorIp) && locators_[slot].text != text);
  if (changed) {
    addressIs(slot, text);
  }
  return changed;
}

void RowStore::addressIs(Slot slot, const BoundedText& text) {
  Locator& row = locators_.edit(slot);
  const Ipv4 address = parseIpv4(text.kept()).value_or(0);
  row.text = text;
  row.address = canEndTunnel(address) ? address : 0;
  if (row.address == 0) {
    badLocators_.insert(locators_.uuid(slot));
  } else {
    badLocators_.erase(locators_.uuid(slot));
  }
  touchLocator(slot);
}

void RowStore::removeLocator(Slot slot) {
  Locator& row = locators_.edit(slot);
  badLocators_.erase(locators_.uuid(slot));
  row.address = 0;
  row.text = BoundedText();
  touchLocator(slot);
  locators_.vanish(slot);
}

bool RowStore::applyLocatorSet(const Ovsdb::RowEvent& event) {
  if (event.change == Ovsdb::RowChange::removed) {
    const Slot slot = locatorSets_.find(event.uuid);
    const bool existed = locatorSets_.exists(slot);
    if (existed) {
      removeLocatorSet(slot);
    }
    return existed;
  }
  const auto [slot, existed] = namedRowOf(locatorSets_, event);
  locatorSets_.stamp(slot, epoch_);
  std::set<Ovsdb::Uuid> members;
  for (const NamedRows<Locator>::Reference& locator : locatorSets_[slot].locators) {
    members.insert(locator.uuid());
  }
  const bool changed = (says(event, At::setLocators) &&
                        assignSet(members, event.cells[At::setLocators].uuids, event.change)) ||
                       !existed;
  if (changed) {
    membersAre(slot, members);
  }
  return changed;
}

void RowStore::membersAre(Slot set, const std::set<Ovsdb::Uuid>& members) {
  std::vector<NamedRows<Locator>::Reference> locators;
  locators.reserve(members.size());
  for (const Ovsdb::Uuid& uuid : members) {
    locators.push_back(locators_.refer(uuid));
  }
  for (const NamedRows<Locator>::Reference& locator : locatorSets_[set].locators) {
    locators_.edit(locator.slot()).sets.erase(set);
  }
  for (const NamedRows<Locator>::Reference& locator : locators) {
    locators_.edit(locator.slot()).sets.insert(set);
  }
  locatorSets_.edit(set).locators = std::move(locators);
  touchSet(set);
}

void RowStore::removeLocatorSet(Slot slot) {
  membersAre(slot, {});
  locatorSets_.vanish(slot);
}

template <typename MacRows, typename Targets>
bool RowStore::applyMac(MacRows& table, Targets& targets, const Ovsdb::RowEvent& event,
                        const typename MacRows::MacValue& mac) {
  Slot slot = table.find(event.uuid);
  const bool existed = slot != noSlot;
  if (event.change == Ovsdb::RowChange::removed) {
    if (existed) {
      table.erase(slot);
    }
    return existed;
  }
  if (!existed && event.change == Ovsdb::RowChange::modified) {
    unknownRow(event);
  }
  // Members that the event does not name stay.
  auto logicalSwitch = says(event, At::macSwitch) ? logicalSwitches_.refer(event.cells[At::macSwitch].uuid)
                                                  : table.row(slot).logicalSwitch.copy();
  auto target = says(event, At::macLocator) ? targets.refer(event.cells[At::macLocator].uuid)
                                            : table.row(slot).target.copy();
  const bool saysMac = says(event, At::macMac);
  const bool same = existed && (!saysMac || table.hasMac(slot, mac)) &&
                    table.row(slot).logicalSwitch.slot() == logicalSwitch.slot() &&
                    table.row(slot).target.slot() == target.slot();
  slot = table.insert(event.uuid);
  table.stamp(slot, epoch_);
  if (!same) {
    table.assign(slot, saysMac ? std::optional{mac} : std::nullopt, std::move(logicalSwitch),
                 std::move(target));
  }
  return !same;
}

// --- the sweep after a whole update

void RowStore::beginWhole() {
  ++epoch_;
  sweepTable_ = 0;
  sweepAt_ = 0;
}

template <typename MacRows>
bool RowStore::sweepMacs(MacRows& table, Steps& steps) {
  for (; steps.left() && sweepAt_ < table.slots(); ++sweepAt_, steps.spend()) {
    if (table.live(sweepAt_) && table.row(sweepAt_).epoch != epoch_) {
      table.erase(sweepAt_);
    }
  }
  return sweepAt_ < table.slots();
}

// A placeholder has never come.
template <typename Row, typename Remove>
bool RowStore::sweepNamed(NamedRows<Row>& table, Steps& steps, Remove remove) {
  for (; steps.left() && sweepAt_ < table.slots(); ++sweepAt_, steps.spend()) {
    if (table.live(sweepAt_) && table.exists(sweepAt_) && table.epoch(sweepAt_) != epoch_) {
      remove(sweepAt_);
    }
  }
  return sweepAt_ < table.slots();
}

template <typename Row>
bool RowStore::sweepPlain(SlotMap<Ovsdb::Uuid, Row>& table, Steps& steps) {
  for (; steps.left() && sweepAt_ < table.slots(); ++sweepAt_, steps.spend()) {
    if (table.live(sweepAt_) && table[sweepAt_].epoch != epoch_) {
      table.erase(sweepAt_);
      topologyChanged_ = true;
    }
  }
  return sweepAt_ < table.slots();
}

// Rows that name others go before those that they name.
bool RowStore::sweep(Steps& steps) {
  const auto sweepTable = [&](std::size_t table) {
    switch (table) {
      case 0:
        return sweepMacs(hosts_, steps);
      case 1:
        return sweepMacs(floods_, steps);
      case 2:
        return sweepNamed(locatorSets_, steps, [&](Slot slot) {
          steps.spend(locatorSets_[slot].locators.size());
          removeLocatorSet(slot);
        });
      case 3:
        return sweepNamed(locators_, steps, [&](Slot slot) { removeLocator(slot); });
      case 4:
        return sweepNamed(logicalSwitches_, steps, [&](Slot slot) { removeLogicalSwitch(slot); });
      case 5:
        return sweepPlain(ports_, steps);
      case 6:
        return sweepPlain(physicalSwitches_, steps);
      default:
        return sweepPlain(globals_, steps);
    }
  };
  for (; sweepTable_ < tableCount; ++sweepTable_, sweepAt_ = 0) {
    if (sweepTable(sweepTable_)) {
      return true;
    }
  }
  return false;
}

// --- from what was touched to the MACs that hang on it

void RowStore::touchLocator(Slot slot) {
  if (!std::exchange(locators_.edit(slot).touched, true)) {
    touchedLocators_.push_back(locators_.refer(slot));
  }
}

void RowStore::touchSet(Slot slot) {
  if (!std::exchange(locatorSets_.edit(slot).touched, true)) {
    touchedSets_.push_back(locatorSets_.refer(slot));
  }
}

void RowStore::touchSwitch(Slot slot) {
  if (!std::exchange(logicalSwitches_.edit(slot).touched, true)) {
    touchedSwitches_.push_back(logicalSwitches_.refer(slot));
  }
}

bool RowStore::spread(Steps& steps) {
  return spreadLocators(steps) || spreadSets(steps) || spreadSwitches(steps);
}

bool RowStore::spreadLocators(Steps& steps) {
  while (!touchedLocators_.empty()) {
    Locator& locator = locators_.edit(touchedLocators_.back().slot());
    if (!std::exchange(cursor_.begun, true)) {
      cursor_.at = locator.rows.first;
      cursor_.second = 0;
    }
    for (; cursor_.at != noSlot && steps.left(); steps.spend()) {
      const Hosts::Row& row = hosts_.row(cursor_.at);
      if (row.entry != noSlot) {
        hosts_.markDirty(row.entry);
      }
      cursor_.at = row.sameTargetNext;
    }
    auto set = locator.sets.lower_bound(cursor_.second);
    for (; set != locator.sets.end() && steps.left(); ++set, steps.spend()) {
      touchSet(*set);
      cursor_.second = *set + 1;
    }
    if (!steps.left()) {
      return true;
    }
    steps.spend();
    locator.touched = false;
    touchedLocators_.pop_back();
    cursor_ = Cursor();
  }
  return false;
}

bool RowStore::spreadSets(Steps& steps) {
  while (!touchedSets_.empty()) {
    LocatorSet& set = locatorSets_.edit(touchedSets_.back().slot());
    if (!std::exchange(cursor_.begun, true)) {
      cursor_.at = set.rows.first;
    }
    for (; cursor_.at != noSlot && steps.left(); steps.spend()) {
      const Floods::Row& row = floods_.row(cursor_.at);
      if (row.entry != noSlot) {
        floods_.markDirty(row.entry);
      }
      cursor_.at = row.sameTargetNext;
    }
    if (!steps.left()) {
      return true;
    }
    steps.spend();
    set.touched = false;
    touchedSets_.pop_back();
    cursor_ = Cursor();
  }
  return false;
}

bool RowStore::spreadSwitches(Steps& steps) {
  while (!touchedSwitches_.empty()) {
    LogicalSwitch& row = logicalSwitches_.edit(touchedSwitches_.back().slot());
    if (!std::exchange(cursor_.begun, true)) {
      cursor_.at = row.hosts.first;
      cursor_.second = row.floods.first;
    }
    for (; cursor_.at != noSlot && steps.left(); steps.spend()) {
      hosts_.markDirty(cursor_.at);
      cursor_.at = hosts_.entry(cursor_.at).next;
    }
    for (; cursor_.second != noSlot && steps.left(); steps.spend()) {
      floods_.markDirty(cursor_.second);
      cursor_.second = floods_.entry(cursor_.second).next;
    }
    if (!steps.left()) {
      return true;
    }
    steps.spend();
    row.touched = false;
    touchedSwitches_.pop_back();
    cursor_ = Cursor();
  }
  return false;
}

bool RowStore::collect(Steps& steps) {
  return locatorSets_.collect(steps) || locators_.collect(steps) || logicalSwitches_.collect(steps);
}

// --- decisions

bool RowStore::resolveFirstHost(Steps& steps) {
  if (!hosts_.resolving()) {
    resolvedVtep_ = 0;
  }
  const auto judge = [&](const Hosts::Row& row) {
    if (!row.logicalSwitch.exists() || !row.target.exists()) {
      return std::pair(ProblemKind::referenceMissing, false);
    }
    resolvedVtep_ = row.target->address;
    return resolvedVtep_ == 0 ? std::pair(ProblemKind::locatorUnusable, false)
                              : std::pair(ProblemKind::none, true);
  };
  return hosts_.resolve(judge, steps);
}

bool RowStore::resolveFirstFlood(Steps& steps) {
  if (!floods_.resolving()) {
    resolvedAddresses_.clear();
  }
  const auto judge = [&](const Floods::Row& row) {
    if (!row.logicalSwitch.exists() || !row.target.exists()) {
      return std::pair(ProblemKind::referenceMissing, false);
    }
    ProblemKind problem = ProblemKind::none;
    steps.spend(row.target->locators.size());
    for (const NamedRows<Locator>::Reference& locator : row.target->locators) {
      if (locator->address != 0) {
        resolvedAddresses_.push_back(locator->address);
      } else {
        problem = locator.exists() ? ProblemKind::locatorUnusable : ProblemKind::referenceMissing;
      }
    }
    return std::pair(problem, !resolvedAddresses_.empty());
  };
  if (!floods_.resolve(judge, steps)) {
    return false;
  }
  std::sort(resolvedAddresses_.begin(), resolvedAddresses_.end());
  resolvedAddresses_.erase(std::unique(resolvedAddresses_.begin(), resolvedAddresses_.end()),
                           resolvedAddresses_.end());
  return true;
}

std::size_t RowStore::rows(Table table) const {
  const std::size_t rows[tableCount] = {
      globals_.size(),  physicalSwitches_.size(), ports_.size(), logicalSwitches_.rows(),
      locators_.rows(), locatorSets_.rows(),      hosts_.size(), floods_.size()};
  return rows[static_cast<std::size_t>(table)];
}

ProblemCounts RowStore::problemCounts() const {
  ProblemCounts counts{};
  for (std::size_t kind = 0; kind < problemKinds; ++kind) {
    counts[kind] = hosts_.problemCounts()[kind] + floods_.problemCounts()[kind];
  }
  counts[static_cast<std::size_t>(ProblemKind::locatorNotIpv4)] += badLocators_.size();
  return counts;
}

}  // namespace Agent::Vtep
