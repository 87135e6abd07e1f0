// Binding the machines to other entities while they live: each binding counts as a change of all that is
// followed.
#include "Scenario.h"

namespace {

using namespace scenario;

class MutatorsTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    publish(10010, 1);
    start();
    turnsUntilIdle();
  }
  Ptr<Vxlan::RmxPerVniFdbStatusSmBase> machine() { return client->rmxPerVniFdbStatusSm(vni(10010)); }
  const std::string host = "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n";
};

// Another directory of VTIs counts at once: its VTIs decide the modes, those of the old one are not heard.
TEST_F(MutatorsTest, AnotherDirectoryOfVtisDecidesTheModes) {
  const auto old = vtiStatus("Vxlan1");
  const auto other = Kel::make<Vxlan::VtiStatusDir>();
  const auto status = Kel::make<Vxlan::VtiStatus>(vti("Vxlan1"));
  status->controllerClientModeIs(false);
  other->vtiStatusIs(status);
  client->vtiStatusDirIs(other);
  EXPECT_FALSE(client->vxlanControllerClientMode());
  EXPECT_EQ(received(), "");
  old->controllerClientModeIs(false);
  old->controllerClientModeIs(true);
  EXPECT_FALSE(client->vxlanControllerClientMode());
  status->controllerClientModeIs(true);
  EXPECT_EQ(received(), host);
}

// Without a directory of VTIs nothing is heard until the modes are evaluated again.
TEST_F(MutatorsTest, WithoutADirectoryOfVtisTheModesStayUntilEvaluated) {
  client->vtiStatusDirDel();
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_TRUE(client->vxlanControllerClientMode());
  client->handleControllerClientMode();
  client->handleDatapathLearningMode();
  EXPECT_FALSE(client->vxlanControllerClientMode());
  EXPECT_TRUE(client->datapathLearningMode());
  EXPECT_EQ(received(), "");
  client->vtiStatusDirIs(nullptr);
  EXPECT_FALSE(client->vtiStatusDir());
}

// Another MLAG status counts at once.
TEST_F(MutatorsTest, AnotherMlagStatusCountsAtOnce) {
  const auto other = Kel::make<Mlag::Status>();
  other->mlagStateIs(Mlag::MlagState::Active);
  client->mlagStatusIs(other);
  EXPECT_TRUE(client->rmxMlagBumStatusSm());
  mlagIs(Mlag::MlagState::Active);
  mlagIs(Mlag::MlagState::Disabled);
  EXPECT_TRUE(client->rmxMlagBumStatusSm()) << "the old one is not followed";
  other->mlagStateIs(Mlag::MlagState::Disabled);
  EXPECT_FALSE(client->rmxMlagBumStatusSm());
}

// The hardware's BUM status is followed when it comes, when another takes its place, and when it goes:
// without one nothing is flooded.
TEST_F(MutatorsTest, TheBumStatusOfTheHardwareIsFollowedAsItComesAndGoes) {
  publishFloodList(10010, 2, {"10.0.0.9"});
  const std::string flood = "10 02:00:00:00:00:02 all 10.0.0.9\n";
  EXPECT_FALSE(client->kel_BumStatusIn());
  EXPECT_EQ(floods(), "");
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  EXPECT_EQ(client->kel_BumStatusIn(), handles.vxlanHwStatusDir->bumStatus());
  EXPECT_EQ(floods(), flood);
  handles.vxlanHwStatusDir->bumStatusIs(Kel::make<Vxlan::BumStatus>());
  EXPECT_EQ(floods(), "");
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  EXPECT_EQ(floods(), flood);
  handles.vxlanHwStatusDir->bumStatusIs(nullptr);
  EXPECT_FALSE(client->kel_BumStatusIn());
  EXPECT_EQ(floods(), "");
}

// So is another hardware status as a whole, and losing it.
TEST_F(MutatorsTest, AnotherHardwareStatusIsFollowed) {
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  publishFloodList(10010, 2, {"10.0.0.9"});
  EXPECT_NE(floods(), "");
  client->vxlanHwStatusDirDel();
  EXPECT_FALSE(client->kel_BumStatusIn());
  EXPECT_EQ(floods(), "");
  const auto other = Kel::make<Vxlan::VxlanHwStatusDir>();
  other->bumStatusIs(Kel::make<Vxlan::BumStatus>());
  client->vxlanHwStatusDirIs(other);
  EXPECT_EQ(client->kel_BumStatusIn(), other->bumStatus());
}

// A per-VNI machine that is bound to another status of the controller reads all of it; bound to none it is
// quiet.
TEST_F(MutatorsTest, APerVniMachineReadsAllOfAnotherStatus) {
  const auto other = Kel::make<VxlanController::VniFdbStatusV2>();
  other->macVtepTableIs({mac(5), ip("10.0.0.8"), 2, VxlanController::HostAttr::Dynamic});
  machine()->rmxVniFdbStatusV2Is(other);
  EXPECT_EQ(received(), host + "02:00:00:00:00:05:10 Vxlan1 10.0.0.8 moves 2\n")
      << "a full pass never deletes";
  machine()->rmxVniFdbStatusV2Del();
  EXPECT_FALSE(machine()->rmxVniFdbStatusV2());
  other->macVtepTableDel(mac(5));
  machine()->handleInitialized();
  machine()->handleRmxHostTable(mac(1));
  machine()->handleMacVtepFloodListTable(mac(1));
  EXPECT_FALSE(machine()->checkBumStatus());
  EXPECT_EQ(received(), host + "02:00:00:00:00:05:10 Vxlan1 10.0.0.8 moves 2\n");
}

// A per-VNI machine follows the gateway addresses of the VTIs of its directory, and of no other.
TEST_F(MutatorsTest, APerVniMachineFollowsTheVtisOfItsDirectory) {
  const auto other = Kel::make<Vxlan::VtiStatusDir>();
  const auto status = Kel::make<Vxlan::VtiStatus>(vti("Vxlan1"));
  other->vtiStatusIs(status);
  machine()->vtiStatusDirIs(other);
  traceFromNow();
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.7"));
  EXPECT_EQ(tracedLines("handleDgwVtepAddr"), 0U);
  status->dgwVtepAddrIs(ip("10.0.1.7"));
  EXPECT_EQ(tracedLines("handleDgwVtepAddr"), 1U);
  machine()->vtiStatusDel(vti("Vxlan1"));
  status->dgwVtepAddrIs(ip("10.0.1.8"));
  EXPECT_EQ(tracedLines("handleDgwVtepAddr"), 1U);
  machine()->vtiStatusNotify(vti("Vxlan1"));
  EXPECT_EQ(tracedLines("handleDgwVtepAddr"), 2U) << "made in a live machine it counts as bound";
  machine()->vtiStatusDel(other->vtiStatus().begin());
  status->dgwVtepAddrIs(ip("10.0.1.9"));
  EXPECT_EQ(tracedLines("handleDgwVtepAddr"), 2U);
  machine()->vtiStatusDirIs(nullptr);
  EXPECT_FALSE(machine()->vtiStatusDir());
}

// Whether the controller drives flooding needs the machine initialized, its inputs there, and mode 3.
TEST_F(MutatorsTest, FloodingIsTheControllersOnlyInItsMode) {
  EXPECT_FALSE(machine()->checkBumStatus()) << "no BUM status";
  for (const std::uint32_t mode : {0U, 1U, 2U, 4U, 4294967295U}) {
    bumReplicationMode(static_cast<Vxlan::BumReplicationMode>(mode));
    EXPECT_FALSE(machine()->checkBumStatus()) << mode;
  }
  bumReplicationMode(static_cast<Vxlan::BumReplicationMode>(3));
  EXPECT_TRUE(machine()->checkBumStatus());
  machine()->vxlanHwStatusDirDel();
  EXPECT_FALSE(machine()->checkBumStatus()) << "no hardware status";
  machine()->vxlanHwStatusDirIs(handles.vxlanHwStatusDir);
  EXPECT_TRUE(machine()->checkBumStatus());
}

// An exporter that is bound to another table exports that one in the place of the old; bound to none it
// leaves the hosts where they are.
TEST_F(MutatorsTest, AnExporterExportsAnotherTableInThePlaceOfTheOld) {
  const auto tableOf = [](std::uint64_t number) {
    const auto table = Kel::make<Vxlan::ReceivedHostTable>(Name("hostTable"));
    Vxlan::ReceivedEntry entry;
    entry.key = key(number, 10);
    entry.intf = vti("Vxlan1");
    table->receivedEntryIs(entry);
    return table;
  };
  const auto first = tableOf(1);
  const auto second = tableOf(2);
  const auto input = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{});
  const auto exporter = Vxlan::receivedHostTableToL2RibHostInputSmFactory(first, input);
  EXPECT_TRUE(input->hasHost(key(1, 10)));
  exporter->receivedHostTableIs(second);
  EXPECT_FALSE(input->hasHost(key(1, 10)));
  EXPECT_TRUE(input->hasHost(key(2, 10)));
  EXPECT_EQ(first->reactors(), 0U);
  exporter->receivedHostTableDel();
  EXPECT_EQ(second->reactors(), 0U);
  exporter->handleReceivedHostEntry(key(2, 10));
  exporter->handleReceivedHostEntry();
  EXPECT_TRUE(input->hasHost(key(2, 10)));
}

// Another state of the controller is echoed at once; without one the view stays as it is, until the machine
// goes.
TEST_F(MutatorsTest, AnotherStateOfTheControllerIsEchoedAtOnce) {
  controllerConverges(false);
  const auto echo = client->rmxStateSm();
  const auto other = Kel::make<VxlanController::RmxStateV2>();
  other->convergenceInProgressIs(true);
  echo->rmxStateIs(other);
  EXPECT_TRUE(handles.rmxStateClientView->convergenceInProgress());
  controllerConverges(true);
  controllerConverges(false);
  EXPECT_TRUE(handles.rmxStateClientView->convergenceInProgress()) << "the old one is not followed";
  echo->rmxStateDel();
  EXPECT_EQ(other->reactors(), 0U);
  echo->handleConvergenceInProgress();
  EXPECT_TRUE(handles.rmxStateClientView->convergenceInProgress());
  stop();
  EXPECT_TRUE(handles.rmxStateClientView->convergenceInProgress()) << "the test still holds the machine";
}

// A tracker that is bound to another map translates through it and hears its signals; bound to none it finds
// nothing.
TEST_F(MutatorsTest, ATrackerFollowsAnotherMap) {
  const auto tracker = client->vlanVniMapSmShadowIs(vti("Vxlan1"), client.get(), map("Vxlan1"));
  const auto other = Kel::make<Vxlan::VlanVniMap>();
  other->mappingIs(vlan(20), vni(10020));
  tracker->vlanVniMapIs(other);
  EXPECT_EQ(map("Vxlan1")->reactors(), 0U);
  EXPECT_EQ(tracker->vniForVlan(vlan(20)).value(), 10020U);
  EXPECT_FALSE(tracker->vniForVlan(vlan(10)));
  traceFromNow();
  other->notifyingVlanIs(vlan(20));
  EXPECT_EQ(tracedLines("Create rmxPerVniFdbStatusSm for 10020"), 1U);
  tracker->vlanVniMapDel();
  EXPECT_EQ(other->reactors(), 0U);
  EXPECT_FALSE(tracker->vniForVlan(vlan(20)));
  EXPECT_FALSE(tracker->vlanForVni(vni(10020)));
  tracker->handleInitialized();
  EXPECT_EQ(received(), host);
}

// The trackers can be dropped all at once.
TEST_F(MutatorsTest, AllTrackersCanBeDroppedAtOnce) {
  givenMap("Vxlan2");
  EXPECT_EQ(trackers(), "Vxlan1 Vxlan2 ");
  const auto tracker = client->vlanVniMapSm(vti("Vxlan2"));
  client->vlanVniMapSmDelAll();
  EXPECT_EQ(trackers(), "");
  client->vlanVniMapSmShadowDelAll();
  EXPECT_TRUE(tracker->zombie());
  EXPECT_EQ(tracker->references(), 1U);
}

// A client that is replaced within one turn, as an agent does it, ends as the old one was, also while the
// controller converges: nobody sees the window closed, and nothing is scheduled.
TEST_F(MutatorsTest, AClientReplacedWithinOneTurnEndsAsTheOldOneWas) {
  struct Windows final : Kel::Follows<VxlanController::RmxStateClientViewV2> {
    void onConvergenceInProgress() override { seen.push_back(notifier()->convergenceInProgress()); }
    std::vector<bool> seen;
  };
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  mlagIs(Mlag::MlagState::Active);
  publishFloodList(10010, 2, {"10.0.0.9"});
  for (const bool converging : {true, false}) {
    controllerConverges(converging);
    turnsUntilIdle();
    const std::string before = state();
    const auto windows = Kel::make<Windows>();
    windows->notifierIs(handles.rmxStateClientView);
    windows->seen.clear();
    Kel::ActivityLoop::instance().asHandler([&] { restart(); });
    EXPECT_THAT(windows->seen, testing::Each(converging));
    turnsUntilIdle();
    EXPECT_EQ(state(), before);
    windows->notifierIs(nullptr);
  }
}

}  // namespace
