// What a record costs in a shared table, beside the same table in private memory and std::unordered_map. Each
// benchmark goes through all records once an iteration, in an order of its own, so that a record is cold when
// its turn comes; figures are a record's. The checksum keeps the compiler honest.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Memtab/Reader.h"
#include "Memtab/Writer.h"
#include "bench/Memtab/Colliding.h"
#include "bench/Memtab/Ways.h"

namespace {

// Processor time of this thread: what else runs on the machine is not in it.
struct Clock {
  using duration = std::chrono::nanoseconds;

  static duration now() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
  }
};

// As large as a host of the layer-2 RIB.
struct Host {
  std::uint64_t vtep;
  double lastUpdateTime;
  std::uint64_t rest[11];
};
static_assert(sizeof(Host) == 104);

Host hostOf(std::uint64_t key, double time) {
  return Host{key ^ 0x5555, time, {key, 1, 2, 3, 4, 5, 6, 7, 8, 9, key}};
}

// Keys like a MAC address and a VLAN, no two the same.
std::vector<std::uint64_t> keys(std::size_t count, unsigned seed) {
  std::vector<std::uint64_t> keys(count);
  for (std::size_t i = 0; i < count; ++i) {
    keys[i] = (i * 0x9e37'79b9U & 0xffff'ffff'ffffU) << 16U | (i % 4094 + 1);
  }
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(seed));
  return keys;
}

std::string sharedName() {
  return "/memtab-bench-" + std::to_string(::getpid());
}

class Shared {
 public:
  explicit Shared(std::size_t limit) : writer_(options(sharedName(), limit)) {}
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() { Memtab::remove(sharedName()); }

  void is(std::uint64_t key, const Host& host) { writer_.is(key, host); }
  void del(std::uint64_t key) { writer_.del(key); }
  std::uint64_t find(std::uint64_t key) const { return writer_.find(key)->vtep; }
  void publish() { writer_.publish(); }
  double bytes() const { return static_cast<double>(writer_.bytesTaken()); }

  static Memtab::Options options(const std::string& name, std::size_t limit) {
    Memtab::Options options;
    options.name = name;
    options.schema = "bench 1";
    options.limit = limit;
    return options;
  }

 private:
  Memtab::Writer<std::uint64_t, Host> writer_;
};

class Private {
 public:
  explicit Private(std::size_t limit) : writer_(Shared::options("", limit)) {}

  void is(std::uint64_t key, const Host& host) { writer_.is(key, host); }
  void del(std::uint64_t key) { writer_.del(key); }
  std::uint64_t find(std::uint64_t key) const { return writer_.find(key)->vtep; }
  void publish() { writer_.publish(); }
  std::size_t sweep(std::size_t atMost) { return writer_.sweep(atMost); }
  Memtab::Reader<std::uint64_t, Host> reader() const { return Memtab::Reader<std::uint64_t, Host>(writer_); }
  double bytes() const { return 0; }

 private:
  Memtab::Writer<std::uint64_t, Host> writer_;
};

class StdUnorderedMap {
 public:
  explicit StdUnorderedMap(std::size_t /*limit*/) {}

  void is(std::uint64_t key, const Host& host) { map_.insert_or_assign(key, host); }
  void del(std::uint64_t key) { map_.erase(key); }
  std::uint64_t find(std::uint64_t key) const { return map_.find(key)->second.vtep; }
  void publish() {}
  double bytes() const { return 0; }

 private:
  std::unordered_map<std::uint64_t, Host> map_;
};

void perRecord(benchmark::State& state, std::size_t records) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(records));
  state.counters["record"] =
      benchmark::Counter(static_cast<double>(records),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class Map>
void fill(Map& map, const std::vector<std::uint64_t>& keys) {
  for (const std::uint64_t key : keys) {
    map.is(key, hostOf(key, 0));
  }
  map.publish();
}

template <class Map>
void add(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  double bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto map = std::make_unique<Map>(all.size());
    state.ResumeTiming();
    fill(*map, all);
    state.PauseTiming();
    bytes = map->bytes();
    map.reset();
    state.ResumeTiming();
  }
  perRecord(state, all.size());
  if (bytes > 0) {
    state.counters["bytes"] = bytes / static_cast<double>(all.size());
  }
}

template <class Map, bool OnlyTime>
void replace(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  const auto order = keys(all.size(), 2);
  Map map(all.size());
  fill(map, all);
  double time = 0;
  for (auto _ : state) {
    time += 1;
    for (const std::uint64_t key : order) {
      Host host = hostOf(key, time);
      host.vtep += OnlyTime ? 0 : static_cast<std::uint64_t>(time);
      map.is(key, host);
    }
    map.publish();
  }
  perRecord(state, all.size());
}

template <class Map>
void find(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  const auto order = keys(all.size(), 2);
  Map map(all.size());
  fill(map, all);
  std::uint64_t sum = 0;
  for (auto _ : state) {
    for (const std::uint64_t key : order) {
      sum += map.find(key);
    }
  }
  benchmark::DoNotOptimize(sum);
  perRecord(state, all.size());
}

template <class Map>
void deleteAndAddAgain(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  const auto order = keys(all.size(), 2);
  Map map(all.size());
  fill(map, all);
  for (auto _ : state) {
    for (const std::uint64_t key : order) {
      map.del(key);
    }
    fill(map, order);
  }
  perRecord(state, all.size());
}

void findByReader(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  const auto order = keys(all.size(), 2);
  Shared map(all.size());
  fill(map, all);
  Memtab::Reader<std::uint64_t, Host> reader(sharedName(), "bench 1");
  std::uint64_t sum = 0;
  for (auto _ : state) {
    for (const std::uint64_t key : order) {
      sum += reader.find(key)->vtep;
    }
  }
  benchmark::DoNotOptimize(sum);
  perRecord(state, all.size());
}

void walkByReader(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  Shared map(all.size());
  fill(map, all);
  Memtab::Reader<std::uint64_t, Host> reader(sharedName(), "bench 1");
  std::uint64_t sum = 0;
  for (auto _ : state) {
    reader.walk([&](std::uint64_t /*key*/, const Host& host) { sum += host.vtep; });
  }
  benchmark::DoNotOptimize(sum);
  perRecord(state, all.size());
}

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

// The longest of STEPS; the least of the longest over several rounds, as whatever else runs on the machine
// only adds.
template <class Map, class Step>
void longest(benchmark::State& state, const Step& step) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  double least = 1e12;
  for (auto _ : state) {
    Map map(all.size());
    Clock::duration most{};
    step(map, all, most);
    least = std::min(least, microseconds(most));
  }
  state.counters["longest_us"] = least;
  perRecord(state, all.size());
}

template <class Map>
void longestInsert(benchmark::State& state) {
  longest<Map>(state, [](Map& map, const std::vector<std::uint64_t>& all, Clock::duration& most) {
    auto before = Clock::now();
    for (const std::uint64_t key : all) {
      map.is(key, hostOf(key, 0));
      const auto after = Clock::now();
      most = std::max(most, after - before);
      before = after;
    }
  });
}

template <class Map>
void longestDelete(benchmark::State& state) {
  longest<Map>(state, [](Map& map, const std::vector<std::uint64_t>& all, Clock::duration& most) {
    fill(map, all);
    auto before = Clock::now();
    for (const std::uint64_t key : all) {
      map.del(key);
      const auto after = Clock::now();
      most = std::max(most, after - before);
      before = after;
    }
  });
}

// The end of a turn in which everything was deleted and added again.
void publishEverything(benchmark::State& state) {
  const auto all = keys(static_cast<std::size_t>(state.range(0)), 1);
  Shared map(all.size());
  fill(map, all);
  Clock::duration most{};
  for (auto _ : state) {
    for (const std::uint64_t key : all) {
      map.del(key);
      map.is(key, hostOf(key, 1));
    }
    const auto before = Clock::now();
    map.publish();
    most = std::max(most, Clock::now() - before);
  }
  state.counters["longest_us"] = microseconds(most);
}

using Size = std::int64_t;

void enlist(const std::string& name, void (*function)(benchmark::State&), const std::vector<Size>& sizes) {
  for (const Size size : sizes) {
    benchmark::RegisterBenchmark(name.c_str(), function)->Arg(size)->Unit(benchmark::kMillisecond);
  }
}

template <class Map>
void addAll(const std::string& name, const std::vector<Size>& sizes) {
  enlist("add/" + name, add<Map>, sizes);
  enlist("replace/" + name, replace<Map, false>, sizes);
  enlist("replaceTime/" + name, replace<Map, true>, sizes);
  enlist("find/" + name, find<Map>, sizes);
  enlist("deleteAndAddAgain/" + name, deleteAndAddAgain<Map>, sizes);
  enlist("longestInsert/" + name, longestInsert<Map>, {sizes.back()});
  enlist("longestDelete/" + name, longestDelete<Map>, {sizes.back()});
}

// Functions that the compiler neither inlines, copies nor folds, so that an instruction counter sees each.
#ifdef __clang__
#define MEMTAB_BENCH_APART [[gnu::noinline]]
#else
#define MEMTAB_BENCH_APART [[gnu::noinline, gnu::noclone, gnu::no_icf]]
#endif
MEMTAB_BENCH_APART void countedAdd(Private& map, std::uint64_t key, const Host& host) {
  map.is(key, host);
}
MEMTAB_BENCH_APART void countedReplace(Private& map, std::uint64_t key, const Host& host) {
  map.is(key, host);
}
MEMTAB_BENCH_APART void countedReplaceTime(Private& map, std::uint64_t key, const Host& host) {
  map.is(key, host);
}
MEMTAB_BENCH_APART void countedDelete(Private& map, std::uint64_t key) {
  map.del(key);
}
MEMTAB_BENCH_APART void countedAddAgain(Private& map, std::uint64_t key, const Host& host) {
  map.is(key, host);
}
MEMTAB_BENCH_APART std::size_t countedSweep(Private& map) {
  return map.sweep(1);
}
MEMTAB_BENCH_APART std::uint64_t countedFind(const Private& map, std::uint64_t key) {
  return map.find(key);
}
MEMTAB_BENCH_APART std::uint64_t countedFindByReader(Memtab::Reader<std::uint64_t, Host>& reader,
                                                     std::uint64_t key) {
  return reader.find(key)->vtep;
}

// One call for each record, to be run under `valgrind --tool=callgrind`: instructions by function.
int count(std::size_t records) {
  const auto all = keys(records, 1);
  const auto order = keys(records, 2);
  Private map(records);
  std::uint64_t sum = 0;
  for (const std::uint64_t key : all) {
    countedAdd(map, key, hostOf(key, 0));
  }
  map.publish();
  for (const std::uint64_t key : order) {
    Host host = hostOf(key, 1);
    host.vtep += 1;
    countedReplace(map, key, host);
  }
  for (const std::uint64_t key : order) {
    Host host = hostOf(key, 2);
    host.vtep += 1;
    countedReplaceTime(map, key, host);
  }
  map.publish();
  for (const std::uint64_t key : order) {
    sum += countedFind(map, key);
  }
  auto reader = map.reader();
  for (const std::uint64_t key : order) {
    sum += countedFindByReader(reader, key);
  }
  for (const std::uint64_t key : order) {
    countedDelete(map, key);
  }
  for (const std::uint64_t key : order) {
    countedAddAgain(map, key, hostOf(key, 3));
  }
  for (const std::uint64_t key : order) {
    countedDelete(map, key);
  }
  map.publish();
  while (countedSweep(map) > 0) {
  }
  std::printf("%llu\n", static_cast<unsigned long long>(sum));
  return 0;
}

// Prints how far a look-up goes, for keys that collide under the seed 0 and for others, with that seed and
// with one that nobody knows.
int printWays(std::size_t records) {
  const auto print = [&](const char* what, const std::vector<std::uint64_t>& all, bool seeded) {
    Memtab::Options options = Shared::options(sharedName(), all.size());
    options.seed = seeded ? std::nullopt : std::optional<std::uint64_t>(0);
    Memtab::Writer<std::uint64_t, Host> writer(options);
    for (const std::uint64_t key : all) {
      writer.is(key, hostOf(key, 0));
    }
    writer.publish();
    const MemtabBench::Ways ways =
        MemtabBench::waysIn(Memtab::Segment::forReader(sharedName(), options.schema, nullptr));
    std::printf("%-9s keys, %-11s %7zu records: slots met by a look-up %.2f, at most %zu\n", what,
                seeded ? "random seed" : "seed 0", ways.records, ways.mean(), ways.longest);
    Memtab::remove(sharedName());
  };
  const std::size_t few = records / 16;  // what they cost grows by their square
  print("random", keys(few, 1), false);
  print("colliding", MemtabBench::collidingKeys(few, 20, 0), false);
  print("random", keys(records, 1), true);
  print("colliding", MemtabBench::collidingKeys(records, 20, 0), true);
  return 0;
}

// Takes FLAG out of the arguments; whether it was there.
bool take(int& argc, char** argv, std::string_view flag) {
  char** end = std::remove_if(argv, argv + argc, [&](const char* word) { return word == flag; });
  const bool found = end != argv + argc;
  argc = static_cast<int>(end - argv);
  return found;
}

}  // namespace

// --tiny: the run as a test. --count: see count(), --ways: see printWays(); both instead of the benchmarks.
int main(int argc, char** argv) {
  const bool tiny = take(argc, argv, "--tiny");
  if (take(argc, argv, "--count")) {
    return count(20'000);
  }
  if (take(argc, argv, "--ways")) {
    return printWays(60'000);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  const std::vector<Size> sizes = tiny ? std::vector<Size>{1000} : std::vector<Size>{100'000, 1'000'000};
  addAll<Shared>("shared", sizes);
  addAll<Private>("private", sizes);
  addAll<StdUnorderedMap>("unordered_map", sizes);
  enlist("find/reader", findByReader, sizes);
  enlist("walk/reader", walkByReader, sizes);
  enlist("publishEverything/shared", publishEverything, {sizes.back()});
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
