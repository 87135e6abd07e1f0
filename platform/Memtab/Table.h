#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "Memtab/Adoption.h"
#include "Memtab/Error.h"
#include "Memtab/Export.h"
#include "Memtab/Index.h"
#include "Memtab/Segment.h"
#include "Memtab/SlotQueue.h"

namespace Memtab {

// The writer's side of a table of words: what Writer does, without the types of the user.
//
//  1. A key has at most one linked slot. A deleted key keeps it until it is swept, and gets it back when it
//  returns.
//  2. Slots that are linked without a record wait in the queue, each once: the `queued` bit of its life says
//  so.
//  3. Slots that are not linked are chained from freeSlots_, or lie at usedSlots and above.
//  4. A reader can see exactly the records that were there at the last publish().
template <class Shape>
class Table {
 public:
  // Upon a table that is empty, or is adopted; the latter raises Damaged.
  Table(Segment segment, Shape shape);
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table() { segment_.state().writerPid.store(0, std::memory_order_release); }

  void is(const std::byte* key, const std::byte* value);
  bool del(const std::byte* key);
  void publish();
  std::size_t sweep(std::size_t atMost);

  // The slot of KEY's record, the unpublished turn included; null when there is none.
  const Format::Slot* find(const std::byte* key) const {
    const auto place = index_.locate(key);
    return place.found() && born(place.slot) ? index_.slot(place.slot) : nullptr;
  }
  // The slot of the first record, or of the next behind KEY in the order; null at the end.
  const Format::Slot* first() const { return nextFrom(&segment_.heads()[0]); }
  const Format::Slot* next(const std::byte* key) const {
    const auto place = index_.locate(key);
    const Format::Slot* next = nextFrom(place.found() ? &index_.slot(place.slot)->next : place.link);
    if (next != nullptr && compareTo(shape_, next, place.hash, key, segment_.description().seed) <= 0) {
      index_.damaged("the list is out of order");  // a walk from key to key might not end
    }
    return next;
  }

  std::size_t size() const { return size_; }
  const Segment& segment() const { return segment_; }
  Segment& segment() { return segment_; }

 private:
  using Life = Format::Life;
  static constexpr std::size_t sweptPerChange = 2;
  static constexpr std::uint64_t bytesAtOnce = std::uint64_t{256} * 1024;

  Life lifeOf(std::uint32_t number) const {
    return Life(index_.slot(number)->life.load(std::memory_order_relaxed));
  }
  void lifeIs(std::uint32_t number, Life life) {
    index_.slot(number)->life.store(life.raw(), std::memory_order_release);
  }
  bool born(std::uint32_t number) const { return lifeOf(number).state() == Life::Born; }

  void insert(const typename Index<Shape>::Place& place, const std::byte* key, const std::byte* value);
  void revive(std::uint32_t number, const std::byte* key, const std::byte* value);
  void replace(std::uint32_t number, const std::byte* key, const std::byte* value);
  void writeWord(std::uint32_t number, const std::byte* value, std::size_t word);
  template <bool All>
  void write(std::uint32_t number, const std::byte* value, std::size_t first, std::size_t some);
  void fill(Format::Slot* slot, const std::byte* key, const std::byte* value);
  void note(const std::byte* key);
  void checkRoom() const;
  [[noreturn, gnu::cold, gnu::noinline]] void full() const;
  [[noreturn, gnu::cold, gnu::noinline]] void notFree(std::uint32_t number) const;
  void countDown(std::size_t& count);
  std::uint32_t freeSlot();
  std::uint32_t freshSlot();
  [[gnu::cold, gnu::noinline]] void takeSlots();
  void sweepSome();
  void sweepUntilFree();
  bool sweepOne();
  const Format::Slot* nextFrom(const Format::Half* link) const;

  Segment segment_;
  [[no_unique_address]] Shape shape_;
  Index<Shape> index_;
  SlotQueue queue_;
  Format::Word* ring_;
  std::uint64_t ringMask_;
  std::size_t size_ = 0;
  std::size_t linked_ =
      0;  // records, and slots that wait in the queue: what the ways along the list depend on
  std::uint64_t turn_ = 1;              // the turn that is being written, one more than published
  std::uint64_t changes_ = 0;           // as in State
  std::uint64_t publishedChanges_ = 0;  // as in State
  std::uint32_t freeSlots_ = Format::end;
  std::uint32_t taken_ = 0;  // slots that have memory
};

// Number of this process, for tools that show the table.
MEMTAB_API std::uint32_t ownPid();

template <class Shape>
Table<Shape>::Table(Segment segment, Shape shape)
    : segment_(std::move(segment)),
      shape_(shape),
      index_(segment_, shape),
      queue_(segment_.name(), segment_.description().slots),
      ring_(segment_.ring()),
      ringMask_(segment_.description().ringEntries - 1) {
  Format::State& state = segment_.state();
  if (segment_.adopted()) {
    const Adopted adopted = adopt(segment_);
    size_ = linked_ = adopted.records;
    freeSlots_ = adopted.freeSlots;
    index_.bucketsAre(adopted.buckets);
    changes_ = state.changes.load(std::memory_order_relaxed);
    taken_ = index_.usedSlots();
    turn_ = state.published.load(std::memory_order_relaxed) + 1;
  }
  state.retired.store(0, std::memory_order_release);
  state.writerPid.store(ownPid(), std::memory_order_release);
  publishedChanges_ = changes_ + 1;  // the first turn is published even if it is empty: the table is there
  publish();
}

template <class Shape>
void Table<Shape>::is(const std::byte* key, const std::byte* value) {
  if (!queue_.empty()) {
    sweepSome();
  }
  const auto place = index_.locate(key);
  if (!place.found()) {
    insert(place, key, value);
  } else if (born(place.slot)) {
    replace(place.slot, key, value);
  } else {
    revive(place.slot, key, value);
  }
}

template <class Shape>
[[gnu::always_inline]] inline void Table<Shape>::insert(const typename Index<Shape>::Place& place,
                                                        const std::byte* key, const std::byte* value) {
  checkRoom();
  const std::uint32_t number = freeSlot();
  note(key);
  fill(index_.slot(number), key, value);
  lifeIs(number, Life(Life::Born, turn_, false));
  index_.link(place, number);
  size_ += 1;
  linked_ += 1;
  index_.growFor(linked_);
}

// A key that left and comes back before its slot was swept. Within one turn it never left for a reader.
template <class Shape>
void Table<Shape>::revive(std::uint32_t number, const std::byte* key, const std::byte* value) {
  checkRoom();
  const bool seen = lifeOf(number).turn() == turn_;
  note(key);
  replace(number, key, value);
  lifeIs(number, Life(Life::Born, seen ? 0 : turn_, true));
  size_ += 1;
}

// Writes what is different, and nothing when nothing is.
template <class Shape>
void Table<Shape>::replace(std::uint32_t number, const std::byte* key, const std::byte* value) {
  const Format::Word* words = Format::wordsOf(index_.slot(number)) + shape_.keyWords();
  const std::size_t first = firstDifference(words, value, shape_.valueWords());
  if (first == shape_.valueWords()) {
    return;
  }
  const std::size_t end = endOfDifferences(words, value, shape_.valueWords());
  note(key);
  if (end - first == 1) {
    writeWord(number, value, first);
  } else if (2 * (end - first) > shape_.valueWords()) {
    write<true>(number, value, 0, end);  // most words: to write all, without counting, is less work
  } else {
    write<false>(number, value, first, end - first);
  }
}

// A single word is whole by itself; the number tells readers that the words around it may be of another
// time.
template <class Shape>
void Table<Shape>::writeWord(std::uint32_t number, const std::byte* value, std::size_t word) {
  Format::Slot* slot = index_.slot(number);
  slot->seq.store(slot->seq.load(std::memory_order_relaxed) + 2, std::memory_order_release);
  Format::wordsOf(slot)[shape_.keyWords() + word].store(wordAt(value, word), std::memory_order_release);
}

template <class Shape>
template <bool All>
void Table<Shape>::write(std::uint32_t number, const std::byte* value, std::size_t first, std::size_t some) {
  const std::size_t count = All ? shape_.valueWords() : some;
  Format::Slot* slot = index_.slot(number);
  Format::Word* words = Format::wordsOf(slot) + shape_.keyWords() + first;
  const std::uint32_t seq = slot->seq.load(std::memory_order_relaxed);

  Format::Journal& journal = segment_.journal();
  const std::uint32_t journalSeq = journal.seq.load(std::memory_order_relaxed);
  journal.seq.store(journalSeq + 1, std::memory_order_release);
  journal.slot.store(number, std::memory_order_release);
  journal.slotSeq.store(seq + 1, std::memory_order_release);
  journal.range.store(static_cast<std::uint32_t>(first << 16U | count), std::memory_order_release);
  storeWords(Format::wordsOf(&journal), words, count);
  journal.seq.store(journalSeq + 2, std::memory_order_release);

  slot->seq.store(seq + 1, std::memory_order_release);
  storeWords(words, value + 8 * first, count);
  slot->seq.store(seq + 2, std::memory_order_release);
}

// Gives a slot that is not linked to another key.
template <class Shape>
void Table<Shape>::fill(Format::Slot* slot, const std::byte* key, const std::byte* value) {
  const std::uint32_t seq = slot->seq.load(std::memory_order_relaxed);
  slot->seq.store(seq + 1, std::memory_order_release);
  storeWords(Format::wordsOf(slot), key, shape_.keyWords());
  storeWords(Format::wordsOf(slot) + shape_.keyWords(), value, shape_.valueWords());
  slot->seq.store(seq + 2, std::memory_order_release);
}

// Remembers KEY for followers, before it changes: a writer that dies in between leaves one change too many in
// the ring, not one too few.
template <class Shape>
void Table<Shape>::note(const std::byte* key) {
  storeWords(ring_ + (changes_ & ringMask_) * shape_.keyWords(), key, shape_.keyWords());
  changes_ += 1;
  segment_.state().changes.store(changes_, std::memory_order_release);
}

template <class Shape>
bool Table<Shape>::del(const std::byte* key) {
  if (!queue_.empty()) {
    sweep(sweptPerChange);
  }
  const auto place = index_.locate(key);
  if (!place.found() || !born(place.slot)) {
    return false;
  }
  note(key);
  const Life life = lifeOf(place.slot);
  const bool seen = life.turn() != turn_;
  lifeIs(place.slot, Life(Life::Dying, seen ? turn_ : 0, true));
  if (!life.queued()) {
    queue_.push(place.slot);
  }
  countDown(size_);
  return true;
}

template <class Shape>
void Table<Shape>::publish() {
  if (changes_ == publishedChanges_) {
    return;
  }
  Format::State& state = segment_.state();
  publishedChanges_ = changes_;
  state.publishedRecords.store(size_, std::memory_order_release);
  state.published.store(turn_, std::memory_order_release);
  state.publishedChanges.store(changes_, std::memory_order_release);
  turn_ += 1;
}

template <class Shape>
std::size_t Table<Shape>::sweep(std::size_t atMost) {
  while (atMost > 0 && !queue_.empty() && sweepOne()) {
    --atMost;
  }
  return queue_.size();
}

// Looks after the slot that has waited longest. False when it must wait for the end of the turn.
template <class Shape>
bool Table<Shape>::sweepOne() {
  const std::uint32_t number = queue_.front();
  const Life life = lifeOf(number);
  if (life.state() == Life::Born) {
    lifeIs(number, Life(Life::Born, life.turn(), false));
  } else if (life.turn() < turn_) {
    index_.unlink(number);
    countDown(linked_);
    index_.shrinkFor(linked_);
    lifeIs(number, Life(Life::Free, 0, false));
    index_.slot(number)->next.store(freeSlots_, std::memory_order_release);
    freeSlots_ = number;
  } else {
    return false;
  }
  queue_.pop();
  return true;
}

template <class Shape>
void Table<Shape>::checkRoom() const {
  if (size_ >= segment_.description().limit) {
    [[unlikely]] {
      full();
    }
  }
}

template <class Shape>
void Table<Shape>::full() const {
  throw Full(segment_.name(), segment_.description().limit);
}

template <class Shape>
[[gnu::always_inline]] inline std::uint32_t Table<Shape>::freeSlot() {
  if (freeSlots_ == Format::end) {
    return freshSlot();
  }
  const std::uint32_t number = freeSlots_;
  const Format::Slot* slot = index_.linked(number);
  if (lifeOf(number).state() != Life::Free) {
    [[unlikely]] {
      notFree(number);
    }
  }
  freeSlots_ = slot->next.load(std::memory_order_relaxed);
  return number;
}

template <class Shape>
void Table<Shape>::notFree(std::uint32_t number) const {
  index_.damaged("slot " + std::to_string(number) + " is among the free ones and is not free");
}

// More can only go than are there where a slot has changed behind the writer's back.
template <class Shape>
void Table<Shape>::countDown(std::size_t& count) {
  if (count == 0) {
    [[unlikely]] {
      index_.damaged("more records go than were there");
    }
  }
  count -= 1;
}

// The work that a change does for those before it, and the slot that it may need.
template <class Shape>
void Table<Shape>::sweepSome() {
  sweep(sweptPerChange);
  if (index_.usedSlots() == segment_.description().slots && freeSlots_ == Format::end) {
    sweepUntilFree();
  }
}

// All slots are linked. If the table is not full, one of those that wait can be swept: at most the limit
// live and fewer wait for the end of the turn.
template <class Shape>
void Table<Shape>::sweepUntilFree() {
  for (std::size_t waiting = queue_.size(); waiting > 0 && freeSlots_ == Format::end; --waiting) {
    if (!sweepOne()) {
      queue_.push(queue_.front());
      queue_.pop();
    }
  }
}

template <class Shape>
[[gnu::always_inline]] inline std::uint32_t Table<Shape>::freshSlot() {
  const std::uint32_t fresh = index_.usedSlots();
  if (fresh == taken_) {
    [[unlikely]] {
      takeSlots();
    }
  }
  segment_.state().usedSlots.store(fresh + 1, std::memory_order_release);
  index_.usedSlotsAre(fresh + 1);
  return fresh;
}

template <class Shape>
void Table<Shape>::takeSlots() {
  const Format::Description& table = segment_.description();
  if (taken_ == table.slots) {
    index_.damaged("no slot is free and none can be swept");
  }
  const auto more = static_cast<std::uint32_t>(std::min<std::uint64_t>(
      std::max<std::uint64_t>(bytesAtOnce / shape_.slotBytes(), 1), table.slots - taken_));
  segment_.take(table.slotsAt + std::uint64_t{taken_} * shape_.slotBytes(),
                std::uint64_t{more} * shape_.slotBytes());
  taken_ += more;
}

template <class Shape>
const Format::Slot* Table<Shape>::nextFrom(const Format::Half* link) const {
  for (typename Index<Shape>::Way way(index_);; way.step()) {
    const std::uint32_t to = link->load(std::memory_order_relaxed);
    if (to == Format::end) {
      return nullptr;
    }
    if ((to & Format::bucketBit) != 0) {
      link = index_.linkedHead(to & ~Format::bucketBit);
    } else {
      const Format::Slot* slot = index_.linked(to);
      if (Life(slot->life.load(std::memory_order_relaxed)).state() == Life::Born) {
        return slot;
      }
      link = &slot->next;
    }
  }
}

}  // namespace Memtab
