// Addresses and interface names.
#pragma once

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "Kel/Export.h"
#include "Kel/Name.h"

namespace Qnet {

// A 48-bit MAC address; the default is all zero. Ordered byte by byte.
class EthAddr {
 public:
  using Bytes = std::array<std::uint8_t, 6>;

  constexpr EthAddr() = default;
  constexpr explicit EthAddr(const Bytes& bytes) : bytes_(bytes) {}
  // From the lower 48 bits of a number.
  constexpr explicit EthAddr(std::uint64_t value)
      : bytes_{static_cast<std::uint8_t>(value >> 40), static_cast<std::uint8_t>(value >> 32),
               static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
               static_cast<std::uint8_t>(value >> 8),  static_cast<std::uint8_t>(value)} {}
  // From "02:00:00:00:00:01", upper or lower case, the whole text; nothing if it is not of this form.
  KEL_API static std::optional<EthAddr> parse(std::string_view text);

  constexpr const Bytes& bytes() const noexcept { return bytes_; }
  constexpr std::uint64_t value() const noexcept {
    // Spelled out: of a loop, compilers make six steps; of this, two loads.
    const std::uint32_t high = std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 |
                               std::uint32_t{bytes_[2]} << 8 | bytes_[3];
    const auto low = static_cast<std::uint16_t>(bytes_[4] << 8 | bytes_[5]);
    return std::uint64_t{high} << 16 | low;
  }
  // In lower case with colons.
  KEL_API std::string text() const;

  constexpr bool operator==(const EthAddr& other) const noexcept {
    if (std::is_constant_evaluated()) {
      return bytes_ == other.bytes_;
    }
    // As two words: of a comparison by bytes, compilers make a call or six steps.
    return ((word<std::uint32_t>(0) ^ other.word<std::uint32_t>(0)) |
            static_cast<std::uint32_t>(word<std::uint16_t>(4) ^ other.word<std::uint16_t>(4))) == 0;
  }
  constexpr std::strong_ordering operator<=>(const EthAddr& other) const noexcept {
    return value() <=> other.value();
  }

 private:
  template <class Word>
  Word word(std::size_t at) const noexcept {
    Word word;
    std::memcpy(&word, bytes_.data() + at, sizeof word);
    return word;
  }

  Bytes bytes_{};
};

// An IPv4 address; the default is 0.0.0.0. Ordered by value.
class IpAddr {
 public:
  constexpr IpAddr() = default;
  // From a number in host byte order: 0x0a000001 is 10.0.0.1.
  constexpr explicit IpAddr(std::uint32_t value) : value_(value) {}
  // From dotted decimal, four numbers without leading zeros, the whole text; nothing if it is not of this
  // form.
  KEL_API static std::optional<IpAddr> parse(std::string_view text);

  constexpr std::uint32_t value() const noexcept { return value_; }
  KEL_API std::string text() const;

  constexpr bool operator==(const IpAddr&) const = default;
  constexpr auto operator<=>(const IpAddr&) const = default;

 private:
  std::uint32_t value_ = 0;
};

// An address of either family, as the layer-2 RIB takes them; the default is of no family. Plain bytes
// without padding: it lies in shared memory.
class IpGenAddr {
 public:
  enum class Family : std::uint32_t { None = 0, V4 = 4, V6 = 6 };

  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr address) : family_(Family::V4) {
    const std::uint32_t value = address.value();
    bytes_[0] = static_cast<std::uint8_t>(value >> 24);
    bytes_[1] = static_cast<std::uint8_t>(value >> 16 & 0xff);
    bytes_[2] = static_cast<std::uint8_t>(value >> 8 & 0xff);
    bytes_[3] = static_cast<std::uint8_t>(value & 0xff);
  }

  constexpr Family family() const noexcept { return family_; }
  // The IPv4 form; 0.0.0.0 if it is of another family.
  constexpr IpAddr v4() const noexcept {
    if (family_ != Family::V4) {
      return IpAddr();
    }
    return IpAddr(std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 |
                  std::uint32_t{bytes_[2]} << 8 | bytes_[3]);
  }
  KEL_API std::string text() const;

  constexpr bool operator==(const IpGenAddr&) const = default;
  constexpr auto operator<=>(const IpGenAddr&) const = default;

 private:
  Family family_ = Family::None;
  std::array<std::uint8_t, 16> bytes_{};
};

// The name of an interface, such as the VTI "Vxlan1"; the default is the empty name, which is no interface.
// Copied, compared for equality and hashed as a pointer; ordered by the text.
class IntfId {
 public:
  // The longest name that a host in shared memory can carry.
  static constexpr std::size_t maxLength = 23;

  IntfId() = default;
  explicit IntfId(std::string_view text) : name_(text) {}

  const std::string& text() const noexcept { return name_.text(); }
  bool empty() const noexcept { return name_.empty(); }

  bool operator==(const IntfId&) const noexcept = default;
  auto operator<=>(const IntfId&) const noexcept = default;

 private:
  friend struct std::hash<IntfId>;
  Kel::Name name_;
};

KEL_API std::ostream& operator<<(std::ostream& stream, const EthAddr& address);
KEL_API std::ostream& operator<<(std::ostream& stream, const IpAddr& address);
KEL_API std::ostream& operator<<(std::ostream& stream, const IpGenAddr& address);
KEL_API std::ostream& operator<<(std::ostream& stream, const IntfId& intf);

}  // namespace Qnet

template <>
struct std::hash<Qnet::EthAddr> {
  std::size_t operator()(const Qnet::EthAddr& address) const noexcept {
    std::uint64_t value = 0;
    std::memcpy(&value, address.bytes().data(), address.bytes().size());
    return value;
  }
};
template <>
struct std::hash<Qnet::IpAddr> {
  std::size_t operator()(const Qnet::IpAddr& address) const noexcept { return address.value(); }
};
template <>
struct std::hash<Qnet::IpGenAddr> {
  std::size_t operator()(const Qnet::IpGenAddr& address) const noexcept {
    return std::hash<std::string_view>{}({reinterpret_cast<const char*>(&address), sizeof address});
  }
};
template <>
struct std::hash<Qnet::IntfId> {
  std::size_t operator()(const Qnet::IntfId& intf) const noexcept {
    return std::hash<Kel::Name>{}(intf.name_);
  }
};
