// The cost of a record, on and off, beside the bare minimum: a copy of the same bytes into a ring, without a
// time, a site or a level, and the same with the time-stamp counter read.

#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "RingLog/RingLog.h"

namespace {

using RingLog::Log;

constexpr std::size_t ringBytes = std::size_t{33} * 1024;

std::unique_ptr<Log> openLog() {
  return Log::open("Bench.rl");
}

// Like the handlers of a program: functions of their own, with the log behind a global.
std::unique_ptr<Log> handle = openLog();

[[gnu::noinline]] void enter() {
  RINGLOG(*handle, 8);
}

[[gnu::noinline]] void twoNumbers(std::uint64_t a, std::uint64_t b) {
  RINGLOG(*handle, 8, "a ", a, " b ", b);
}

// A record of 32 bytes.
[[gnu::noinline]] void threeNumbers(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  RINGLOG(*handle, 8, "a ", a, " b ", b, " c ", c);
}

// The same place, for the figures of a log that is off.
[[gnu::noinline]] void threeNumbersOff(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  RINGLOG(*handle, 8, "a ", a, " b ", b, " c ", c);
}

[[gnu::noinline]] void text(std::string_view name) {
  RINGLOG(*handle, 8, "interface ", name);
}

struct BareRing {
  std::vector<std::byte> bytes = std::vector<std::byte>(ringBytes);
  std::size_t at = 0;

  void copy(const void* record, std::size_t size) {
    if (at + size > bytes.size()) {
      at = 0;
    }
    std::memcpy(bytes.data() + at, record, size);
    at += size;
  }
};
BareRing bare;

[[gnu::noinline]] void copyThreeNumbers(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  const std::array<std::uint64_t, 4> record{0, a, b, c};
  bare.copy(record.data(), sizeof record);
}

[[gnu::noinline]] void copyThreeNumbersAndTime(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  const std::array<std::uint64_t, 4> record{RingLog::detail::ticks().whole(), a, b, c};
  bare.copy(record.data(), sizeof record);
}

// Runs `call(i)` once an iteration.
template <class Call>
void measure(benchmark::State& state, Call call) {
  std::uint64_t i = 0;
  for ([[maybe_unused]] auto step : state) {
    call(++i);
    benchmark::ClobberMemory();
  }
}

void bareCopy(benchmark::State& state) {
  measure(state, [](std::uint64_t i) { copyThreeNumbers(i, i, i); });
}
void bareCopyWithTime(benchmark::State& state) {
  measure(state, [](std::uint64_t i) { copyThreeNumbersAndTime(i, i, i); });
}
void recordOfNoArguments(benchmark::State& state) {
  measure(state, [](std::uint64_t) { enter(); });
}
void recordOfTwoNumbers(benchmark::State& state) {
  measure(state, [](std::uint64_t i) { twoNumbers(i, i); });
}
void recordOfThreeNumbers(benchmark::State& state) {
  measure(state, [](std::uint64_t i) { threeNumbers(i, i, i); });
}
void recordOfText(benchmark::State& state) {
  measure(state, [](std::uint64_t) { text("Ethernet1/1"); });
}
void recordOff(benchmark::State& state) {
  handle->onIs(false);
  measure(state, [](std::uint64_t i) { threeNumbersOff(i, i, i); });
  handle->onIs(true);
}

BENCHMARK(bareCopy);
BENCHMARK(bareCopyWithTime);
BENCHMARK(recordOfNoArguments);
BENCHMARK(recordOfTwoNumbers);
BENCHMARK(recordOfThreeNumbers);
BENCHMARK(recordOfText);
BENCHMARK(recordOff);

// Calls of one function, for an instruction counter to divide by.
template <class Call>
void repeat(unsigned calls, Call call) {
  for (unsigned i = 0; i < calls; ++i) {
    call(i);
  }
}

// Takes `flag` out of the arguments; whether it was there.
bool take(int& argc, char** argv, std::string_view flag) {
  int kept = 0;
  bool found = false;
  for (int i = 0; i < argc; ++i) {
    if (argv[i] == flag) {
      found = true;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  return found;
}

}  // namespace

// --tiny: the run as a test; the shortest measuring time makes it so. --count: no benchmark but 100,000 calls
// of each function, for `valgrind --tool=callgrind`, which then shows instructions by function.
int main(int argc, char** argv) {
  take(argc, argv, "--tiny");
  if (take(argc, argv, "--count")) {
    constexpr unsigned calls = 100'000;
    repeat(calls, [](unsigned i) { copyThreeNumbers(i, i, i); });
    repeat(calls, [](unsigned i) { copyThreeNumbersAndTime(i, i, i); });
    repeat(calls, [](unsigned) { enter(); });
    repeat(calls, [](unsigned i) { twoNumbers(i, i); });
    repeat(calls, [](unsigned i) { threeNumbers(i, i, i); });
    handle->onIs(false);
    repeat(calls, [](unsigned i) { threeNumbersOff(i, i, i); });
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
