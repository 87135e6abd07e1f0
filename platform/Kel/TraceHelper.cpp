#include "Kel/TraceHelper.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Kel {
namespace {

constexpr std::uint32_t allLevels = 0x3ff;

struct Setting {
  std::string facility;
  std::uint32_t levels;
};

struct Tracing {
  std::vector<TraceFacility*> facilities;
  std::vector<Setting> settings;
  std::function<void(std::string_view)> sink;
};

[[noreturn]] void refuse(std::string_view setting, std::size_t at, const char* reason) {
  throw std::invalid_argument("trace setting \"" + std::string(setting) + "\", at character " +
                              std::to_string(at + 1) + ": " + reason);
}

// "8", "6-7" or "*", from `at` on; moves `at` past it.
std::uint32_t parseLevels(std::string_view setting, std::size_t& at) {
  if (at < setting.size() && setting[at] == '*') {
    ++at;
    return allLevels;
  }
  const auto digit = [&] {
    if (at >= setting.size() || setting[at] < '0' || setting[at] > '9') {
      refuse(setting, at, "a level from 0 to 9 was expected");
    }
    return static_cast<unsigned>(setting[at++] - '0');
  };
  const std::size_t start = at;
  const unsigned low = digit();
  unsigned high = low;
  if (at < setting.size() && setting[at] == '-') {
    ++at;
    high = digit();
  }
  if (high < low) {
    refuse(setting, start, "a range of levels runs upwards");
  }
  return (allLevels >> (9 - high)) & ~((1U << low) - 1);
}

std::vector<Setting> parse(std::string_view setting) {
  std::vector<Setting> settings;
  for (std::size_t at = 0; at < setting.size();) {
    const std::size_t equals = setting.find('=', at);
    if (equals == std::string_view::npos || equals == at) {
      refuse(setting, at, "FACILITY=LEVELS was expected");
    }
    Setting one{std::string(setting.substr(at, equals - at)), 0};
    at = equals;
    do {
      ++at;
      one.levels |= parseLevels(setting, at);
    } while (at < setting.size() && setting[at] == ',');
    if (at < setting.size() && setting[at++] != ';') {
      refuse(setting, at - 1, "a comma or a semicolon was expected");
    }
    settings.push_back(std::move(one));
  }
  return settings;
}

Tracing& tracing() {
  static auto* instance = [] {
    auto* fresh = new Tracing;
    if (const char* setting = std::getenv("KEL_TRACE")) {
      try {
        fresh->settings = parse(setting);
      } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "KEL_TRACE is ignored: %s\n", error.what());
      }
    }
    return fresh;
  }();
  return *instance;
}

std::uint32_t levelsOf(std::string_view facility) {
  std::uint32_t levels = 0;
  for (const Setting& setting : tracing().settings) {
    if (setting.facility == facility || setting.facility == "*") {
      levels |= setting.levels;
    }
  }
  return levels;
}

}  // namespace

TraceFacility::TraceFacility(const char* name) : name_(name), levels_(levelsOf(name)) {
  tracing().facilities.push_back(this);
}

void traceLevelsIs(std::string_view setting) {
  tracing().settings = parse(setting);
  for (TraceFacility* facility : tracing().facilities) {
    facility->levels_ = levelsOf(facility->name());
  }
}

void traceSinkIs(std::function<void(std::string_view)> sink) {
  tracing().sink = std::move(sink);
}

TraceHelper::TraceHelper(const TraceFacility&, unsigned) : line_(std::make_unique<std::ostringstream>()) {}

void TraceHelper::write() const {
  const std::string line = line_->str();
  if (tracing().sink) {
    tracing().sink(line);
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace Kel
