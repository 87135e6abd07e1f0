#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "RingLog/Format.h"

namespace RingLog {

// The type of a piece of a message, as the site table stores it.
enum class Kind : std::uint8_t {
  Literal = 1,  // fixed text: lies in the site table, takes no room in a record
  Bool,
  Char,
  U8,
  U16,
  U32,
  U64,
  S8,
  S16,
  S32,
  S64,
  Double,
  Pointer,
  Text,  // one byte of length, then the bytes
  Mac,
  Ipv4,
};

// A MAC address in a record: six bytes in the order in which they are written.
struct Mac {
  std::array<std::uint8_t, 6> bytes{};
};

// An IPv4 address in a record: four bytes in the order in which they are written.
struct Ipv4 {
  std::array<std::uint8_t, 4> bytes{};
};

// An address in the memory of the traced process.
struct Pointer {
  std::uintptr_t value = 0;
};

// How a value of type T becomes an argument of a record: the customisation point. A specialisation has one
// static function `from(const T&)` that returns what is to be stored: bool, char, an integer, double,
// Pointer, Mac, Ipv4, or std::string_view (cut at Format::maxTextBytes; it must live until the record is
// written). It runs only while the log is on, perhaps twice for a record, and must not throw.
//
//     template <>
//     struct RingLog::Argument<Qnet::EthAddr> {
//       static RingLog::Mac from(const Qnet::EthAddr& mac) { return {mac.bytes()}; }
//     };
template <class T, class Enable = void>
struct Argument;

// bool, char and the integers store themselves.
template <class T>
struct Argument<T, std::enable_if_t<std::is_integral_v<T>>> {
  static constexpr T from(T value) { return value; }
};

// An enumeration counts as its integer.
template <class T>
struct Argument<T, std::enable_if_t<std::is_enum_v<T>>> {
  static constexpr auto from(T value) { return static_cast<std::underlying_type_t<T>>(value); }
};

template <class T>
struct Argument<T, std::enable_if_t<std::is_floating_point_v<T>>> {
  static constexpr double from(T value) { return static_cast<double>(value); }
};

// A pointer that is not to text.
template <class T>
struct Argument<T*, std::enable_if_t<!std::is_same_v<std::remove_cv_t<T>, char>>> {
  static Pointer from(const volatile T* value) { return {reinterpret_cast<std::uintptr_t>(value)}; }
};

template <>
struct Argument<std::nullptr_t> {
  static Pointer from(std::nullptr_t) { return {}; }
};

// Text that ends in a zero byte; null is recorded as "(null)". No byte behind the cut is read.
template <class T>
struct Argument<T*, std::enable_if_t<std::is_same_v<std::remove_cv_t<T>, char>>> {
  static std::string_view from(const char* text) {
    return text == nullptr ? std::string_view("(null)")
                           : std::string_view(text, strnlen(text, Format::maxTextBytes));
  }
};

// A buffer of characters: text up to its first zero byte or its end.
template <std::size_t n>
struct Argument<char[n]> {
  static std::string_view from(const char (&text)[n]) { return {text, strnlen(text, n)}; }
};

template <>
struct Argument<std::string_view> {
  static std::string_view from(std::string_view text) { return text; }
};

template <>
struct Argument<std::string> {
  static std::string_view from(const std::string& text) { return text; }
};

template <>
struct Argument<Mac> {
  static Mac from(const Mac& mac) { return mac; }
};

template <>
struct Argument<Ipv4> {
  static Ipv4 from(const Ipv4& address) { return address; }
};

template <>
struct Argument<Pointer> {
  static Pointer from(const Pointer& pointer) { return pointer; }
};

// The inside of Log::record(): how pieces become bytes.
namespace detail {

struct Nothing {};  // what a piece of fixed text stores in a record

template <class Piece>
inline constexpr bool isLiteral = false;
template <std::size_t n>
inline constexpr bool isLiteral<const char (&)[n]> = true;  // a buffer that can be written is an argument

template <class Stored>
constexpr Kind kindOf() {
  if constexpr (std::is_same_v<Stored, Nothing>) {
    return Kind::Literal;
  } else if constexpr (std::is_same_v<Stored, bool>) {
    return Kind::Bool;
  } else if constexpr (std::is_same_v<Stored, char>) {
    return Kind::Char;
  } else if constexpr (std::is_integral_v<Stored>) {
    constexpr Kind first = std::is_signed_v<Stored> ? Kind::S8 : Kind::U8;
    constexpr unsigned power = sizeof(Stored) == 1   ? 0
                               : sizeof(Stored) == 2 ? 1
                               : sizeof(Stored) == 4 ? 2
                                                     : 3;
    static_assert(sizeof(Stored) == 1U << power, "RingLog stores integers of up to 64 bits");
    return static_cast<Kind>(static_cast<unsigned>(first) + power);
  } else if constexpr (std::is_same_v<Stored, double>) {
    return Kind::Double;
  } else if constexpr (std::is_same_v<Stored, Pointer>) {
    return Kind::Pointer;
  } else if constexpr (std::is_same_v<Stored, Mac>) {
    return Kind::Mac;
  } else if constexpr (std::is_same_v<Stored, Ipv4>) {
    return Kind::Ipv4;
  } else {
    static_assert(std::is_same_v<Stored, std::string_view>,
                  "RingLog::Argument<T>::from() must return a type that a record can store");
    return Kind::Text;
  }
}

// The value that `piece` stores in a record.
template <class Piece>
[[gnu::always_inline]] inline auto stored(const std::remove_reference_t<Piece>& piece) {
  if constexpr (isLiteral<Piece>) {
    static_cast<void>(piece);
    return Nothing{};
  } else {
    return Argument<std::remove_cv_t<std::remove_reference_t<Piece>>>::from(piece);
  }
}

template <class Piece>
inline constexpr Kind kindOfPiece =
    kindOf<decltype(stored<Piece>(std::declval<const std::remove_reference_t<Piece>&>()))>();

// A piece as it is handed on by value: fixed text as itself, an argument as what it stores.
template <class Piece>
[[gnu::always_inline]] inline auto passed(const std::remove_reference_t<Piece>& piece) {
  if constexpr (isLiteral<Piece>) {
    return static_cast<const char*>(piece);
  } else {
    return stored<Piece>(piece);
  }
}
template <class Piece>
using Passed = decltype(passed<Piece>(std::declval<const std::remove_reference_t<Piece>&>()));

inline const char* literal(const char* text) {
  return text;
}
template <class Stored>
const char* literal(const Stored&) {
  return nullptr;
}

inline Nothing storedOf(const char*) {
  return {};
}
template <class Stored>
Stored storedOf(const Stored& value) {
  return value;
}

// Bytes that a value takes in a record, and the most that it can.
template <class Stored>
[[gnu::always_inline]] constexpr std::size_t storedBytes(const Stored& value) {
  if constexpr (std::is_same_v<Stored, Nothing>) {
    return 0;
  } else if constexpr (std::is_same_v<Stored, std::string_view>) {
    return 1 + (value.size() < Format::maxTextBytes ? value.size() : Format::maxTextBytes);
  } else {
    return sizeof(Stored);
  }
}

template <class Stored>
inline constexpr std::size_t mostStoredBytes = std::is_same_v<Stored, Nothing> ? 0
                                               : std::is_same_v<Stored, std::string_view>
                                                   ? 1 + Format::maxTextBytes
                                                   : sizeof(Stored);

// Writes a value at `at` and returns where the next one goes.
template <class Stored>
[[gnu::always_inline]] inline std::byte* store(std::byte* at, const Stored& value) {
  if constexpr (std::is_same_v<Stored, Nothing>) {
    return at;
  } else if constexpr (std::is_same_v<Stored, std::string_view>) {
    const std::size_t size = storedBytes(value) - 1;
    *at = static_cast<std::byte>(size);
    if (size != 0) {  // the data of an empty view may be null
      std::memcpy(at + 1, value.data(), size);
    }
    return at + 1 + size;
  } else {
    std::memcpy(at, &value, sizeof value);
    return at + sizeof value;
  }
}

// The bytes of a record with these arguments, a multiple of wordBytes.
constexpr std::size_t recordBytes(std::size_t arguments) {
  return (Format::wordBytes + arguments + Format::wordBytes - 1) / Format::wordBytes * Format::wordBytes;
}

}  // namespace detail
}  // namespace RingLog
