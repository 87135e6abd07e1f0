#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Memtab/Error.h"
#include "Memtab/Segment.h"
#include "Memtab/Shape.h"

namespace Memtab {

// A reader's side of one segment: copies records out of it, each as it was at one instant. Changes nothing
// in it, so that nothing a reader does, or fails to do, can reach the writer.
template <class Shape>
class View {
 public:
  View() = default;
  View(const Segment& segment, Shape shape)
      : segment_(&segment),
        shape_(shape),
        seed_(segment.description().seed),
        slots_(segment.slots()),
        heads_(segment.heads()),
        stripes_(segment.stripes()),
        room_(segment.description().slots),
        buckets_(segment.description().buckets) {}

  // Copies the value of KEY to VALUE. False when KEY cannot be seen.
  bool find(const std::byte* key, std::uint64_t* value) const;

  // Copies one record after the other to KEY and VALUE and calls visit(); in the order of the slots.
  template <class Visit>
  std::size_t walk(std::uint64_t* key, std::uint64_t* value, const Visit& visit) const;

  // Copies changed keys FROM .. TO to KEY and calls visit() for each. False as soon as the writer may have
  // forgotten one.
  template <class Visit>
  bool changes(std::uint64_t from, std::uint64_t to, std::uint64_t* key, const Visit& visit) const;

 private:
  using Life = Format::Life;
  static constexpr int stepsBetweenChecks = 64;
  // Each attempt after the first means that the writer has got on, between two instructions of this reader:
  // so often in a row only in a table that is damaged.
  static constexpr std::uint32_t mostAttempts = 1U << 16U;
  using KeyWords = std::array<std::uint64_t, Format::maxKeyBytes / 8>;

  enum class Search { Found, Absent, Disturbed };
  Search search(const std::byte* key, std::uint64_t hash, std::uint64_t* value) const;
  bool undisturbed(std::uint64_t hash, std::uint32_t bucket, std::uint32_t stripe) const;
  bool onTheWay(std::uint64_t hash, std::uint32_t bucket, std::uint32_t stripe, std::uint32_t steps) const;
  bool copyOf(const Format::Slot* slot, std::uint32_t number, std::uint64_t turn, const std::byte* wanted,
              std::uint64_t* value) const;
  bool copy(const Format::Slot* slot, std::uint32_t number, std::uint64_t turn, std::uint64_t* key,
            std::uint64_t* value) const;
  bool restoreOld(std::uint32_t number, std::uint32_t seq, std::uint64_t* value) const;

  const Format::Slot* slot(std::uint32_t number) const {
    if (number >= room_) {
      [[unlikely]] {
        damaged("a link leads outside of it");
      }
    }
    return slotAt(shape_, slots_, number);
  }
  const Format::Half* head(std::uint32_t bucket) const {
    if (bucket >= buckets_) {
      [[unlikely]] {
        damaged("a link leads outside of it");
      }
    }
    return &heads_[bucket];
  }
  std::uint32_t bucketOf(std::uint64_t hash) const {
    const std::uint32_t buckets =
        std::min(segment_->state().buckets.load(std::memory_order_acquire), buckets_);
    return Format::bucketOf(hash, buckets, Format::maskOf(buckets));
  }
  const Format::Half& stripeOf(std::uint32_t bucket) const { return stripes_[bucket % Format::stripes]; }
  std::uint64_t published() const { return segment_->state().published.load(std::memory_order_acquire); }
  [[noreturn]] void damaged(const std::string& what) const { throw Damaged(segment_->name(), what); }

  const Segment* segment_ = nullptr;
  [[no_unique_address]] Shape shape_;
  std::uint64_t seed_ = 0;
  const std::byte* slots_ = nullptr;
  const Format::Half* heads_ = nullptr;
  const Format::Half* stripes_ = nullptr;
  std::uint32_t room_ = 0;
  std::uint32_t buckets_ = 0;
};

template <class Shape>
bool View<Shape>::find(const std::byte* key, std::uint64_t* value) const {
  const std::uint64_t hash = hashOf(shape_, key, seed_);
  for (std::uint32_t attempt = 0; attempt < mostAttempts; ++attempt) {
    const Search result = search(key, hash, value);
    if (result != Search::Disturbed) {
      return result == Search::Found;
    }
  }
  damaged("a key is looked up without an end");
}

// One way along the list. A record that was found is right by itself; that there is none is right only if no
// slot was taken out of this stretch meanwhile, as the way may have followed it.
template <class Shape>
typename View<Shape>::Search View<Shape>::search(const std::byte* key, std::uint64_t hash,
                                                 std::uint64_t* value) const {
  const std::uint64_t turn = published();
  const std::uint32_t bucket = bucketOf(hash);
  const std::uint32_t stripe = stripeOf(bucket).load(std::memory_order_acquire);
  if (bucketOf(hash) != bucket) {
    return Search::Disturbed;
  }
  const Format::Half* link = head(bucket);
  for (std::uint32_t steps = 1;; ++steps) {
    const std::uint32_t to = link->load(std::memory_order_acquire);
    if (to == Format::end) {
      break;
    }
    if ((to & Format::bucketBit) != 0) {
      const std::uint32_t next = to & ~Format::bucketBit;
      if (Format::before(hash, next)) {
        break;
      }
      link = head(next);
    } else {
      const Format::Slot* at = slot(to);
      const int relation = compareTo(shape_, at, hash, key, seed_);
      if (relation == 0 && copyOf(at, to, turn, key, value)) {
        return Search::Found;
      }
      if (relation >= 0) {
        break;
      }
      link = &at->next;
    }
    if (steps % stepsBetweenChecks == 0 && !onTheWay(hash, bucket, stripe, steps)) {
      return Search::Disturbed;
    }
  }
  return undisturbed(hash, bucket, stripe) ? Search::Absent : Search::Disturbed;
}

// Now and then on a long way: still undisturbed, and not in a circle.
template <class Shape>
bool View<Shape>::onTheWay(std::uint64_t hash, std::uint32_t bucket, std::uint32_t stripe,
                           std::uint32_t steps) const {
  const bool same = undisturbed(hash, bucket, stripe);
  if (same && steps > room_ + buckets_) {
    damaged("the links run in a circle");
  }
  return same;
}

template <class Shape>
bool View<Shape>::undisturbed(std::uint64_t hash, std::uint32_t bucket, std::uint32_t stripe) const {
  return stripeOf(bucket).load(std::memory_order_acquire) == stripe && bucketOf(hash) == bucket;
}

// As copy(), where the slot may have gone to another key since it was met: it must still be WANTED's.
template <class Shape>
bool View<Shape>::copyOf(const Format::Slot* slot, std::uint32_t number, std::uint64_t turn,
                         const std::byte* wanted, std::uint64_t* value) const {
  KeyWords key;
  return copy(slot, number, turn, key.data(), value) &&
         std::memcmp(wanted, key.data(), 8 * shape_.keyWords()) == 0;
}

// Copies the record in SLOT as it is at one instant. False when it cannot be seen after turn TURN.
template <class Shape>
bool View<Shape>::copy(const Format::Slot* slot, std::uint32_t number, std::uint64_t turn, std::uint64_t* key,
                       std::uint64_t* value) const {
  for (std::uint32_t attempt = 0; attempt < mostAttempts; ++attempt) {
    const std::uint32_t seq = slot->seq.load(std::memory_order_acquire);
    if (!Life(slot->life.load(std::memory_order_acquire)).visibleAt(turn)) {
      return false;
    }
    const Format::Word* words = Format::wordsOf(slot);
    loadWords(key, words, shape_.keyWords());
    loadWords(value, words + shape_.keyWords(), shape_.valueWords());
    if ((seq % 2 == 0 || restoreOld(number, seq, value)) &&
        slot->seq.load(std::memory_order_relaxed) == seq) {
      return true;
    }
  }
  damaged("the record in slot " + std::to_string(number) + " is never whole");
}

// The value in slot NUMBER is being replaced, perhaps by a writer that was stopped or is dead: puts the old
// words, which are in the journal, over those that may be new. False when the journal is about another
// write.
template <class Shape>
bool View<Shape>::restoreOld(std::uint32_t number, std::uint32_t seq, std::uint64_t* value) const {
  const Format::Journal& journal = segment_->journal();
  const std::uint32_t before = journal.seq.load(std::memory_order_acquire);
  const std::uint32_t range = journal.range.load(std::memory_order_acquire);
  const std::size_t first = range >> 16U;
  const std::size_t words = range & 0xffffU;
  if (before % 2 != 0 || journal.slot.load(std::memory_order_acquire) != number ||
      journal.slotSeq.load(std::memory_order_acquire) != seq || first + words > shape_.valueWords()) {
    return false;
  }
  loadWords(value + first, Format::wordsOf(&journal), words);
  return journal.seq.load(std::memory_order_relaxed) == before;
}

template <class Shape>
template <class Visit>
std::size_t View<Shape>::walk(std::uint64_t* key, std::uint64_t* value, const Visit& visit) const {
  const std::uint64_t turn = published();
  const std::uint32_t used = segment_->state().usedSlots.load(std::memory_order_acquire);
  std::size_t visited = 0;
  for (std::uint32_t number = 0; number < used; ++number) {
    if (copy(slot(number), number, turn, key, value)) {
      visited += 1;
      visit();
    }
  }
  return visited;
}

template <class Shape>
template <class Visit>
bool View<Shape>::changes(std::uint64_t from, std::uint64_t to, std::uint64_t* key,
                          const Visit& visit) const {
  const std::uint64_t entries = segment_->description().ringEntries;
  if (to - from > entries) {
    return false;
  }
  for (std::uint64_t change = from; change < to; ++change) {
    loadWords(key, segment_->ring() + (change & (entries - 1)) * shape_.keyWords(), shape_.keyWords());
    // The entry that the writer is about to write is not to be trusted either: it is counted after it is
    // written.
    if (segment_->state().changes.load(std::memory_order_acquire) >= change + entries) {
      return false;
    }
    visit();
  }
  return true;
}

}  // namespace Memtab
