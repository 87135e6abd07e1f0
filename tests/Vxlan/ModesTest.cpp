// The client mode and the learning mode: from the VTIs to what the switch forwards.
#include "Scenario.h"

namespace {

using namespace scenario;

class ModesTest : public Scenario {
 protected:
  // One VLAN, one VNI and two hosts; the VTIs are the test's.
  void givenTwoHosts() {
    mapVlan("Vxlan1", 10, 10010);
    publish(10010, 1, {.vtep = "10.0.0.9"});
    publish(10010, 2, {.vtep = "10.0.0.8", .moves = 7});
  }
  const std::string twoHosts =
      "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
      "02:00:00:00:00:02:10 Vxlan1 10.0.0.8 moves 7\n";
};

// A switch without any VTI is no client, and learning counts as on.
TEST_F(ModesTest, WithoutAVtiTheSwitchIsNoClientAndLearns) {
  start();
  turnsUntilIdle();
  EXPECT_EQ(state(), "client off, learning on\n");
}

// One VTI that asks for it makes the switch a client, whatever the others say.
TEST_F(ModesTest, OneAskingVtiOfTwoSuffices) {
  givenVti("Vxlan1", {.client = false});
  givenVti("Vxlan2", {.client = true});
  start();
  EXPECT_TRUE(client->vxlanControllerClientMode());
}

// One VTI that does not learn turns learning off for the switch.
TEST_F(ModesTest, OneNonLearningVtiOfTwoSuffices) {
  givenVti("Vxlan1", {.client = false, .learning = true});
  givenVti("Vxlan2", {.client = false, .learning = false});
  start();
  turnsUntilIdle();
  EXPECT_EQ(state(), "client off, learning off\n");
}

// What the controller published before the client was built is there when the factory returns.
TEST_F(ModesTest, WhatIsThereBeforeTheFactoryIsThereWhenItReturns) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  EXPECT_EQ(received(), twoHosts);
  EXPECT_EQ(exported(), twoHosts);
}

// A VTI that appears with its attributes set takes effect at once, although nothing about it changes later.
TEST_F(ModesTest, AVtiThatIsAddedLaterTakesEffect) {
  givenTwoHosts();
  start();
  EXPECT_EQ(received(), "");
  givenVti("Vxlan1");
  EXPECT_EQ(received(), twoHosts);
}

// Removing a VTI runs nothing; the next change of another VTI finds it gone.
TEST_F(ModesTest, ARemovedVtiIsNoticedAtTheNextChange) {
  givenVti("Vxlan1");
  givenVti("Vxlan2", {.client = false});
  givenTwoHosts();
  start();
  const auto gone = vtiStatus("Vxlan1");
  vtiGoes("Vxlan1");
  EXPECT_TRUE(client->vxlanControllerClientMode());
  EXPECT_EQ(received(), twoHosts);
  gone->controllerClientModeIs(false);
  EXPECT_TRUE(client->vxlanControllerClientMode()) << "it is not heard any more";
  vtiStatus("Vxlan2")->datapathLearningIs(true);
  EXPECT_TRUE(client->vxlanControllerClientMode());
  EXPECT_TRUE(client->datapathLearningMode());
  givenVti("Vxlan3", {.client = false, .learning = true});
  EXPECT_FALSE(client->vxlanControllerClientMode());
  EXPECT_EQ(received(), "");
}

// All VTIs that go at once leave their marks as they were, too; the reactors of all of them are gone.
TEST_F(ModesTest, AllVtisThatGoAtOnceAreNotHeardAnyMore) {
  givenVti("Vxlan1");
  start();
  const auto old = vtiStatus("Vxlan1");
  handles.vtiStatusDir->vtiStatusDelAll();
  old->controllerClientModeIs(false);
  EXPECT_TRUE(client->vxlanControllerClientMode());
}

// They are let go at once, by the client and by the machines of the VNIs, not in their turn.
TEST_F(ModesTest, AllVtisThatGoAtOnceAreLetGoAtOnce) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  const auto gone = vtiStatus("Vxlan1");
  EXPECT_EQ(gone->reactors(), 2U);
  Kel::ActivityLoop::instance().asHandler([&] {
    handles.vtiStatusDir->vtiStatusDelAll();
    EXPECT_EQ(gone->reactors(), 0U);
  });
}

// A VTI status that takes the place of another is followed in its place, and what it says counts at once.
TEST_F(ModesTest, AVtiStatusIsFollowedInThePlaceOfTheOldOne) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  const auto old = vtiStatus("Vxlan1");
  givenVti("Vxlan1", {.client = false});
  EXPECT_EQ(received(), "");
  old->controllerClientModeIs(false);
  old->controllerClientModeIs(true);
  EXPECT_FALSE(client->vxlanControllerClientMode());
}

// With learning on the machines are there, but no host is copied; with learning off the hosts appear.
TEST_F(ModesTest, WhileTheDataPathLearnsNothingIsWritten) {
  givenVti("Vxlan1", {.learning = true});
  givenTwoHosts();
  start();
  turnsUntilIdle();
  EXPECT_EQ(state(), "client on, learning on\nmachines 10010\ntrackers Vxlan1\n");
  publish(10010, 3);
  EXPECT_EQ(received(), "");
  vtiStatus("Vxlan1")->datapathLearningIs(false);
  EXPECT_EQ(received(), twoHosts + "02:00:00:00:00:03:10 Vxlan1 10.0.0.9 moves 1\n");
}

// Learning that goes on takes away the hosts of every mapped VLAN of every VTI, also the marked ones; what
// the controller withdraws meanwhile does not come back.
TEST_F(ModesTest, LearningThatGoesOnDeletesTheRemoteHostsOfMappedVlans) {
  givenVti("Vxlan1");
  givenVti("Vxlan2");
  mapVlan("Vxlan2", 20, 10010);
  givenTwoHosts();
  controllerConverges(true);
  start();
  withdraw(10010, 1);
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 2U);
  vtiStatus("Vxlan1")->datapathLearningIs(true);
  EXPECT_NE(received(), "") << "one VTI of two still does not learn";
  vtiStatus("Vxlan2")->datapathLearningIs(true);
  EXPECT_EQ(received(), "");
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 0U);
  EXPECT_EQ(machines(), "10010 ");
  withdraw(10010, 2);
  vtiStatus("Vxlan1")->datapathLearningIs(false);
  EXPECT_EQ(received(), "");
}

// A host of a VLAN that nobody maps is not touched when learning goes on: it is none of the controller's.
TEST_F(ModesTest, LearningThatGoesOnLeavesUnmappedVlansAlone) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  Vxlan::ReceivedEntry other;
  other.key = key(9, 99);
  other.intf = vti("Vxlan1");
  client->hostTable()->receivedEntryIs(other);
  vtiStatus("Vxlan1")->datapathLearningIs(true);
  EXPECT_EQ(received(), "02:00:00:00:00:09:99 Vxlan1 0.0.0.0 moves 0\n");
}

// A client that stops being one loses machines and hosts, and later changes of the controller write nothing;
// on again, the same hosts come back.
TEST_F(ModesTest, TheClientModeGoesOffAndOnAgain) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  turnsUntilIdle();
  EXPECT_EQ(state(), "client off, learning off\ntrackers Vxlan1\n");
  publish(10010, 3);
  publish(10020, 1);
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_EQ(state(), "client off, learning off\ntrackers Vxlan1\n");
  withdraw(10010, 3);
  withdrawVni(10020);
  vtiStatus("Vxlan1")->controllerClientModeIs(true);
  EXPECT_EQ(received(), twoHosts);
  EXPECT_EQ(exported(), twoHosts);
  EXPECT_EQ(machines(), "10010 ");
}

// The MLAG machine exists while the switch is a client and the pair is in state 4, and no longer.
TEST_F(ModesTest, TheMlagMachineNeedsBothTheClientModeAndTheActivePair) {
  givenVti("Vxlan1", {.client = false});
  mlagIs(Mlag::MlagState::Active);
  start();
  EXPECT_FALSE(client->rmxMlagBumStatusSm());
  vtiStatus("Vxlan1")->controllerClientModeIs(true);
  ASSERT_TRUE(client->rmxMlagBumStatusSm());
  EXPECT_TRUE(client->rmxMlagBumStatusSm()->initialized());
  for (const std::uint32_t other : {0U, 3U, 5U}) {
    mlagIs(static_cast<Mlag::MlagState>(other));
    EXPECT_FALSE(client->rmxMlagBumStatusSm()) << other;
    mlagIs(static_cast<Mlag::MlagState>(4));
    EXPECT_TRUE(client->rmxMlagBumStatusSm()) << other;
  }
  const auto same = client->rmxMlagBumStatusSm();
  traceFromNow();
  vtiStatus("Vxlan1")->datapathLearningIs(true);
  EXPECT_EQ(client->rmxMlagBumStatusSm(), same) << "evaluated again, it is the same machine";
  EXPECT_EQ(tracedLines("RmxMlagBumStatusSmBase::handleInitialized()"), 1U) << "initialized anew";
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_FALSE(client->rmxMlagBumStatusSm());
}

// Every attribute begins as it is stated, and both clocks are parked until a convergence is known to be over.
TEST_F(ModesTest, TheClientBeginsWithItsDefaults) {
  handles.rmxStateClientView = nullptr;
  start();
  EXPECT_TRUE(client->initialized());
  EXPECT_EQ(client->maxProcessTime(), 0.01);
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), Bridging::MacVlanPair());
  EXPECT_FALSE(client->bumDeferredDeleteBookmarkValid());
  EXPECT_EQ(client->bumDeferredDeleteBookmark(), vlan(1));
  EXPECT_EQ(client->unicastDeferredDeleteClock()->timeMin(), never);
  EXPECT_EQ(client->bumDeferredDeleteClock()->timeMin(), never);
  EXPECT_EQ(client->hostTable()->name().text(), "hostTable");
}

// The table of received hosts is made once: another name finds the one that is there.
TEST_F(ModesTest, TheHostTableIsMadeOnce) {
  start();
  const auto table = client->hostTable();
  EXPECT_EQ(client->hostTableIs(Name("another")), table);
  EXPECT_EQ(client->getHostTable(), table);
  EXPECT_EQ(table->name().text(), "hostTable");
}

// Initializing again changes nothing that is there.
TEST_F(ModesTest, InitializingAgainChangesNothing) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  turnsUntilIdle();
  const std::string before = state();
  client->handleInitialized();
  turnsUntilIdle();
  EXPECT_EQ(state(), before);
}

// Initializing parks both clocks, whatever they were armed for.
TEST_F(ModesTest, InitializingParksBothClocks) {
  start();
  EXPECT_EQ(client->unicastDeferredDeleteClock()->timeMin(), time.peek());
  EXPECT_EQ(client->bumDeferredDeleteClock()->timeMin(), time.peek());
  client->handleInitialized();
  EXPECT_EQ(client->unicastDeferredDeleteClock()->timeMin(), never);
  EXPECT_EQ(client->bumDeferredDeleteClock()->timeMin(), never);
}

// The steps of the first evaluation, in their order: the controller's VNIs, its state, the modes.
TEST_F(ModesTest, TheFirstEvaluationGoesStepByStep) {
  traceFromNow();
  start();
  std::vector<std::string> steps;
  for (const std::string& line : lines) {
    for (const char* step :
         {"VxlanControllerClientSm::handleInitialized()", "handleControllerVniBaseDir()",
          "handleRmxStateBaseDir()", "handleDatapathLearningMode()", "handleControllerClientMode()",
          "updateControllerClientMode()", "handleMlagState()"}) {
      if (line.find(step) != std::string::npos) {
        steps.emplace_back(step);
      }
    }
  }
  EXPECT_THAT(steps, testing::ElementsAre("VxlanControllerClientSm::handleInitialized()",
                                          "handleControllerVniBaseDir()", "handleRmxStateBaseDir()",
                                          "handleDatapathLearningMode()", "updateControllerClientMode()",
                                          "handleRmxStateBaseDir()", "handleMlagState()",
                                          "handleControllerClientMode()", "updateControllerClientMode()",
                                          "handleRmxStateBaseDir()", "handleMlagState()"));
}

// The hooks for derived machines trace and do nothing.
TEST_F(ModesTest, TheHooksOfVtisOnlyTrace) {
  start();
  turnsUntilIdle();
  traceFromNow();
  client->handleVtiUp(vti("Vxlan1"));
  EXPECT_EQ(tracedLines("virtual void Vxlan::VxlanControllerMacAddrSmBase::handleVtiUp(Qnet::IntfId)  vti "
                        "Vxlan1 activated"),
            1U);
  client->handleVtiDown(vti("Vxlan1"));
  EXPECT_EQ(tracedLines("virtual void Vxlan::VxlanControllerMacAddrSmBase::handleVtiDown(Qnet::IntfId)  vti "
                        "Vxlan1"),
            1U);
  client->handleActivatedVti(vti("Vxlan1"));
  EXPECT_EQ(tracedLines("virtual void Vxlan::VxlanControllerMacAddrSmBase::handleActivatedVti(Qnet::IntfId)  "
                        "Init? 1"),
            1U);
  client->handleActivatedVti();
  EXPECT_EQ(tracedLines("virtual void Vxlan::VxlanControllerMacAddrSmBase::handleActivatedVti()"), 1U);
  EXPECT_EQ(state(), "client off, learning on\n");
}

// Of the inputs none but the MLAG status has to be there.
class NullInputTest : public ModesTest {
 protected:
  // Starts, changes everything that is there, runs the jobs, and stops.
  void liveThrough() {
    start();
    if (handles.controllerStatusBaseDir) {
      publish(10010, 3);
      withdraw(10010, 1);
      publishFloodList(10010, 4, {"10.0.0.9"});
      publishMultiPath(10010, 5, {"10.0.0.9"});
    }
    if (handles.rmxStateBaseDir) {
      controllerConverges(true);
      controllerConverges(false);
    }
    if (handles.vxlanHwStatusDir) {
      bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    }
    if (handles.vlanVniMaps) {
      mapVlan("Vxlan1", 20, 10020);
    }
    mlagIs(Mlag::MlagState::Active);
    turnsUntilIdle();
    lived = state();
    stop();
  }
  void SetUp() override {
    givenVti("Vxlan1");
    givenTwoHosts();
  }
  const std::string twoOfThree =
      "received 02:00:00:00:00:02:10 Vxlan1 10.0.0.8 moves 7\n"
      "received 02:00:00:00:00:03:10 Vxlan1 10.0.0.9 moves 1\n";
  const std::string twoOfThreeExported =
      "exported 02:00:00:00:00:02:10 Vxlan1 10.0.0.8 moves 7\n"
      "exported 02:00:00:00:00:03:10 Vxlan1 10.0.0.9 moves 1\n";
  const std::string twoFloods =
      "flood 10 02:00:00:00:00:04 all 10.0.0.9\n"
      "flood 10 02:00:00:00:00:05 any 10.0.0.9\n";
  const std::string live = "client on, learning off\nmachines 10010\ntrackers Vxlan1\nmlag machine\n";
  std::string lived;
};

TEST_F(NullInputTest, AllInputs) {
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported + twoFloods);
}
TEST_F(NullInputTest, NoVtis) {
  handles.vtiStatusDir = nullptr;
  liveThrough();
  EXPECT_EQ(lived, "client off, learning on\ntrackers Vxlan1\n");
}
TEST_F(NullInputTest, NoDirectoryOfVnis) {
  handles.controllerStatusBaseDir = nullptr;
  liveThrough();
  EXPECT_EQ(lived, "client on, learning off\ntrackers Vxlan1\nmlag machine\n");
}
TEST_F(NullInputTest, NoClientView) {
  handles.rmxStateClientView = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported + twoFloods);
}
TEST_F(NullInputTest, NoHardwareStatus) {
  handles.vxlanHwStatusDir = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported);
}
TEST_F(NullInputTest, NoMlagVxlanStatus) {
  handles.mlagVxlanStatus = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported + twoFloods);
}
TEST_F(NullInputTest, NoControllerState) {
  handles.rmxStateBaseDir = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported + twoFloods);
}
TEST_F(NullInputTest, NoMaps) {
  handles.vlanVniMaps = nullptr;
  liveThrough();
  EXPECT_EQ(lived, "client on, learning off\nmlag machine\n");
}
TEST_F(NullInputTest, NoFloodSets) {
  handles.rmxSde = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported);
}
TEST_F(NullInputTest, NoHostInput) {
  handles.l2RibRmxInput = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoFloods);
}
TEST_F(NullInputTest, NoConvergenceStatus) {
  handles.rmxConvergenceStatus = nullptr;
  liveThrough();
  EXPECT_EQ(lived, live + twoOfThree + twoOfThreeExported + twoFloods);
}
TEST_F(NullInputTest, NothingButTheMlagStatus) {
  const auto mlag = handles.mlagStatus;
  handles = {nullptr, nullptr, nullptr, nullptr, mlag, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  liveThrough();
  EXPECT_EQ(lived, "client off, learning on\n");
}

// Without maps nothing is found on either road.
TEST_F(NullInputTest, WithoutMapsNoVlanAndNoVniIsFound) {
  handles.vlanVniMaps = nullptr;
  start();
  EXPECT_TRUE(client->getVtiIterator().empty());
  EXPECT_FALSE(client->vlanForVni(vti("Vxlan1"), vni(10010)));
  EXPECT_EQ(client->vniForVlan(vti("Vxlan1"), vlan(10)).value(), 4294967295U);
}

// The base alone keeps its attributes and traces; nothing is written through it.
TEST_F(ModesTest, TheBaseAloneOnlyTraces) {
  givenVti("Vxlan1");
  givenTwoHosts();
  const Ptr<Vxlan::VxlanControllerMacAddrSmBase> base = Vxlan::vxlanControllerMacAddrSmBaseFactory(
      handles.vtiStatusDir, handles.controllerStatusBaseDir, handles.rmxStateClientView,
      handles.vxlanHwStatusDir, handles.mlagStatus, handles.mlagVxlanStatus);
  EXPECT_FALSE(base->initialized());
  EXPECT_FALSE(base->vxlanControllerClientMode());
  EXPECT_TRUE(base->datapathLearningMode());
  handles.rmxStateClientView->convergenceInProgressIs(true);
  traceFromNow();
  base->handleMlagState();
  EXPECT_EQ(tracedLines("handleMlagState"), 0U) << "not initialized, it does nothing";
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  handles.vxlanHwStatusDir->bumStatus()->bumVtepListIs(key(1, 10));
  base->processBumDeferredDeletes();
  EXPECT_EQ(
      tracedLines("processBumDeferredDeletes()  init: 0 convergence in progress: 1 bum vtep list count: 1 "
                  "bum replication mode: 3"),
      1U);
  EXPECT_EQ(tracedLines(" called but nothing to do - nexo rebooted again?"), 1U);
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10\n") << "nothing is deleted";
  handles.rmxStateClientView->convergenceInProgressIs(false);
  turnsUntilIdle();
  base->handleInitialized();
  EXPECT_TRUE(base->initialized());
  traceFromNow();
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  base->createRmxPerVniFdbStatusSm(vni(10010), vniStatus(10010));
  base->deleteRmxPerVniFdbStatusSm(vni(10010));
  base->createVlanVniMapSm(vti("Vxlan1"));
  base->deleteVlanVniMapSm(vti("Vxlan1"));
  base->createRmxMlagBumStatusSm();
  base->deleteRmxMlagBumStatusSm();
  base->deleteBumVtepListTable(vlan(10));
  base->deleteBumVtepListTable();
  base->handleBumReplicationMode();
  base->updateControllerClientMode();
  base->processUnicastDeferredDeletes();
  mlagIs(Mlag::MlagState::Active);
  const std::string cls = "virtual void Vxlan::VxlanControllerMacAddrSmBase::";
  for (const char* operation :
       {"handleControllerClientMode()", "createVlanVniMapSm(Qnet::IntfId)",
        "deleteVlanVniMapSm(Qnet::IntfId)", "createRmxMlagBumStatusSm()", "deleteRmxMlagBumStatusSm()",
        "deleteBumVtepListTable()", "deleteBumVtepListTable(Bridging::VlanId)  vlanId 10",
        "handleBumReplicationMode()", "updateControllerClientMode()",
        "deleteRmxPerVniFdbStatusSm(Vxlan::VniExt) deleteRmxPerVniFdbStatusSm 10010",
        " createRmxPerVniFdbStatusSm 10010"}) {
    EXPECT_GE(tracedLines((operation[0] == ' ' ? "" : cls) + operation), 1U) << operation;
  }
  EXPECT_EQ(base->rmxPerVniFdbStatusSm().size(), 0U);
  EXPECT_EQ(base->vlanVniMapSm().size(), 0U);
  EXPECT_FALSE(base->rmxMlagBumStatusSm());
  EXPECT_FALSE(base->getHostTable());
  EXPECT_TRUE(base->getVtiIterator().empty());
  EXPECT_FALSE(base->vlanForVni(vti("Vxlan1"), vni(10010)));
  EXPECT_FALSE(base->vniForVlan(vti("Vxlan1"), vlan(10)));
}

}  // namespace
