// The paced deletion of flood sets and the replication mode, where a journal cannot reach: bookmark and
// clock, and the counts that the job relies on.
#include "Scenario.h"

namespace {

using namespace scenario;

class BumJobTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    givenVni(10010);
    handles.vxlanHwStatusDir->bumStatusIs(Kel::make<Vxlan::BumStatus>());
    handles.vxlanHwStatusDir->bumStatus()->bumReplicationModeIs(Vxlan::BumReplicationMode::Controller);
    start();
    turnsUntilIdle();
  }
  Ptr<L2Rib::FloodSet> floodSet(std::uint64_t macNumber) {
    return handles.rmxSde->vlanFloodSetIs(vlan(10))->floodSetIs(mac(macNumber));
  }
  static L2Rib::Dest dest(std::string_view text) { return L2Rib::Dest::ofVtep(ip(text)); }
  bool inProgress() const { return handles.rmxConvergenceStatus->bumDeferredDeletionInProgress(); }
  // Three VLANs, of which the controller has forgotten a destination each, and time for one of them a run.
  void givenThreeStaleVlans() {
    for (const std::uint32_t number : {20U, 30U}) {
      mapVlan("Vxlan1", number, 10000 + number);
    }
    for (const std::uint32_t number : {10010U, 10020U, 10030U}) {
      publishFloodList(number, 1, {"10.0.0.8", "10.0.0.9"});
    }
    controllerConverges(true);
    for (const std::uint32_t number : {10010U, 10020U, 10030U}) {
      withdrawVni(number);
      publishFloodList(number, 1, {"10.0.0.9"});
    }
    client->maxProcessTimeIs(1);
    time.tickPerReadIs(2);
  }
};

class BumJobDeathTest : public BumJobTest {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "fast");
    BumJobTest::SetUp();
  }
};

// A flood set of a list that somebody else has made smaller.
TEST_F(BumJobDeathTest, FewerDestinationsThanTheFloodListAreFatal) {
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  floodSet(1)->destSetDel(dest("10.0.0.2"));
  EXPECT_DEATH(client->processBumDeferredDeletes(),
               "fsIter->destSets\\(\\) >= vniFdbStatus->macVtepFloodListTable\\( macAddr \\) "
               "->vtepIpFloodLists\\(\\)");
}

// A flood set of a list in which somebody else has put other destinations.
TEST_F(BumJobDeathTest, OtherDestinationsThanTheFloodListAreFatal) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  floodSet(1)->destSetDel(dest("10.0.0.2"));
  floodSet(1)->destSetIs(dest("10.0.0.8"), true);
  floodSet(1)->destSetIs(dest("10.0.0.9"), true);
  EXPECT_DEATH(client->processBumDeferredDeletes(),
               "fsIter->destSets\\(\\) == vniFdbStatus->macVtepFloodListTable\\( macAddr \\) "
               "->vtepIpFloodLists\\(\\)");
}

TEST_F(BumJobDeathTest, FewerDestinationsThanTheMultiPathEntryAreFatal) {
  publishMultiPath(10010, 1, {"10.0.0.2", "10.0.0.3"});
  floodSet(1)->destSetDel(dest("10.0.0.2"));
  EXPECT_DEATH(
      client->processBumDeferredDeletes(),
      "fsIter->destSets\\(\\) >= vniFdbStatus->macVtepMultiPathTable\\( macAddr \\).vtepIpLists\\(\\)");
}

TEST_F(BumJobDeathTest, OtherDestinationsThanTheMultiPathEntryAreFatal) {
  publishMultiPath(10010, 1, {"10.0.0.2"});
  floodSet(1)->destSetDel(dest("10.0.0.2"));
  floodSet(1)->destSetIs(dest("10.0.0.8"), true);
  floodSet(1)->destSetIs(dest("10.0.0.9"), true);
  EXPECT_DEATH(
      client->processBumDeferredDeletes(),
      "fsIter->destSets\\(\\) == vniFdbStatus->macVtepMultiPathTable\\( macAddr \\) .vtepIpLists\\(\\)");
}

// A run that has deleted something looks at the clock, and leaves a bookmark behind: the next VLAN.
TEST_F(BumJobTest, ARunThatIsOutOfTimeLeavesABookmark) {
  givenThreeStaleVlans();
  EXPECT_FALSE(client->bumDeferredDeleteBookmarkValid());
  controllerConverges(false);
  const double begin = time.peek();
  client->processBumDeferredDeletes();
  EXPECT_TRUE(client->bumDeferredDeleteBookmarkValid());
  EXPECT_EQ(client->bumDeferredDeleteBookmark(), vlan(20));
  EXPECT_EQ(client->bumDeferredDeleteClock()->timeMin(), begin + 2) << "the second look at the clock";
  EXPECT_TRUE(inProgress());
  time.tickPerReadIs(0);
  turnsUntilIdle();
  EXPECT_FALSE(client->bumDeferredDeleteBookmarkValid());
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(floods(),
            "10 02:00:00:00:00:01 all 10.0.0.9\n"
            "20 02:00:00:00:00:01 all 10.0.0.9\n"
            "30 02:00:00:00:00:01 all 10.0.0.9\n");
}

// A budget that is just spent is spent.
TEST_F(BumJobTest, ARunWhoseBudgetIsJustSpentEnds) {
  givenThreeStaleVlans();
  client->maxProcessTimeIs(2);
  controllerConverges(false);
  client->processBumDeferredDeletes();
  EXPECT_EQ(client->bumDeferredDeleteBookmark(), vlan(20));
}

// A new convergence keeps the bookmark and says nothing.
TEST_F(BumJobTest, ANewConvergenceKeepsTheBookmark) {
  givenThreeStaleVlans();
  controllerConverges(false);
  client->processBumDeferredDeletes();
  controllerConverges(true);
  handles.rmxConvergenceStatus->bumDeferredDeletionInProgressIs(true);
  const std::string before = floods();
  client->processBumDeferredDeletes();
  EXPECT_EQ(floods(), before);
  EXPECT_TRUE(client->bumDeferredDeleteBookmarkValid());
  EXPECT_EQ(client->bumDeferredDeleteBookmark(), vlan(20));
  EXPECT_TRUE(inProgress());
}

// In another mode, without a BUM status and without a flood set a run drops the bookmark and says that it is
// over, also while the controller converges.
TEST_F(BumJobTest, WithNothingToDoTheBookmarkIsDropped) {
  givenThreeStaleVlans();
  controllerConverges(false);
  client->processBumDeferredDeletes();
  controllerConverges(true);
  client->hasNotificationActiveIs(false);  // the flood sets stay although the mode changes
  const std::string before = floods();
  bumReplicationMode(Vxlan::BumReplicationMode::None);
  handles.rmxConvergenceStatus->bumDeferredDeletionInProgressIs(true);
  client->processBumDeferredDeletes();
  EXPECT_FALSE(client->bumDeferredDeleteBookmarkValid());
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(floods(), before) << "no flood set is touched";

  handles.vxlanHwStatusDir->bumStatusIs(nullptr);
  handles.rmxConvergenceStatus->bumDeferredDeletionInProgressIs(true);
  client->processBumDeferredDeletes();
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(floods(), before);

  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  handles.rmxSde->vlanFloodSetDelAll();
  handles.rmxConvergenceStatus->bumDeferredDeletionInProgressIs(true);
  client->processBumDeferredDeletes();
  EXPECT_FALSE(inProgress());
}

// A run that finds nothing to delete does not look at the clock after it has begun.
TEST_F(BumJobTest, ARunWithoutADeletionReadsTheClockOnce) {
  for (std::uint32_t number = 11; number < 100; ++number) {
    mapVlan("Vxlan1", number, 10000 + number);
    publishFloodList(10000 + number, 1, {"10.0.0.9"});
  }
  time.tickPerReadIs(1);
  const double begin = time.peek();
  client->processBumDeferredDeletes();
  EXPECT_EQ(time.peek(), begin + 1);
  EXPECT_FALSE(inProgress());
}

// Binding another clock counts as its time, once; binding the same one is nothing.
TEST_F(BumJobTest, BindingAnotherClockRunsTheJobOnce) {
  traceFromNow();
  client->bumDeferredDeleteClockIs(client->bumDeferredDeleteClock());
  EXPECT_EQ(tracedLines("processBumDeferredDeletes"), 0U);
  const auto fresh = Kel::ActivityFacility::clock();
  client->bumDeferredDeleteClockIs(fresh);
  EXPECT_EQ(tracedLines(" vlan flood list count: 0"), 1U);
  fresh->timeMinIs(time.peek());
  turnsUntilIdle();
  EXPECT_EQ(tracedLines(" vlan flood list count: 0"), 2U);
}

// The first VTI that maps the VLAN decides which VNI's machine is asked.
TEST_F(BumJobTest, TheFirstVtiThatMapsTheVlanDecides) {
  givenVti("Vxlan2");
  mapVlan("Vxlan2", 20, 10020);
  publishFloodList(10020, 1, {"10.0.0.9"});
  const auto floodSet = [&] {
    handles.rmxSde->vlanFloodSetIs(vlan(20))->floodSetIs(mac(1))->destSetIs(dest("10.0.0.9"), true);
  };
  floodSet();
  client->processBumDeferredDeletes();
  EXPECT_TRUE(handles.rmxSde->vlanFloodSet(vlan(20))) << "Vxlan1 does not map it, Vxlan2 does";
  mapVlan("Vxlan1", 20, 10021);
  floodSet();
  client->processBumDeferredDeletes();
  EXPECT_FALSE(handles.rmxSde->vlanFloodSet(vlan(20))) << "Vxlan1 maps it to a VNI without a machine";
}

// In the controller's mode the tables of every VNI are read again: what is missing comes back, and nothing
// goes.
TEST_F(BumJobTest, TheControllersModeReadsTheTablesAnewAndDeletesNothing) {
  mapVlan("Vxlan1", 20, 10020);
  publishFloodList(10010, 1, {"10.0.0.9"});
  publishMultiPath(10020, 2, {"10.0.0.7", "10.0.0.8"});
  publishFloodList(10020, 3, {"10.0.0.9"});
  const std::string published = floods();
  handles.rmxSde->vlanFloodSetDelAll();
  handles.rmxSde->vlanFloodSetIs(vlan(99))->floodSetIs(mac(1))->destSetIs(dest("10.0.0.9"), true);
  client->handleBumReplicationMode();
  EXPECT_EQ(floods(), published + "99 02:00:00:00:00:01 none 10.0.0.9\n");
}

}  // namespace
