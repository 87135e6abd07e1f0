#include "tools/vxlanctl/TraceText.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <ostream>
#include <set>
#include <stdexcept>
#include <vector>

#include "RingLog/Reader.h"
#include "tools/vxlanctl/Request.h"
#include "tools/vxlanctl/Sheet.h"

namespace Vxlanctl {

namespace {

constexpr unsigned mostLevels = 64;

unsigned levelOf(std::string_view text, const std::string& all) {
  unsigned level = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
  if (error != std::errc() || end != text.data() + text.size() || level >= mostLevels) {
    throw std::invalid_argument("levels \"" + all + "\": want numbers and ranges such as 8 or 0-3,8");
  }
  return level;
}

// "0-3,8" as a set; an empty text is every level.
std::set<unsigned> levelsOf(const std::string& text) {
  std::set<unsigned> levels;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::string_view part = std::string_view(text).substr(begin, end - begin);
    const std::size_t dash = part.find('-');
    const unsigned first = levelOf(part.substr(0, dash), text);
    const unsigned last = dash == std::string_view::npos ? first : levelOf(part.substr(dash + 1), text);
    for (unsigned level = first; level <= last; ++level) {
      levels.insert(level);
    }
    begin = end + 1;
  }
  return levels;
}

}  // namespace

std::string traceTime(std::int64_t nanoseconds) {
  constexpr std::int64_t second = 1'000'000'000;
  const std::chrono::sys_seconds whole{
      std::chrono::seconds{nanoseconds / second - (nanoseconds % second < 0 ? 1 : 0)}};
  const std::int64_t rest = nanoseconds - std::chrono::nanoseconds{whole.time_since_epoch()}.count();
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(whole)),
                     rest / 1000);
}

std::uint64_t printTrace(const Request& request, std::ostream& out) {
  const std::set<unsigned> levels = levelsOf(request.levels);
  const RingLog::Trace trace = RingLog::Trace::read(request.file);
  std::vector<std::string> lines;
  for (const RingLog::Record& record : trace.records()) {
    if (!levels.empty() && !levels.contains(record.place->level)) {
      continue;
    }
    const std::string message = cellText(record.message());
    if (message.find(request.grep) == std::string::npos) {
      continue;
    }
    lines.push_back(fmt::format("{}  {}  {}\n", traceTime(record.time), record.place->level, message));
  }
  const std::size_t skipped = request.last == 0 || request.last >= lines.size()
                                  ? 0
                                  : lines.size() - static_cast<std::size_t>(request.last);
  for (std::size_t i = skipped; i < lines.size(); ++i) {
    out << lines[i];
  }
  return lines.size() - skipped;
}

}  // namespace Vxlanctl
