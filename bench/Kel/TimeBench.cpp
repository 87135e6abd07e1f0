// Reading the time.
#include <benchmark/benchmark.h>

#include <ctime>

#include "Kel/System.h"

namespace {

void currentTime(benchmark::State& state) {
  double sum = 0;
  for (auto _ : state) {
    sum += Kel::System::currentTime();
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(currentTime);

void monotonicClock(benchmark::State& state) {
  double sum = 0;
  for (auto _ : state) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    sum += static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(monotonicClock);

}  // namespace
