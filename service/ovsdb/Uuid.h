#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Ovsdb {

// The name that the database gives to a row: 128 bits, written as 8-4-4-4-12 hexadecimal digits. The nil
// UUID names no row.
struct Uuid {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  // Reads the canonical form, digits in either case; nothing for any other text.
  static std::optional<Uuid> parse(std::string_view text);
  // The canonical form, in lower case.
  std::string text() const;

  bool nil() const { return high == 0 && low == 0; }
  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend bool operator<(const Uuid& one, const Uuid& other) {
    return one.high != other.high ? one.high < other.high : one.low < other.low;
  }
};

}  // namespace Ovsdb

// Both halves are mixed: version 4 UUIDs have constant bits, and a careless maker may count in one half only.
template <>
struct std::hash<Ovsdb::Uuid> {
  std::size_t operator()(const Ovsdb::Uuid& uuid) const noexcept {
    std::uint64_t mixed = (uuid.high ^ (uuid.low >> 31)) * 0x9e3779b97f4a7c15ULL;
    mixed ^= uuid.low + (mixed >> 29);
    return mixed * 0xbf58476d1ce4e5b9ULL;
  }
};
