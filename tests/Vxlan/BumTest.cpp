// Flood sets and the MLAG pair, where a journal cannot reach: the counts that the job relies on, statuses
// that come late or are replaced, and the refusals of the mirror.
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

// In the controller's mode the tables of every VNI are read anew: what is missing comes back, and nothing
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

class MlagTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    handles.mlagStatus->mlagStateIs(Mlag::MlagState::Active);
  }
  static Ptr<Vxlan::BumStatus> status() {
    auto fresh = Kel::make<Vxlan::BumStatus>();
    fresh->bumReplicationModeIs(Vxlan::BumReplicationMode::Controller);
    return fresh;
  }
  static Ptr<Vxlan::BumVtepList> list(Texts vteps) {
    auto fresh = Kel::make<Vxlan::BumVtepList>();
    for (const std::string_view vtep : vteps) {
      fresh->remoteVtepAddrIs(ip(vtep), true);
    }
    return fresh;
  }
  // The addresses of the switch's own list for (MAC 1, VLAN 10).
  std::vector<std::string> mirrored() {
    std::vector<std::string> texts;
    const auto own = handles.vxlanHwStatusDir->bumStatus();
    if (const auto found = own ? own->bumVtepList(key(1, 10)) : nullptr) {
      for (auto&& address : found->remoteVtepAddr()) {
        texts.push_back(address.key.text());
      }
    }
    return texts;
  }
};

using testing::ElementsAre;
using testing::IsEmpty;

// Neither switch has reported when the client starts; each status is picked up when it comes.
TEST_F(MlagTest, LateStatusesArePickedUp) {
  start();
  ASSERT_TRUE(client->rmxMlagBumStatusSm());
  const auto peer = status();
  peer->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  handles.mlagVxlanStatus->bumStatusIs(peer);
  EXPECT_THAT(mirrored(), IsEmpty());
  handles.vxlanHwStatusDir->bumStatusIs(status());
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2"));
}

// Another status of the peer: what followed the old one goes, and what the new one does not have is swept.
TEST_F(MlagTest, AnotherStatusOfThePeerReplacesTheFirst) {
  handles.vxlanHwStatusDir->bumStatusIs(status());
  const auto first = status();
  first->bumVtepListIs(key(1, 10), list({"10.0.0.2", "10.0.0.3"}));
  handles.mlagVxlanStatus->bumStatusIs(first);
  start();
  ASSERT_THAT(mirrored(), ElementsAre("10.0.0.2", "10.0.0.3"));
  const auto second = status();
  second->bumVtepListIs(key(1, 10), list({"10.0.0.3", "10.0.0.4"}));
  handles.mlagVxlanStatus->bumStatusIs(second);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.3", "10.0.0.4"));
  first->bumVtepList(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.9"), true);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.3", "10.0.0.4"));
  handles.mlagVxlanStatus->bumStatusIs(nullptr);
  EXPECT_EQ(client->rmxMlagBumStatusSm()->bumVtepListSm().size(), 0U);
}

// A list that the peer replaces under its key without removing it is refused, and so is another owner.
TEST_F(MlagTest, AListReplacedInPlaceIsRefused) {
  handles.vxlanHwStatusDir->bumStatusIs(status());
  const auto peer = status();
  peer->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  handles.mlagVxlanStatus->bumStatusIs(peer);
  start();
  EXPECT_THAT(
      refusal([&] { peer->bumVtepListIs(key(1, 10), list({"10.0.0.3"})); }),
      testing::StartsWith("Reinstantiating the pointer interface where constructor parameter attribute "
                          "_bumVtepList has a different value of "));
  const auto other = Vxlan::rmxMlagBumStatusSmBaseFactory(handles.mlagVxlanStatus, handles.vxlanHwStatusDir);
  const auto machine = client->rmxMlagBumStatusSm();
  EXPECT_THAT(
      refusal([&] {
        machine->bumVtepListSmIs(key(1, 10), machine->bumVtepListSm(key(1, 10))->bumVtepList(), other.get());
      }),
      testing::StartsWith("Reinstantiating the pointer interface where constructor parameter attribute "
                          "_rmxMlagBumStatusSm has a different value of "));
}

// The whole of the peer's addresses changes while the pair is out of mode 3: the local list is made and
// pruned, nothing is added.
TEST_F(MlagTest, AWholeChangePassesByTheGateAndAddsNothing) {
  const auto own = status();
  own->bumVtepListIs(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.7"), true);
  own->bumReplicationModeIs(Vxlan::BumReplicationMode::None);
  handles.vxlanHwStatusDir->bumStatusIs(own);
  const auto peer = status();
  peer->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  handles.mlagVxlanStatus->bumStatusIs(peer);
  start();
  own->bumVtepListIs(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.8"), true);
  peer->bumVtepList(key(1, 10))->remoteVtepAddrDelAll();
  EXPECT_THAT(mirrored(), IsEmpty());
}

// Bound to another status of the pair, the machine mirrors the lists in it; bound to none there is no peer.
TEST_F(MlagTest, AnotherStatusOfThePairIsFollowed) {
  handles.vxlanHwStatusDir->bumStatusIs(status());
  start();
  const auto machine = client->rmxMlagBumStatusSm();
  const auto other = Kel::make<Mlag::VxlanStatus>();
  const auto peer = status();
  peer->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  other->bumStatusIs(peer);
  machine->mlagVxlanStatusIs(other);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2"));
  EXPECT_EQ(handles.mlagVxlanStatus->reactors(), 0U);
  machine->mlagVxlanStatusDel();
  EXPECT_FALSE(machine->remoteBumStatus());
  EXPECT_EQ(machine->bumVtepListSm().size(), 0U);
  EXPECT_EQ(other->reactors(), 0U);
  EXPECT_EQ(peer->reactors(), 0U);
}

// Bound to another hardware status, it writes there; bound to none, the pair is not in the controller's mode.
TEST_F(MlagTest, AnotherHardwareStatusIsWrittenTo) {
  handles.vxlanHwStatusDir->bumStatusIs(status());
  const auto peer = status();
  peer->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  handles.mlagVxlanStatus->bumStatusIs(peer);
  start();
  const auto machine = client->rmxMlagBumStatusSm();
  const auto other = Kel::make<Vxlan::VxlanHwStatusDir>();
  const auto own = status();
  other->bumStatusIs(own);
  machine->vxlanHwStatusDirIs(other);
  ASSERT_TRUE(own->bumVtepList(key(1, 10)));
  EXPECT_TRUE(own->bumVtepList(key(1, 10))->remoteVtepAddr(ip("10.0.0.2")));
  EXPECT_EQ(machine->bumRepMode(), Vxlan::BumReplicationMode::Controller);
  machine->vxlanHwStatusDirDel();
  EXPECT_FALSE(machine->localBumStatus());
  EXPECT_EQ(machine->bumRepMode(), Vxlan::BumReplicationMode::None);
  EXPECT_EQ(other->reactors(), 0U);
  EXPECT_EQ(own->reactors(), 0U);
}

// Bound to other maps, it mirrors what these map; bound to none, it knows no VTI.
TEST_F(MlagTest, OtherMapsAreFollowed) {
  handles.vxlanHwStatusDir->bumStatusIs(status());
  const auto peer = status();
  peer->bumVtepListIs(key(1, 20), list({"10.0.0.2"}));
  handles.mlagVxlanStatus->bumStatusIs(peer);
  start();
  EXPECT_EQ(bumLists(), "");
  const auto machine = client->rmxMlagBumStatusSmShadowIs(handles.mlagVxlanStatus, handles.vxlanHwStatusDir,
                                                          handles.vlanVniMaps);
  const auto others = Kel::make<Vxlan::VlanVniMaps>();
  const auto other = Kel::make<Vxlan::VlanVniMap>();
  other->mappingIs(vlan(20), vni(10020));
  others->vlanVniMapIs(vti("Vxlan1"), other);
  machine->vlanVniMapsIs(others);
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:20 10.0.0.2\n");
  machine->vlanVniMapsDel();
  EXPECT_TRUE(machine->getVtiIterator().empty());
  EXPECT_EQ(others->reactors(), 0U);
  EXPECT_EQ(other->reactors(), 0U);
}

// All maps that go at once are let go at once.
TEST_F(MlagTest, AllMapsThatGoAtOnceAreLetGoAtOnce) {
  start();
  const auto gone = map("Vxlan1");
  EXPECT_EQ(gone->reactors(), 2U) << "of the tracker and of the MLAG machine";
  Kel::ActivityLoop::instance().asHandler([&] {
    handles.vlanVniMaps->vlanVniMapDelAll();
    EXPECT_EQ(gone->reactors(), 0U);
  });
}

// The machine of a list that is bound to another one mirrors that, its type too; bound to none it adds
// nothing any more.
TEST_F(MlagTest, AnotherListOfThePeerIsMirrored) {
  handles.vxlanHwStatusDir->bumStatusIs(status());
  const auto peer = status();
  peer->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  handles.mlagVxlanStatus->bumStatusIs(peer);
  start();
  const auto member = client->rmxMlagBumStatusSm()->bumVtepListSm(key(1, 10));
  const auto other = list({"10.0.0.5"});
  other->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(2));
  member->bumVtepListIs(other);
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.5 type 2\n");
  EXPECT_EQ(peer->bumVtepList(key(1, 10))->reactors(), 0U);
  member->bumVtepListDel();
  EXPECT_EQ(other->reactors(), 0U);
  member->handleListType();
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.5 type 2\n");
}

}  // namespace
