// The machines of the VNIs: when they come, when they go, and what goes with them.
#include "Scenario.h"

namespace {

using namespace scenario;

class PerVniTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
  }
  Ptr<Kel::Dir> directory() { return handles.controllerStatusBaseDir; }
};

// An entry that is only announced has no machine; the entity's own notification makes it.
TEST_F(PerVniTest, AnAnnouncedEntryHasNoMachineUntilItsEntityIsThere) {
  start();
  traceFromNow();
  announceVni(10010);
  EXPECT_EQ(machines(), "");
  EXPECT_EQ(tracedLines("10010 entry subdir added, but not instantiated "), 1U);
  givenVni(10010);
  EXPECT_EQ(machines(), "10010 ");
  EXPECT_EQ(tracedLines("10010 entry subdir added "), 1U);
}

// An entity of another type is ignored.
TEST_F(PerVniTest, AnEntityOfAnotherTypeIsIgnored) {
  start();
  directory()->entityPtrIs(Name("10010"), Kel::make<VxlanController::RmxStateV2>());
  EXPECT_EQ(machines(), "");
}

// A VNI that is published but mapped nowhere has no machine; mapped later, it has one, with its hosts.
TEST_F(PerVniTest, AVniThatIsMappedLaterGetsItsMachineThen) {
  publish(10020, 1);
  start();
  EXPECT_EQ(machines(), "");
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_EQ(machines(), "10020 ");
  EXPECT_EQ(received(), "02:00:00:00:00:01:20 Vxlan1 10.0.0.9 moves 1\n");
}

// A VNI that is withdrawn takes its machine and its hosts along; the others stay.
TEST_F(PerVniTest, AWithdrawnVniTakesItsHostsAlong) {
  mapVlan("Vxlan1", 20, 10020);
  publish(10010, 1);
  publish(10010, 2);
  publish(10020, 1);
  start();
  withdrawVni(10010);
  EXPECT_EQ(machines(), "10020 ");
  EXPECT_EQ(received(), "02:00:00:00:00:01:20 Vxlan1 10.0.0.9 moves 1\n");
  EXPECT_EQ(exported(), received());
}

// A VNI for which there is no machine cleans nothing when it is withdrawn.
TEST_F(PerVniTest, AWithdrawnVniWithoutMachineCleansNothing) {
  start();
  Vxlan::ReceivedEntry left;
  left.key = key(1, 10);
  left.intf = vti("Vxlan1");
  client->hostTable()->receivedEntryIs(left);
  announceVni(10010);
  withdrawVni(10010);
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 0.0.0.0 moves 0\n");
}

// A directory that is emptied at once takes all machines and hosts with it.
TEST_F(PerVniTest, ADirectoryThatIsEmptiedTakesAllMachinesWithIt) {
  mapVlan("Vxlan1", 20, 10020);
  publish(10010, 1);
  publish(10020, 1);
  start();
  directory()->entryDelAll();
  EXPECT_EQ(machines(), "");
  EXPECT_EQ(received(), "");
}

// While the controller converges, the hosts of a withdrawn VNI are marked, and still exported.
TEST_F(PerVniTest, AVniWithdrawnWhileConvergingOnlyMarksItsHosts) {
  publish(10010, 1);
  controllerConverges(true);
  start();
  withdrawVni(10010);
  EXPECT_EQ(machines(), "");
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked\n");
  EXPECT_EQ(exported(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 1U);
}

// A VNI that is published again while the controller converges unmarks the hosts that are published again,
// and only those.
TEST_F(PerVniTest, AVniPublishedAgainUnmarksWhatItPublishes) {
  publish(10010, 1);
  publish(10010, 2);
  controllerConverges(true);
  start();
  withdrawVni(10010);
  publish(10010, 1, {.moves = 2});
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 2\n"
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1 marked\n");
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 1U);
  controllerConverges(false);
  turnsUntilIdle();
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 2\n");
}

// The client mode off is not deferred: everything goes at once, also while the controller converges.
TEST_F(PerVniTest, LeavingTheClientModeIsNeverDeferred) {
  publish(10010, 1);
  publish(10010, 2);
  controllerConverges(true);
  start();
  withdraw(10010, 1);
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_EQ(received(), "");
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 0U);
}

// Nor is it if somebody else has set the view's flag.
TEST_F(PerVniTest, LeavingTheClientModeIsNotDeferredByTheViewAlone) {
  publish(10010, 1);
  start();
  handles.rmxStateClientView->convergenceInProgressIs(true);
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_EQ(received(), "");
}

// A cleanup that is not to be deferred deletes at once, also while the controller converges.
TEST_F(PerVniTest, ACleanupIsDeferredOnlyIfItMayBe) {
  publish(10010, 1);
  controllerConverges(true);
  start();
  client->cleanupRmxPerVniFdbStatusSm(vni(10010), true);
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked\n");
  client->cleanupRmxPerVniFdbStatusSm(vni(10010), false);
  EXPECT_EQ(received(), "");
}

// The cleanup of a VNI stops at the first VTI that does not map it, even if a later one does.
TEST_F(PerVniTest, TheCleanupStopsAtTheFirstVtiWithoutTheVni) {
  givenVti("Vxlan0");
  givenMap("Vxlan0");
  publish(10010, 1);
  start();
  traceFromNow();
  withdrawVni(10010);
  EXPECT_EQ(tracedLines("Missing vlan-to-vni mapping"), 1U);
  EXPECT_EQ(machines(), "");
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
}

// What earlier VTIs map is cleaned before the walk stops.
TEST_F(PerVniTest, TheCleanupReachesTheVtisBeforeTheFirstWithoutTheVni) {
  givenVti("Vxlan2");
  givenMap("Vxlan2");
  publish(10010, 1);
  start();
  withdrawVni(10010);
  EXPECT_EQ(received(), "");
}

// With two VTIs that map the VNI, one pass makes the machine for the first and refreshes it for the second.
TEST_F(PerVniTest, TwoVtisMakeTheMachineOnceAndRefreshItOnce) {
  givenVti("Vxlan2");
  mapVlan("Vxlan2", 20, 10010);
  start();
  traceFromNow();
  givenVni(10010);
  EXPECT_EQ(tracedLines("createRmxPerVniFdbStatusSm 10010"), 1U);
  EXPECT_EQ(tracedLines("RmxPerVniFdbStatusSmBase::handleRmxHostTable()"), 2U)
      << "once as it is made, once as it is refreshed";
  publish(10010, 1);
  EXPECT_EQ(machines(), "10010 ");
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:01:20 Vxlan2 10.0.0.9 moves 1\n");
}

// If the entity of an entry is replaced, the old machine goes with its hosts, and a new one follows the new
// entity.
TEST_F(PerVniTest, AReplacedEntityIsFollowedInPlaceOfTheOldOne) {
  publish(10010, 1);
  start();
  const auto old = vniStatus(10010);
  const auto fresh = Kel::make<VxlanController::VniFdbStatusV2>();
  fresh->macVtepTableIs({mac(2), ip("10.0.0.8"), 5, VxlanController::HostAttr::Dynamic});
  directory()->entityPtrIs(Name("10010"), fresh);
  EXPECT_EQ(received(), "02:00:00:00:00:02:10 Vxlan1 10.0.0.8 moves 5\n");
  EXPECT_EQ(client->rmxPerVniFdbStatusSm(vni(10010))->rmxVniFdbStatusV2(), fresh);
  old->macVtepTableIs({mac(3), ip("10.0.0.8"), 5, VxlanController::HostAttr::Dynamic});
  EXPECT_EQ(received(), "02:00:00:00:00:02:10 Vxlan1 10.0.0.8 moves 5\n") << "the old entity is not followed";
}

// While the controller converges a replaced entity marks what the new one does not publish.
TEST_F(PerVniTest, AnEntityReplacedWhileConvergingMarksWhatIsNotPublishedAgain) {
  publish(10010, 1);
  publish(10010, 2);
  controllerConverges(true);
  start();
  const auto fresh = Kel::make<VxlanController::VniFdbStatusV2>();
  fresh->macVtepTableIs({mac(2), ip("10.0.0.9"), 1, VxlanController::HostAttr::Dynamic});
  directory()->entityPtrIs(Name("10010"), fresh);
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked\n"
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1\n");
}

// A scan of the whole directory takes its entries one by one; those that have gone are not found by it.
TEST_F(PerVniTest, AScanOfTheDirectoryTakesItsEntriesOneByOne) {
  givenVni(10010);
  announceVni(10020);
  start();
  traceFromNow();
  client->handleControllerVniBaseDir();
  EXPECT_EQ(tracedLines("virtual void Vxlan::VxlanControllerMacAddrSmBase::handleControllerVniBaseDir() "),
            1U);
  EXPECT_EQ(tracedLines("handleControllerVniBaseDir(Kel::Name)  name 10010"), 1U);
  EXPECT_EQ(tracedLines("handleControllerVniBaseDir(Kel::Name)  name 10020"), 1U);
  client->hasNotificationActiveIs(false);
  withdrawVni(10010);
  client->handleControllerVniBaseDir();
  EXPECT_EQ(machines(), "10010 ");
}

// A scan of a VNI that has a machine re-evaluates that machine and does not look at the directory.
TEST_F(PerVniTest, AScanReEvaluatesTheMachineThatIsThere) {
  publish(10010, 1);
  start();
  const auto machine = client->rmxPerVniFdbStatusSm(vni(10010));
  client->hostTable()->receivedEntryDelAll();
  client->controllerStatusBaseDirDel();
  client->vxlanControllerScanVniStatus(vni(10010));
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
  EXPECT_EQ(client->rmxPerVniFdbStatusSm(vni(10010)), machine);
  client->vxlanControllerScanVniStatus(vni(10020));
  EXPECT_EQ(machines(), "10010 ");
}

// Another directory is followed as if each of its entries had just come.
TEST_F(PerVniTest, AnotherDirectoryIsFollowed) {
  start();
  const auto other = Kel::make<Kel::Dir>();
  other->entityPtrIs(Name("10010"), Kel::make<VxlanController::VniFdbStatusV2>());
  client->controllerStatusBaseDirIs(other);
  EXPECT_EQ(machines(), "10010 ");
  other->entryDel(Name("10010"));
  EXPECT_EQ(machines(), "");
}

// The largest VNI there is has a machine like any other.
TEST_F(PerVniTest, TheLargestVniHasAMachine) {
  mapVlan("Vxlan1", 20, 4294967294U);
  publish(4294967294U, 1);
  start();
  EXPECT_EQ(machines(), "4294967294 ");
}

// A name that is no VNI raises the range error out of the change, and leaves the state as it was.
TEST_F(PerVniTest, ANameThatIsNoVniIsRefused) {
  publish(10010, 1);
  start();
  turnsUntilIdle();
  const std::string before = state();
  for (const char* name : {"", "x", "10010x", " 10010", "+10010", "-1", "4294967295", "4294967296",
                           "99999999999999999999", "1e3", "0x10"}) {
    EXPECT_EQ(
        refusal([&] { directory()->entityPtrIs(Name(name), Kel::make<VxlanController::VniFdbStatusV2>()); }),
        "VniExt::value < VniExt::min or > VniExt::max not allowed")
        << name;
    EXPECT_EQ(refusal([&] { directory()->entryDel(Name(name)); }),
              "VniExt::value < VniExt::min or > VniExt::max not allowed")
        << name;
  }
  EXPECT_EQ(state(), before);
}

// VNI 0 is refused where it would get a machine; announced, of another type, or withdrawn it is none.
TEST_F(PerVniTest, VniZeroIsFatalOnlyWhereItWouldGetAMachine) {
  start();
  announceVni(0);
  directory()->entityPtrIs(Name("0"), Kel::make<VxlanController::RmxStateV2>());
  withdrawVni(0);
  EXPECT_EQ(machines(), "");
  EXPECT_DEATH(givenVni(0), "!!vniId");
}

// With the client mode off a new entry takes the delete path, which finds nothing to do.
TEST_F(PerVniTest, WithTheClientModeOffANewEntryTakesTheDeletePath) {
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  start();
  traceFromNow();
  publish(10010, 1);
  EXPECT_EQ(tracedLines(" entry subdir deleted for 10010"), 1U);
  EXPECT_EQ(tracedLines(" Deleting the corresponding SM"), 0U);
  EXPECT_EQ(machines(), "");
}

// Outside convergence nothing of a withdrawn VNI stays behind, flood sets included.
TEST_F(PerVniTest, AWithdrawnVniTakesItsFloodSetsAlong) {
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  publishFloodList(10010, 0, {"10.0.0.9"});
  start();
  EXPECT_EQ(floods(), "10 02:00:00:00:00:00 all 10.0.0.9\n");
  withdrawVni(10010);
  EXPECT_EQ(floods(), "");
}

// A machine that is withdrawn is not reached by what its entity still changes.
TEST_F(PerVniTest, AWithdrawnVniIsNotHeardAnyMore) {
  start();
  const auto status = vniStatus(10010);
  withdrawVni(10010);
  status->macVtepTableIs({mac(1), ip("10.0.0.9"), 1, VxlanController::HostAttr::Dynamic});
  EXPECT_EQ(received(), "");
}

// All machines can be dropped one by one, through either collection; absent ones are no error.
TEST_F(PerVniTest, MachinesAreDroppedThroughEitherCollection) {
  givenVni(10010);
  start();
  client->vccPerVniFdbStatusSmShadowDelAll();
  EXPECT_EQ(machines(), "10010 ") << "entered in the base collection too";
  client->rmxPerVniFdbStatusSmDelAll();
  EXPECT_EQ(machines(), "");
  client->vccPerVniFdbStatusSmShadowDel(vni(10010));
  client->rmxPerVniFdbStatusSmDel(vni(10010));
  client->deleteRmxPerVniFdbStatusSm(vni(10010));
  EXPECT_EQ(machines(), "");
}

}  // namespace
