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
  // Until the first call, and where the counter cannot be used, every call is a slow one: the limit is zero.
  double now() {
    const std::uint64_t ticks = __rdtsc() - anchor_.counter;
    if (ticks >= limit_) [[unlikely]] {
      return slow();
    }
    last_ = std::max(last_, anchor_.time + static_cast<double>(static_cast<std::int64_t>(ticks)) * rate_);
    return last_;
  }

 private:
  struct Reading {
    std::uint64_t counter = 0;
    double time = 0;
  };
  [[gnu::noinline, gnu::cold]] double slow() {
    if (!begun_) {
      begun_ = true;
      if (invariantCounter()) {
        calibrate();
      }
    } else if (rate_ != 0) {
      tie();
    }
    limit_ = rate_ != 0 ? static_cast<std::uint64_t>(1.0 / rate_) : 0;  // a second
    last_ = std::max(last_, rate_ != 0 ? anchor_.time : monotonicClock());
    return last_;
  }
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

  bool begun_ = false;
  std::uint64_t limit_ = 0;  // of the counter, behind the anchor: then a new one is taken
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

constinit Machine machine;

TimeSource* replacement = nullptr;

}  // namespace

double System::currentTime() {
  return replacement != nullptr ? replacement->now() : machine.now();
}

double System::loopTime() {
  return replacement != nullptr ? replacement->peek() : machine.now();
}

void System::timeSourceIs(TimeSource* source) noexcept {
  replacement = source;
}

}  // namespace Kel
