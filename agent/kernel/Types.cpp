#include "agent/kernel/Types.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace Agent::Kernel {

std::string Ip4::text() const {
  std::array<char, 16> out{};
  (void)std::snprintf(out.data(), out.size(), "%u.%u.%u.%u", bits >> 24U, (bits >> 16U) & 255U,
                      (bits >> 8U) & 255U, bits & 255U);
  return out.data();
}

std::string Mac::text() const {
  std::array<char, 18> out{};
  auto octet = [this](unsigned n) { return static_cast<unsigned>((bits >> (8 * (5 - n))) & 255U); };
  (void)std::snprintf(out.data(), out.size(), "%02x:%02x:%02x:%02x:%02x:%02x", octet(0), octet(1), octet(2),
                      octet(3), octet(4), octet(5));
  return out.data();
}

void failRequirement(const char* what, const char* file, int line) {
  (void)std::fprintf(stderr, "%s:%d: the requirement \"%s\" does not hold\n", file, line, what);
  std::abort();
}

}  // namespace Agent::Kernel
