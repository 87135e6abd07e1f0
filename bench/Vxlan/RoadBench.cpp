// The road of a host end to end, from the controller's table to shared memory, beside the bare minimum of
// three table writes. Compare the times of one run with each other.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "BareMinimum.h"
#include "Kel/System.h"
#include "Vxlan/VxlanControllerSm.h"

namespace {

using Bridging::VlanId;
using Qnet::EthAddr;
using Qnet::IpAddr;
using Vxlan::VniExt;

std::int64_t most = 1'000'000;  // hosts; few when the benchmark is run as a test

// A client with so many mapped VLANs, each with its VNI, all published and empty.
class Switch {
 public:
  explicit Switch(std::uint32_t vlans) {
    const auto status = Kel::make<Vxlan::VtiStatus>(vti);
    status->controllerClientModeIs(true);
    status->localVtepAddrIs(IpAddr(0x0a000001));
    vtis->vtiStatusIs(status);
    mlag->mlagStateIs(Mlag::MlagState::Disabled);
    for (std::uint32_t vlan = 1; vlan <= vlans; ++vlan) {
      map->mappingIs(VlanId(vlan), VniExt(5000 + vlan));
      fdbs.push_back(Kel::make<VxlanController::VniFdbStatusV2>());
      dir->entityPtrIs(Kel::Name(std::to_string(5000 + vlan)), fdbs.back());
    }
    maps->vlanVniMapIs(vti, map);
    client = Vxlan::vxlanControllerClientSmFactory(vtis, dir, view, hw, mlag, mlagVxlan, state, maps, floods,
                                                   hosts, convergence);
  }
  ~Switch() { client = nullptr; }
  Switch(const Switch&) = delete;
  Switch& operator=(const Switch&) = delete;

  void publish(std::uint64_t host, std::uint32_t vtep) {
    fdbs[host % fdbs.size()]->macVtepTableIs(
        {EthAddr(0x020000000000ULL + host), IpAddr(vtep), vtep & 0xff, VxlanController::HostAttr::Dynamic});
  }
  void withdraw(std::uint64_t host) {
    fdbs[host % fdbs.size()]->macVtepTableDel(EthAddr(0x020000000000ULL + host));
  }
  void unmap(std::uint32_t vlan) { map->mappingDel(VlanId(vlan)); }
  void converge(bool on) { view->convergenceInProgressIs(on); }

  Qnet::IntfId vti{"Vxlan1"};
  Kel::Ptr<Vxlan::VtiStatusDir> vtis = Kel::make<Vxlan::VtiStatusDir>();
  Kel::Ptr<Kel::Dir> dir = Kel::make<Kel::Dir>();
  Kel::Ptr<Kel::Dir> state = Kel::make<Kel::Dir>();
  Kel::Ptr<VxlanController::RmxStateClientViewV2> view = Kel::make<VxlanController::RmxStateClientViewV2>();
  Kel::Ptr<Vxlan::VxlanHwStatusDir> hw = Kel::make<Vxlan::VxlanHwStatusDir>();
  Kel::Ptr<Mlag::Status> mlag = Kel::make<Mlag::Status>();
  Kel::Ptr<Mlag::VxlanStatus> mlagVxlan = Kel::make<Mlag::VxlanStatus>();
  Kel::Ptr<Vxlan::VlanVniMaps> maps = Kel::make<Vxlan::VlanVniMaps>();
  Kel::Ptr<Vxlan::VlanVniMap> map = Kel::make<Vxlan::VlanVniMap>();
  Kel::Ptr<L2Rib::SourceDirEntry> floods = Kel::make<L2Rib::SourceDirEntry>();
  Kel::Ptr<L2Rib::HostInput> hosts = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{});
  Kel::Ptr<Vxlan::VxlanClientConvergenceStatus> convergence =
      Kel::make<Vxlan::VxlanClientConvergenceStatus>();
  std::vector<Kel::Ptr<VxlanController::VniFdbStatusV2>> fdbs;
  Kel::Ptr<Vxlan::VxlanControllerClientSm> client;
};

void perHost(benchmark::State& state, std::int64_t hosts) {
  state.SetItemsProcessed(state.iterations() * hosts);
}

// One update of each host, or its first one. Functions of their own, so that callgrind can count them alone:
// valgrind --tool=callgrind --toggle-collect='*publishAll*' road_bench --benchmark_filter=...
[[gnu::noinline]] void publishAll(Bare::Tables& tables, std::int64_t hosts, std::uint32_t round) {
  for (std::int64_t host = 0; host < hosts; ++host) {
    tables.host(static_cast<std::uint64_t>(host) + 1, 0x0a000002 + round, round, 1.0);
  }
}

[[gnu::noinline]] void publishAll(Switch& leaf, std::int64_t hosts, std::uint32_t round) {
  for (std::int64_t host = 0; host < hosts; ++host) {
    leaf.publish(static_cast<std::uint64_t>(host), 0x0a000002 + round);
  }
}

void bareAdd(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  for (auto step : state) {
    Bare::Tables tables;
    publishAll(tables, hosts, 0);
    state.counters["bytesAHost"] = static_cast<double>(tables.bytes()) / static_cast<double>(hosts);
  }
  perHost(state, hosts);
}

void bareUpdate(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  Bare::Tables tables;
  std::uint32_t round = 0;
  publishAll(tables, hosts, round);
  for (auto step : state) {
    publishAll(tables, hosts, ++round);
  }
  perHost(state, hosts);
}

// range(0) hosts in range(1) VLANs.
void roadAdd(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = std::make_unique<Switch>(static_cast<std::uint32_t>(state.range(1)));
    state.ResumeTiming();
    publishAll(*leaf, hosts, 0);
    state.PauseTiming();
    state.counters["sharedBytesAHost"] =
        static_cast<double>(leaf->hosts->bytesTaken()) / static_cast<double>(hosts);
    leaf = nullptr;
    state.ResumeTiming();
  }
  perHost(state, hosts);
}

void roadUpdate(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  Switch leaf(static_cast<std::uint32_t>(state.range(1)));
  std::uint32_t round = 0;
  publishAll(leaf, hosts, round);
  for (auto step : state) {
    publishAll(leaf, hosts, ++round);
  }
  perHost(state, hosts);
}

void roadWithdraw(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  Switch leaf(static_cast<std::uint32_t>(state.range(1)));
  for (auto step : state) {
    state.PauseTiming();
    publishAll(leaf, hosts, 0);
    state.ResumeTiming();
    for (std::int64_t host = 0; host < hosts; ++host) {
      leaf.withdraw(static_cast<std::uint64_t>(host));
    }
  }
  perHost(state, hosts);
}

// Publishing again what is published: nothing is to be done.
void resyncUnchanged(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  Switch leaf(1000);
  publishAll(leaf, hosts, 0);
  for (auto step : state) {
    publishAll(leaf, hosts, 0);
  }
  perHost(state, hosts);
}

// All hosts go with their VLANs, range(1) of them: the cost of a host must not depend on how many VLANs there
// are.
void teardownVlans(benchmark::State& state) {
  const std::int64_t hosts = std::min(state.range(0), most);
  const auto vlans = static_cast<std::uint32_t>(state.range(1));
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = std::make_unique<Switch>(vlans);
    publishAll(*leaf, hosts, 0);
    state.ResumeTiming();
    for (std::uint32_t vlan = 1; vlan <= vlans; ++vlan) {
      leaf->unmap(vlan);
    }
    state.PauseTiming();
    leaf = nullptr;
    state.ResumeTiming();
  }
  perHost(state, hosts);
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
  const std::int64_t hosts = std::min(state.range(0), most);
  const bool sliced = state.range(1) != 0;
  for (auto step : state) {
    state.PauseTiming();
    auto leaf = std::make_unique<Switch>(100);
    publishAll(*leaf, hosts, 0);
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
  perHost(state, hosts);
}

BENCHMARK(bareAdd)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(roadAdd)
    ->Args({100'000, 1000})
    ->Args({1'000'000, 1000})
    ->Args({1'000'000, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(bareUpdate)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(roadUpdate)->Args({100'000, 1000})->Args({1'000'000, 1000})->Unit(benchmark::kMillisecond);
BENCHMARK(roadWithdraw)->Args({100'000, 1000})->Args({1'000'000, 1000})->Unit(benchmark::kMillisecond);
BENCHMARK(resyncUnchanged)->Arg(1'000'000)->Unit(benchmark::kMillisecond);
BENCHMARK(teardownVlans)->Args({1'000'000, 40})->Args({1'000'000, 4000})->Unit(benchmark::kMillisecond);
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
