// Numbers from text, strictly.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Qnet {

// The number that the whole text is: decimal digits without a sign or leading zeros, at most `max`; nothing
// otherwise.
inline std::optional<std::uint32_t> parseDecimal(std::string_view text, std::uint32_t max) {
  if (text.empty() || (text.size() > 1 && text.front() == '0')) {
    return std::nullopt;
  }
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > max) {
    return std::nullopt;
  }
  return value;
}

}  // namespace Qnet
