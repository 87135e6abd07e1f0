// The keyed tables under every collection: one hashed, one ordered, with the same surface.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace Kel {

// Spreads a hash over all 64 bits (the finalizer of MurmurHash3, public domain).
constexpr std::uint64_t mixHash(std::uint64_t hash) noexcept {
  hash ^= hash >> 33;
  hash *= 0xff51afd7ed558ccdULL;
  hash ^= hash >> 33;
  hash *= 0xc4ceb9fe1a85ec53ULL;
  return hash ^ (hash >> 33);
}

// From the hash of a key to the number of its slot: extendible hashing (Fagin, Nievergelt, Pippenger, Strong
// 1979). A directory of 2^depth pointers, chosen by the top bits of the hash, leads to small open-addressed
// buckets. A bucket that fills up is doubled while it is small and split in two when it is not, so that no
// insertion ever moves more than one bucket, however large the table: growth has no stall.
class HashIndex {
  static constexpr std::uint32_t smallest = 4;    // cells of a first bucket
  static constexpr std::uint32_t largest = 2048;  // cells at which a full bucket is split: 16 KiB

  struct Cell {
    std::uint32_t hash;
    std::uint32_t slot;
  };
  struct Bucket {
    std::uint32_t mask;
    std::uint32_t count;
    std::uint32_t depth;

    // Three quarters of the cells at most are taken: an unsuccessful search then meets eight on average.
    bool full() const noexcept { return count >= mask - mask / 4; }
    Cell* cells() noexcept { return reinterpret_cast<Cell*>(this + 1); }  // mask + 1 of them
    const Cell* cells() const noexcept { return reinterpret_cast<const Cell*>(this + 1); }
  };

 public:
  static constexpr std::uint32_t none = UINT32_MAX;

  HashIndex() = default;
  HashIndex(const HashIndex&) = delete;
  HashIndex& operator=(const HashIndex&) = delete;
  ~HashIndex() { clear(); }

  // Where a hash leads: to the cell of what was found, or to the empty one where it would stand. Good until
  // the index changes.
  class Place {
   public:
    // The slot that was found, or `none`.
    std::uint32_t slot() const noexcept { return slot_; }

   private:
    friend class HashIndex;
    Bucket* bucket_ = nullptr;
    std::uint32_t at_ = 0;
    std::uint32_t slot_ = none;
  };

  // The slot for which `equal(slot)` holds among those entered with this hash.
  template <class Equal>
  Place find(std::uint32_t hash, const Equal& equal) const {
    Place place;
    if (directory_.empty()) {
      return place;
    }
    place.bucket_ = directory_[prefix(hash)];
    const Cell* cells = place.bucket_->cells();
    const std::uint32_t mask = place.bucket_->mask;
    for (std::uint32_t at = hash & mask;; at = (at + 1) & mask) {
      const Cell& cell = cells[at];
      if (cell.slot == none || (cell.hash == hash && equal(cell.slot))) {
        place.at_ = at;
        place.slot_ = cell.slot;
        return place;
      }
    }
  }

  // Enters a slot under a hash, at the place where it was not found.
  void insert(const Place& place, std::uint32_t hash, std::uint32_t slot) {
    Bucket* bucket = place.bucket_;
    if (bucket != nullptr && !bucket->full()) [[likely]] {
      bucket->cells()[place.at_] = {hash, slot};
      ++bucket->count;
      return;
    }
    bucket = bucket == nullptr ? first() : bucket;
    while (bucket->full()) {
      grow(hash);
      bucket = directory_[prefix(hash)];
    }
    enter(*bucket, {hash, slot});
  }

  // Takes out what was found at this place.
  void erase(const Place& place) {
    Bucket& bucket = *place.bucket_;
    std::uint32_t hole = place.at_;
    // Backward shift: what was pushed past the hole moves into it, so that no tombstone is left.
    for (std::uint32_t at = (hole + 1) & bucket.mask; bucket.cells()[at].slot != none;
         at = (at + 1) & bucket.mask) {
      const std::uint32_t home = bucket.cells()[at].hash & bucket.mask;
      if (((at - home) & bucket.mask) >= ((at - hole) & bucket.mask)) {
        bucket.cells()[hole] = bucket.cells()[at];
        hole = at;
      }
    }
    bucket.cells()[hole].slot = none;
    --bucket.count;
  }

  void clear() noexcept {
    for (std::size_t at = 0; at < directory_.size();) {
      Bucket* bucket = directory_[at];
      at += std::size_t{1} << (depth_ - bucket->depth);
      std::free(bucket);
    }
    std::exchange(directory_, {});  // an assignment of {} would keep the memory
    depth_ = 0;
  }

 private:
  std::size_t prefix(std::uint32_t hash) const noexcept { return (std::uint64_t{hash} << depth_) >> 32; }

  static Bucket* newBucket(std::uint32_t cells, std::uint32_t depth) {
    auto* bucket = static_cast<Bucket*>(std::malloc(sizeof(Bucket) + cells * sizeof(Cell)));
    if (bucket == nullptr) {
      throw std::bad_alloc();
    }
    bucket->mask = cells - 1;
    bucket->count = 0;
    bucket->depth = depth;
    std::fill_n(bucket->cells(), cells, Cell{0, none});
    return bucket;
  }

  Bucket* first() {
    directory_.push_back(newBucket(smallest, 0));
    return directory_.front();
  }

  static void enter(Bucket& bucket, Cell cell) noexcept {
    std::uint32_t at = cell.hash & bucket.mask;
    while (bucket.cells()[at].slot != none) {
      at = (at + 1) & bucket.mask;
    }
    bucket.cells()[at] = cell;
    ++bucket.count;
  }

  // Makes room in the bucket that this hash leads to.
  void grow(std::uint32_t hash) {
    Bucket* full = directory_[prefix(hash)];
    if (full->mask + 1 < largest || full->depth >= 20) {
      Bucket* twice = newBucket((full->mask + 1) * 2, full->depth);
      move(*full, *twice, *twice, 0);
      lead(hash, full->depth, twice);
      std::free(full);
      return;
    }
    if (full->depth == depth_) {
      std::vector<Bucket*> wider(directory_.size() * 2);
      for (std::size_t at = 0; at < wider.size(); ++at) {
        wider[at] = directory_[at / 2];
      }
      directory_ = std::move(wider);
      ++depth_;
    }
    const std::uint32_t depth = full->depth + 1;
    Bucket* low = newBucket(largest, depth);
    Bucket* high = newBucket(largest, depth);
    const std::uint32_t bit = std::uint32_t{1} << (32 - depth);
    move(*full, *low, *high, bit);
    lead(hash & ~bit, depth, low);
    lead(hash | bit, depth, high);
    std::free(full);
  }

  static void move(const Bucket& from, Bucket& low, Bucket& high, std::uint32_t bit) noexcept {
    for (std::uint32_t at = 0; at <= from.mask; ++at) {
      if (from.cells()[at].slot != none) {
        enter((from.cells()[at].hash & bit) != 0 ? high : low, from.cells()[at]);
      }
    }
  }

  // Lets every directory entry whose top `depth` bits are those of the hash lead to the bucket.
  void lead(std::uint32_t hash, std::uint32_t depth, Bucket* bucket) noexcept {
    const std::size_t span = std::size_t{1} << (depth_ - depth);
    const std::size_t begin = prefix(hash) & ~(span - 1);
    std::fill_n(directory_.begin() + static_cast<std::ptrdiff_t>(begin), span, bucket);
  }

  std::vector<Bucket*> directory_;
  std::uint32_t depth_ = 0;
};

// A hashed table that keeps each pair in a numbered slot of a small chunk. A slot never moves while its key
// is in the table, so that a walk in slot order is undisturbed by erasing (the current element or any other),
// by replacing values and by growth, can be resumed from a key, and other structures may refer to a pair by
// its slot number. What is added during a walk may or may not be met. Chunks that become empty are given
// back.
//
// Keys and values are copied in; a key needs == and std::hash.
template <class K, class V>
class Table {
 public:
  struct Pair {
    const K key;
    V value;
  };

  // A position in the table: dereference it while its pair is there; ++ goes to the next pair that is there
  // now.
  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = Pair;

    Iterator() = default;
    Pair& operator*() const { return *table_->pair(slot_); }
    Pair* operator->() const { return table_->pair(slot_); }
    Iterator& operator++() {
      slot_ = table_->liveFrom(slot_ + 1);
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return slot_ == HashIndex::none; }
    explicit operator bool() const { return slot_ != HashIndex::none; }
    std::uint32_t slot() const { return slot_; }

   private:
    friend class Table;
    Iterator(const Table* table, std::uint32_t slot) : table_(table), slot_(slot) {}
    const Table* table_ = nullptr;
    std::uint32_t slot_ = HashIndex::none;
  };

  Table() = default;
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table() { clear(); }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  V* find(const K& key) const {
    const std::uint32_t slot = placeOf(key, hashOf(key)).slot();
    return slot == HashIndex::none ? nullptr : &pair(slot)->value;
  }
  bool contains(const K& key) const { return find(key) != nullptr; }

  // Where a walk that is resumed at this key begins; false when the key is not there.
  Iterator at(const K& key) const { return {this, placeOf(key, hashOf(key)).slot()}; }
  Iterator begin() const { return {this, liveFrom(0)}; }
  std::default_sentinel_t end() const { return {}; }
  Iterator atSlot(std::uint32_t slot) const { return {this, slot}; }

  // The value under the key, made from the arguments if the key is new. The flag tells whether it is. Making
  // the value must not change the table.
  template <class... Args>
  std::pair<Iterator, bool> emplace(const K& key, Args&&... args) {
    const std::uint32_t hash = hashOf(key);
    const HashIndex::Place place = placeOf(key, hash);
    if (place.slot() != HashIndex::none) {
      return {Iterator(this, place.slot()), false};
    }
    const std::uint32_t slot = freeSlot();
    Chunk& chunk = *chunks_[slot / chunkSlots];
    new (chunk.raw(slot % chunkSlots)) Pair{key, V(std::forward<Args>(args)...)};
    chunk.live |= bit(slot);
    if (chunk.live == full) {
      spacious_.pop_back();
    }
    ++size_;
    index_.insert(place, hash, slot);
    return {Iterator(this, slot), true};
  }

  bool erase(const K& key) {
    const HashIndex::Place place = placeOf(key, hashOf(key));
    const std::uint32_t slot = place.slot();
    if (slot == HashIndex::none) {
      return false;
    }
    // What the value's destructor sets off finds the table consistent: the value dies last.
    [[maybe_unused]] const V dying = std::move(pair(slot)->value);
    index_.erase(place);
    Chunk* chunk = chunks_[slot / chunkSlots];
    pair(slot)->~Pair();
    if (chunk->live == full) {
      spacious_.push_back(slot / chunkSlots);
    }
    chunk->live &= ~bit(slot);
    if (chunk->live == 0) {
      std::free(chunk);
      chunks_[slot / chunkSlots] = nullptr;
    }
    if (--size_ == 0) {
      clear();
    }
    return true;
  }

  void clear() noexcept {
    // What the destructors of the values set off finds the table empty.
    const std::vector<Chunk*> dying = std::exchange(chunks_, {});
    std::exchange(spacious_, {});
    index_.clear();
    size_ = 0;
    for (Chunk* chunk : dying) {
      if (chunk != nullptr) {
        for (std::uint32_t live = chunk->live; live != 0; live &= live - 1) {
          pairIn(*chunk, static_cast<std::uint32_t>(std::countr_zero(live)))->~Pair();
        }
        std::free(chunk);
      }
    }
  }

 private:
  static constexpr std::uint32_t chunkSlots = 32;
  static constexpr std::uint32_t full = UINT32_MAX;

  struct Chunk {
    std::uint32_t live;
    alignas(Pair) std::byte storage[chunkSlots * sizeof(Pair)];
    void* raw(std::uint32_t at) { return storage + at * sizeof(Pair); }
  };
  static_assert(alignof(Pair) <= alignof(std::max_align_t));

  static std::uint32_t hashOf(const K& key) {
    return static_cast<std::uint32_t>(mixHash(std::hash<K>{}(key)) >> 32);
  }
  static constexpr std::uint32_t bit(std::uint32_t slot) { return std::uint32_t{1} << (slot % chunkSlots); }

  Pair* pair(std::uint32_t slot) const { return pairIn(*chunks_[slot / chunkSlots], slot % chunkSlots); }
  static Pair* pairIn(Chunk& chunk, std::uint32_t at) {
    return std::launder(reinterpret_cast<Pair*>(chunk.raw(at)));
  }
  HashIndex::Place placeOf(const K& key, std::uint32_t hash) const {
    return index_.find(hash, [&](std::uint32_t slot) { return pair(slot)->key == key; });
  }

  std::uint32_t liveFrom(std::uint32_t slot) const {
    for (std::uint32_t at = slot / chunkSlots; at < chunks_.size(); ++at, slot = at * chunkSlots) {
      if (chunks_[at] == nullptr) {
        continue;
      }
      const std::uint32_t rest = chunks_[at]->live & (full << (slot % chunkSlots));
      if (rest != 0) {
        return at * chunkSlots + static_cast<std::uint32_t>(std::countr_zero(rest));
      }
    }
    return HashIndex::none;
  }

  // A slot that is free, in the chunk on top of the list of those with room.
  std::uint32_t freeSlot() {
    if (spacious_.empty()) {
      spacious_.push_back(static_cast<std::uint32_t>(chunks_.size()));
      chunks_.push_back(nullptr);
    }
    Chunk*& chunk = chunks_[spacious_.back()];
    if (chunk == nullptr) {
      chunk = static_cast<Chunk*>(std::malloc(sizeof(Chunk)));
      if (chunk == nullptr) {
        throw std::bad_alloc();
      }
      chunk->live = 0;
    }
    return spacious_.back() * chunkSlots + static_cast<std::uint32_t>(std::countr_one(chunk->live));
  }

  std::vector<Chunk*> chunks_;           // by slot number; null where a chunk is empty
  std::vector<std::uint32_t> spacious_;  // chunks that have room, each once
  HashIndex index_;
  std::size_t size_ = 0;
};

// A table in the order of its keys, for collections that people read or that are walked in a stated order.
// The walk keeps a copy of the current key, so that nothing that happens to the table disturbs it.
template <class K, class V>
class OrderedTable {
  using Map = std::map<K, V>;

 public:
  struct Pair {
    Pair(const K* keyOfPair, V* valueOfPair) : key(*keyOfPair), value(*valueOfPair) {}
    const K& key;
    V& value;
  };

  class Iterator {
   public:
    using difference_type = std::ptrdiff_t;
    using value_type = Pair;

    Iterator() = default;
    Pair operator*() const { return Pair(there(key_), there(value_)); }
    struct Arrow {
      Pair pair;
      Pair* operator->() { return &pair; }
    };
    Arrow operator->() const { return {**this}; }
    Iterator& operator++() {
      *this = Iterator(table_, table_->map_.upper_bound(copy_));
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return key_ == nullptr; }
    explicit operator bool() const { return key_ != nullptr; }

   private:
    friend class OrderedTable;
    Iterator(const OrderedTable* table, typename Map::iterator at) : table_(table) {
      if (at != table->map_.end()) {
        key_ = &at->first;
        value_ = &at->second;
        copy_ = at->first;
      }
    }
    // Only a position where a pair is may be dereferenced.
    template <class T>
    [[gnu::returns_nonnull]] static T* there(T* held) {
      return held;
    }
    const OrderedTable* table_ = nullptr;
    const K* key_ = nullptr;
    V* value_ = nullptr;
    K copy_{};
  };

  OrderedTable() = default;
  OrderedTable(const OrderedTable&) = delete;
  OrderedTable& operator=(const OrderedTable&) = delete;
  ~OrderedTable() { clear(); }

  std::size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }

  V* find(const K& key) const {
    const auto at = map_.find(key);
    return at == map_.end() ? nullptr : &at->second;
  }
  bool contains(const K& key) const { return find(key) != nullptr; }
  Iterator at(const K& key) const { return {this, map_.find(key)}; }
  Iterator begin() const { return {this, map_.begin()}; }
  std::default_sentinel_t end() const { return {}; }

  template <class... Args>
  std::pair<Iterator, bool> emplace(const K& key, Args&&... args) {
    const auto [at, added] = map_.try_emplace(key, std::forward<Args>(args)...);
    return {Iterator(this, at), added};
  }
  bool erase(const K& key) {
    // The node leaves the map before its value is destroyed: whatever that sets off finds the table
    // consistent.
    return !map_.extract(key).empty();
  }
  // What the destructors of the values set off finds the table empty.
  void clear() noexcept { const Map dying = std::exchange(map_, {}); }

 private:
  mutable Map map_;
};

}  // namespace Kel
