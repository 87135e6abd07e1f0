#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "service/loop/Fatal.h"

namespace Agent::Vtep {

// The number of an entry in a SlotMap.
using Slot = std::uint32_t;
inline constexpr Slot noSlot = UINT32_MAX;

// An entry of a SlotMap, and no other one that has its slot later: for those who keep a slot beyond the life
// of its entry.
struct SlotId {
  Slot slot = noSlot;
  std::uint32_t generation = 0;
};

// A hash table for rows by the hundred thousand that never stalls: the values stand in chunks of fixed size
// that are neither moved nor given back one by one, and the index over them is 256 open-addressing tables,
// each of which grows by itself.
//
// An entry keeps its slot number and address until it is erased; entries link to each other by slot. Slot
// numbers of erased entries are used again; a SlotId tells the old entry from the new one. Access to an entry
// that is not live is a fatal assertion. A walk from 0 to slots() over the live ones may be interrupted and
// goes on whatever is inserted or erased meanwhile.
template <typename Key, typename Value, typename Hash = std::hash<Key>>
class SlotMap {
 public:
  // The entry's slot, or noSlot.
  Slot find(const Key& key) const {
    const std::uint64_t hash = spread(key);
    const Shard& shard = shards_[hash >> 56];
    if (shard.cells.empty()) {
      return noSlot;
    }
    const std::uint32_t mask = maskOf(shard);
    const auto tag = static_cast<std::uint32_t>(hash);
    for (std::uint32_t at = tag & mask; shard.cells[at].slot != noSlot; at = (at + 1) & mask) {
      if (shard.cells[at].tag == tag && entry(shard.cells[at].slot).key == key) {
        return shard.cells[at].slot;
      }
    }
    return noSlot;
  }

  // The entry's slot; a new entry with a default value if there was none, which the second member tells.
  std::pair<Slot, bool> insert(const Key& key) {
    if (const Slot known = find(key); known != noSlot) {
      return {known, false};
    }
    const std::uint64_t hash = spread(key);
    Shard& shard = shards_[hash >> 56];
    if ((shard.used + 1) * 4 > shard.cells.size() * 3) {
      grow(shard);
    }
    const Slot slot = takeSlot();
    entry(slot).key = key;
    ++entry(slot).generation;
    place(shard, {static_cast<std::uint32_t>(hash), slot});
    ++shard.used;
    ++size_;
    return {slot, true};
  }

  // Removes a live entry; its value is reset to the default.
  void erase(Slot slot) {
    Service::require(live(slot), "an entry is erased that is not there");
    const std::uint64_t hash = spread(entry(slot).key);
    Shard& shard = shards_[hash >> 56];
    const std::uint32_t mask = maskOf(shard);
    std::uint32_t hole = static_cast<std::uint32_t>(hash) & mask;
    while (shard.cells[hole].slot != slot) {
      hole = (hole + 1) & mask;
    }
    closeHole(shard, hole, mask);
    --shard.used;
    --size_;
    entry(slot).value = Value{};
    ++entry(slot).generation;
    free_.push_back(slot);
  }

  Value& operator[](Slot slot) { return liveEntry(slot).value; }
  const Value& operator[](Slot slot) const { return liveEntry(slot).value; }
  const Key& key(Slot slot) const { return liveEntry(slot).key; }
  bool live(Slot slot) const { return slot < slots_ && entry(slot).generation % 2 != 0; }
  SlotId id(Slot slot) const { return {slot, liveEntry(slot).generation}; }
  // The slot of the entry that `id` was made of, or noSlot when that entry is gone.
  Slot slotOf(SlotId id) const {
    return live(id.slot) && entry(id.slot).generation == id.generation ? id.slot : noSlot;
  }
  // One past the highest slot in use so far.
  Slot slots() const { return slots_; }
  std::size_t size() const { return size_; }

 private:
  struct Entry {
    Key key{};
    Value value{};
    std::uint32_t generation = 0;  // odd while the entry is live
  };
  struct Cell {
    std::uint32_t tag = 0;
    Slot slot = noSlot;
  };
  struct Shard {
    std::vector<Cell> cells;  // a power of two of them
    std::uint32_t used = 0;
  };
  static constexpr std::size_t chunkSize = 1024;
  using Chunk = std::array<Entry, chunkSize>;

  // The finalizer of the splitmix64 generator, so that poor hashes do as well.
  static std::uint64_t spread(const Key& key) {
    std::uint64_t hash = Hash{}(key);
    hash = (hash ^ (hash >> 30)) * 0xbf58476d1ce4e5b9ULL;
    hash = (hash ^ (hash >> 27)) * 0x94d049bb133111ebULL;
    return hash ^ (hash >> 31);
  }

  static std::uint32_t maskOf(const Shard& shard) {
    return static_cast<std::uint32_t>(shard.cells.size()) - 1;
  }

  static void place(Shard& shard, Cell cell) {
    const std::uint32_t mask = maskOf(shard);
    std::uint32_t at = cell.tag & mask;
    while (shard.cells[at].slot != noSlot) {
      at = (at + 1) & mask;
    }
    shard.cells[at] = cell;
  }

  static void grow(Shard& shard) {
    std::vector<Cell> old = std::move(shard.cells);
    shard.cells.assign(old.empty() ? 8 : old.size() * 2, Cell{});
    for (const Cell& cell : old) {
      if (cell.slot != noSlot) {
        place(shard, cell);
      }
    }
  }

  // Moves later cells of the probe run back into the hole, so that no tombstones are needed.
  static void closeHole(Shard& shard, std::uint32_t hole, std::uint32_t mask) {
    for (std::uint32_t at = (hole + 1) & mask; shard.cells[at].slot != noSlot; at = (at + 1) & mask) {
      const std::uint32_t home = shard.cells[at].tag & mask;
      if (((at - home) & mask) >= ((at - hole) & mask)) {
        shard.cells[hole] = shard.cells[at];
        hole = at;
      }
    }
    shard.cells[hole] = Cell{};
  }

  Slot takeSlot() {
    if (!free_.empty()) {
      const Slot slot = free_.back();
      free_.pop_back();
      return slot;
    }
    if (slots_ % chunkSize == 0) {
      chunks_.push_back(std::make_unique<Chunk>());
    }
    return slots_++;
  }

  Entry& liveEntry(Slot slot) {
    Service::require(live(slot), "an entry is used that is not there");
    return entry(slot);
  }
  const Entry& liveEntry(Slot slot) const {
    Service::require(live(slot), "an entry is used that is not there");
    return entry(slot);
  }
  Entry& entry(Slot slot) { return (*chunks_[slot / chunkSize])[slot % chunkSize]; }
  const Entry& entry(Slot slot) const { return (*chunks_[slot / chunkSize])[slot % chunkSize]; }

  std::array<Shard, 256> shards_;
  std::vector<std::unique_ptr<Chunk>> chunks_;
  std::vector<Slot> free_;
  Slot slots_ = 0;
  std::size_t size_ = 0;
};

}  // namespace Agent::Vtep
