#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Memtab/Format.h"

namespace Memtab {

/// A key or value as the words that go to memory; the bytes behind it, up to a whole word, are zero.
template <class T>
class Words {
 public:
  static_assert(std::is_trivially_copyable_v<T>, "records are copied byte by byte");
  static constexpr std::size_t kCount = Format::wordsFor(sizeof(T));

  Words() = default;
  explicit Words(const T& value) { std::memcpy(words_.data(), &value, sizeof(T)); }

  const std::uint64_t* data() const { return words_.data(); }
  std::uint64_t* data() { return words_.data(); }

  T value() const {
    T value;
    std::memcpy(static_cast<void*>(&value), words_.data(), sizeof(T));
    return value;
  }

 private:
  std::array<std::uint64_t, kCount> words_{};
};

}  // namespace Memtab
