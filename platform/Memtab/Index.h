#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Memtab/Error.h"
#include "Memtab/Segment.h"
#include "Memtab/Shape.h"

namespace Memtab {

// The writer's hand on the list of all records, ordered by hash, and on the bucket heads that stand in
// it as short cuts. (Shalev and Shavit, "Split-Ordered Lists: Lock-Free Extensible Hash Tables", with one
// writer.)
//
//  1. Following the links from head 0 meets every linked slot and every head in use once, in ascending
//  order.
//  2. A head stands before all slots of its stretch; the stretch ends at the next head.
//  3. Each operation becomes visible by a single store, so that its end at any instruction leaves 1 and 2
//  true.
//  4. A slot that was taken out is not changed before the counter of its stripe has moved.
//
// The list is in memory that others may have damaged: what is read of it leads nowhere else, and no way
// along it is endless. Damage that is met raises Damaged; the table may then be half changed and is not used
// further.
template <class Shape>
class Index {
 public:
  // Where a key is, or where it would go: the link that leads there.
  struct Place {
    Format::Half* link;
    std::uint32_t slot;  // end: the key has none
    std::uint64_t hash;  // of the key

    bool found() const { return slot != Format::end; }
  };

  Index(const Segment& segment, Shape shape)
      : segment_(&segment),
        shape_(shape),
        heads_(segment.heads()),
        stripes_(segment.stripes()),
        slots_(segment.slots()),
        counted_(&segment.state().buckets),
        seed_(segment.description().seed),
        room_(segment.description().buckets) {
    usedSlots_ =
        std::min(segment.state().usedSlots.load(std::memory_order_acquire), segment.description().slots);
    bucketsAre(std::min(segment.state().buckets.load(std::memory_order_acquire), room_));
    taken_ = buckets_;
  }

  std::uint32_t buckets() const { return buckets_; }
  std::uint32_t usedSlots() const { return usedSlots_; }
  // Any slot, which the caller knows to be in use.
  Format::Slot* slot(std::uint32_t number) const { return slotAt(shape_, slots_, number); }
  // The slot that a link leads to. Raises Damaged when there is none.
  Format::Slot* linked(std::uint32_t number) const {
    if (number >= usedSlots_) {
      [[unlikely]] {
        notInUse("slot ", number);
      }
    }
    return slot(number);
  }
  // The same for a bucket head.
  const Format::Half* linkedHead(std::uint32_t bucket) const {
    if (bucket >= buckets_) {
      [[unlikely]] {
        notInUse("bucket head ", bucket);
      }
    }
    return &heads_[bucket];
  }
  // How many slots are in use, so that links lead to those alone.
  void usedSlotsAre(std::uint32_t used) {
    usedSlots_ = used;
    mostSteps_ = std::uint64_t{usedSlots_} + buckets_ + 1;
  }
  // Out of line and cold, as the next one: the way that meets no damage stays short.
  [[noreturn, gnu::cold, gnu::noinline]] void damaged(const std::string& what) const {
    throw Damaged(segment_->name(), what);
  }

  // Counts the steps of a way along the list: raises Damaged at one more than a list without a circle has.
  class Way {
   public:
    explicit Way(const Index& index) : index_(index) {}
    void step() {
      if (++steps_ > index_.mostSteps_) {
        [[unlikely]] {
          index_.circle();
        }
      }
    }

   private:
    const Index& index_;
    std::uint64_t steps_ = 0;
  };
  std::uint64_t hash(const std::byte* key) const { return hashOf(shape_, key, seed_); }
  std::uint64_t hash(const Format::Slot* slot) const { return hashIn(shape_, slot, seed_); }

  [[gnu::always_inline]] Place locate(const std::byte* key) const {
    const std::uint64_t wanted = hash(key);
    Format::Half* link = &heads_[bucketOf(wanted)];
    for (Way way(*this);; way.step()) {
      const std::uint32_t to = load(link);
      if ((to & Format::bucketBit) != 0) {
        return {link, Format::end, wanted};
      }
      Format::Slot* at = linked(to);
      const int relation = compareTo(shape_, at, wanted, key, seed_);
      if (relation >= 0) {
        return {link, relation == 0 ? to : Format::end, wanted};
      }
      link = &at->next;
    }
  }

  // Puts slot NUMBER, complete but for its link, where its key was not found.
  void link(const Place& place, std::uint32_t number) {
    slot(number)->next.store(place.link->load(std::memory_order_relaxed), std::memory_order_release);
    place.link->store(number, std::memory_order_release);
  }

  // Takes slot NUMBER out of the list; afterwards it may be changed.
  void unlink(std::uint32_t number) {
    Format::Slot* out = slot(number);
    const std::uint32_t bucket = bucketOf(hash(out));
    Format::Half* link = &heads_[bucket];
    Way way(*this);
    for (std::uint32_t to = load(link); to != number; to = load(link)) {
      if ((to & Format::bucketBit) != 0) {
        [[unlikely]] {
          damaged("slot " + std::to_string(number) + " is not in the list");
        }
      }
      link = &linked(to)->next;
      way.step();
    }
    unlink(link, bucket, out);
  }

  // The same where the caller knows the LINK that leads to OUT, and its BUCKET.
  void unlink(Format::Half* link, std::uint32_t bucket, const Format::Slot* out) {
    link->store(out->next.load(std::memory_order_relaxed), std::memory_order_release);
    bump(bucket);
  }

  // Keep the number of heads right for SLOTS in the list, one head a slot, a few heads at a time: the work
  // of a call does not depend on the size. The first is called when there is one more, the other when there
  // is one less.
  void growFor(std::uint64_t slots) {
    if (slots >= growAt_) {
      grow(static_cast<std::uint32_t>(std::min<std::uint64_t>(slots - buckets_, headsAtOnce)));
    }
  }
  void shrinkFor(std::uint64_t slots) {
    if (slots < shrinkBelow_) {
      shrink(headsAtOnce);
    }
  }

  // Corrects the number of heads after a writer died between placing or removing the last one and counting
  // it.
  void bucketsAre(std::uint32_t buckets) {
    buckets_ = buckets;
    mask_ = Format::maskOf(buckets);
    mostSteps_ = std::uint64_t{usedSlots_} + buckets_ + 1;
    const std::uint64_t next = std::uint64_t{buckets} + (buckets < headsAtOnce ? 1 : headsAtOnce);
    growAt_ = next <= room_ ? next : std::uint64_t{Format::end};
    shrinkBelow_ = buckets > leastBuckets ? (buckets - leastBuckets + 1) / 2 : 0;
  }

 private:
  static constexpr std::uint32_t leastBuckets = 64;
  static constexpr std::uint32_t headsAtOnce = 8;  // as many as make half a cache line
  static constexpr std::uint32_t headsTaken = 16384;

  static std::uint32_t load(const Format::Half* link) { return link->load(std::memory_order_relaxed); }

  [[noreturn, gnu::cold, gnu::noinline]] void notInUse(const char* what, std::uint32_t number) const {
    damaged("a link leads to " + std::string(what) + std::to_string(number) + ", which is not in use");
  }
  [[noreturn, gnu::cold, gnu::noinline]] void circle() const { damaged("the links run in a circle"); }

  std::uint32_t bucketOf(std::uint64_t hash) const { return Format::bucketOf(hash, buckets_, mask_); }

  void bump(std::uint32_t bucket) {
    Format::Half& stripe = stripes_[bucket % Format::stripes];
    stripe.store(load(&stripe) + 1, std::memory_order_release);
  }

  bool takeHeads() {
    const std::uint32_t more = std::min(headsTaken, room_ - buckets_);
    try {
      segment_->take(segment_->description().headsAt + sizeof(Format::Half) * std::uint64_t{buckets_},
                     sizeof(Format::Half) * std::uint64_t{more});
    } catch (const Error&) {
      return false;  // fewer heads mean longer ways, not a failure
    }
    taken_ = buckets_ + more;
    return true;
  }

  void grow(std::uint32_t heads) {
    if (buckets_ + heads > taken_ && !takeHeads()) {
      [[unlikely]] {
        return;
      }
    }
    std::uint32_t bit = std::bit_floor(buckets_);
    const std::uint32_t end = buckets_ + heads;
    for (std::uint32_t made = buckets_; made < end; ++made) {
      bit = made == 2 * bit ? made : bit;
      split(made, bit);
      counted_->store(made + 1, std::memory_order_release);
    }
    bucketsAre(end);
    prefetchParents();
  }

  // Puts head MADE, with leading BIT, in the list, in the middle of its parent's stretch.
  void split(std::uint32_t made, std::uint32_t bit) {
    Format::Half* link = &heads_[made ^ bit];
    std::uint32_t to = load(link);
    for (Way way(*this); (to & Format::bucketBit) == 0; way.step()) {
      Format::Slot* at = linked(to);
      if ((hash(at) & bit) != 0) {
        break;
      }
      link = &at->next;
      to = load(link);
    }
    heads_[made].store(to, std::memory_order_release);
    link->store(Format::bucketBit | made, std::memory_order_release);
  }

  // It is known which heads will be split next, so that their first slots can be on their way already.
  void prefetchParents() const {
    const std::uint32_t first = buckets_ ^ std::bit_floor(buckets_);
    const std::uint32_t end = std::min(first + headsAtOnce, buckets_);
    for (std::uint32_t parent = first; parent < end; ++parent) {
      const std::uint32_t to = load(&heads_[parent]);
      if ((to & Format::bucketBit) == 0) {
        __builtin_prefetch(slot(to));
      }
    }
  }

  void shrink(std::uint32_t heads) {
    for (; heads > 0; --heads) {
      merge();
    }
  }

  // Takes the last head out of the list.
  void merge() {
    const std::uint32_t last = buckets_ - 1;
    Format::Half* link = &heads_[last ^ std::bit_floor(last)];
    for (Way way(*this); load(link) != (Format::bucketBit | last); way.step()) {
      if ((load(link) & Format::bucketBit) != 0) {
        [[unlikely]] {
          damaged("bucket head " + std::to_string(last) + " is not in the list");
        }
      }
      link = &linked(load(link))->next;
    }
    link->store(load(&heads_[last]), std::memory_order_release);
    bucketsAre(last);
    counted_->store(last, std::memory_order_release);
    bump(last);
  }

  const Segment* segment_;
  [[no_unique_address]] Shape shape_;
  Format::Half* heads_;
  Format::Half* stripes_;
  std::byte* slots_;
  Format::Half* counted_;  // buckets_, for readers and the next writer
  std::uint64_t seed_;
  std::uint32_t room_;
  std::uint32_t taken_ = 0;
  std::uint32_t buckets_ = 1;
  std::uint32_t mask_ = 0;
  std::uint32_t usedSlots_ = 0;
  std::uint64_t mostSteps_ = 0;    // of a way along the list that is not a circle
  std::uint64_t growAt_ = 0;       // slots in the list for which there are too few heads
  std::uint64_t shrinkBelow_ = 0;  // and for fewer than which there are too many
};

}  // namespace Memtab
