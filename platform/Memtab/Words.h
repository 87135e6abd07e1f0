#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Memtab/Format.h"

namespace Memtab {

// The bytes of a key or value as whole words: the object itself where it ends with a word, else a copy with
// zeros behind.
template <class T, bool Whole = sizeof(T) % 8 == 0>
class BytesOf {
 public:
  explicit BytesOf(const T& value) : value_(&value) {}
  const std::byte* data() const { return reinterpret_cast<const std::byte*>(value_); }

 private:
  const T* value_;
};

template <class T>
class BytesOf<T, false> {
 public:
  explicit BytesOf(const T& value) { std::memcpy(bytes_.data(), &value, sizeof(T)); }
  const std::byte* data() const { return bytes_.data(); }

 private:
  std::array<std::byte, 8 * Format::wordsFor(sizeof(T))> bytes_{};
};

// Room for the words of a key or value, to copy one to.
template <class T>
class Words {
 public:
  static_assert(std::is_trivially_copyable_v<T>, "records are copied byte by byte");
  static constexpr std::size_t count = Format::wordsFor(sizeof(T));

  std::uint64_t* data() { return words_.data(); }

  T value() const { return valueAt(words_.data()); }

  // The object whose bytes are at FROM.
  static T valueAt(const void* from) {
    std::array<std::byte, sizeof(T)> bytes;
    std::memcpy(bytes.data(), from, sizeof(T));
    return std::bit_cast<T>(bytes);
  }

 private:
  std::array<std::uint64_t, count> words_;
};

}  // namespace Memtab
