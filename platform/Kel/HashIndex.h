// The hash index of the hashed table: from the hash of a key to the number of its slot.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "Kel/Export.h"

namespace Kel {

// Spreads a hash over all 64 bits (the finalizer of MurmurHash3, public domain).
constexpr std::uint64_t mixHash(std::uint64_t hash) noexcept {
  hash ^= hash >> 33;
  hash *= 0xff51afd7ed558ccdULL;
  hash ^= hash >> 33;
  hash *= 0xc4ceb9fe1a85ec53ULL;
  return hash ^ (hash >> 33);
}

// The hash under which a table keeps a key whose own hash this is. A peer that does not know the seed cannot
// choose keys that collide.
constexpr std::uint32_t seededHash(std::uint64_t own, std::uint64_t seed) noexcept {
  return static_cast<std::uint32_t>(mixHash(own ^ seed) >> 32);
}

// The seed of the tables of this process: of each that is empty when it gets its first key, from then on. It
// is random unless it was set. Nothing that a table shows, the order of its walk least of all, depends on it.
KEL_API std::uint64_t tableSeed();
// Sets the seed, for runs that are to be the same to the instruction: replay and tests.
KEL_API void tableSeedIs(std::uint64_t seed) noexcept;

// From the hash of a key to the number of its slot: extendible hashing (Fagin, Nievergelt, Pippenger, Strong
// 1979). A directory of 2^depth pointers, chosen by the top bits of the hash, leads to small open-addressed
// buckets. A bucket that fills up is doubled while it is small and split in two when it is not, so that no
// insertion ever moves more than one bucket, however large the table: growth has no stall. An entry that
// would stand far from its own cell makes its bucket grow as well, so that no search is long.
class HashIndex {
  static constexpr std::uint32_t smallest = 16;   // cells of a first bucket
  static constexpr std::uint32_t largest = 2048;  // cells at which a full bucket is split: 16 KiB
  static constexpr std::uint32_t fourfold = 256;  // cells up to which a bucket grows fourfold
  static constexpr std::uint32_t farthest = 192;  // cells from a hash's own to the one it is entered in

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
    // An entry so far from its own cell is worth a larger bucket, unless few share it: then nothing helps.
    bool clustered(std::uint32_t distance) const noexcept { return distance >= farthest && count > mask / 8; }
    Cell* cells() noexcept { return reinterpret_cast<Cell*>(this + 1); }  // mask + 1 of them
    const Cell* cells() const noexcept { return reinterpret_cast<const Cell*>(this + 1); }
  };
  // The cells of a bucket and how many there are, beside each other: a search reads nothing else of it.
  struct Lead {
    Cell* cells;
    std::uint32_t mask;

    Bucket* bucket() const noexcept { return reinterpret_cast<Bucket*>(cells) - 1; }
  };

 public:
  static constexpr std::uint32_t none = UINT32_MAX;

  HashIndex() = default;
  HashIndex(const HashIndex&) = delete;
  HashIndex& operator=(const HashIndex&) = delete;
  ~HashIndex() { clear(); }

  // The hash of a key that hashes to `own`.
  std::uint32_t hashOf(std::uint64_t own) const noexcept { return seededHash(own, seed_); }

  // Where a hash leads: to the cell of what was found, or to the empty one where it would stand. Good until
  // the index changes.
  class Place {
   public:
    // The slot that was found, or `none`.
    std::uint32_t slot() const noexcept { return slot_; }

   private:
    friend class HashIndex;
    Cell* cells_ = nullptr;
    std::uint32_t at_ = 0;
    std::uint32_t slot_ = none;
  };

  // The slot for which `equal(slot)` holds among those entered with this hash.
  template <class Equal>
  Place find(std::uint32_t hash, const Equal& equal) const {
    const Lead& lead = directory_[prefix(hash)];
    Place place;
    place.cells_ = lead.cells;
    for (std::uint32_t at = hash & lead.mask;; at = (at + 1) & lead.mask) {
      const Cell& cell = lead.cells[at];
      if (cell.slot == none || (cell.hash == hash && equal(cell.slot))) {
        place.at_ = at;
        place.slot_ = cell.slot;
        return place;
      }
    }
  }

  // Enters a slot under the hash of a key that hashes to `own`, at the place where it was not found.
  void insert(const Place& place, std::uint64_t own, std::uint32_t hash, std::uint32_t slot) {
    if (only_.mask != 0) [[likely]] {
      Bucket* bucket = Lead{place.cells_, 0}.bucket();
      if (!bucket->full() && !bucket->clustered((place.at_ - hash) & bucket->mask)) [[likely]] {
        place.cells_[place.at_] = {hash, slot};
        ++bucket->count;
        return;
      }
    } else {
      begin();
      hash = hashOf(own);
    }
    enterWithRoom(hash, slot);
  }

  // Takes out what was found at this place.
  void erase(const Place& place) {
    Bucket& bucket = *Lead{place.cells_, 0}.bucket();
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

  // How many cells the longest successful search goes beyond the one where it begins. Reads all of the index.
  std::uint32_t longestSearch() const noexcept {
    std::uint32_t longest = 0;
    const std::size_t leads = only_.mask == 0 ? 0 : std::size_t{1} << depth_;
    for (std::size_t lead = 0; lead < leads; ++lead) {
      const Bucket& bucket = *directory_[lead].bucket();
      for (std::uint32_t at = 0; at <= bucket.mask; ++at) {
        if (bucket.cells()[at].slot != none) {
          longest = std::max(longest, (at - bucket.cells()[at].hash) & bucket.mask);
        }
      }
    }
    return longest;
  }

  void clear() noexcept {
    const std::size_t leads = only_.mask == 0 ? 0 : std::size_t{1} << depth_;
    for (std::size_t at = 0; at < leads;) {
      Bucket* bucket = directory_[at].bucket();
      at += std::size_t{1} << (depth_ - bucket->depth);
      std::free(bucket);
    }
    if (directory_ != &only_) {
      std::free(directory_);
    }
    directory_ = &only_;
    only_ = {&emptyCell, 0};
    depth_ = 0;
  }

 private:
  std::size_t prefix(std::uint32_t hash) const noexcept { return (std::uint64_t{hash} << depth_) >> 32; }

  // Where an index without a bucket leads to. Never written to.
  static inline Cell emptyCell{0, none};

  static void* memory(std::size_t bytes) {
    void* memory = std::malloc(bytes);
    if (memory == nullptr) {
      throw std::bad_alloc();
    }
    return memory;
  }
  static Bucket* newBucket(std::uint32_t cells, std::uint32_t depth) {
    auto* bucket = static_cast<Bucket*>(memory(sizeof(Bucket) + cells * sizeof(Cell)));
    bucket->mask = cells - 1;
    bucket->count = 0;
    bucket->depth = depth;
    std::fill_n(bucket->cells(), cells, Cell{0, none});
    return bucket;
  }

  // The first bucket. An empty index takes the seed of the time.
  void begin() {
    Bucket* bucket = newBucket(smallest, 0);
    seed_ = tableSeed();
    only_ = {bucket->cells(), bucket->mask};
  }

  // Returns how far from its own cell the entry stands.
  static std::uint32_t enter(Bucket& bucket, Cell cell) noexcept {
    std::uint32_t at = cell.hash & bucket.mask;
    while (bucket.cells()[at].slot != none) {
      at = (at + 1) & bucket.mask;
    }
    bucket.cells()[at] = cell;
    ++bucket.count;
    return (at - cell.hash) & bucket.mask;
  }
  void enterWithRoom(std::uint32_t hash, std::uint32_t slot) {
    Bucket* bucket = directory_[prefix(hash)].bucket();
    while (bucket->full()) {
      bucket = grown(hash);
    }
    const std::uint32_t distance = enter(*bucket, {hash, slot});
    if (bucket->clustered(distance)) {
      grown(hash);
    }
  }

  // Makes room in the bucket that this hash leads to; the one that it leads to then.
  Bucket* grown(std::uint32_t hash) {
    Bucket* full = directory_[prefix(hash)].bucket();
    if (full->mask + 1 < largest || full->depth >= 20) {
      Bucket* larger = newBucket((full->mask + 1) * (full->mask < fourfold ? 4 : 2), full->depth);
      move(*full, *larger, *larger, 0);
      lead(hash, full->depth, larger);
    } else {
      if (full->depth == depth_) {
        widen();
      }
      const std::uint32_t depth = full->depth + 1;
      Bucket* low = newBucket(largest, depth);
      Bucket* high = newBucket(largest, depth);
      const std::uint32_t bit = std::uint32_t{1} << (32 - depth);
      move(*full, *low, *high, bit);
      lead(hash & ~bit, depth, low);
      lead(hash | bit, depth, high);
    }
    std::free(full);
    return directory_[prefix(hash)].bucket();
  }
  // A directory of twice the size, with each lead twice.
  void widen() {
    const std::size_t leads = std::size_t{2} << depth_;
    auto* wider = static_cast<Lead*>(memory(leads * sizeof(Lead)));
    for (std::size_t at = 0; at < leads; ++at) {
      wider[at] = directory_[at / 2];
    }
    if (directory_ != &only_) {
      std::free(directory_);
    }
    directory_ = wider;
    ++depth_;
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
    std::fill_n(directory_ + begin, span, Lead{bucket->cells(), bucket->mask});
  }

  // While there is one bucket, which is as long as a table is small, the directory is here.
  Lead* directory_ = &only_;
  std::uint64_t seed_ = 0;
  Lead only_{&emptyCell, 0};  // kept behind that, to tell whether there is a bucket at all
  std::uint32_t depth_ = 0;
};

}  // namespace Kel
