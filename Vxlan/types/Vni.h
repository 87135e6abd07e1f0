// VNIs, and what a VLAN is mapped to.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>

#include "Kel/Error.h"
#include "Kel/Export.h"
#include "Vxlan/types/Bridging.h"

namespace Vxlan {

// The key of BUM VTEP lists.
using MacVlanPair = Bridging::MacVlanPair;

// A VNI, or none, which is the all-ones value: what a lookup that may find nothing returns.
class VniExtOrNone {
 public:
  static constexpr std::uint32_t none = UINT32_MAX;

  constexpr VniExtOrNone() = default;
  constexpr explicit VniExtOrNone(std::uint32_t value) : value_(value) {}

  constexpr std::uint32_t value() const noexcept { return value_; }
  constexpr explicit operator bool() const noexcept { return value_ != none; }
  constexpr bool operator==(const VniExtOrNone&) const = default;

 private:
  std::uint32_t value_ = none;
};

// A VNI: any 32-bit value but all ones, which is reserved for "no VNI". The default is 0.
class VniExt {
 public:
  static constexpr std::uint32_t min = 0;
  static constexpr std::uint32_t max = 4294967294;

  constexpr VniExt() = default;
  // 0 to 4294967294; all ones raises the range error.
  explicit VniExt(std::uint32_t value) : value_(value) {
    if (value > max) {
      Kel::throwRangeException("VniExt::value < VniExt::min or > VniExt::max not allowed");
    }
  }
  // From what a lookup found; none raises the range error.
  explicit VniExt(VniExtOrNone vni) : VniExt(vni.value()) {}

  constexpr std::uint32_t value() const noexcept { return value_; }
  constexpr bool operator==(const VniExt&) const = default;
  constexpr auto operator<=>(const VniExt&) const = default;

 private:
  std::uint32_t value_ = 0;
};

// The source of a mapping of a VLAN to a VNI.
enum class VniSource : std::uint8_t { None = 0, Configuration = 1 };

// The VNI that a VLAN is mapped to, and the source of the mapping. The default is the empty pair: no VNI.
struct VniSourcePair {
  VniExtOrNone vni;
  VniSource source = VniSource::None;

  constexpr bool operator==(const VniSourcePair&) const = default;
};

KEL_API std::ostream& operator<<(std::ostream& stream, const VniExt& vni);
KEL_API std::ostream& operator<<(std::ostream& stream, const VniExtOrNone& vni);
KEL_API std::ostream& operator<<(std::ostream& stream, const VniSourcePair& pair);

}  // namespace Vxlan

template <>
struct std::hash<Vxlan::VniExt> {
  // The value with its bits reversed, so that the low bits, in which VNIs differ, choose among the upper half
  // of a table's places.
  std::size_t operator()(const Vxlan::VniExt& vni) const noexcept {
    std::uint32_t bits = vni.value();
    bits = (bits & 0x55555555) << 1 | (bits >> 1 & 0x55555555);
    bits = (bits & 0x33333333) << 2 | (bits >> 2 & 0x33333333);
    bits = (bits & 0x0f0f0f0f) << 4 | (bits >> 4 & 0x0f0f0f0f);
    return __builtin_bswap32(bits);
  }
};
template <>
struct std::hash<Vxlan::VniSourcePair> {
  std::size_t operator()(const Vxlan::VniSourcePair& pair) const noexcept {
    return std::size_t{pair.vni.value()} << 8 | static_cast<std::size_t>(pair.source);
  }
};
