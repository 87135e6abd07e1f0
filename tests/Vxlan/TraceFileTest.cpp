// The trace as a file: when it comes, what it is called, and that each line of a handler is a record in it.
#include <cstdlib>
#include <filesystem>

#include "RingLog/Reader.h"
#include "Scenario.h"
#include "Vxlan/framework/Trace.h"

namespace {

using namespace scenario;

// The process has no trace yet, and will have its file in a folder of the test's.
class TraceFileTest : public Scenario {
 protected:
  TraceFileTest() {
    std::string pattern = std::filesystem::temp_directory_path() / "vcc-trace-XXXXXX";
    folder = ::mkdtemp(pattern.data());
    begin(folder);
  }
  ~TraceFileTest() override {
    client = nullptr;
    begin("");
    std::filesystem::remove_all(folder);
  }
  static void begin(const std::string& directory) {
    Vxlan::vccRlHandle.reset();
    Vxlan::vccRlDirectoryIs(directory);
  }
  std::string file() const { return folder / "UbeVxlanControllerSm.rl"; }
  bool fileExists() const { return std::filesystem::exists(file()); }
  // A peer that leaves the controller's mode, and a flood list that is replaced: everything that is rarer.
  void liveThrough() {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    publish(10010, 1);
    mlagIs(Mlag::MlagState::Active);
    start();
    bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    peerBumReplicationMode(Vxlan::BumReplicationMode::None);
    peerLists(1, 10, {"10.0.0.2"});
    peerBumReplicationMode(Vxlan::BumReplicationMode::Controller);
    publishFloodList(10010, 2, {"10.0.0.9"});
    vniStatus(10010)->macVtepFloodListTableIs(mac(2), Kel::make<VxlanController::MacVtepFloodListV2>());
    controllerConverges(true);
    withdraw(10010, 1);
    controllerConverges(false);
    turnsUntilIdle();
  }

  std::filesystem::path folder;
};

// The client makes the file when it is built, and keeps it: a second client writes to the same one.
TEST_F(TraceFileTest, TheClientMakesTheFileOnFirstUse) {
  EXPECT_FALSE(fileExists());
  start();
  EXPECT_TRUE(fileExists());
  ASSERT_TRUE(Vxlan::vccRlHandle);
  EXPECT_EQ(Vxlan::vccRlHandle->path(), file());
  restart();
  client->handleInitialized();
  EXPECT_FALSE(std::filesystem::exists(file() + ".1"))
      << "what a second trace would have moved out of its way";
  const RingLog::Trace trace = RingLog::Trace::read(file());
  EXPECT_EQ(trace.info().levels, 10U);
  EXPECT_EQ(trace.info().ringBytes, 33U * 1024);
}

// The base makes it when it is initialized, not when it is built.
TEST_F(TraceFileTest, TheBaseMakesTheFileWhenItIsInitialized) {
  const auto base = Vxlan::vxlanControllerMacAddrSmBaseFactory(
      handles.vtiStatusDir, handles.controllerStatusBaseDir, handles.rmxStateClientView,
      handles.vxlanHwStatusDir, handles.mlagStatus, handles.mlagVxlanStatus);
  EXPECT_FALSE(Vxlan::vccRlHandle);
  base->handleInitialized();
  EXPECT_TRUE(fileExists());
}

// Each line of a handler is a record in the file, in the same order and with the same signature.
TEST_F(TraceFileTest, EachLineIsARecordOfTheSameHandler) {
  Vxlan::vccRlHandleInit();
  traceFromNow();
  liveThrough();
  const RingLog::Trace trace = RingLog::Trace::read(file());
  EXPECT_GT(lines.size(), 100U);
  ASSERT_EQ(trace.records().size(), lines.size());
  for (std::size_t at = 0; at < lines.size(); ++at) {
    EXPECT_THAT(lines[at], testing::StartsWith(trace.records()[at].place->function + ' '));
  }
}

// Without the lines the records are there all the same.
TEST_F(TraceFileTest, WithoutTheLinesTheRecordsAreThereAllTheSame) {
  Vxlan::vccRlHandleInit();
  liveThrough();
  EXPECT_TRUE(lines.empty());
  const RingLog::Trace trace = RingLog::Trace::read(file());
  EXPECT_GT(trace.records().size(), 100U);
}

// Level 8 is the ordinary one; the gate of a BUM VTEP list has level 6 in two places, and a flood list's
// machine that takes the place of another level 7 in one.
TEST_F(TraceFileTest, ThreeRarerPlacesHaveLevelsOfTheirOwn) {
  liveThrough();
  const RingLog::Trace trace = RingLog::Trace::read(file());
  std::vector<std::string> rarer;
  for (const RingLog::Place& place : trace.places()) {
    if (place.level != 8) {
      rarer.push_back(std::to_string(place.level) + ' ' + place.form());
    }
  }
  EXPECT_THAT(rarer,
              testing::UnorderedElementsAre(
                  "6 handleInit  bumRepMode {} initialized {}", "6 handleInit  vlan {} is mapped on {}",
                  "7 Reinstantiating the pointer interface where constructor parameter attribute "
                  "_macVtepFloodListTable has a different value of {} than the current value of {}"));
}

// The levels of the lines are switched apart.
TEST_F(TraceFileTest, TheLevelsAreSwitchedApart) {
  traceFromNow();
  Kel::traceLevelsIs("VxlanController=7");
  liveThrough();
  EXPECT_EQ(lines.size(), 1U);
  EXPECT_EQ(tracedLines("Reinstantiating the pointer interface"), 1U);
}

// Where the file cannot be made, the client does its work without a trace.
TEST_F(TraceFileTest, WithoutATraceTheClientDoesItsWork) {
  begin(folder / "none");
  givenVti("Vxlan1");
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  start();
  EXPECT_FALSE(Vxlan::vccRlHandle);
  EXPECT_EQ(exported(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
}

using TraceFileDeathTest = TraceFileTest;

// Standard error says why, and whose trace it would have been.
TEST_F(TraceFileDeathTest, StandardErrorSaysWhyThereIsNoTrace) {
  GTEST_FLAG_SET(death_test_style, "fast");
  begin(folder / "none");
  EXPECT_EXIT(
      {
        Vxlan::vccRlHandleInit();
        std::_Exit(Vxlan::vccRlHandle ? 1 : 0);
      },
      testing::ExitedWithCode(0), "^ns-trace: .*none.*; there will be no trace\n$");
}

}  // namespace
