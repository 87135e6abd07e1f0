#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

// The segment as it lies in memory; docs/memtab.md draws it and tells the protocol. Every datum that changes
// after creation is a lock-free atomic, so that a reader of another process may load it at any time.
namespace Memtab::Format {

using Word = std::atomic<std::uint64_t>;
using Half = std::atomic<std::uint32_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 8);
static_assert(Half::is_always_lock_free && sizeof(Half) == 4);

inline constexpr std::uint64_t magic = 0x3162'6174'6d65'6d00;           // "\0memtab1", little end first
inline constexpr std::uint64_t magicBeingMade = 0x3f62'6174'6d65'6d00;  // "\0memtab?"
inline constexpr std::uint32_t version = 1;

inline constexpr std::size_t schemaBytes = 128;
inline constexpr std::size_t fieldsBytes = 1024;
inline constexpr std::size_t maxKeyBytes = 256;
inline constexpr std::size_t maxValueBytes = 4096;
inline constexpr std::size_t maxLimit = (std::size_t{1} << 28) - 1;

// There is room for two bucket heads a record of the limit, which is one for each slot. A writer keeps one
// for each slot in the list (see Index); how many there are is in the state, and no matter to readers.
inline constexpr std::uint32_t bucketsPerRecord = 2;
// Buckets share counters of removals; a lookup that finds nothing is repeated when its counter moved
// meanwhile.
inline constexpr std::uint32_t stripes = 1024;

// A link leads to a slot, or, with this bit, to the head of the next bucket in the order of the
// list.
inline constexpr std::uint32_t bucketBit = 0x8000'0000;
inline constexpr std::uint32_t end = 0xffff'ffff;
static_assert(maxLimit * 2 * bucketsPerRecord < bucketBit,
              "slot and bucket numbers fit below the bucket bit");

// Constants of one table, written once at creation and covered by a checksum.
struct Description {
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t headerBytes;
  std::uint32_t keyBytes;
  std::uint32_t valueBytes;
  std::uint32_t slotBytes;
  std::uint32_t ringEntries;
  std::uint32_t limit;
  std::uint32_t slots;  // slots that there is room for: a turn may delete all records and add as many others
  std::uint32_t buckets;  // bucket heads that there is room for
  std::uint32_t stripes;
  std::uint64_t journalAt;
  std::uint64_t stripesAt;
  std::uint64_t ringAt;
  std::uint64_t headsAt;
  std::uint64_t slotsAt;
  std::uint64_t totalBytes;
  std::uint64_t generation;  // no two segments have the same
  std::uint64_t seed;
  std::int64_t createdAt;  // seconds since 1970
  std::array<char, schemaBytes> schema;
  std::array<char, fieldsBytes> fields;
  std::uint64_t checksum;
};

// The fields that the writer changes, grouped by how often, one cache line a group.
struct alignas(64) State {
  Word published;         // number of the last turn that readers may see
  Word publishedChanges;  // length of the change ring up to that turn
  Word publishedRecords;
  Half retired;    // not 0: removed by its name, a reader looks for the successor
  Half writerPid;  // 0: no writer, or it went in good order

  alignas(64) Half buckets;  // bucket heads in use
  Half usedSlots;            // slots from here on were never used

  alignas(64) Word changes;  // length of the change ring, unpublished turn included
};

// The beginning of a segment: its constants, then what changes.
struct Header {
  Description description;
  State state;
};

// The old words of the value that is being replaced, so that neither a reader nor the next writer depends on
// the present writer to finish. Followed by room for one value.
struct Journal {
  Half seq;      // odd while this journal is being written
  Half slot;     // the slot that is being replaced
  Half slotSeq;  // its odd sequence number during the replacement
  Half range;    // first word << 16 | number of words
};

// One record: this, then the words of the key, then those of the value.
struct Slot {
  Half seq;   // odd while key or value are being written
  Half next;  // link in the list of all records
  Word life;  // see Life
};
static_assert(sizeof(Journal) == 16 && sizeof(Slot) == 16);

inline Word* wordsOf(Slot* slot) {
  return reinterpret_cast<Word*>(slot + 1);
}
inline const Word* wordsOf(const Slot* slot) {
  return reinterpret_cast<const Word*>(slot + 1);
}
inline Word* wordsOf(Journal* journal) {
  return reinterpret_cast<Word*>(journal + 1);
}
inline const Word* wordsOf(const Journal* journal) {
  return reinterpret_cast<const Word*>(journal + 1);
}

// When a slot's record can be seen: one word, so that each change of it is whole.
class Life {
 public:
  enum State : std::uint64_t {
    Free = 0,   // never used, or out of the list and ready for another key
    Born = 1,   // seen from turn() on
    Dying = 2,  // seen until turn() is published; then waits in the list to be taken out
  };

  constexpr explicit Life(std::uint64_t raw) : raw_(raw) {}
  constexpr Life(State state, std::uint64_t turn, bool queued)
      : raw_(turn << 3U | (queued ? 4U : 0U) | static_cast<std::uint64_t>(state)) {}

  constexpr std::uint64_t raw() const { return raw_; }
  constexpr std::uint64_t state() const { return raw_ & 3U; }
  constexpr bool queued() const { return (raw_ & 4U) != 0; }
  constexpr std::uint64_t turn() const { return raw_ >> 3U; }
  constexpr bool visibleAt(std::uint64_t published) const {
    return (state() == Born && turn() <= published) || (state() == Dying && published < turn());
  }

 private:
  std::uint64_t raw_;
};

constexpr std::size_t wordsFor(std::size_t bytes) {
  return (bytes + 7) / 8;
}

// One word of a key into its hash: a bijection (xor-shift and odd multiplications, the constants of
// SplitMix64), so that keys of one word never have the same hash.
constexpr std::uint64_t mixed(std::uint64_t h) {
  h = (h ^ h >> 30U) * 0xbf58'476d'1ce4'e5b9U;
  h = (h ^ h >> 27U) * 0x94d0'49bb'1331'11ebU;
  return h ^ h >> 31U;
}

// The order of the list: hashes compared from the lowest bit up.
constexpr bool before(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t differing = a ^ b;
  return (differing & (~differing + 1) & b) != 0;
}

// The head that owns HASH while BUCKETS heads are in use, and MASK covers their numbers: linear hashing. As
// bucket numbers are the low bits of hashes, a head's number is also the first hash of its stretch, and a
// new head takes the upper half of an older one's.
constexpr std::uint32_t bucketOf(std::uint64_t hash, std::uint32_t buckets, std::uint32_t mask) {
  const std::uint32_t bucket = static_cast<std::uint32_t>(hash) & mask;
  return bucket < buckets ? bucket : bucket & mask >> 1U;
}
constexpr std::uint32_t maskOf(std::uint32_t buckets) {
  return std::bit_ceil(buckets) - 1;
}

}  // namespace Memtab::Format
