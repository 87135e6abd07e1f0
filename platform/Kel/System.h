// The framework's time: monotonic seconds, replaceable for tests and replay.
#pragma once

#include "Kel/Export.h"

namespace Kel {

// Where the time comes from.
class KEL_API TimeSource {
 public:
  virtual ~TimeSource() = default;
  // The time now, in seconds; never goes back. For handlers.
  virtual double now() = 0;
  // The same without any effect of reading. For the loop and the trace.
  virtual double peek() const = 0;
};

// A clock that moves only when its time is set, and, if asked, by a fixed tick after each read of `now`,
// which makes the slicing of long work deterministic.
class KEL_API SimulatedTime final : public TimeSource {
 public:
  explicit SimulatedTime(double start = 0) : time_(start) {}
  double now() override {
    const double read = time_;
    time_ += tick_;
    return read;
  }
  double peek() const override { return time_; }

  // Moves to this time; an earlier one is ignored.
  void timeIs(double time) {
    if (time > time_) {
      time_ = time;
    }
  }
  // By how much every read of `now` moves the time on, in seconds, 0 or more.
  void tickPerReadIs(double tick) { tick_ = tick; }

 private:
  double time_;
  double tick_ = 0;
};

// The process's time.
class KEL_API System {
 public:
  // Monotonic seconds as handlers read them: from the source that was set, else from the machine's time-stamp
  // counter, calibrated against the monotonic clock (a few nanoseconds), else from the monotonic clock
  // itself.
  static double currentTime();
  // The same, read by the loop.
  static double loopTime();
  // Replaces the source; null goes back to the machine's. The source must outlive its use.
  static void timeSourceIs(TimeSource* source) noexcept;
};

}  // namespace Kel
