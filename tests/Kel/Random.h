// Reproducible choices of the random tests.
#pragma once

#include <cstdint>

namespace scenario {

// The numbers that follow from a seed (SplitMix64: Steele, Lea, Flood 2014; public domain). Cheap to begin,
// so that each of many thousand sequences has its own.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint32_t next() {
    std::uint64_t mixed = (state_ += 0x9e3779b97f4a7c15ULL);
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9ULL;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebULL;
    return static_cast<std::uint32_t>((mixed ^ (mixed >> 31)) >> 32);
  }
  // 0 to bound - 1.
  std::uint32_t below(std::uint32_t bound) { return next() % bound; }

 private:
  std::uint64_t state_;
};

}  // namespace scenario
