// What went wrong and is remembered, for whoever asks the agent for its problems.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "agent/daemon/Log.h"

namespace Agent {

// Problems and contained errors of the agent. Each distinct one is logged and kept once; the oldest go when
// there are `mostKept`.
class Incidents {
 public:
  static constexpr std::size_t mostKept = 200;

  // `log` outlives this.
  explicit Incidents(Log& log) : log_(log) {}

  // Remembers a problem: its kind, such as "recording"; the file, table or place; and a text for the
  // operator.
  void note(const std::string& kind, const std::string& where, const std::string& text);
  // Remembers an exception that was contained at a place such as "a patch".
  void error(std::string_view where, std::string_view what);
  // Runs `work` to its end, and delivers what it caused. An exception is remembered as an error and the rest
  // is delivered all the same.
  void guarded(const char* what, const std::function<void()>& work);

  // Objects of kind, where and text, the oldest first.
  const std::deque<nlohmann::json>& kept() const { return kept_; }
  // Exceptions that were contained since the start.
  std::uint64_t errors() const { return errors_; }

 private:
  Log& log_;
  std::uint64_t errors_ = 0;
  std::deque<nlohmann::json> kept_;
};

}  // namespace Agent
