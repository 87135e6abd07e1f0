#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "agent/vtep/Addresses.h"
#include "agent/vtep/BoundedText.h"
#include "agent/vtep/NamedRows.h"
#include "agent/vtep/Problems.h"
#include "agent/vtep/SlotMap.h"
#include "agent/vtep/Steps.h"
#include "service/loop/Fatal.h"

namespace Agent::Vtep {

// A MAC of a logical switch.
struct MacKey {
  Slot logicalSwitch = noSlot;
  Mac mac = 0;
  friend bool operator==(const MacKey&, const MacKey&) = default;
};
// Slots are small numbers and MACs fill the low 48 bits.
struct MacKeyHash {
  std::size_t operator()(const MacKey& key) const noexcept {
    return (std::uint64_t{key.logicalSwitch} << 48 ^ key.logicalSwitch) * 0x9e3779b97f4a7c15ULL ^ key.mac;
  }
};

// The first of the rows that name a target, or of the MACs of a logical switch; the others are linked to it.
struct Chain {
  Slot first = noSlot;
};

// One of the two tables of remote MACs: rows that say behind which target (a locator, or a locator set) a MAC
// of a logical switch is. Rows of one MAC and logical switch are duplicates of each other: they are chained
// from the newest to the oldest below an entry, which also holds what was decided on the MAC.
//
// Invariants:
//   1. A row is linked by the values that it holds: assign() changes values and links in one operation.
//   2. A row whose MAC is bad belongs to no entry.
//   3. An entry lives as long as it has rows or is dirty, and until drop() finds it of no use.
//   4. Below a row that is a duplicate all are.
//
// `Target` has a Chain `rows`; a logical switch has a Chain for the entries, which the table is made with.
template <typename LogicalSwitch, typename Target, typename Decision>
class MacTable {
 public:
  using SwitchReference = typename NamedRows<LogicalSwitch>::Reference;
  using TargetReference = typename NamedRows<Target>::Reference;

  struct Row {
    Mac mac = 0;
    SwitchReference logicalSwitch;
    TargetReference target;
    Slot entry = noSlot;  // noSlot while the MAC is bad
    Slot newer = noSlot, older = noSlot;
    Slot sameTargetNext = noSlot, sameTargetPrevious = noSlot;
    std::uint32_t epoch = 0;
    ProblemKind problem = ProblemKind::none;
  };
  struct Entry {
    SwitchReference logicalSwitch;
    Slot newest = noSlot;
    Slot next = noSlot, previous = noSlot;  // of the same logical switch
    bool dirty = false;                     // to be decided on
    Decision decision;
  };
  // A MAC as a row says it: `good` is nothing if it is none, and `text` is kept then.
  struct MacValue {
    std::optional<Mac> good;
    BoundedText text;
  };

  MacTable(NamedRows<LogicalSwitch>& switches, Chain LogicalSwitch::*entriesOf, NamedRows<Target>& targets)
      : switches_(switches), entriesOf_(entriesOf), targets_(targets) {}

  // --- rows
  Slot find(const Ovsdb::Uuid& uuid) const { return rows_.find(uuid); }
  std::size_t size() const { return rows_.size(); }
  Slot slots() const { return rows_.slots(); }
  bool live(Slot row) const { return rows_.live(row); }
  const Row& row(Slot row) const { return rows_[row]; }
  const Ovsdb::Uuid& uuid(Slot row) const { return rows_.key(row); }
  // Whether the row holds this MAC.
  bool hasMac(Slot row, const MacValue& mac) const {
    const auto bad = badMacs_.find(rows_.key(row));
    return mac.good ? bad == badMacs_.end() && rows_[row].mac == *mac.good
                    : bad != badMacs_.end() && bad->second == mac.text;
  }
  // The text of a row's MAC that is none; null for a good one.
  const BoundedText* badMac(Slot row) const {
    const auto bad = badMacs_.find(rows_.key(row));
    return bad == badMacs_.end() ? nullptr : &bad->second;
  }

  // A new row has no values until assign().
  Slot insert(const Ovsdb::Uuid& uuid) { return rows_.insert(uuid).first; }
  // The row holds these values from now on, and is the newest of its MAC. Without a MAC it keeps the one that
  // it has.
  void assign(Slot slot, const std::optional<MacValue>& mac, SwitchReference logicalSwitch,
              TargetReference target) {
    unlink(slot);
    Row& row = rows_[slot];
    if (mac && mac->good) {
      badMacs_.erase(rows_.key(slot));
    } else if (mac) {
      badMacs_[rows_.key(slot)] = mac->text;
    }
    row.mac = mac ? mac->good.value_or(0) : row.mac;
    row.logicalSwitch = std::move(logicalSwitch);
    row.target = std::move(target);
    link(slot);
  }
  void erase(Slot slot) {
    unlink(slot);
    badMacs_.erase(rows_.key(slot));
    rows_.erase(slot);
  }
  void stamp(Slot row, std::uint32_t epoch) { rows_[row].epoch = epoch; }

  // --- entries
  Slot findEntry(Slot logicalSwitch, Mac mac) const { return entries_.find({logicalSwitch, mac}); }
  std::size_t entries() const { return entries_.size(); }
  const Entry& entry(Slot entry) const { return entries_[entry]; }
  const MacKey& key(Slot entry) const { return entries_.key(entry); }
  Decision& decision(Slot entry) { return entries_[entry].decision; }
  SlotId id(Slot entry) const { return entries_.id(entry); }
  Slot slotOf(SlotId entry) const { return entries_.slotOf(entry); }
  void markDirty(Slot entry) {
    if (!std::exchange(entries_[entry].dirty, true)) {
      dirty_.push_back(entry);
    }
  }
  // The entry that is to be decided on next; it is dirty until the resolution is over. noSlot if none is.
  Slot firstDirty() const { return dirty_.empty() ? noSlot : dirty_.back(); }

  // Looks for the row of the first dirty entry that counts: the newest that `judge` finds usable. `judge`
  // takes a row and returns its problem and whether it can be used. Returns whether the entry is resolved; it
  // is dirty no more then. Call it until true; in between no row may change.
  template <typename Judge>
  bool resolve(Judge judge, Steps& steps) {
    if (!std::exchange(resolving_, true)) {
      resolveAt_ = entries_[dirty_.back()].newest;
      resolved_ = false;
    }
    for (; resolveAt_ != noSlot && steps.left(); resolveAt_ = rows_[resolveAt_].older) {
      steps.spend();
      if (!resolved_) {
        const auto [problem, usable] = judge(rows_[resolveAt_]);
        problemIs(resolveAt_, problem);
        resolved_ = usable;
      } else if (rows_[resolveAt_].problem == ProblemKind::duplicateMac) {
        resolveAt_ = noSlot;
        break;
      } else {
        problemIs(resolveAt_, ProblemKind::duplicateMac);
      }
    }
    if (resolveAt_ != noSlot) {
      return false;
    }
    steps.spend();
    resolving_ = false;
    entries_[dirty_.back()].dirty = false;
    dirty_.pop_back();
    return true;
  }
  // Whether the first dirty entry is partly resolved.
  bool resolving() const { return resolving_; }
  // Erases the entry if it has no rows and is not dirty.
  void drop(Slot slot) {
    const Entry& entry = entries_[slot];
    if (entry.newest != noSlot || entry.dirty) {
      return;
    }
    if (entry.previous != noSlot) {
      entries_[entry.previous].next = entry.next;
    } else {
      chainOf(entry.logicalSwitch).first = entry.next;
    }
    if (entry.next != noSlot) {
      entries_[entry.next].previous = entry.previous;
    }
    entries_.erase(slot);
  }

  // --- problems
  const ProblemCounts& problemCounts() const { return problemCounts_; }
  // The rows that have a problem.
  const std::set<Ovsdb::Uuid>& badRows() const { return badRows_; }

 private:
  Chain& chainOf(const SwitchReference& logicalSwitch) {
    return switches_.edit(logicalSwitch.slot()).*entriesOf_;
  }

  Slot entryOf(const Row& row) {
    const auto [slot, created] = entries_.insert({row.logicalSwitch.slot(), row.mac});
    if (created) {
      Entry& entry = entries_[slot];
      entry.logicalSwitch = row.logicalSwitch.copy();
      entry.next = std::exchange(chainOf(entry.logicalSwitch).first, slot);
      if (entry.next != noSlot) {
        entries_[entry.next].previous = slot;
      }
    }
    return slot;
  }

  void link(Slot slot) {
    Row& row = rows_[slot];
    row.sameTargetNext = std::exchange(targets_.edit(row.target.slot()).rows.first, slot);
    if (row.sameTargetNext != noSlot) {
      rows_[row.sameTargetNext].sameTargetPrevious = slot;
    }
    if (badMacs_.contains(rows_.key(slot))) {
      problemIs(slot, ProblemKind::badMac);
      return;
    }
    row.entry = entryOf(row);
    row.older = std::exchange(entries_[row.entry].newest, slot);
    if (row.older != noSlot) {
      rows_[row.older].newer = slot;
    }
    markDirty(row.entry);
  }

  // A row without values is linked nowhere.
  void unlink(Slot slot) {
    Row& row = rows_[slot];
    problemIs(slot, ProblemKind::none);
    if (row.target) {
      if (row.sameTargetPrevious != noSlot) {
        rows_[row.sameTargetPrevious].sameTargetNext = row.sameTargetNext;
      } else {
        targets_.edit(row.target.slot()).rows.first = row.sameTargetNext;
      }
      if (row.sameTargetNext != noSlot) {
        rows_[row.sameTargetNext].sameTargetPrevious = row.sameTargetPrevious;
      }
    }
    if (row.entry != noSlot) {
      if (row.newer != noSlot) {
        rows_[row.newer].older = row.older;
      } else {
        entries_[row.entry].newest = row.older;
      }
      if (row.older != noSlot) {
        rows_[row.older].newer = row.newer;
      }
      markDirty(row.entry);
    }
    row.entry = row.newer = row.older = row.sameTargetNext = row.sameTargetPrevious = noSlot;
  }

  void problemIs(Slot slot, ProblemKind kind) {
    const ProblemKind old = std::exchange(rows_[slot].problem, kind);
    if (old == kind) {
      return;
    }
    if (old != ProblemKind::none) {
      --problemCounts_[static_cast<std::size_t>(old)];
    }
    if (kind == ProblemKind::none) {
      badRows_.erase(rows_.key(slot));
    } else {
      ++problemCounts_[static_cast<std::size_t>(kind)];
      badRows_.insert(rows_.key(slot));
    }
  }

  NamedRows<LogicalSwitch>& switches_;
  Chain LogicalSwitch::*entriesOf_;
  NamedRows<Target>& targets_;
  SlotMap<Ovsdb::Uuid, Row> rows_;
  SlotMap<MacKey, Entry, MacKeyHash> entries_;
  std::vector<Slot> dirty_;
  std::map<Ovsdb::Uuid, BoundedText> badMacs_;
  std::set<Ovsdb::Uuid> badRows_;
  ProblemCounts problemCounts_{};
  // the resolution under way
  bool resolving_ = false;
  Slot resolveAt_ = noSlot;
  bool resolved_ = false;
};

}  // namespace Agent::Vtep
