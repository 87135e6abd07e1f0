// A copy of a pointer, plain and atomic, beside the standard's.
#include <benchmark/benchmark.h>

#include <memory>

#include "Kel/Name.h"
#include "Kel/Ptr.h"

namespace {

struct Object final : Kel::Referenced {
  virtual ~Object() = default;
};

void ptrCopy(benchmark::State& state) {
  Kel::threadSafePointersIs(state.range(0) != 0);
  const Kel::Ptr<Object> pointer = Kel::make<Object>();
  for (auto _ : state) {
    const Kel::Ptr<Object> copy = pointer;  // NOLINT(performance-unnecessary-copy-initialization)
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
  Kel::threadSafePointersIs(false);
}
BENCHMARK(ptrCopy)->ArgName("atomic")->Arg(0)->Arg(1);

// Not atomic either in a program without threads.
void standardSharedPointerCopy(benchmark::State& state) {
  const auto pointer = std::make_shared<int>(1);
  for (auto _ : state) {
    const std::shared_ptr<int> copy = pointer;  // NOLINT(performance-unnecessary-copy-initialization)
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(standardSharedPointerCopy);

void nameOfKnownText(benchmark::State& state) {
  const std::string text = "Vxlan1 of a leaf switch with a long name";
  const Kel::Name first(text);
  for (auto _ : state) {
    const Kel::Name name(text);
    benchmark::DoNotOptimize(&name.text());
  }
}
BENCHMARK(nameOfKnownText);

}  // namespace
