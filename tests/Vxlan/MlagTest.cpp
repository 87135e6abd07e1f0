// The mirror of the MLAG peer's BUM lists, where a journal cannot reach: statuses that come late or are
// replaced, the sweep, keys and maps that come and go, refusals.
#include "Kel/TraceHelper.h"
#include "MlagScenario.h"

namespace {

using namespace scenario;
using testing::ElementsAre;
using testing::IsEmpty;
using Vxlan::BumReplicationMode;
using MlagTest = MlagScenario;

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

// A list that the peer replaces under its key without removing it is refused, and so is another owner; what
// is mirrored stays.
TEST_F(MlagTest, AListReplacedInPlaceAndAnotherOwnerAreRefused) {
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  start();
  const auto present = peerList();
  const auto fresh = list({"10.0.0.3"});
  const auto text = [](const char* attribute, const void* wanted, const void* current) {
    std::ostringstream all;
    all << "Reinstantiating the pointer interface where constructor parameter attribute " << attribute
        << " has a different value of " << wanted << " than the current value of " << current
        << " not allowed";
    return all.str();
  };
  EXPECT_EQ(refusal([&] { peer()->bumVtepListIs(key(1, 10), fresh); }),
            text("_bumVtepList", fresh.get(), present.get()));
  EXPECT_EQ(listMachine()->bumVtepList(), present);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2"));
  const auto other = Vxlan::rmxMlagBumStatusSmBaseFactory(handles.mlagVxlanStatus, handles.vxlanHwStatusDir);
  EXPECT_EQ(refusal([&] { machine()->bumVtepListSmIs(key(1, 10), present, other.get()); }),
            text("_rmxMlagBumStatusSm", other.get(), machine().get()));
  EXPECT_EQ(machine()->bumVtepListSmIs(key(1, 10), present, machine().get()), listMachine());
}

// What one switch of a pair still holds from before: (aa, 10) with {A, C}, (bb, 10) with {D}, and a list of
// VLAN 20. The peer has (aa, 10) with {A, B}. Swept, VLAN 10 has (aa, 10) with {A} alone; VLAN 20 is as it
// was.
class SweepTest : public MlagTest {
 protected:
  void SetUp() override {
    handles.vxlanHwStatusDir->bumStatusIs(Kel::make<Vxlan::BumStatus>());
    handles.mlagVxlanStatus->bumStatusIs(Kel::make<Vxlan::BumStatus>());
    own()->bumVtepListIs(key(0xaa, 10), list({a, c}));
    own()->bumVtepListIs(key(0xbb, 10), list({d}));
    own()->bumVtepListIs(key(0xbb, 20), list({c, d}));
    peer()->bumVtepListIs(key(0xaa, 10), list({a, b}));
    peer()->bumVtepListIs(key(0xbb, 20), list({d}));
    alone = Vxlan::rmxMlagBumStatusSmBaseFactory(handles.mlagVxlanStatus, handles.vxlanHwStatusDir);
  }
  const char* a = "10.0.0.1";
  const char* b = "10.0.0.2";
  const char* c = "10.0.0.3";
  const char* d = "10.0.0.4";
  const std::string swept =
      "02:00:00:00:00:aa:10 10.0.0.1\n"
      "02:00:00:00:00:bb:20 10.0.0.3 10.0.0.4\n";
  Ptr<Vxlan::RmxMlagBumStatusSmBase> alone;  // maps no VLAN, so that it never sweeps by itself
};

TEST_F(SweepTest, OneVlanBecomesASubsetOfThePeers) {
  traceFromNow();
  alone->markAndSweep(vlan(10));
  EXPECT_EQ(bumLists(), swept);
  EXPECT_EQ(tracedLines("markAndSweep vlan=10"), 1U);
  EXPECT_EQ(tracedLines("Sweeping 10.0.0.3 from 02:00:00:00:00:aa:10"), 1U);
  EXPECT_EQ(tracedLines("Sweeping 02:00:00:00:00:bb:10"), 1U);
  EXPECT_EQ(tracedLines("Sweeping "), 2U);
  alone->markAndSweep(vlan(10));
  alone->markAndSweep(vlan(30));
  EXPECT_EQ(bumLists(), swept) << "nothing is left to sweep";
}

// An entry of the peer whose value is false counts as absent.
TEST_F(SweepTest, AFalseValueCountsAsAbsent) {
  peer()->bumVtepList(key(0xaa, 10))->remoteVtepAddrIs(ip(c), false);
  alone->markAndSweep(vlan(10));
  EXPECT_EQ(bumLists(), swept);
}

// Whatever goes, the walks go on: every list of the VLAN, every address of a list.
TEST_F(SweepTest, TheWalksGoOnBehindWhatWasRemoved) {
  for (std::uint32_t number = 1; number <= 9; ++number) {
    own()->bumVtepListIs(key(number, 10), list({a}));
    own()->bumVtepList(key(0xaa, 10))->remoteVtepAddrIs(Qnet::IpAddr(0x0a000100 + number), true);
  }
  alone->markAndSweep(vlan(10));
  EXPECT_EQ(bumLists(), swept);
}

// Before it is initialized a mirror has machines for the peer's lists, and lets a key that the peer removes
// go; it copies nothing, and the modes do not count.
TEST_F(SweepTest, BeforeItIsInitializedAMirrorOnlyRemoves) {
  own()->bumReplicationModeIs(BumReplicationMode::Controller);
  peer()->bumReplicationModeIs(BumReplicationMode::Controller);
  EXPECT_FALSE(alone->initialized());
  EXPECT_EQ(alone->bumRepMode(), BumReplicationMode::None);
  peer()->bumVtepListIs(key(0xcc, 10), list({a}));
  EXPECT_TRUE(alone->bumVtepListSm(key(0xcc, 10)));
  EXPECT_FALSE(own()->bumVtepList(key(0xcc, 10)));
  peer()->bumVtepListDel(key(0xbb, 20));
  EXPECT_EQ(bumLists(), "02:00:00:00:00:aa:10 10.0.0.1 10.0.0.3\n02:00:00:00:00:bb:10 10.0.0.4\n");
  alone->handleInitialized();
  EXPECT_EQ(alone->bumRepMode(), BumReplicationMode::Controller);
  EXPECT_TRUE(alone->bumVtepListSm(key(0xaa, 10)));
  EXPECT_FALSE(own()->bumVtepList(key(0xcc, 10))) << "it knows no VLAN";
}

// The base of the mirror knows no maps.
TEST_F(SweepTest, TheBaseFindsNothing) {
  EXPECT_THAT(alone->getVtiIterator(), IsEmpty());
  EXPECT_THAT(alone->getVlanIterator(vti("Vxlan1")), IsEmpty());
  EXPECT_EQ(alone->vniForVlan(vti("Vxlan1"), vlan(10)).value(), 0xFFFFFFFFU);
}

// The mirror of a switch looks into its maps.
TEST_F(MlagTest, TheMirrorLooksIntoTheMaps) {
  mapVlan("Vxlan1", 20, 10020);
  mapVlan("Vxlan2", 30, 10030);
  map("Vxlan2")->mappingIs(vlan(40), Vxlan::VniSourcePair());
  start();
  EXPECT_EQ(machine()->getVtiIterator(), (std::vector{vti("Vxlan1"), vti("Vxlan2")}));
  EXPECT_EQ(machine()->getVlanIterator(vti("Vxlan1")), (std::vector{vlan(10), vlan(20)}));
  EXPECT_THAT(machine()->getVlanIterator(vti("Vxlan9")), IsEmpty());
  EXPECT_EQ(machine()->vniForVlan(vti("Vxlan1"), vlan(20)).value(), 10020U);
  EXPECT_EQ(machine()->vniForVlan(vti("Vxlan2"), vlan(20)).value(), 0xFFFFFFFFU) << "not mapped here";
  EXPECT_EQ(machine()->vniForVlan(vti("Vxlan2"), vlan(40)).value(), 0xFFFFFFFFU) << "the empty pair";
  EXPECT_EQ(machine()->vniForVlan(vti("Vxlan9"), vlan(10)).value(), 0xFFFFFFFFU) << "no map";
}

// The pair is in mode 3 when both are; the machine's own mode says so.
TEST_F(MlagTest, ThePairIsInControllerModeWhenBothAre) {
  bumReplicationMode(BumReplicationMode::None);
  peerLists(1, 10, {"10.0.0.2"});
  start();
  EXPECT_EQ(machine()->bumRepMode(), BumReplicationMode::None);
  bumReplicationMode(BumReplicationMode::Controller);
  EXPECT_EQ(machine()->bumRepMode(), BumReplicationMode::Controller);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2"));
  peerBumReplicationMode(static_cast<BumReplicationMode>(2));
  EXPECT_EQ(machine()->bumRepMode(), BumReplicationMode::None);
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2")) << "nothing is removed";
}

// Each evaluation of the MLAG state initializes the same machine again: what has come between is swept, VLAN
// by VLAN of each VTI, after the lists and the mode.
TEST_F(MlagTest, EachEvaluationInitializesTheMachineAnew) {
  givenVti("Vxlan2", {.learning = true});
  mapVlan("Vxlan2", 10, 10010);
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  start();
  const auto same = machine();
  const auto sameList = listMachine();
  own()->bumVtepListIs(key(9, 10), list({"10.0.0.9"}));
  traceFromNow();
  vtiStatus("Vxlan1")->datapathLearningIs(true);
  EXPECT_EQ(machine(), same);
  EXPECT_EQ(listMachine(), sameList);
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.2\n");
  std::vector<std::string> order;
  for (const std::string& line : lines) {
    for (const char* text : {"handleInitialized() inited: 1", "handleBumVtepList() handleBumVtepList",
                             "Creating local bumVtepList", "handleBumReplicationModeinited: 1",
                             "handling vtep 02:00:00:00:00:01:10", "markAndSweep vlan=10"}) {
      if (line.find("RmxMlagBumStatusSmBase::") != std::string::npos &&
          line.find(text) != std::string::npos) {
        order.emplace_back(text);
      }
    }
  }
  EXPECT_THAT(order, ElementsAre("handleInitialized() inited: 1", "handleBumVtepList() handleBumVtepList",
                                 "Creating local bumVtepList", "handleBumReplicationModeinited: 1",
                                 "handling vtep 02:00:00:00:00:01:10", "markAndSweep vlan=10",
                                 "markAndSweep vlan=10"));
}

// A key that the peer removes: the machine goes first, then the hardware's list.
TEST_F(MlagTest, AKeyThatGoesTakesItsMachineFirst) {
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  start();
  traceFromNow();
  bool machineThere = true;
  bool listThere = false;
  Kel::traceSinkIs([&](std::string_view line) {
    if (line.find("Deleting local bumVtepList") != std::string_view::npos) {
      machineThere = static_cast<bool>(listMachine());
      listThere = static_cast<bool>(own()->bumVtepList(key(1, 10)));
    }
  });
  peer()->bumVtepListDel(key(1, 10));
  EXPECT_FALSE(machineThere);
  EXPECT_TRUE(listThere);
  EXPECT_EQ(bumLists(), "");
  peerLists(1, 10, {"10.0.0.3"});
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:10 10.0.0.3\n") << "published again, mirrored again";
}

// All of the peer's lists go at once: so do the machines, and the hardware's lists of these keys alone.
TEST_F(MlagTest, AllListsThatGoAtOnceTakeTheirMachinesWithThem) {
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  peerLists(2, 10, {"10.0.0.2"});
  start();
  own()->bumVtepListIs(key(9, 10), list({"10.0.0.9"}));
  traceFromNow();
  peer()->bumVtepListDelAll();
  EXPECT_EQ(tracedLines("RmxMlagBumStatusSmBase::handleBumVtepList() handleBumVtepList"), 1U) << "as a whole";
  EXPECT_EQ(machine()->bumVtepListSm().size(), 0U);
  EXPECT_EQ(bumLists(), "02:00:00:00:00:09:10 10.0.0.9\n") << "what nobody published is for the sweep";
}

// The machine goes with its machines of lists; the hardware's lists stay, and nothing is followed any more.
TEST_F(MlagTest, TheListsStayWhenTheMachineGoes) {
  givenBothInControllerMode();
  peerLists(1, 10, {"10.0.0.2"});
  start();
  mlagIs(Mlag::MlagState::Disabled);
  EXPECT_FALSE(machine());
  EXPECT_THAT(mirrored(), ElementsAre("10.0.0.2"));
  EXPECT_EQ(peerList()->reactors(), 0U);
  EXPECT_EQ(peer()->reactors(), 0U);
  EXPECT_EQ(handles.mlagVxlanStatus->reactors(), 0U);
}

// A map that comes with its VLANs calls nothing by itself; a signal of the whole map does, for each VLAN.
TEST_F(MlagTest, AMapThatComesCallsNothingUntilItSignals) {
  givenBothInControllerMode();
  peerLists(1, 20, {"10.0.0.2"});
  peerLists(1, 30, {"10.0.0.3"});
  start();
  const auto fresh = Kel::make<Vxlan::VlanVniMap>();
  fresh->mappingIs(vlan(20), vni(10020));
  fresh->mappingIs(vlan(30), vni(10030));
  handles.vlanVniMaps->vlanVniMapIs(vti("Vxlan2"), fresh);
  EXPECT_EQ(bumLists(), "");
  traceFromNow();
  fresh->notifyingVlanIs();
  EXPECT_EQ(bumLists(), "02:00:00:00:00:01:20 10.0.0.2\n02:00:00:00:00:01:30 10.0.0.3\n");
  EXPECT_EQ(tracedLines("handleVtiUpdate"), 1U);
  EXPECT_EQ(tracedLines("handleVlanVniMapUpdate vlan 20"), 1U);
  mapGoes("Vxlan2");
  fresh->mappingDel(vlan(20));
  EXPECT_TRUE(machine()->bumVtepListSm(key(1, 20))->vlanVniMapExists()) << "a map that went is not heard";
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

}  // namespace
