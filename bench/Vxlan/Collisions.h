// MACs that collide in the hashed table of the framework where its seed is known: what a tenant would choose.
#pragma once

#include <cstdint>
#include <vector>

#include "Kel/HashIndex.h"

namespace Road {

namespace detail {

// The number by which an odd one is multiplied to 1, modulo 2^64.
constexpr std::uint64_t inverse(std::uint64_t odd) {
  std::uint64_t result = odd;  // right in three bits; each step doubles them
  for (int step = 0; step < 5; ++step) {
    result *= 2 - odd * result;
  }
  return result;
}

// What Kel::mixHash makes `mixed` of. Its shifts by 33 are their own inverse.
constexpr std::uint64_t unmixed(std::uint64_t mixed) {
  mixed ^= mixed >> 33;
  mixed *= inverse(0xc4ceb9fe1a85ec53ULL);
  mixed ^= mixed >> 33;
  mixed *= inverse(0xff51afd7ed558ccdULL);
  return mixed ^ mixed >> 33;
}
static_assert(Kel::mixHash(unmixed(0x123456789abcdef0ULL)) == 0x123456789abcdef0ULL);

}  // namespace detail

// So many MACs, of 65,536 at the most, whose keys have one hash in a table with the seed 0: those of the
// controller's table of a VNI where `vlan` is 0, else those of the received hosts of that VLAN. The mixing is
// turned back for each word that has the hash; one of 65,536 is a MAC.
inline std::vector<std::uint64_t> collidingMacs(std::uint32_t count, std::uint16_t vlan) {
  constexpr std::uint64_t hash = 0x5bd1e995;
  std::vector<std::uint64_t> macs;
  for (std::uint64_t low = 0; low <= UINT32_MAX && macs.size() < count; ++low) {
    const std::uint64_t key = detail::unmixed(hash << 32 | low);
    if (key >> 48 == vlan) {  // the bytes of a key in memory: MAC, VLAN
      macs.push_back(__builtin_bswap64(key) >> 16);
    }
  }
  return macs;
}

}  // namespace Road
