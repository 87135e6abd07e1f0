// The trace as a file: when it comes, what it is called, and which operations leave records in it.
#include <cstdlib>
#include <filesystem>
#include <map>

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
  // Behind that: what comes, changes and goes in every machine, also the stand-alone ones.
  void liveThroughTheRest() {
    publishMultiPath(10010, 3, {"10.0.0.9", "10.0.0.8"});
    publishFloodList(10010, 3, {"10.0.0.7"});
    withdrawMultiPath(10010, 3);
    withdrawFloodList(10010, 2);
    peerLists(1, 10, {"10.0.0.3"});
    client->rmxMlagBumStatusSm()->markAndSweep(vlan(10));
    mapVlan("Vxlan1", 20, 10020);
    publish(10020, 4);
    publish(10020, 4, {.vtep = "10.0.0.1"});
    vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.9"));
    publishFloodList(10020, 4, {"10.0.0.9"});
    controllerConverges(true);
    publishFloodList(10010, 3, {"10.0.0.6"});
    withdrawVni(10020);
    controllerConverges(false);
    turnsUntilIdle();
    unmapVlan("Vxlan1", 10);
    mapGoes("Vxlan1");
    vtiStatus("Vxlan1")->datapathLearningIs(true);
    controllerStateGoes();
    bumReplicationMode(Vxlan::BumReplicationMode::None);
    vtiStatus("Vxlan1")->controllerClientModeIs(false);
    controllerConverges(true);
    vtiStatus("Vxlan1")->controllerClientModeIs(true);
    const auto wrapper = Vxlan::rmxStateSmWrapperFactory(handles.vtiStatusDir, handles.rmxStateBaseDir,
                                                         handles.rmxStateClientView);
    controllerStateGoes();
  }
  // The signature that a line begins with: all up to the blank behind its parameters.
  static std::string signatureOf(const std::string& line) {
    const std::size_t end = line.find(") const ");
    return end == std::string::npos ? line.substr(0, line.find(") ") + 1)
                                    : line.substr(0, end + std::string_view(") const").size());
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

// Each record is of an operation that also says a line, in the same order and with the same signature; and
// each operation that says a line has a record, that of its first words.
TEST_F(TraceFileTest, EachRecordIsThatOfAnOperationsFirstLine) {
  Vxlan::vccRlHandleInit();
  traceFromNow();
  liveThrough();
  liveThroughTheRest();
  const RingLog::Trace trace = RingLog::Trace::read(file());
  ASSERT_GT(trace.records().size(), 100U);
  std::size_t at = 0;
  for (const RingLog::Record& record : trace.records()) {
    while (at < lines.size() && signatureOf(lines[at]) != record.place->function) {
      ++at;
    }
    ASSERT_LT(at, lines.size()) << record.place->function << ' ' << record.message();
    ++at;
  }
  std::set<std::string> recorded;
  std::set<std::string> said;
  for (const RingLog::Place& place : trace.places()) {
    recorded.insert(place.function);
  }
  for (const std::string& line : lines) {
    said.insert(signatureOf(line));
  }
  EXPECT_EQ(recorded, said);
  EXPECT_GT(said.size(), 50U);
}

// An operation has one place that records. The few that have more record values of their own, or a rarer
// event.
TEST_F(TraceFileTest, AnOperationHasOnePlaceThatRecords) {
  Vxlan::vccRlHandleInit();
  liveThrough();
  liveThroughTheRest();
  std::map<std::string, std::vector<std::string>> places;
  const RingLog::Trace trace = RingLog::Trace::read(file());
  for (const RingLog::Place& place : trace.places()) {
    places[place.function].push_back(place.form());
  }
  std::erase_if(places, [](const auto& operation) { return operation.second.size() == 1; });
  using testing::ElementsAre;
  using testing::Pair;
  using testing::UnorderedElementsAre;
  EXPECT_THAT(places, UnorderedElementsAre(
                          Pair("void Vxlan::RmxStateSm::handleConvergenceInProgress()",
                               ElementsAre("handleConvergenceInProgress init {}",
                                           "handleConvergenceInProgress echo convergence state {}")),
                          Pair("void Vxlan::VxlanControllerMacAddrSmBase::handleConvergenceInProgress()",
                               ElementsAre("handleConvergenceInProgress init {}",
                                           "handleConvergenceInProgress init {} convergence state {}")),
                          Pair("void Vxlan::VxlanControllerMacAddrSmBase::processUnicastDeferredDeletes()",
                               ElementsAre(" init {} convergence state {} marked for del count {}",
                                           " unicast mac deferred del complete")),
                          Pair("void Vxlan::BumVtepListSm::handleInit()",
                               ElementsAre("handleInit {}:{}", "handleInit  bumRepMode {} initialized {}",
                                           "handleInit  vlan {} is mapped on {}"))));
}

// A host that comes is three records: the evaluation, the test of its VTEP, and the export.
TEST_F(TraceFileTest, AHostIsThreeRecords) {
  givenVti("Vxlan1");
  mapVlan("Vxlan1", 10, 10010);
  givenVni(10010);
  start();
  turnsUntilIdle();
  const RingLog::Trace earlier = RingLog::Trace::read(file());
  const std::size_t before = earlier.records().size();
  publish(10010, 1);
  const RingLog::Trace trace = RingLog::Trace::read(file());
  std::vector<std::string> functions;
  for (std::size_t at = before; at < trace.records().size(); ++at) {
    functions.push_back(trace.records()[at].place->function);
  }
  EXPECT_THAT(functions,
              testing::ElementsAre(
                  "void Vxlan::RmxPerVniFdbStatusSmBase::handleRmxHostTable(Qnet::EthAddr)",
                  "bool Vxlan::VxlanControllerMacAddrSmBase::isVtepIpMine(Vxlan::VniExt, Qnet::IpAddr, "
                  "Qnet::IntfId) const",
                  "void Vxlan::ReceivedHostTableToL2RibHostInputSm::handleReceivedHostEntry(Bridging::"
                  "MacVlanPair)"));
}

// The stand-alone machines open the trace, too.
TEST_F(TraceFileTest, TheStandAloneFactoriesMakeTheFile) {
  const auto made = [this](const auto& factory) {
    begin(folder);
    std::filesystem::remove(file());
    const auto machine = factory();
    return fileExists() && Vxlan::vccRlHandle;
  };
  EXPECT_TRUE(made([&] {
    return Vxlan::rmxStateSmWrapperFactory(handles.vtiStatusDir, handles.rmxStateBaseDir,
                                           handles.rmxStateClientView);
  }));
  EXPECT_TRUE(made([&] {
    return Vxlan::rmxMlagBumStatusSmBaseFactory(handles.mlagVxlanStatus, handles.vxlanHwStatusDir);
  }));
  EXPECT_TRUE(made([&] {
    return Vxlan::receivedHostTableToL2RibHostInputSmFactory(
        Kel::make<Vxlan::ReceivedHostTable>(Name("hostTable")), handles.l2RibRmxInput);
  }));
}

// Without the lines the records are there all the same.
TEST_F(TraceFileTest, WithoutTheLinesTheRecordsAreThereAllTheSame) {
  Vxlan::vccRlHandleInit();
  liveThrough();
  EXPECT_TRUE(lines.empty());
  const RingLog::Trace trace = RingLog::Trace::read(file());
  EXPECT_GT(trace.records().size(), 50U);
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
                  "_macVtepFloodListTable has a different value of {} than the current value of {} not "
                  "allowed"));
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
