// The hashed table under a collection.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kel/HashIndex.h"

namespace Kel {

// A hashed table that keeps each pair in a numbered slot of a small chunk. A slot never moves while its key
// is in the table, so that a walk in slot order is undisturbed by erasing (the current element or any other),
// by replacing values and by growth, can be resumed from a key, and other structures may refer to a pair by
// its slot number. A pair that is added during a walk may or may not be met. Chunks that become empty are
// given back.
//
// Keys and values are copied in; a key needs == and std::hash. A peer that chooses keys cannot make them
// collide: the table mixes a seed of the process over that hash. Not for several threads at a time, which
// only look included.
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
  // How far the worst look-up of a key that is there goes astray; for tests and benchmarks.
  std::uint32_t longestSearch() const noexcept { return index_.longestSearch(); }

  V* find(const K& key) const {
    if (last_.is(key)) {
      return &last_.pair->value;
    }
    const std::uint32_t slot = placeOf(key, hashOf(key)).slot();
    return slot == HashIndex::none ? nullptr : &remembered(slot)->value;
  }
  bool contains(const K& key) const { return find(key) != nullptr; }

  // Where a walk that is resumed at this key begins; false when the key is not there.
  Iterator at(const K& key) const { return {this, slotOf(key)}; }
  Iterator begin() const { return {this, liveFrom(0)}; }
  std::default_sentinel_t end() const { return {}; }
  Iterator atSlot(std::uint32_t slot) const { return {this, slot}; }

  // The value under the key, made from the arguments if the key is new. The flag tells whether it is. Making
  // the value must not change the table.
  template <class... Args>
  std::pair<Iterator, bool> emplace(const K& key, Args&&... args) {
    const Entered entered = enter(key, std::forward<Args>(args)...);
    return {Iterator(this, entered.slot), entered.added};
  }
  // The same, in two registers: the slot, and whether it is new.
  struct Entered {
    std::uint32_t slot;
    bool added;
  };
  template <class... Args>
  Entered enter(const K& key, Args&&... args) {
    if (last_.is(key)) {
      return {last_.slot, false};
    }
    const std::uint64_t own = std::hash<K>{}(key);
    const std::uint32_t hash = index_.hashOf(own);
    const HashIndex::Place place = placeOf(key, hash);
    if (place.slot() != HashIndex::none) {
      remembered(place.slot());
      return {place.slot(), false};
    }
    const std::uint32_t slot = freeSlot();
    Chunk& chunk = *chunks_[slot / chunkSlots];
    new (chunk.raw(slot % chunkSlots)) Pair{key, V(std::forward<Args>(args)...)};
    chunk.live |= bit(slot);
    if (chunk.live == full) {
      spacious_.pop_back();
    }
    ++size_;
    index_.insert(place, own, hash, slot);
    remembered(slot);
    return {slot, true};
  }
  // The value in a slot that has one.
  V& valueIn(std::uint32_t slot) const {
    return last_.slot == slot && last_.pair != nullptr ? last_.pair->value : pair(slot)->value;
  }

  bool erase(const K& key) {
    const HashIndex::Place place = placeOf(key, hashOf(key));
    const std::uint32_t slot = place.slot();
    if (slot == HashIndex::none) {
      return false;
    }
    last_.forget();
    // The value dies last, so that its destructor finds the table consistent.
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
    // The table is empty before the destructors of the values run.
    const std::vector<Chunk*> dying = std::exchange(chunks_, {});
    std::exchange(spacious_, {});
    last_.forget();
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

  // The pair that was found or made last: the next question is often for the same key. Kept with its key, so
  // that asking for another one does not touch the pair. Keys that are no plain values are not remembered.
  struct Last {
    static constexpr bool plain = std::is_trivially_copyable_v<K> && std::is_default_constructible_v<K> &&
                                  std::is_copy_assignable_v<K> && sizeof(K) <= 8;
    struct None {};
    bool is(const K& asked) const {
      if constexpr (plain) {
        return pair != nullptr && key == asked;
      } else {
        return false;
      }
    }
    void forget() { pair = nullptr; }

    std::conditional_t<plain, K, None> key{};
    Pair* pair = nullptr;
    std::uint32_t slot = 0;
  };
  Pair* remembered(std::uint32_t slot) const {
    Pair* found = pair(slot);
    if constexpr (Last::plain) {
      last_.key = found->key;
      last_.pair = found;
      last_.slot = slot;
    }
    return found;
  }
  std::uint32_t slotOf(const K& key) const {
    return last_.is(key) ? last_.slot : placeOf(key, hashOf(key)).slot();
  }

  std::uint32_t hashOf(const K& key) const { return index_.hashOf(std::hash<K>{}(key)); }
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

  // In the order in which a look-up reads them.
  mutable Last last_;
  HashIndex index_;
  std::vector<Chunk*> chunks_;           // by slot number; null where a chunk is empty
  std::vector<std::uint32_t> spacious_;  // chunks that have room, each once
  std::size_t size_ = 0;
};

}  // namespace Kel
