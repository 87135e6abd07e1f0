#include "agent/kernel/Types.h"

#include <arpa/inet.h>

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

std::optional<Ip4> Ip4::parse(std::string_view text) {
  in_addr address{};
  if (inet_pton(AF_INET, std::string(text).c_str(), &address) != 1) {
    return std::nullopt;
  }
  return Ip4{ntohl(address.s_addr)};
}

std::string Mac::text() const {
  std::array<char, 18> out{};
  auto octet = [this](unsigned n) { return static_cast<unsigned>((bits >> (8 * (5 - n))) & 255U); };
  (void)std::snprintf(out.data(), out.size(), "%02x:%02x:%02x:%02x:%02x:%02x", octet(0), octet(1), octet(2),
                      octet(3), octet(4), octet(5));
  return out.data();
}

std::optional<Mac> Mac::parse(std::string_view text) {
  if (text.size() != 17) {
    return std::nullopt;
  }
  Mac mac;
  for (std::size_t at = 0; at < text.size(); ++at) {
    char c = text[at];
    if (at % 3 == 2) {
      if (c != ':') {
        return std::nullopt;
      }
      continue;
    }
    int digit = c >= '0' && c <= '9'   ? c - '0'
                : c >= 'a' && c <= 'f' ? c - 'a' + 10
                : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                       : -1;
    if (digit < 0) {
      return std::nullopt;
    }
    mac.bits = (mac.bits << 4U) | static_cast<unsigned>(digit);
  }
  return mac;
}

void failRequirement(const char* what, const char* file, int line) {
  (void)std::fprintf(stderr, "%s:%d: the requirement \"%s\" does not hold\n", file, line, what);
  std::abort();
}

}  // namespace Agent::Kernel
