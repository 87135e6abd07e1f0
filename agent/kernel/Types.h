#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// The Linux data plane: reconciles the kernel's bridges, VXLAN devices and FDB entries with the agent's
// desired state. Depends on nothing else of the agent.
namespace Agent::Kernel {

// A moment on the caller's monotonic clock, or a span of it.
using Time = std::chrono::nanoseconds;
using Vlan = std::uint16_t;
using Vni = std::uint32_t;
// The kernel's number of a network device; 0 is none.
using IfIndex = int;
// The kernel's number of a nexthop object; 0 is none.
using NexthopId = std::uint32_t;

// An IPv4 address in host byte order; 0.0.0.0 stands for none.
struct Ip4 {
  std::uint32_t bits = 0;

  auto operator<=>(const Ip4&) const = default;
  explicit operator bool() const { return bits != 0; }
  // Dotted decimal, such as "10.0.0.2".
  std::string text() const;
};

// An Ethernet address: the six octets in the low 48 bits, first octet highest.
struct Mac {
  std::uint64_t bits = 0;

  auto operator<=>(const Mac&) const = default;
  bool zero() const { return bits == 0; }
  // Whether it stands for several destinations: all-zero (the kernel's default destination), multicast or
  // broadcast.
  bool group() const { return zero() || ((bits >> 40U) & 1U) != 0; }
  // Lower case with colons, such as "02:00:00:00:10:04".
  std::string text() const;
};

// Ends the process with a message if `holds` is false: a bug of this code. The same in every build type.
inline void require(bool holds, const char* what, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE());

[[noreturn]] void failRequirement(const char* what, const char* file, int line);

inline void require(bool holds, const char* what, const char* file, int line) {
  if (!holds) {
    failRequirement(what, file, line);
  }
}

}  // namespace Agent::Kernel
