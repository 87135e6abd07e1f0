// VLANs, and the key of host tables.
#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "Kel/Error.h"
#include "Kel/Export.h"
#include "Vxlan/types/Qnet.h"

namespace Bridging {

// 0 for no VLAN, or a VLAN: what a lookup that may find nothing returns.
class VlanIdOrNone {
 public:
  static constexpr std::uint32_t max = 4094;

  constexpr VlanIdOrNone() = default;
  // 0 to 4094; anything else raises the range error.
  explicit VlanIdOrNone(std::uint32_t value) : value_(static_cast<std::uint16_t>(value)) {
    if (value > max) {
      Kel::throwRangeException("VlanIdOrNone::value > 4094 not allowed");
    }
  }

  constexpr std::uint16_t value() const noexcept { return value_; }
  constexpr explicit operator bool() const noexcept { return value_ != 0; }
  constexpr bool operator==(const VlanIdOrNone&) const = default;
  constexpr auto operator<=>(const VlanIdOrNone&) const = default;

 private:
  std::uint16_t value_ = 0;
};

// A VLAN, 1 to 4094. The default is 0, unchecked: the start-of-table bookmark.
class VlanId {
 public:
  static constexpr std::uint32_t min = 1;
  static constexpr std::uint32_t max = 4094;

  constexpr VlanId() = default;
  // 1 to 4094; anything else raises the range error.
  explicit VlanId(std::uint32_t value) : value_(static_cast<std::uint16_t>(value)) {
    if (value < min || value > max) {
      Kel::throwRangeException("VlanId::value < 1 or > 4094 not allowed");
    }
  }
  // From what a lookup found; none raises the range error.
  explicit VlanId(VlanIdOrNone vlan) : VlanId(std::uint32_t{vlan.value()}) {}
  // From decimal digits without leading zeros, the whole text, 1 to 4094; nothing otherwise.
  KEL_API static std::optional<VlanId> parse(std::string_view text);

  constexpr std::uint16_t value() const noexcept { return value_; }
  constexpr bool operator==(const VlanId&) const = default;
  constexpr auto operator<=>(const VlanId&) const = default;

 private:
  std::uint16_t value_ = 0;
};

// A host: MAC address and VLAN. The default, all zero, is the start-of-table bookmark.
struct MacVlanPair {
  Qnet::EthAddr mac;
  VlanId vlan;

  constexpr bool operator==(const MacVlanPair& other) const noexcept {
    return std::bit_cast<std::uint64_t>(*this) == std::bit_cast<std::uint64_t>(other);
  }
  constexpr auto operator<=>(const MacVlanPair&) const = default;
};
static_assert(sizeof(MacVlanPair) == 8, "a key of host tables is one machine word, without padding");

KEL_API std::ostream& operator<<(std::ostream& stream, const VlanId& vlan);
KEL_API std::ostream& operator<<(std::ostream& stream, const VlanIdOrNone& vlan);
// As MAC:VLAN.
KEL_API std::ostream& operator<<(std::ostream& stream, const MacVlanPair& key);

}  // namespace Bridging

template <>
struct std::hash<Bridging::VlanId> {
  std::size_t operator()(const Bridging::VlanId& vlan) const noexcept { return vlan.value(); }
};
template <>
struct std::hash<Bridging::VlanIdOrNone> {
  std::size_t operator()(const Bridging::VlanIdOrNone& vlan) const noexcept { return vlan.value(); }
};
template <>
struct std::hash<Bridging::MacVlanPair> {
  std::size_t operator()(const Bridging::MacVlanPair& key) const noexcept {
    std::uint64_t value = 0;
    std::memcpy(&value, static_cast<const void*>(&key), sizeof key);
    return value;
  }
};
