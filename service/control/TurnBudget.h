#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

namespace Control {

// The share of all clients together in a turn of the loop: a number of items (a request, a record that is
// read, a step of a walk) and a time. A step that has begun may go beyond it, by one instant at most.
class TurnBudget {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    std::size_t items = 2'000;
    std::chrono::nanoseconds time = std::chrono::milliseconds{4};
    // Of the first piece of an answer: what fits into it is one instant.
    std::size_t instant = 5'000;
    std::chrono::nanoseconds instantTime = std::chrono::milliseconds{5};
  };

  TurnBudget(const Limits& limits, std::function<Clock::time_point()> now)
      : limits_(limits), now_(std::move(now)) {}

  // Whether something may begin in this turn.
  bool left() {
    if (used_ >= limits_.items) {
      return false;
    }
    const Clock::time_point now = now_();
    if (!began_) {
      began_ = now;
    }
    return now - *began_ < limits_.time;
  }
  // How many items may begin.
  std::size_t items() const { return used_ < limits_.items ? limits_.items - used_ : 0; }
  std::size_t instant() const { return limits_.instant; }
  // Counts a piece of up to `most` items, which `some(most)` does: how many it has done, fewer at its end. It
  // is done in parts, and ends early where it takes longer than an instant may.
  template <typename Some>
  void piece(std::size_t most, const Some& some) {
    const Clock::time_point began = now_();
    for (std::size_t done = 0; done < most && now_() - began < limits_.instantTime;) {
      const std::size_t asked = std::min(most - done, atOnce);
      const std::size_t used = some(asked);
      use(used);
      done += used;
      if (used < asked) {
        return;
      }
    }
  }
  void use(std::size_t items) {
    used_ += items;
    most_ = std::max(most_, used_);
  }
  // A turn has ended.
  void renew() {
    used_ = 0;
    began_.reset();
  }
  // The most items that a turn has had.
  std::size_t most() const { return most_; }

 private:
  static constexpr std::size_t atOnce = 256;  // items, before a piece looks at the time

  Limits limits_;
  std::function<Clock::time_point()> now_;
  std::optional<Clock::time_point> began_;
  std::size_t used_ = 0;
  std::size_t most_ = 0;
};

}  // namespace Control
