// What the tests of the engine stand on: an engine, a model of the kernel below it, and a clock.
#pragma once

#include <gmock/gmock.h>

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "Addresses.h"
#include "FakeKernel.h"
#include "agent/kernel/Engine.h"

namespace Agent::Kernel::Test {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

inline const Mac all{};
inline const Mac host = mac("02:00:00:00:00:01");
inline const Mac other = mac("02:00:00:00:00:02");
inline const Mac group = mac("01:00:5e:00:00:01");
inline const Ip4 local = ip("10.0.0.1");
inline const Ip4 vtepA = ip("10.0.0.2");
inline const Ip4 vtepB = ip("10.0.0.3");
inline const Ip4 vtepC = ip("10.0.0.4");

class EngineTest : public ::testing::Test {
 protected:
  void restart() {
    engine_.emplace(Options{});
    kernel_.reconnect();
  }
  void run() { kernel_.run(engine(), now_); }
  void pass(Time span) {
    now_ += span;
    run();
  }
  Engine& engine() { return *engine_; }
  void mapVlan10(Vni vni = 5010, Ip4 address = local) { engine().vniIs(vni, 10, "Vxlan1", address, ports_); }
  IfIndex index(const std::string& name) const { return kernel_.link(name)->index; }
  FdbEntry deviceEntry(Mac mac, Ip4 dst) const {
    return {Table::device, index("vx5010"), 0, mac, dst, 0, false, false};
  }
  std::string problems() const {
    std::string out;
    for (const Problem& problem : engine_->status().problems(100).first) {
      out += problem.what + ": " + problem.why + "\n";
    }
    return out;
  }
  void givenHostAt(Ip4 vtep) {
    mapVlan10();
    engine().hostIs(10, host, vtep);
    engine().initialSyncComplete();
    run();
    kernel_.forgetGaps();
  }

  // Goes on until the engine has asked for a dump of the rows and it is not over.
  void goOnIntoADumpOfEntries() {
    now_ += seconds(61);
    while (!kernel_.dumpingEntries()) {
      (void)kernel_.turn(engine(), now_);
    }
  }
  Tally tally(const std::string& kind) {
    for (const Tally& tally : engine().status().tallies()) {
      if (tally.kind == kind) {
        return tally;
      }
    }
    ADD_FAILURE() << "no tally of " << kind;
    return {};
  }
  FdbEntry bridgeEntry(Mac mac, const std::string& port) const {
    return {Table::bridge, index(port), index("vxb10"), mac, {}, 0, false, false};
  }

  FakeKernel kernel_;
  std::optional<Engine> engine_{Options{}};
  std::vector<std::string> ports_;
  Time now_{seconds(1000)};
};

}  // namespace Agent::Kernel::Test
