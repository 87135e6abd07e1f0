#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "agent/vtep/SlotMap.h"
#include "agent/vtep/Steps.h"
#include "service/loop/Fatal.h"
#include "service/ovsdb/Uuid.h"

namespace Agent::Vtep {

// The rows of a table that rows of other tables name. Rows may come in any order: a row that is named before
// it came, or after it went, is a placeholder, which does not exist.
//
// A Reference is how a row is named. It counts itself: it is made by the table, cannot be copied by accident,
// and gives its row free when it goes. So an entry lives as long as it exists or is referred to, and no
// Reference ever leads to another row than the one that it was made for.
//
// Entries that are of no use any more are not erased at once but by collect(), so that a row whose values
// change can let a placeholder go and take it again. The table must outlive its References.
template <typename Row>
class NamedRows {
  struct Entry;

 public:
  class Reference {
   public:
    Reference() = default;
    Reference(Reference&& other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}
    Reference& operator=(Reference&& other) noexcept {
      if (this != &other) {
        release();
        entry_ = std::exchange(other.entry_, nullptr);
      }
      return *this;
    }
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;
    ~Reference() { release(); }

    // Whether it refers to a row at all; the rest needs one that does.
    explicit operator bool() const { return entry_ != nullptr; }
    bool exists() const { return entry().exists; }
    const Row& operator*() const { return entry().row; }
    const Row* operator->() const { return &entry().row; }
    Slot slot() const { return entry().slot; }
    const Ovsdb::Uuid& uuid() const { return entry().owner->entries_.key(entry_->slot); }
    // Another reference to the same row.
    Reference copy() const { return Reference(&entry()); }

   private:
    friend class NamedRows;
    explicit Reference(Entry* entry) : entry_(entry) { ++entry_->users; }
    Entry& entry() const {
      Service::require(entry_ != nullptr, "a reference is used that refers to no row");
      return *entry_;
    }
    void release() noexcept {
      if (entry_ != nullptr) {
        Entry& entry = *std::exchange(entry_, nullptr);
        --entry.users;
        entry.owner->noteIfUnused(entry);
      }
    }

    Entry* entry_ = nullptr;
  };

  NamedRows() = default;
  NamedRows(const NamedRows&) = delete;
  NamedRows& operator=(const NamedRows&) = delete;

  // Names the row, which need not exist.
  Reference refer(const Ovsdb::Uuid& uuid) { return Reference(&entries_[place(uuid)]); }
  // Names the row or placeholder in a slot.
  Reference refer(Slot slot) { return Reference(&entries_[slot]); }

  // The slot of the row, or of its placeholder; noSlot if there is neither.
  Slot find(const Ovsdb::Uuid& uuid) const { return entries_.find(uuid); }
  // Whether the row is there, and not a placeholder.
  bool exists(Slot slot) const { return slot != noSlot && entries_[slot].exists; }
  // The row comes into being, perhaps in the place of its placeholder.
  Slot appear(const Ovsdb::Uuid& uuid) {
    const Slot slot = place(uuid);
    Service::require(!entries_[slot].exists, "a row comes into being that is there");
    entries_[slot].exists = true;
    ++rows_;
    return slot;
  }
  // The row is gone; a placeholder stays while it is referred to. The value is left as it is.
  void vanish(Slot slot) {
    Service::require(exists(slot), "a row goes that is not there");
    entries_[slot].exists = false;
    --rows_;
    noteIfUnused(entries_[slot]);
  }
  // The row came, or was changed, in this epoch.
  void stamp(Slot slot, std::uint32_t epoch) { entries_[slot].epoch = epoch; }
  std::uint32_t epoch(Slot slot) const { return entries_[slot].epoch; }

  const Row& operator[](Slot slot) const { return entries_[slot].row; }
  Row& edit(Slot slot) { return entries_[slot].row; }
  const Ovsdb::Uuid& uuid(Slot slot) const { return entries_.key(slot); }

  // A walk over rows and placeholders goes from 0 to slots() over those that are live.
  Slot slots() const { return entries_.slots(); }
  bool live(Slot slot) const { return entries_.live(slot); }
  std::size_t rows() const { return rows_; }
  std::size_t size() const { return entries_.size(); }

  // Erases entries of no use; returns whether more may be left.
  bool collect(Steps& steps) {
    for (; unused_ != noSlot && steps.left(); steps.spend()) {
      const Slot slot = unused_;
      Entry& entry = entries_[slot];
      unused_ = std::exchange(entry.nextUnused, noSlot);
      entry.noted = false;
      if (!entry.exists && entry.users == 0) {
        entries_.erase(slot);
      }
    }
    return unused_ != noSlot;
  }

 private:
  struct Entry {
    Row row{};
    NamedRows* owner = nullptr;
    Slot slot = noSlot;
    std::uint32_t users = 0;
    std::uint32_t epoch = 0;
    Slot nextUnused = noSlot;
    bool exists = false;
    bool noted = false;  // in the list of those that may be of no use
  };

  Slot place(const Ovsdb::Uuid& uuid) {
    const auto [slot, created] = entries_.insert(uuid);
    if (created) {
      entries_[slot].owner = this;
      entries_[slot].slot = slot;
    }
    return slot;
  }

  void noteIfUnused(Entry& entry) noexcept {
    if (!entry.exists && entry.users == 0 && !entry.noted) {
      entry.noted = true;
      entry.nextUnused = std::exchange(unused_, entry.slot);
    }
  }

  Slot unused_ = noSlot;
  std::size_t rows_ = 0;
  SlotMap<Ovsdb::Uuid, Entry> entries_;
};

}  // namespace Agent::Vtep
