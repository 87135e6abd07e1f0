#include "agent/vtep/Addresses.h"

#include <charconv>

namespace Agent::Vtep {

std::optional<Mac> parseMac(std::string_view text) {
  constexpr std::size_t length = 17;
  if (text.size() != length) {
    return std::nullopt;
  }
  Mac mac = 0;
  for (std::size_t octet = 0; octet < 6; ++octet) {
    const char* first = text.data() + octet * 3;
    unsigned value = 0;
    const auto [end, error] = std::from_chars(first, first + 2, value, 16);
    if (error != std::errc{} || end != first + 2 || (octet < 5 && first[2] != ':')) {
      return std::nullopt;
    }
    mac = mac << 8 | value;
  }
  return mac;
}

std::string macText(Mac mac) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out(17, ':');
  for (std::size_t octet = 0; octet < 6; ++octet) {
    const std::uint64_t value = mac >> (40 - 8 * octet);
    out[octet * 3] = digits[value >> 4 & 0xf];
    out[octet * 3 + 1] = digits[value & 0xf];
  }
  return out;
}

std::optional<Ipv4> parseIpv4(std::string_view text) {
  Ipv4 address = 0;
  const char* at = text.data();
  const char* const end = at + text.size();
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0 && (at == end || *at++ != '.')) {
      return std::nullopt;
    }
    unsigned value = 0;
    const auto [next, error] = std::from_chars(at, end, value);
    const bool leadingZero = next - at > 1 && *at == '0';
    if (error != std::errc{} || value > 255 || leadingZero) {
      return std::nullopt;
    }
    address = address << 8 | value;
    at = next;
  }
  return at == end ? std::optional{address} : std::nullopt;
}

std::string ipv4Text(Ipv4 address) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned octet = address >> shift & 0xff;
    if (octet >= 100) {
      text += static_cast<char>('0' + octet / 100);
    }
    if (octet >= 10) {
      text += static_cast<char>('0' + octet / 10 % 10);
    }
    text += static_cast<char>('0' + octet % 10);
    if (shift > 0) {
      text += '.';
    }
  }
  return text;
}

}  // namespace Agent::Vtep
