// Keys that collide, as a stranger would choose them who knows the seed of a table: by inverting its hash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Memtab/Format.h"

namespace MemtabBench {

// The number by which an odd FACTOR is multiplied to get 1, by Newton's iteration: each step doubles the bits
// that are right.
constexpr std::uint64_t inverseOf(std::uint64_t factor) {
  std::uint64_t inverse = factor;
  for (int rightBits = 3; rightBits < 64; rightBits *= 2) {
    inverse *= 2 - factor * inverse;
  }
  return inverse;
}

// The word that Memtab::Format::mixed() takes to HASH.
constexpr std::uint64_t unmixed(std::uint64_t hash) {
  hash ^= hash >> 31U ^ hash >> 62U;
  hash *= inverseOf(0x94d0'49bb'1331'11ebU);
  hash ^= hash >> 27U ^ hash >> 54U;
  hash *= inverseOf(0xbf58'476d'1ce4'e5b9U);
  return hash ^ hash >> 30U ^ hash >> 60U;
}
static_assert(unmixed(Memtab::Format::mixed(0x1234'5678'9abc'def0U)) == 0x1234'5678'9abc'def0U);

// The bytes of a MAC address, then a VLAN: as the word of a host's key has them. The MAC is an individual
// address, the VLAN a possible one.
constexpr bool isHostKey(std::uint64_t key) {
  const std::uint64_t vlan = key >> 48U;
  return (key & 1U) == 0 && vlan >= 1 && vlan <= 4094;
}

// COUNT keys of hosts that all lead to one bucket of a table with SEED and up to 2^LOWBITS buckets.
inline std::vector<std::uint64_t> collidingKeys(std::size_t count, unsigned lowBits, std::uint64_t seed) {
  constexpr std::uint64_t bucket = 5;
  std::vector<std::uint64_t> keys;
  for (std::uint64_t upper = 0; keys.size() < count; ++upper) {
    const std::uint64_t key = unmixed(upper << lowBits | bucket) ^ seed;
    if (isHostKey(key)) {
      keys.push_back(key);
    }
  }
  return keys;
}

}  // namespace MemtabBench
