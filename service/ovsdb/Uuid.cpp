#include "service/ovsdb/Uuid.h"

namespace Ovsdb {

namespace {

constexpr std::size_t textLength = 36;

int nibble(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  const char lower = static_cast<char>(digit | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

constexpr bool dashAt(std::size_t place) {
  return place == 8 || place == 13 || place == 18 || place == 23;
}

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != textLength) {
    return std::nullopt;
  }
  Uuid uuid;
  int digits = 0;
  for (std::size_t place = 0; place < textLength; ++place) {
    if (dashAt(place)) {
      if (text[place] != '-') {
        return std::nullopt;
      }
      continue;
    }
    const int value = nibble(text[place]);
    if (value < 0) {
      return std::nullopt;
    }
    std::uint64_t& half = digits < 16 ? uuid.high : uuid.low;
    half = half << 4 | static_cast<std::uint64_t>(value);
    ++digits;
  }
  return uuid;
}

std::string Uuid::text() const {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out(textLength, '-');
  int shift = 60;
  for (std::size_t place = 0; place < textLength; ++place) {
    if (dashAt(place)) {
      continue;
    }
    const std::uint64_t half = place < 18 ? high : low;
    out[place] = digits[half >> shift & 0xf];
    shift = shift == 0 ? 60 : shift - 4;
  }
  return out;
}

}  // namespace Ovsdb
