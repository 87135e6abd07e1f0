#pragma once

#include <cstddef>
#include <cstdint>

#include "Memtab/Format.h"

namespace Memtab {

/// Sizes of a record that are known when the program is compiled: what Writer and Reader use.
template <std::size_t KeyWords, std::size_t ValueWords>
struct FixedShape {
  static constexpr std::size_t keyWords() { return KeyWords; }
  static constexpr std::size_t valueWords() { return ValueWords; }
  static constexpr std::size_t slotBytes() { return sizeof(Format::Slot) + 8 * (KeyWords + ValueWords); }
};

/// Sizes of a record that a segment tells: what the adoption and generic tools use.
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

/// Place of a key in the order of the list: by this, then by the key's words.
template <class Shape>
std::uint64_t orderOf(const Shape& shape, const std::uint64_t* key, std::uint64_t seed) {
  std::uint64_t order = seed;
  for (std::size_t i = 0; i < shape.keyWords(); ++i) {
    order = Format::mixed(order ^ key[i]);
  }
  return order;
}

/// Slot NUMBER of the array at SLOTS.
template <class Shape>
Format::Slot* slotAt(const Shape& shape, std::byte* slots, std::uint32_t number) {
  return reinterpret_cast<Format::Slot*>(slots + std::size_t{number} * shape.slotBytes());
}
template <class Shape>
const Format::Slot* slotAt(const Shape& shape, const std::byte* slots, std::uint32_t number) {
  return reinterpret_cast<const Format::Slot*>(slots + std::size_t{number} * shape.slotBytes());
}

/// Less than, equal to or more than 0 as the key in SLOT stands before, at or behind KEY of ORDER. While the
/// slot is being given to another key the answer is arbitrary, and the reader finds out by the counter of its
/// stripe.
template <class Shape>
int compareTo(const Shape& shape, const Format::Slot* slot, std::uint64_t order, const std::uint64_t* key,
              std::uint64_t seed) {
  const Format::Word* words = Format::wordsOf(slot);
  std::uint64_t found = seed;
  int tie = 0;
  for (std::size_t i = 0; i < shape.keyWords(); ++i) {
    const std::uint64_t word = words[i].load(std::memory_order_acquire);
    found = Format::mixed(found ^ word);
    tie = tie != 0 || word == key[i] ? tie : word < key[i] ? -1 : 1;
  }
  return found == order ? tie : found < order ? -1 : 1;
}

}  // namespace Memtab
