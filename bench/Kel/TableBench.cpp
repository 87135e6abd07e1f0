// The tables under the collections, beside the standard containers: a pass over all keys in an order without
// pattern, and the longest single operation, which is what holds up a loop.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "Kel/OrderedTable.h"
#include "Kel/Table.h"
#include "Size.h"

namespace {

using Key = std::uint64_t;
// As large as what is kept of a host.
struct Value {
  std::array<std::uint64_t, 5> words;
};

// The same four operations on each container.
template <class Map>
struct Standard {
  Map map;
  void insert(Key key) { map.try_emplace(key, Value{{key}}); }
  std::uint64_t lookup(Key key) const { return map.find(key)->second.words[0]; }
  void erase(Key key) { map.erase(key); }
  std::uint64_t walk() const {
    std::uint64_t sum = 0;
    for (const auto& pair : map) {
      sum += pair.second.words[0];
    }
    return sum;
  }
};
template <template <class, class> class Storage>
struct Framework {
  Storage<Key, Value> table;
  void insert(Key key) { table.emplace(key, Value{{key}}); }
  std::uint64_t lookup(Key key) const { return table.find(key)->words[0]; }
  void erase(Key key) { table.erase(key); }
  std::uint64_t walk() const {
    std::uint64_t sum = 0;
    for (auto&& pair : table) {
      sum += pair.value.words[0];
    }
    return sum;
  }
};
using Hashed = Framework<Kel::Table>;
using Ordered = Framework<Kel::OrderedTable>;
using StandardHashed = Standard<std::unordered_map<Key, Value>>;
using StandardOrdered = Standard<std::map<Key, Value>>;

// Keys like a MAC address above a VLAN: an odd factor modulo 2^48 makes them differ and takes the pattern
// away.
Key keyOf(std::uint32_t number) {
  return (number * 0x9e3779b97f4bULL & 0xffff'ffff'ffffULL) << 16 | (number % 4'094 + 1);
}
// A large table, or one that fits into the cache.
std::uint32_t entries(const benchmark::State& state) {
  return state.range(0) == 0 ? 1'000 : largeTable();
}
// The numbers below `count` in an order without pattern (count and step have no common factor).
std::uint32_t scattered(std::uint32_t number, std::uint32_t count) {
  return static_cast<std::uint32_t>(number * std::uint64_t{382'939} % count);
}

template <class Container>
void fill(Container& container, std::uint32_t count) {
  for (std::uint32_t number = 0; number < count; ++number) {
    container.insert(keyOf(number));
  }
}

template <class Container>
void insert(benchmark::State& state) {
  const std::uint32_t count = entries(state);
  for (auto _ : state) {
    state.PauseTiming();
    auto container = std::make_unique<Container>();
    state.ResumeTiming();
    fill(*container, count);
    state.PauseTiming();
    container.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}

template <class Container>
void lookup(benchmark::State& state) {
  const std::uint32_t count = entries(state);
  Container container;
  fill(container, count);
  std::uint64_t sum = 0;
  for (auto _ : state) {
    for (std::uint32_t number = 0; number < count; ++number) {
      sum += container.lookup(keyOf(scattered(number, count)));
    }
  }
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["checksum"] = static_cast<double>(sum % 1'000'003);
}

template <class Container>
void erase(benchmark::State& state) {
  const std::uint32_t count = entries(state);
  for (auto _ : state) {
    state.PauseTiming();
    auto container = std::make_unique<Container>();
    fill(*container, count);
    state.ResumeTiming();
    for (std::uint32_t number = 0; number < count; ++number) {
      container->erase(keyOf(scattered(number, count)));
    }
    state.PauseTiming();
    container.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}

template <class Container>
void walk(benchmark::State& state) {
  const std::uint32_t count = entries(state);
  Container container;
  fill(container, count);
  std::uint64_t sum = 0;
  for (auto _ : state) {
    sum += container.walk();
  }
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["checksum"] = static_cast<double>(sum % 1'000'003);
}

// The processor time of this thread: what other programs take meanwhile does not count.
double threadTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}
template <class Function>
double timed(Function&& function) {
  const double start = threadTime();
  function();
  return threadTime() - start;
}

// The longest single insertion while the table grows from nothing, the longest single erasure while it
// shrinks to nothing, and the longest of some allocations of 1 KiB and more right after that. Milliseconds;
// the least of all rounds, because what disturbs only makes it longer.
template <class Container>
void longest(benchmark::State& state) {
  const std::uint32_t count = entries(state);
  std::array<double, 3> least{1e9, 1e9, 1e9};
  for (auto _ : state) {
    std::array<double, 3> most{};
    Container container;
    for (std::uint32_t number = 0; number < count; ++number) {
      most[0] = std::max(most[0], timed([&] { container.insert(keyOf(number)); }));
    }
    for (std::uint32_t number = 0; number < count; ++number) {
      most[1] = std::max(most[1], timed([&] { container.erase(keyOf(scattered(number, count))); }));
    }
    for (std::size_t bytes = 1'024; bytes <= 1'048'576; bytes *= 2) {
      void* memory = nullptr;
      most[2] = std::max(most[2], timed([&] { benchmark::DoNotOptimize(memory = std::malloc(bytes)); }));
      std::free(memory);
    }
    for (std::size_t at = 0; at < least.size(); ++at) {
      least[at] = std::min(least[at], most[at]);
    }
  }
  state.counters["insert_ms"] = least[0] * 1e3;
  state.counters["erase_ms"] = least[1] * 1e3;
  state.counters["alloc_ms"] = least[2] * 1e3;
}

BENCHMARK(insert<Hashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(insert<StandardHashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(insert<Ordered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(insert<StandardOrdered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(lookup<Hashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(lookup<StandardHashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(lookup<Ordered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(lookup<StandardOrdered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(erase<Hashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(erase<StandardHashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(erase<Ordered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(erase<StandardOrdered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(walk<Hashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(walk<StandardHashed>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(walk<Ordered>)->ArgName("large")->Arg(0)->Arg(1);
BENCHMARK(walk<StandardOrdered>)->ArgName("large")->Arg(0)->Arg(1);

BENCHMARK(longest<Hashed>)->ArgName("large")->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(longest<StandardHashed>)->ArgName("large")->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
