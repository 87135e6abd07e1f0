// Addresses as the tests write them.
#pragma once

#include <arpa/inet.h>

#include <cstdio>
#include <string>

#include "agent/kernel/Types.h"

namespace Agent::Kernel::Test {

// Dotted decimal, such as "10.0.0.2".
inline Ip4 ip(const std::string& text) {
  in_addr address{};
  require(inet_pton(AF_INET, text.c_str(), &address) == 1, "an IPv4 address");
  return Ip4{ntohl(address.s_addr)};
}

// Six colon-separated octets, such as "02:00:00:00:00:01".
inline Mac mac(const char* text) {
  unsigned octets[6] = {};
  require(std::sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x", &octets[0], &octets[1], &octets[2], &octets[3],
                      &octets[4], &octets[5]) == 6,
          "a MAC address");
  Mac mac;
  for (const unsigned octet : octets) {
    mac.bits = (mac.bits << 8U) | octet;
  }
  return mac;
}

}  // namespace Agent::Kernel::Test
