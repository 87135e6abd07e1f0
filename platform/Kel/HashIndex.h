// The hash index of the hashed table: from the hash of a key to the number of its slot.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
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

}  // namespace Kel
