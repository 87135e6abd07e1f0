#include "Kel/HashIndex.h"

#include <optional>
#include <random>

namespace Kel {
namespace {

constinit std::optional<std::uint64_t> seed;

std::uint64_t drawn() {
  std::random_device device;
  return std::uint64_t{device()} << 32 | device();
}

}  // namespace

std::uint64_t tableSeed() {
  if (!seed) {
    seed = drawn();
  }
  return *seed;
}

void tableSeedIs(std::uint64_t newSeed) noexcept {
  seed = newSeed;
}

}  // namespace Kel
