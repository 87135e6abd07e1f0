#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/kernel/Adapter.h"

// 100,000 hosts behind 100 VTEPs into the kernel, by the adapter and by `bridge -batch` of the same rows,
// each in a network namespace of its own, by turns in one run.
namespace {

using namespace Agent::Kernel;
using std::chrono::milliseconds;

unsigned hostCount = 100000;
constexpr unsigned vteps = 100;

class Namespace {
 public:
  Namespace() : home_(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    usable_ = ::unshare(CLONE_NEWNET) == 0 && std::system("ip link set lo up") == 0;  // NOLINT(cert-env33-c)
  }
  ~Namespace() {
    (void)::setns(home_, CLONE_NEWNET);
    ::close(home_);
  }
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;
  bool usable() const { return usable_; }

 private:
  int home_;
  bool usable_ = false;
};

Mac hostMac(unsigned n) {
  return {0x020000000000ULL + n};
}
Ip4 vtep(unsigned n) {
  return {0x0a000002U + n % vteps};
}

// The processor time of the longest slice; the adapter itself measures by the clock, which counts what other
// programs take from it as well.
Time longestOnProcessor{};

Time processorTime() {
  timespec time{};
  (void)::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + Time(time.tv_nsec);
}

std::size_t work(Adapter& adapter) {
  bool more = true;
  while (more) {
    Time before = processorTime();
    more = adapter.run(milliseconds(5));
    longestOnProcessor = std::max(longestOnProcessor, processorTime() - before);
  }
  std::size_t there = 0;
  for (const Tally& tally : adapter.engine().status().tallies()) {
    there += tally.kind == "hosts" ? tally.actual : 0;
  }
  return there;
}

void report(benchmark::State& state, std::size_t there, Time longest) {
  if (there != hostCount) {
    state.SkipWithError("not all hosts are there");
  }
  state.SetItemsProcessed(state.iterations() * hostCount);
  state.counters["longestSliceUs"] = static_cast<double>(longest.count()) / 1000;
  state.counters["longestSliceCpuUs"] =
      static_cast<double>(std::exchange(longestOnProcessor, Time{}).count()) / 1000;
  state.counters["hosts"] = static_cast<double>(there);
}

void givenMapping(Adapter& adapter) {
  adapter.vniIs(5010, 10, "Vxlan1", {0x0a000001U}, {});
  adapter.initialSyncComplete();
  (void)work(adapter);
}

void AdapterAdds(benchmark::State& state) {
  std::size_t there = 0;
  Time longest{};
  for (auto _ : state) {
    state.PauseTiming();
    Namespace space;
    if (!space.usable()) {
      state.SkipWithError("network namespaces cannot be made here");
      break;
    }
    std::optional<Adapter> adapter(Options{});
    givenMapping(*adapter);
    state.ResumeTiming();
    for (unsigned n = 0; n < hostCount; ++n) {
      adapter->hostIs(10, hostMac(n), vtep(n));
    }
    there = work(*adapter);
    state.PauseTiming();
    longest = std::max(longest, adapter->longestSlice());
    adapter.reset();
    state.ResumeTiming();
  }
  report(state, there, longest);
}

void AdapterMoves(benchmark::State& state) {
  Namespace space;
  if (!space.usable()) {
    state.SkipWithError("network namespaces cannot be made here");
    return;
  }
  Adapter adapter(Options{});
  givenMapping(adapter);
  for (unsigned n = 0; n < hostCount; ++n) {
    adapter.hostIs(10, hostMac(n), vtep(n));
  }
  std::size_t there = work(adapter);
  unsigned shift = 1;
  for (auto _ : state) {
    for (unsigned n = 0; n < hostCount; ++n) {
      adapter.hostIs(10, hostMac(n), vtep(n + shift));
    }
    there = work(adapter);
    ++shift;
  }
  report(state, there, adapter.longestSlice());
}

void AdapterAdopts(benchmark::State& state) {
  Namespace space;
  if (!space.usable()) {
    state.SkipWithError("network namespaces cannot be made here");
    return;
  }
  std::optional<Adapter> adapter(Options{});
  givenMapping(*adapter);
  for (unsigned n = 0; n < hostCount; ++n) {
    adapter->hostIs(10, hostMac(n), vtep(n));
  }
  std::size_t there = work(*adapter);
  Time longest{};
  for (auto _ : state) {
    adapter.emplace(Options{});
    adapter->vniIs(5010, 10, "Vxlan1", {0x0a000001U}, {});
    for (unsigned n = 0; n < hostCount; ++n) {
      adapter->hostIs(10, hostMac(n), vtep(n));
    }
    adapter->initialSyncComplete();
    there = work(*adapter);
    longest = std::max(longest, adapter->longestSlice());
    if (adapter->engine().counters().acknowledged != 0) {
      state.SkipWithError("something had to be changed");
    }
  }
  report(state, there, longest);
}

void BridgeBatchAdds(benchmark::State& state) {
  std::string file = "/tmp/kernel-bench-" + std::to_string(::getpid()) + ".batch";
  {
    std::ofstream entries(file);
    for (unsigned n = 0; n < hostCount; ++n) {
      std::string mac = hostMac(n).text();
      entries << "fdb replace " << mac << " dev vx5010 nhid " << 1001 + n % vteps
              << " self static extern_learn\n";
      entries << "fdb replace " << mac << " dev vx5010 master extern_learn\n";
    }
  }
  std::string groups;
  for (unsigned n = 0; n < vteps; ++n) {
    std::string id = std::to_string(n + 1);
    groups += "nexthop add id " + id + " via " + vtep(n).text() + " fdb\nnexthop add id " +
              std::to_string(1001 + n) + " group " + id + " fdb\n";
  }
  for (auto _ : state) {
    state.PauseTiming();
    Namespace space;
    std::string prepare =
        "ip link add vxb10 up type bridge && ip link add vx5010 type vxlan id 5010 dstport 4789 local "
        "10.0.0.1 nolearning && ip link set vx5010 up master vxb10 && printf '" +
        groups + "' | ip -batch -";
    if (!space.usable() || std::system(prepare.c_str()) != 0) {  // NOLINT(cert-env33-c)
      state.SkipWithError("network namespaces cannot be made here");
      break;
    }
    state.ResumeTiming();
    if (std::system(("bridge -batch " + file).c_str()) != 0) {
      state.SkipWithError("refused");  // NOLINT(cert-env33-c)
    }
  }
  (void)std::remove(file.c_str());
  state.SetItemsProcessed(state.iterations() * hostCount);
}

BENCHMARK(AdapterAdds)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BridgeBatchAdds)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(AdapterMoves)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(AdapterAdopts)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> left;
  for (int n = 0; n < argc; ++n) {
    if (std::strcmp(argv[n], "--tiny") == 0) {
      hostCount = 500;
    } else {
      left.push_back(argv[n]);
    }
  }
  int count = static_cast<int>(left.size());
  benchmark::Initialize(&count, left.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
