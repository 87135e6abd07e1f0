#include "Kel/System.h"

#include <algorithm>
#include <cstdint>
#include <ctime>

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

// The time-stamp counter, tied to the monotonic clock: at least once a second the pair (counter, time) is
// read anew and the rate is measured over all the time since the start, so that the error of the first short
// measurement dies out.
class Machine {
 public:
  Machine() : usable_(invariantCounter()) {
    if (usable_) {
      start_ = anchor_ = read();
      while (anchor_.time - start_.time < 200e-6) {
        anchor_ = read();
      }
      rate_ = (anchor_.time - start_.time) / static_cast<double>(anchor_.counter - start_.counter);
    }
  }

  double now() {
    if (!usable_) {
      return monotonicClock();
    }
    double time = anchor_.time + static_cast<double>(__rdtsc() - anchor_.counter) * rate_;
    if (time - anchor_.time > 1.0) [[unlikely]] {
      anchor_ = read();
      rate_ = (anchor_.time - start_.time) / static_cast<double>(anchor_.counter - start_.counter);
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
  static bool invariantCounter() {
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) != 0 && (d & (1U << 8)) != 0;
  }

  bool usable_;
  Reading start_;
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
