#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agent::Vtep {

// A MAC address in the low 48 bits, the first octet highest.
using Mac = std::uint64_t;
// An IPv4 address in host byte order; 0 is no address.
using Ipv4 = std::uint32_t;

// Where unknown unicast, broadcast and multicast go; the database writes it "unknown-dst".
inline constexpr Mac unknownDestination = 0;

// Reads six octets of two hexadecimal digits, separated by colons; nothing for any other text.
std::optional<Mac> parseMac(std::string_view text);
// Lower case, with colons.
std::string macText(Mac mac);
// Whether the address names a group: the lowest bit of the first octet is set.
constexpr bool isGroup(Mac mac) {
  return (mac >> 40 & 1) != 0;
}

// Reads a dotted quad; nothing for any other text.
std::optional<Ipv4> parseIpv4(std::string_view text);
// A dotted quad.
std::string ipv4Text(Ipv4 address);
// Whether a tunnel can end there: neither 0.0.0.0/8, nor a multicast, reserved or broadcast address.
constexpr bool canEndTunnel(Ipv4 address) {
  return address >> 24 != 0 && address >> 28 < 0xe;
}

}  // namespace Agent::Vtep
