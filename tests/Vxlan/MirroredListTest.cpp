// The machines of the peer's BUM lists one by one, and two switches of a pair.
#include "Kel/TraceHelper.h"
#include "MlagScenario.h"

namespace {

using namespace scenario;
using testing::ElementsAre;
using Vxlan::BumReplicationMode;
using MirroredListTest = MlagScenario;

// When the gate opens, a list that pre-exists is made equal to the peer's, in one go, and its type is copied.
TEST_F(MirroredListTest, AListThatPreExistsIsMadeEqual) {
  bumReplicationMode(BumReplicationMode::None);
  peerLists(1, 10, {"10.0.0.1", "10.0.0.2"});
  peerList()->remoteVtepAddrIs(ip("10.0.0.3"), false);
  peerList()->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(5));
  start();
  own()->bumVtepListIs(key(1, 10), list({"10.0.0.2", "10.0.0.3", "10.0.0.4"}));
  traceFromNow();
  bumReplicationMode(BumReplicationMode::Controller);
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.1 10.0.0.2 type 5\n");
  EXPECT_EQ(tracedLines("bumVtepList of 02:00:00:00:00:01:10 pre-exists in vxlan h/w bum sts. Deleting "
                        "obsolete remoteVtepAddrs"),
            1U);
  EXPECT_EQ(tracedLines("Sweeping "), 0U);
  EXPECT_EQ(listMachine()->localBumVtepList(), own()->bumVtepList(key(1, 10)));
}

// A VLAN that no VTI maps leaves the flag of its list machine as it was; a closed gate clears it.
TEST_F(MirroredListTest, OnlyAClosedGateClearsTheFlag) {
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  peerLists(1, 30, {"10.0.0.2"});
  start();
  const auto unmapped = machine()->bumVtepListSm(key(1, 30));
  EXPECT_FALSE(unmapped->vlanVniMapExists());
  EXPECT_FALSE(unmapped->localBumVtepList());
  unmapped->handleInit();
  EXPECT_FALSE(unmapped->vlanVniMapExists());
  const auto mapped = listMachine();
  EXPECT_TRUE(mapped->vlanVniMapExists());
  mapGoes("Vxlan1");
  peerList()->remoteVtepAddrIs(ip("10.0.0.3"), true);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2", "10.0.0.3")) << "a map that goes calls nothing";
  own()->bumVtepList(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.9"), true);
  mapped->handleInit();
  EXPECT_TRUE(mapped->vlanVniMapExists());
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2", "10.0.0.3")) << "and it is still brought up to date";
  bumReplicationMode(BumReplicationMode::None);
  EXPECT_TRUE(mapped->vlanVniMapExists()) << "the mode alone calls no list machine";
  mapped->handleInit();
  EXPECT_FALSE(mapped->vlanVniMapExists());
  bumReplicationMode(BumReplicationMode::Controller);
  machine()->initializedIs(false);
  mapVlan("Vxlan1", 10, 10010);
  EXPECT_FALSE(mapped->vlanVniMapExists()) << "nor is the gate open before the machine is initialized";
  EXPECT_FALSE(mapped->initialized()) << "nobody sets it";
}

// A VLAN that loses its mapping on one VTI is frozen though another maps it; its next gain, on any, brings it
// up to date.
TEST_F(MirroredListTest, AVlanIsFrozenByTheVtiThatLosesIt) {
  mapVlan("Vxlan2", 10, 10010);
  mapVlan("Vxlan2", 20, 10020);
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  peerLists(1, 20, {"10.0.0.2"});
  start();
  unmapVlan("Vxlan1", 10);
  EXPECT_FALSE(listMachine()->vlanVniMapExists());
  EXPECT_TRUE(machine()->bumVtepListSm(key(1, 20))->vlanVniMapExists()) << "another VLAN";
  peerLists(1, 10, {"10.0.0.3"});
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2"));
  peerList()->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(1));
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.2 type 1\n02:00:00:00:00:01:20 10.0.0.2\n");
  mapVlan("Vxlan2", 20, 10020);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2")) << "the gain of another VLAN";
  mapVlan("Vxlan2", 10, 10010);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.3"));
}

// The whole of the peer's addresses changes while the pair is out of mode 3: the local list is made if need
// be and pruned, nothing is added, no type is copied.
TEST_F(MirroredListTest, AWholeChangePassesByTheGateAndAddsNothing) {
  bumReplicationMode(BumReplicationMode::None);
  peerLists(1, 10, {"10.0.0.2", "10.0.0.3"});
  peerList()->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(1));
  start();
  EXPECT_EQ(bumLists(), "");
  listMachine()->handleRemoteVtepAddr();
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10\n");
  const auto own10 = own()->bumVtepList(key(1, 10));
  own10->remoteVtepAddrIs(ip("10.0.0.2"), true);
  own10->remoteVtepAddrIs(ip("10.0.0.8"), true);
  listMachine()->handleRemoteVtepAddr();
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.2\n");
  peerList()->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(2));
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.2 type 2\n") << "a bound list has its type copied";
  Kel::ActivityLoop::instance().asHandler([&] {
    peerList()->remoteVtepAddrDelAll();
    EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 type 2\n") << "the whole is heard at once";
  });
}

// A list machine without a list of the peer's has no address to copy: what is there goes.
TEST_F(MirroredListTest, WithoutAListOfThePeersTheLocalOneIsEmptied) {
  givenBothInControllerMode();
  start();
  own()->bumVtepListIs(key(1, 10), list({"10.0.0.2"}));
  const auto created = Vxlan::BumVtepListSm::BumVtepListSmIs(key(1, 10), nullptr, machine().get());
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10\n");
  EXPECT_FALSE(created->bumVtepList());
  own()->bumVtepList(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.3"), true);
  created->handleRemoteVtepAddr(ip("10.0.0.3"));
  created->handleListType();
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10\n");
}

// What is said on the way of a list. The gate has a level of its own, which nothing else uses.
TEST_F(MirroredListTest, TheTraceOfAMirroredList) {
  givenBothInControllerMode();
  start();
  const auto expectTraced = [this](std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
      EXPECT_GE(tracedLines(text), 1U) << '"' << text << "\" is not in\n" << testing::PrintToString(lines);
    }
    traceFromNow();
  };
  traceFromNow();
  peerLists(1, 10, {"10.0.0.2"});
  expectTraced(
      {"RmxMlagBumStatusSmBase::handleBumVtepList(Vxlan::MacVlanPair) handleBumVtepList "
       "02:00:00:00:00:01:10",
       "Creating local bumVtepList", "BumVtepListSm::handleInit() handleInit 02:00:00:00:00:01:10",
       "BumVtepListSm::handleRemoteVtepAddr() handleRemoteVtepAddr 02:00:00:00:00:01:10",
       "BumVtepListSm::handleRemoteVtepAddr(Qnet::IpAddr) handleRemoteVtepAddr "
       "02:00:00:00:00:01:10 10.0.0.2",
       "BumVtepListSm::handleListType() handleListType 02:00:00:00:00:01:10"});
  Kel::traceLevelsIs("VxlanController=6");
  listMachine()->handleInit();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines.front(), testing::HasSubstr("handleInit  vlan 10 is mapped on Vxlan1"));
  traceFromNow();
  bumReplicationMode(BumReplicationMode::None);
  expectTraced({"handleBumReplicationMode() handleBumReplicationModeinited: 1"});
  Kel::traceLevelsIs("VxlanController=6");
  listMachine()->handleInit();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines.front(), testing::HasSubstr("handleInit  bumRepMode 0 initialized 1"));
  traceFromNow();
  peerLists(1, 10, {"10.0.0.2", "10.0.0.3"});
  expectTraced({"handleRemoteVtepAddr  bumRepMode 0 vlanVniMapExists 0"});
  unmapVlan("Vxlan1", 10);
  expectTraced(
      {"RmxMlagBumStatusSmBase::handleVlanVniMapUpdate(Qnet::IntfId, Bridging::VlanId) "
       "handleVlanVniMapUpdate vlan 10"});
  map("Vxlan1")->notifyingVlanIs();
  expectTraced({"RmxMlagBumStatusSmBase::handleVtiUpdate(Qnet::IntfId) handleVtiUpdate"});
  peer()->bumVtepListDel(key(1, 10));
  expectTraced({"Deleting local bumVtepList"});
}

// The machine of a list that is bound to another one mirrors that, its type too; bound to none it adds
// nothing any more.
TEST_F(MirroredListTest, AnotherListOfThePeerIsMirrored) {
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

// Two switches of a pair on one loop: the hardware's BUM status of each is what the other sees of its peer.
class PairTest : public MlagScenario {
 protected:
  void SetUp() override {
    MlagScenario::SetUp();
    bumReplicationMode(BumReplicationMode::Controller);
    other.vtiStatusDir->vtiStatusIs(vtiStatus("Vxlan1"));
    other.vlanVniMaps->vlanVniMapIs(vti("Vxlan1"), map("Vxlan1"));
    other.mlagStatus->mlagStateIs(Mlag::MlagState::Active);
    other.vxlanHwStatusDir->bumStatusIs(status());
    other.mlagVxlanStatus->bumStatusIs(own());
    handles.mlagVxlanStatus->bumStatusIs(other.vxlanHwStatusDir->bumStatus());
  }
  ~PairTest() override { otherClient = nullptr; }
  void startOther() {
    otherClient = Vxlan::vxlanControllerClientSmFactory(
        other.vtiStatusDir, other.controllerStatusBaseDir, other.rmxStateClientView, other.vxlanHwStatusDir,
        other.mlagStatus, other.mlagVxlanStatus, other.rmxStateBaseDir, other.vlanVniMaps, other.rmxSde,
        other.l2RibRmxInput, other.rmxConvergenceStatus);
  }
  // The lists of the other switch, in the form of bumLists.
  std::string otherLists() {
    std::swap(handles.vxlanHwStatusDir, other.vxlanHwStatusDir);
    const std::string all = bumLists();
    std::swap(handles.vxlanHwStatusDir, other.vxlanHwStatusDir);
    return all;
  }
  Handles other;
  Ptr<Vxlan::VxlanControllerClientSm> otherClient;
};

// What appears on one side appears on the other, and what goes on one goes on the other; neither brings back
// what the other has let go.
TEST_F(PairTest, EachSideFollowsTheOther) {
  start();
  startOther();
  own()->bumVtepListIs(key(1, 10), list({"10.0.0.2", "10.0.0.3"}));
  own()->bumVtepList(key(1, 10))->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(1));
  EXPECT_EQ(otherLists(), "02:00:00:00:00:01:10 10.0.0.2 10.0.0.3 type 1\n");
  const auto theirs = other.vxlanHwStatusDir->bumStatus();
  theirs->bumVtepList(key(1, 10))->remoteVtepAddrDel(ip("10.0.0.2"));
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.3 type 1\n");
  own()->bumVtepList(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.4"), true);
  EXPECT_EQ(otherLists(), "02:00:00:00:00:01:10 10.0.0.3 10.0.0.4 type 1\n");
  theirs->bumVtepListIs(key(2, 10), list({"10.0.0.9"}));
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.3 10.0.0.4 type 1\n02:00:00:00:00:02:10 10.0.0.9\n");
  own()->bumVtepListDel(key(1, 10));
  turnsUntilIdle();
  EXPECT_EQ(bumLists(), "02:00:00:00:00:02:10 10.0.0.9\n");
  EXPECT_EQ(otherLists(), bumLists());
}

}  // namespace
