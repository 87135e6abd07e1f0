// What sets off the road of many hosts at once, and what that holds up. Compare the times of one run with
// each other; what a single host costs is counted by road_count and road.py.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Collisions.h"
#include "Hosts.h"
#include "Kel/System.h"
#include "Switch.h"
#include "Vxlan/VxlanControllerSm.h"

namespace {

using Road::Switch;

std::int64_t most = 1'000'000;  // hosts; few when the benchmark is run as a test

std::uint32_t count(std::int64_t asked) {
  return static_cast<std::uint32_t>(std::min(asked, most));
}

// A client with range(0) hosts in so many VNIs.
std::unique_ptr<Switch> filled(const benchmark::State& state, std::uint32_t vnis) {
  auto leaf = std::make_unique<Switch>(vnis);
  leaf->publish(Road::hostsIn(count(state.range(0)), vnis));
  return leaf;
}

// All hosts go with their VLANs, range(1) of them: the cost of a host must not depend on how many VLANs there
// are.
void teardownVlans(benchmark::State& state) {
  const std::uint32_t vnis = count(state.range(1));
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = filled(state, vnis);
    state.ResumeTiming();
    for (std::uint32_t vni = 0; vni < vnis; ++vni) {
      leaf->unmap(vni);
    }
    state.PauseTiming();
    leaf = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count(state.range(0)));
}

// The controller takes back range(1) VNIs without a host, one by one: the cost of a VNI must not depend on
// how many there are.
void teardownVnis(benchmark::State& state) {
  const std::uint32_t vnis = count(state.range(1));
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = std::make_unique<Switch>(vnis);
    state.ResumeTiming();
    for (std::uint32_t vni = 0; vni < vnis; ++vni) {
      leaf->takeBack(vni);
    }
    state.PauseTiming();
    leaf = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * vnis);
}

// One marked host among many, range(1) times: the paced job must cost what is marked.
void oneMarked(benchmark::State& state) {
  const std::uint32_t hosts = count(state.range(0));
  const auto leaf = filled(state, 100);
  const auto updates = Road::hostsIn(hosts, 100);
  std::uint32_t at = 0;
  for (auto step : state) {
    const std::vector<Road::Update> one{updates[(at += 7919) % hosts]};
    leaf->converge(true);
    leaf->withdraw(one);
    leaf->converge(false);
    while (leaf->convergence->unicastDeferredDeletionInProgress()) {
      Kel::ActivityLoop::instance().turn();
    }
    leaf->publish(one);
  }
}

// 60,000 hosts of one VNI: with MACs without pattern (0), chosen to collide in the controller's table (1), or
// in the received hosts (2), where the seed is not known.
void chosenMacs(benchmark::State& state) {
  const std::uint32_t hosts = count(60'000);
  auto updates = Road::hostsIn(hosts, 1);
  if (state.range(0) != 0) {
    const auto macs = Road::collidingMacs(hosts, state.range(0) == 1 ? 0 : Road::vlanOf(0));
    for (std::size_t at = 0; at < macs.size(); ++at) {
      updates[at].mac = macs[at];
    }
  }
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = std::make_unique<Switch>(1);
    state.ResumeTiming();
    leaf->publish(updates);
    state.PauseTiming();
    leaf = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * hosts);
}

// An unrelated callback, due every millisecond.
class EveryMillisecond final : public Kel::Follows<Kel::Clock> {
 public:
  EveryMillisecond() { clock_->timeMinIs(std::numeric_limits<double>::infinity()); }
  void begin() {
    notifierIs(clock_);
    due_ = Kel::System::currentTime() + 0.001;
    clock_->timeMinIs(due_);
  }
  void end() { notifierIs(nullptr); }
  void onTime() override {
    const double now = Kel::System::currentTime();
    if (due_ > 0) {
      late_.push_back(now - due_);
    }
    due_ = now + 0.001;
    clock_->timeMinIs(due_);
  }
  // The lateness that 99.9 of 100 callbacks do not exceed, in milliseconds.
  double latePercentile() {
    std::sort(late_.begin(), late_.end());
    return late_.empty()
               ? 0
               : late_[static_cast<std::size_t>(static_cast<double>(late_.size() - 1) * 0.999)] * 1e3;
  }

 private:
  Kel::Ptr<Kel::Clock> clock_ = Kel::ActivityFacility::clock();
  double due_ = 0;
  std::vector<double> late_;
};

// The paced job over all hosts: in one piece (range(1) = 0), or in slices of 10 ms beside the other callback.
void pacedJob(benchmark::State& state) {
  const bool sliced = state.range(1) != 0;
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = filled(state, 100);
    leaf->converge(true);
    leaf->dir->entryDelAll();
    leaf->client->maxProcessTimeIs(sliced ? 0.01 : 1e6);
    const auto other = Kel::make<EveryMillisecond>();
    if (sliced) {
      other->begin();
    }
    state.ResumeTiming();
    leaf->converge(false);
    while (leaf->convergence->unicastDeferredDeletionInProgress()) {
      Kel::ActivityLoop::instance().turn();
    }
    state.PauseTiming();
    other->end();
    state.counters["late99.9ms"] = other->latePercentile();
    leaf = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count(state.range(0)));
}

BENCHMARK(teardownVlans)->Args({1'000'000, 40})->Args({1'000'000, 4000})->Unit(benchmark::kMillisecond);
BENCHMARK(teardownVnis)->Args({0, 1000})->Args({0, 16'000})->Unit(benchmark::kMillisecond);
BENCHMARK(chosenMacs)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(oneMarked)->Arg(1000)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(pacedJob)->Args({1'000'000, 0})->Args({1'000'000, 1})->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> arguments;
  for (char* argument : std::vector<char*>(argv, argv + argc)) {
    if (std::strcmp(argument, "--tiny") == 0) {
      most = 2000;
    } else {
      arguments.push_back(argument);
    }
  }
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
