#include "Memtab/Adoption.h"

#include <string>
#include <vector>

#include "Memtab/Index.h"

namespace Memtab {
namespace {

using Format::bucketBit;
using Format::end;
using Format::Life;

// So many turns and changes no table lives to see; what is derived of their numbers has room for these.
constexpr std::uint64_t mostTurns = std::uint64_t{1} << 56U;

// First looks at everything and changes nothing, then repairs.
class Adoption {
 public:
  explicit Adoption(const Segment& segment)
      : segment_(segment),
        shape_(segment.description()),
        index_(segment, shape_),
        published_(segment.state().published.load(std::memory_order_acquire)),
        used_(segment.state().usedSlots.load(std::memory_order_acquire)) {}

  Adopted run() {
    examineState();
    examineSlots();
    examineList();
    repairTornWrite();
    repairCounts();
    sweepList();
    return collect();
  }

 private:
  [[noreturn]] void damaged(const std::string& what) const { throw Damaged(segment_.name(), what); }

  static std::uint32_t load(const Format::Half& half) { return half.load(std::memory_order_acquire); }
  Life lifeOf(std::uint32_t number) const {
    return Life(index_.slot(number)->life.load(std::memory_order_acquire));
  }

  bool live(Life life) const { return life.visibleAt(published_); }

  void examineState() const {
    const Format::Description& d = segment_.description();
    if (used_ > d.slots) {
      damaged(std::to_string(used_) + " slots are said to be in use, there is room for " +
              std::to_string(d.slots));
    }
    if (const std::uint32_t buckets = load(segment_.state().buckets); buckets == 0 || buckets > d.buckets) {
      damaged(std::to_string(buckets) + " bucket heads are said to be in use, there is room for " +
              std::to_string(d.buckets));
    }
    const std::uint64_t changes = segment_.state().changes.load(std::memory_order_acquire);
    const std::uint64_t told = segment_.state().publishedChanges.load(std::memory_order_acquire);
    if (published_ > mostTurns || changes > mostTurns || told > changes) {
      damaged("turn " + std::to_string(published_) + " with " + std::to_string(told) + " of " +
              std::to_string(changes) + " changes cannot be");
    }
  }

  // A value's write was under way when its slot has an odd number; if it can be seen, the journal has the
  // old words.
  void examineSlots() {
    for (std::uint32_t number = 0; number < used_; ++number) {
      const Life life = lifeOf(number);
      if (life.state() > Life::Dying || life.turn() > published_ + 1) {
        damaged("slot " + std::to_string(number) + " is in no known state");
      }
      if (number + 1 < used_ && life.raw() == 0 && load(index_.slot(number)->seq) == 0) {
        damaged("slot " + std::to_string(number) + " is said to be in use and was never written");
      }
      visible_ += live(life) ? 1U : 0U;
      visibleNext_ += life.visibleAt(published_ + 1) ? 1U : 0U;
      if (load(index_.slot(number)->seq) % 2 != 0 && life.state() != Life::Free && !journalKeeps(number)) {
        damaged("slot " + std::to_string(number) + " is half written and the journal knows nothing of it");
      }
    }
  }

  bool journalKeeps(std::uint32_t number) const {
    const Format::Journal& journal = segment_.journal();
    const std::uint32_t range = load(journal.range);
    return load(journal.seq) % 2 == 0 && load(journal.slot) == number &&
           load(journal.slotSeq) == load(index_.slot(number)->seq) &&
           (range >> 16U) + (range & 0xffffU) <= shape_.valueWords();
  }

  // Follows the list from end to end: ascending, no slot twice, all heads in use on the way.
  void examineList() {
    std::vector<bool> met(used_);
    std::uint64_t least = 0;
    for (std::uint32_t to = (bucketBit | 0U); to != end;) {
      const bool isHead = (to & bucketBit) != 0;
      const std::uint32_t number = isHead ? to & ~bucketBit : to;
      isHead ? examineHead(number) : examineLinkTo(number, met);
      const std::uint64_t hash = isHead ? number : index_.hash(index_.slot(number));
      if (Format::before(hash, least)) {
        damaged("the list is out of order at " + std::string(isHead ? "bucket head " : "slot ") +
                std::to_string(number));
      }
      least = hash;
      to = load(isHead ? segment_.heads()[number] : index_.slot(number)->next);
    }
    examineCounts(met);
  }

  void examineHead(std::uint32_t bucket) {
    if (bucket > index_.buckets() || bucket >= segment_.description().buckets) {
      damaged("the list leads to bucket head " + std::to_string(bucket) + ", which is not in use");
    }
    heads_ += 1;
    if (heads_ > index_.buckets() + 1) {
      damaged("the list runs in a circle");
    }
    extraHead_ = extraHead_ || bucket == index_.buckets();
    lastHead_ = lastHead_ || bucket + 1 == index_.buckets();
  }

  void examineLinkTo(std::uint32_t number, std::vector<bool>& met) const {
    if (number >= used_) {
      damaged("the list leads to slot " + std::to_string(number) + ", which is not in use");
    }
    if (met[number]) {
      damaged("the list leads to slot " + std::to_string(number) + " twice");
    }
    met[number] = true;
  }

  // Only the last head may be in the list without being counted, or counted without being there.
  void examineCounts(const std::vector<bool>& met) const {
    const std::uint32_t counted = index_.buckets();
    const bool asCounted = heads_ == counted && !extraHead_;
    const bool oneMore = heads_ == counted + 1;  // each of them once: then the extra one is among them
    const bool oneLess = heads_ + 1 == counted && !lastHead_;
    if (!asCounted && !oneMore && !oneLess) {
      damaged("the list has " + std::to_string(heads_) + " bucket heads, " + std::to_string(counted) +
              " are in use");
    }
    // A writer's last acts may have been to count the turn that it was about to publish.
    const std::uint64_t records = segment_.state().publishedRecords.load(std::memory_order_acquire);
    if (records != visible_ && records != visibleNext_) {
      damaged("it has " + std::to_string(visible_) + " records, " + std::to_string(records) +
              " were counted");
    }
    for (std::uint32_t number = 0; number < used_; ++number) {
      if (live(lifeOf(number)) && !met[number]) {
        damaged("the record in slot " + std::to_string(number) + " is not in the list");
      }
    }
  }

  void repairTornWrite() {
    for (std::uint32_t number = 0; number < used_; ++number) {
      Format::Slot* slot = index_.slot(number);
      const std::uint32_t seq = load(slot->seq);
      if (seq % 2 == 0) {
        continue;
      }
      if (lifeOf(number).state() != Life::Free) {
        restore(slot);
      }
      slot->seq.store(seq + 1, std::memory_order_release);
    }
    Format::Journal& journal = segment_.journal();
    journal.seq.store(load(journal.seq) & ~1U, std::memory_order_release);
  }

  void restore(Format::Slot* slot) const {
    const Format::Journal& journal = segment_.journal();
    const std::uint32_t range = load(journal.range);
    const Format::Word* old = Format::wordsOf(&journal);
    Format::Word* words = Format::wordsOf(slot) + shape_.keyWords();
    for (std::uint32_t i = 0; i < (range & 0xffffU); ++i) {
      words[(range >> 16U) + i].store(old[i].load(std::memory_order_acquire), std::memory_order_release);
    }
  }

  // The records first: from here on it can only be the published turn.
  void repairCounts() {
    segment_.state().publishedRecords.store(visible_, std::memory_order_release);
    index_.bucketsAre(heads_);
    segment_.state().buckets.store(heads_, std::memory_order_release);
  }

  // Takes everything out of the list that cannot be seen, and settles what can.
  void sweepList() {
    std::uint32_t bucket = 0;
    Format::Half* link = &segment_.heads()[0];
    for (std::uint32_t to = load(*link); to != end; to = load(*link)) {
      if ((to & bucketBit) != 0) {
        bucket = to & ~bucketBit;
        link = &segment_.heads()[bucket];
        continue;
      }
      Format::Slot* slot = index_.slot(to);
      if (live(Life(slot->life.load(std::memory_order_acquire)))) {
        slot->life.store(Life(Life::Born, 0, false).raw(), std::memory_order_release);
        link = &slot->next;
      } else {
        index_.unlink(link, bucket, slot);
        slot->life.store(Life(Life::Free, 0, false).raw(), std::memory_order_release);
      }
    }
  }

  Adopted collect() {
    Adopted adopted;
    adopted.buckets = heads_;
    adopted.freeSlots = end;
    for (std::uint32_t number = used_; number-- > 0;) {
      Format::Slot* slot = index_.slot(number);
      if (live(lifeOf(number))) {
        adopted.records += 1;
      } else {
        slot->life.store(Life(Life::Free, 0, false).raw(), std::memory_order_release);
        slot->next.store(adopted.freeSlots, std::memory_order_release);
        adopted.freeSlots = number;
      }
    }
    return adopted;
  }

  const Segment& segment_;
  FoundShape shape_;
  Index<FoundShape> index_;
  std::uint64_t published_;
  std::uint32_t used_;
  std::uint64_t visible_ = 0;      // records at the published turn
  std::uint64_t visibleNext_ = 0;  // and at the one that was being written
  std::uint32_t heads_ = 0;
  bool extraHead_ = false;  // the head after the last that is counted is in the list
  bool lastHead_ = false;   // the last that is counted is in the list
};

}  // namespace

Adopted adopt(const Segment& segment) {
  return Adoption(segment).run();
}

}  // namespace Memtab
