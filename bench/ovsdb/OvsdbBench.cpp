// How long a snapshot of the controller's rows takes until it is patches, and the longest that the event loop
// is held up by it: from a real server where there is one, beside `ovsdb-client dump` of the same table in
// the same run; and of the mapping alone, from a text in memory.
//
//   ovsdb_bench [--tiny] [benchmark options]        --tiny: few rows, to see that it works
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#include "LiveServer.h"
#include "agent/vtep/Adapter.h"

namespace Agent::Vtep {

using namespace Ovsdb;

namespace {

using nlohmann::json;
using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;

std::size_t rows = 100'000;
constexpr std::size_t rowsPerTransaction = 10'000;
constexpr std::size_t hostsPerPatch = 256;

double since(Clock::time_point begin) {
  return Seconds(Clock::now() - begin).count();
}

// Processor seconds of this thread: what a turn costs however busy the machine is.
double processorTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A database server with that many rows.
class Server {
 public:
  Server() {
    const std::string path = folder_ / "db.sock";
    Testing::run({Testing::programPath("ovsdb-tool"), "create", folder_ / "db",
                  "/usr/share/openvswitch/vtep.ovsschema"},
                 folder_ / "log");
    process_ = Testing::Process({Testing::programPath("ovsdb-server"), "--no-chdir",
                                 "--unixctl=" + (folder_ / "ctl"), "--remote=punix:" + path, folder_ / "db"},
                                folder_ / "log");
    Testing::Controller controller(path);
    controller.transact(Testing::switchOperations());
    for (std::size_t at = 0; at < rows; at += rowsPerTransaction) {
      const auto part = static_cast<int>(at / rowsPerTransaction);
      controller.transact(Testing::hostOperations("ls" + std::to_string(part), 6000 + part, at,
                                                  std::min(rowsPerTransaction, rows - at),
                                                  "10.0.1." + std::to_string(part + 1)));
    }
  }

  std::string remote() const { return "unix:" + (folder_ / "db.sock"); }

  // Seconds that the yardstick takes.
  double dump() const {
    const auto begin = Clock::now();
    Testing::run(
        {Testing::programPath("ovsdb-client"), "dump", remote(), "hardware_vtep", "Ucast_Macs_Remote"},
        "/dev/null");
    return since(begin);
  }

 private:
  Testing::TemporaryFolder folder_;
  Testing::Process process_;
};

const Server& server() {
  static const Server server;
  return server;
}

void connectToAllPatches(benchmark::State& state) {
  if (const std::string reason = Testing::reasonToSkip(); !reason.empty()) {
    state.SkipWithError(reason.c_str());
    return;
  }
  server();
  double longest = 0;
  double longestTurn = 0;
  double processor = 0;
  double yardstick = 1e9;
  std::size_t patches = 0;
  for (auto _ : state) {
    // A new loop each time, for its own account of stalls.
    Service::EventLoop loop;
    Adapter::Options options;
    options.session.remotes = Remote::parseList(server().remote());
    options.mapper.topology.switchName = "leaf1";
    patches = 0;
    const auto begin = Clock::now();
    bool pulling = false;
    std::unique_ptr<Adapter> adapter;
    const auto pull = [&] {
      pulling = adapter->next(hostsPerPatch).has_value();
      patches += pulling ? 1 : 0;
      return pulling;
    };
    adapter = std::make_unique<Adapter>(
        loop, options,
        [&] {
          if (!pulling) {
            pulling = true;
            loop.addWork(pull);
          }
        },
        [](const std::string&) {});
    const double processorBegin = processorTime();
    while (adapter->mapper().publishedHosts() < rows) {
      const double turnBegin = processorTime();
      loop.runOnce(std::chrono::seconds(1));
      longestTurn = std::max(longestTurn, processorTime() - turnBegin);
    }
    processor += processorTime() - processorBegin;
    state.SetIterationTime(since(begin));
    longest = std::max(longest, Seconds(loop.stall().longest).count());
    yardstick = std::min(yardstick, server().dump());
  }
  state.counters["rows"] = static_cast<double>(rows);
  state.counters["patches"] = static_cast<double>(patches);
  state.counters["processor_ms"] = processor * 1e3 / static_cast<double>(state.iterations());
  state.counters["longest_stall_ms"] = longest * 1e3;
  state.counters["longest_turn_processor_ms"] = longestTurn * 1e3;
  state.counters["dump_s"] = yardstick;
}
BENCHMARK(connectToAllPatches)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// A <table-updates2> with that many hosts.
std::string snapshot() {
  const std::string logicalSwitch = "00000001-0000-4000-8000-000000000000";
  const std::string locator = "00000002-0000-4000-8000-000000000000";
  std::string text = R"({"Logical_Switch":{")" + logicalSwitch +
                     R"(":{"initial":{"name":"ls","tunnel_key":5010}}},"Physical_Locator":{")" + locator +
                     R"(":{"initial":{"dst_ip":"10.0.0.2"}}},"Ucast_Macs_Remote":{)";
  for (std::size_t i = 0; i < rows; ++i) {
    const Uuid uuid{.high = 0x3000 + i * 0x9e3779b97f4a7c15ULL, .low = 0x8000000000000000ULL + i};
    text += (i == 0 ? "\"" : ",\"") + uuid.text() + R"(":{"initial":{"MAC":")" + macText(0x020000000000 + i) +
            R"(","ipaddr":"","locator":["uuid",")" + locator + R"("],"logical_switch":["uuid",")" +
            logicalSwitch + R"("]}})";
  }
  return text + "}}";
}

void mapSnapshot(benchmark::State& state) {
  const std::string text = snapshot();
  double read = 0;
  double settle = 0;
  double patch = 0;
  for (auto _ : state) {
    MapperOptions options;
    options.topology.switchName = "leaf1";
    Mapper mapper(options);
    auto begin = Clock::now();
    UpdateWalk walk(hardwareVtep(), text);
    mapper.beginUpdate(true, 0);
    while (walk.step(512, mapper)) {
    }
    mapper.endUpdate(0);
    read += since(begin);
    begin = Clock::now();
    while (mapper.settle(512, 0)) {
    }
    settle += since(begin);
    begin = Clock::now();
    while (std::optional<json> next = mapper.next(hostsPerPatch)) {
      benchmark::DoNotOptimize(*next);
    }
    patch += since(begin);
    if (mapper.publishedHosts() != rows) {
      state.SkipWithError("hosts are missing");
    }
  }
  const auto perRow = [&](double seconds) {
    return seconds * 1e9 / static_cast<double>(rows) / static_cast<double>(state.iterations());
  };
  state.counters["bytes"] = static_cast<double>(text.size());
  state.counters["read_ns_row"] = perRow(read);
  state.counters["settle_ns_row"] = perRow(settle);
  state.counters["patch_ns_row"] = perRow(patch);
}
BENCHMARK(mapSnapshot)->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace Agent::Vtep

int main(int argc, char** argv) {
  char** const end = std::remove_if(argv + 1, argv + argc, [](const char* word) {
    const bool tiny = std::strcmp(word, "--tiny") == 0;
    Agent::Vtep::rows = tiny ? 500 : Agent::Vtep::rows;
    return tiny;
  });
  argc = static_cast<int>(end - argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
