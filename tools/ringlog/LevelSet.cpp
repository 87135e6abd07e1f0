#include "LevelSet.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>
#include <string_view>

namespace {

constexpr unsigned last = RingLog::Format::maxLevels - 1;

unsigned number(std::string_view text, std::string_view whole) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > last) {
    throw std::invalid_argument(fmt::format(
        "\"{}\" in \"{}\" is not a level of 0 to {}; levels are given as 8, or 0-3,8", text, whole, last));
  }
  return value;
}

}  // namespace

LevelSet LevelSet::parse(const std::string& text) {
  LevelSet levels;
  levels.wanted_.reset();
  std::string_view rest = text;
  for (bool more = true; more;) {
    const std::size_t comma = rest.find(',');
    more = comma != std::string_view::npos;
    const std::string_view part = rest.substr(0, comma);
    rest = more ? rest.substr(comma + 1) : std::string_view();
    const std::size_t dash = part.find('-');
    const unsigned from = number(part.substr(0, dash), text);
    const unsigned to = dash == std::string_view::npos ? from : number(part.substr(dash + 1), text);
    if (from > to) {
      throw std::invalid_argument(
          fmt::format("\"{}\" in \"{}\" is a range that ends before it begins", part, text));
    }
    for (unsigned level = from; level <= to; ++level) {
      levels.wanted_.set(level);
    }
  }
  return levels;
}
