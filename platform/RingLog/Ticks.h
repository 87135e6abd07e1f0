#pragma once

#include <cstdint>
#include <ctime>

namespace RingLog::detail {

// A cheap, ever-rising counter in two halves: the time-stamp counter where the machine has one, otherwise the
// nanoseconds of CLOCK_MONOTONIC. The length of a tick is found by comparing with the clock (see Moment).
struct Ticks {
  std::uint64_t low;  // below 2^32; as wide as the register it comes in, which saves an instruction
  std::uint32_t high;
  std::uint64_t whole() const { return std::uint64_t{high} << 32 | low; }
};

// CLOCK_MONOTONIC or another clock in nanoseconds.
inline std::int64_t nanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

[[gnu::always_inline]] inline Ticks ticks() {
#if defined(__x86_64__) && !defined(RINGLOG_PORTABLE_TICKS)
  Ticks now;  // the two halves apart, as the instruction gives them: the caller joins them where it needs to
  asm volatile("rdtsc" : "=a"(now.low), "=d"(now.high));
  return now;
#else
  const auto now = static_cast<std::uint64_t>(nanoseconds(CLOCK_MONOTONIC));
  return {now & 0xffffffff, static_cast<std::uint32_t>(now >> 32)};
#endif
}

// The counter and the clock at one moment.
struct Moment {
  std::uint64_t ticks;
  std::int64_t monotonic;
};
Moment moment();

// Ticks in a second, measured once per process over a fraction of a millisecond. A trace of any length is
// calibrated better by the moments that its blocks carry.
std::uint64_t ticksPerSecond();

}  // namespace RingLog::detail
