#include "Kel/System.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <utility>

#if defined(__x86_64__)
#include <cpuid.h>
#include <x86intrin.h>
#endif

namespace Kel {
namespace {

double monotonicClock() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

#if defined(__x86_64__)

// The time-stamp counter, tied to the monotonic clock: once a second the pair (counter, time) is read again
// and the rate is measured over the time since the last one, so that the error of the first short measurement
// dies out.
class Machine {
 public:
  Machine() : usable_(invariantCounter()) {
    if (usable_) {
      calibrate();
    }
  }

  double now() {
    if (!usable_) {
      return monotonicClock();
    }
    double time = anchor_.time + static_cast<double>(__rdtsc() - anchor_.counter) * rate_;
    if (time - anchor_.time > 1.0) [[unlikely]] {
      tie();
      time = anchor_.time;
    }
    last_ = std::max(last_, time);
    return last_;
  }

 private:
  struct Reading {
    std::uint64_t counter = 0;
    double time = 0;
  };
  static Reading read() { return {__rdtsc(), monotonicClock()}; }
  static double rate(const Reading& from, const Reading& to) {
    return (to.time - from.time) / static_cast<double>(to.counter - from.counter);
  }
  // Measures the rate in 200 microseconds.
  void calibrate() {
    const Reading start = anchor_ = read();
    while (anchor_.time - start.time < 200e-6) {
      anchor_ = read();
    }
    rate_ = rate(start, anchor_);
  }
  // Takes a new anchor. Where the rate since the last one is far from what it was, one of the two clocks
  // jumped (the machine was suspended or moved), and it is measured afresh.
  void tie() {
    const Reading last = std::exchange(anchor_, read());
    const double measured = rate(last, anchor_);
    if (std::abs(measured - rate_) < 0.01 * rate_) {
      rate_ = measured;
    } else {
      calibrate();
    }
  }
  static bool invariantCounter() {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & (1U << 8)) != 0;
  }

  bool usable_;
  Reading anchor_;
  double rate_ = 0;
  double last_ = 0;
};

#else

class Machine {
 public:
  double now() { return monotonicClock(); }
};

#endif

Machine& machine() {
  static Machine instance;
  return instance;
}

TimeSource* replacement = nullptr;

}  // namespace

double System::currentTime() {
  return replacement != nullptr ? replacement->now() : machine().now();
}

double System::loopTime() {
  return replacement != nullptr ? replacement->peek() : machine().now();
}

void System::timeSourceIs(TimeSource* source) noexcept {
  replacement = source;
}

}  // namespace Kel
