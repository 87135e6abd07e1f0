#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "Memtab/Error.h"
#include "Memtab/Segment.h"
#include "Memtab/Shape.h"

namespace Memtab {

/// The writer's hand on the list of all records, ordered by hash, and on the bucket heads that stand in
/// it as short cuts. (Shalev and Shavit, "Split-Ordered Lists: Lock-Free Extensible Hash Tables", with one
/// writer.)
///
///  1. Following the links from head 0 meets every linked slot and every head in use once, in ascending
///  order.
///  2. A head stands before all slots of its stretch; the stretch ends at the next head.
///  3. Each operation becomes visible by a single store, so that its end at any instruction leaves 1 and 2
///  true.
///  4. A slot that was taken out is not changed before the counter of its stripe has moved.
template <class Shape>
class Index {
 public:
  /// Where a key is, or where it would go: the link that leads there.
  struct Place {
    Format::Half* link;
    std::uint32_t slot;  // kEnd: the key has none

    bool found() const { return slot != Format::kEnd; }
  };

  Index(const Segment& segment, Shape shape)
      : segment_(&segment),
        shape_(shape),
        heads_(segment.heads()),
        stripes_(segment.stripes()),
        slots_(segment.slots()),
        seed_(segment.description().seed),
        room_(segment.description().buckets) {
    bucketsAre(segment.state().buckets.load(std::memory_order_acquire));
    taken_ = buckets_;
  }

  std::uint32_t buckets() const { return buckets_; }
  Format::Slot* slot(std::uint32_t number) const { return slotAt(shape_, slots_, number); }
  std::uint64_t hash(const std::byte* key) const { return hashOf(shape_, key, seed_); }
  std::uint64_t hash(const Format::Slot* slot) const { return hashIn(shape_, slot, seed_); }

  Place locate(const std::byte* key) const {
    const std::uint64_t wanted = hash(key);
    Format::Half* link = &heads_[bucketOf(wanted)];
    for (;;) {
      const std::uint32_t to = link->load(std::memory_order_relaxed);
      if ((to & Format::kBucketBit) != 0) {
        return {link, Format::kEnd};
      }
      Format::Slot* at = slot(to);
      const int relation = compareTo(shape_, at, wanted, key, seed_);
      if (relation >= 0) {
        return {link, relation == 0 ? to : Format::kEnd};
      }
      link = &at->next;
    }
  }

  /// Puts slot NUMBER, complete but for its link, where its key was not found.
  void link(const Place& place, std::uint32_t number) {
    slot(number)->next.store(place.link->load(std::memory_order_relaxed), std::memory_order_release);
    place.link->store(number, std::memory_order_release);
  }

  /// Takes slot NUMBER out of the list; afterwards it may be changed.
  void unlink(std::uint32_t number) {
    Format::Slot* out = slot(number);
    const std::uint32_t bucket = bucketOf(hash(out));
    Format::Half* link = &heads_[bucket];
    for (std::uint32_t to = load(link); to != number; to = load(link)) {
      check((to & Format::kBucketBit) == 0, "a slot to be taken out of the list is not in it");
      link = &slot(to)->next;
    }
    unlink(link, bucket, out);
  }

  /// The same where the caller knows the LINK that leads to OUT, and its BUCKET.
  void unlink(Format::Half* link, std::uint32_t bucket, const Format::Slot* out) {
    link->store(out->next.load(std::memory_order_relaxed), std::memory_order_release);
    bump(bucket);
  }

  /// One step towards the right number of heads for RECORDS; the work of a step does not depend on the
  /// table's size.
  void fit(std::size_t records) {
    const std::uint64_t wanted = std::uint64_t{records} * Format::kBucketsPerRecord;
    for (int step = 0; step < 2 && buckets_ < wanted && buckets_ < room_; ++step) {
      split();
    }
    for (int step = 0; step < 4 && buckets_ > 2 * wanted + kLeastBuckets; ++step) {
      merge();
    }
  }

  /// Corrects the number of heads after a writer died between placing or removing the last one and counting
  /// it.
  void bucketsAre(std::uint32_t buckets) {
    buckets_ = buckets;
    mask_ = Format::maskOf(buckets);
  }

 private:
  static constexpr std::uint32_t kLeastBuckets = 64;
  static constexpr std::uint32_t kHeadsAtOnce = 16384;
  static constexpr std::uint32_t kAhead = 8;

  static std::uint32_t load(const Format::Half* link) { return link->load(std::memory_order_relaxed); }

  std::uint32_t bucketOf(std::uint64_t hash) const { return Format::bucketOf(hash, buckets_, mask_); }

  /// The bit that bucket number NUMBER (not 0) has and the bucket it was split from has not.
  static std::uint32_t leadingBit(std::uint32_t number) { return std::bit_floor(number); }

  void bump(std::uint32_t bucket) {
    Format::Half& stripe = stripes_[bucket % Format::kStripes];
    stripe.store(load(&stripe) + 1, std::memory_order_release);
  }

  /// The splits come in the order of the heads, so the first slot of one to come can be on its way already.
  void prefetchFrom(std::uint32_t head) const {
    const std::uint32_t to = load(&heads_[head]);
    if ((to & Format::kBucketBit) == 0) {
      __builtin_prefetch(slot(to));
    }
  }

  bool takeHeads() {
    const std::uint32_t more = std::min(kHeadsAtOnce, room_ - buckets_);
    try {
      segment_->take(segment_->description().headsAt + sizeof(Format::Half) * std::uint64_t{buckets_},
                     sizeof(Format::Half) * std::uint64_t{more});
    } catch (const Error&) {
      return false;  // fewer heads mean longer ways, not a failure
    }
    taken_ = buckets_ + more;
    return true;
  }

  /// Puts one more head in the list, in the middle of its parent's stretch.
  void split() {
    if (buckets_ == taken_ && !takeHeads()) [[unlikely]] {
      return;
    }
    const std::uint32_t made = buckets_;
    const std::uint32_t bit = made > mask_ ? made : mask_ / 2 + 1;
    const std::uint32_t parent = made ^ bit;
    prefetchFrom((parent + kAhead) & (bit - 1));
    Format::Half* link = &heads_[parent];
    std::uint32_t to = load(link);
    while ((to & Format::kBucketBit) == 0) {
      Format::Slot* at = slot(to);
      if ((hash(at) & bit) != 0) {
        break;
      }
      link = &at->next;
      to = load(link);
    }
    heads_[made].store(to, std::memory_order_release);
    link->store(Format::kBucketBit | made, std::memory_order_release);
    buckets_ = made + 1;
    mask_ = 2 * bit - 1;
    segment_->state().buckets.store(buckets_, std::memory_order_release);
  }

  /// Takes the last head out of the list.
  void merge() {
    const std::uint32_t last = buckets_ - 1;
    Format::Half* link = &heads_[last ^ leadingBit(last)];
    while (load(link) != (Format::kBucketBit | last)) {
      check((load(link) & Format::kBucketBit) == 0, "a bucket head to be taken out of the list is not in it");
      link = &slot(load(link))->next;
    }
    link->store(load(&heads_[last]), std::memory_order_release);
    bucketsAre(last);
    segment_->state().buckets.store(last, std::memory_order_release);
    bump(last);
  }

  const Segment* segment_;
  [[no_unique_address]] Shape shape_;
  Format::Half* heads_;
  Format::Half* stripes_;
  std::byte* slots_;
  std::uint64_t seed_;
  std::uint32_t room_;
  std::uint32_t taken_ = 0;
  std::uint32_t buckets_ = 1;
  std::uint32_t mask_ = 0;
};

}  // namespace Memtab
