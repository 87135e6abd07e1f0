#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Memtab/Format.h"

namespace Memtab {

// Sizes of a record that are known when the program is compiled: what Writer and Reader use. Loops over
// words ask to be unrolled ("#pragma GCC unroll"), which halves their instructions here.
template <std::size_t KeyWords, std::size_t ValueWords>
struct FixedShape {
  static constexpr std::size_t keyWords() { return KeyWords; }
  static constexpr std::size_t valueWords() { return ValueWords; }
  static constexpr std::size_t slotBytes() { return sizeof(Format::Slot) + 8 * (KeyWords + ValueWords); }
};

// Sizes of a record that a segment tells: what the adoption and generic tools use.
class FoundShape {
 public:
  FoundShape() = default;
  explicit FoundShape(const Format::Description& description)
      : keyWords_(Format::wordsFor(description.keyBytes)),
        valueWords_(Format::wordsFor(description.valueBytes)) {}

  std::size_t keyWords() const { return keyWords_; }
  std::size_t valueWords() const { return valueWords_; }
  std::size_t slotBytes() const { return sizeof(Format::Slot) + 8 * (keyWords_ + valueWords_); }

 private:
  std::size_t keyWords_ = 0;
  std::size_t valueWords_ = 0;
};

// Word NUMBER of the bytes at FROM, which need not be aligned.
inline std::uint64_t wordAt(const std::byte* from, std::size_t number) {
  std::uint64_t word = 0;
  std::memcpy(&word, from + 8 * number, sizeof word);
  return word;
}

template <class Shape>
std::uint64_t hashOf(const Shape& shape, const std::byte* key, std::uint64_t seed) {
  std::uint64_t hash = seed;
  for (std::size_t i = 0; i < shape.keyWords(); ++i) {
    hash = Format::mixed(hash ^ wordAt(key, i));
  }
  return hash;
}

// The hash of the key in SLOT. While the slot is being given to another key the answer is arbitrary, and a
// reader finds out by the counter of its stripe; so with compareTo().
template <class Shape>
std::uint64_t hashIn(const Shape& shape, const Format::Slot* slot, std::uint64_t seed) {
  const Format::Word* words = Format::wordsOf(slot);
  std::uint64_t hash = seed;
  for (std::size_t i = 0; i < shape.keyWords(); ++i) {
    hash = Format::mixed(hash ^ words[i].load(std::memory_order_acquire));
  }
  return hash;
}

// Copies COUNT words so that a reader sees each of them whole. In line, for the sake of a COUNT that is a
// constant.
[[gnu::always_inline]] inline void storeWords(Format::Word* to, const std::byte* from, std::size_t count) {
#pragma GCC unroll 32
  for (std::size_t i = 0; i < count; ++i) {
    to[i].store(wordAt(from, i), std::memory_order_release);
  }
}
[[gnu::always_inline]] inline void storeWords(Format::Word* to, const Format::Word* from, std::size_t count) {
#pragma GCC unroll 32
  for (std::size_t i = 0; i < count; ++i) {
    to[i].store(from[i].load(std::memory_order_acquire), std::memory_order_release);
  }
}
[[gnu::always_inline]] inline void loadWords(std::uint64_t* to, const Format::Word* from, std::size_t count) {
#pragma GCC unroll 32
  for (std::size_t i = 0; i < count; ++i) {
    to[i] = from[i].load(std::memory_order_acquire);
  }
}

// The first of COUNT words that differs, COUNT when none does; and how many there are up to the last that
// differs.
[[gnu::always_inline]] inline std::size_t firstDifference(const Format::Word* words, const std::byte* value,
                                                          std::size_t count) {
#pragma GCC unroll 32
  for (std::size_t i = 0; i < count; ++i) {
    if (words[i].load(std::memory_order_relaxed) != wordAt(value, i)) {
      return i;
    }
  }
  return count;
}
[[gnu::always_inline]] inline std::size_t endOfDifferences(const Format::Word* words, const std::byte* value,
                                                           std::size_t count) {
#pragma GCC unroll 32
  for (std::size_t i = count; i > 0; --i) {
    if (words[i - 1].load(std::memory_order_relaxed) != wordAt(value, i - 1)) {
      return i;
    }
  }
  return 0;
}

// Slot NUMBER of the array at SLOTS.
template <class Shape>
Format::Slot* slotAt(const Shape& shape, std::byte* slots, std::uint32_t number) {
  return reinterpret_cast<Format::Slot*>(slots + std::size_t{number} * shape.slotBytes());
}
template <class Shape>
const Format::Slot* slotAt(const Shape& shape, const std::byte* slots, std::uint32_t number) {
  return reinterpret_cast<const Format::Slot*>(slots + std::size_t{number} * shape.slotBytes());
}

// Less than, equal to or more than 0 as the key in SLOT stands before, at or behind KEY of HASH in the order
// of the list: by hash, then by words.
template <class Shape>
[[gnu::always_inline]] inline int compareTo(const Shape& shape, const Format::Slot* slot, std::uint64_t hash,
                                            const std::byte* key, std::uint64_t seed) {
  const Format::Word* words = Format::wordsOf(slot);
  int tie = 0;
  for (std::size_t i = 0; i < shape.keyWords(); ++i) {
    const std::uint64_t word = words[i].load(std::memory_order_acquire);
    const std::uint64_t wanted = wordAt(key, i);
    tie = tie != 0 || word == wanted ? tie : word < wanted ? -1 : 1;
  }
  if (tie == 0) {
    [[likely]] {
      return 0;
    }
  }
  const std::uint64_t found = hashIn(shape, slot, seed);
  return found == hash ? tie : Format::before(found, hash) ? -1 : 1;
}

}  // namespace Memtab
