// The trackers of the VLAN-VNI maps: what follows when a VLAN gains or loses its VNI.
#include "Scenario.h"

namespace {

using namespace scenario;

class TrackersTest : public Scenario {
 protected:
  void SetUp() override { givenVti("Vxlan1"); }
  static std::string host(std::uint32_t number, std::uint32_t vlanNumber, std::string_view on = "Vxlan1") {
    std::ostringstream line;
    line << key(number, vlanNumber) << ' ' << on << " 10.0.0.9 moves 1\n";
    return line.str();
  }
};

// A map that is there before the factory is followed afterwards.
TEST_F(TrackersTest, AMapThatIsThereBeforeIsFollowed) {
  mapVlan("Vxlan1", 10, 10010);
  publish(10020, 1);
  start();
  EXPECT_EQ(trackers(), "Vxlan1 ");
  EXPECT_EQ(received(), "");
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_EQ(received(), host(1, 20));
}

// A map that comes later gets a tracker, which looks at what is mapped already; one that goes drops it, and
// is not heard any more.
TEST_F(TrackersTest, TrackersComeAndGoWithTheirMaps) {
  publish(10010, 1);
  start();
  EXPECT_EQ(trackers(), "");
  const auto fresh = Kel::make<Vxlan::VlanVniMap>();
  fresh->mappingIs(vlan(10), vni(10010));
  handles.vlanVniMaps->vlanVniMapIs(vti("Vxlan1"), fresh);
  EXPECT_EQ(trackers(), "Vxlan1 ");
  EXPECT_EQ(received(), host(1, 10));
  mapGoes("Vxlan1");
  EXPECT_EQ(trackers(), "");
  fresh->mappingDel(vlan(10));
  EXPECT_EQ(received(), host(1, 10)) << "nobody follows this map";
}

// A VTI has a tracker for its map alone, whatever its status says and even without one.
TEST_F(TrackersTest, ATrackerNeedsNoVtiStatusAndNoClientMode) {
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  start();
  givenMap("Vxlan7");
  EXPECT_EQ(trackers(), "Vxlan7 ");
}

// A VLAN that gains a VNI gets its machine and its hosts, if the controller publishes that VNI.
TEST_F(TrackersTest, AVlanThatGainsAVniGetsItsHostsIfPublished) {
  givenMap("Vxlan1");
  publish(10010, 1);
  start();
  EXPECT_EQ(machines(), "");
  mapVlan("Vxlan1", 10, 10010);
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_EQ(machines(), "10010 ");
  EXPECT_EQ(received(), host(1, 10));
  publish(10020, 2);
  EXPECT_EQ(machines(), "10010 10020 ");
  EXPECT_EQ(received(), host(1, 10) + host(2, 20));
}

// A VLAN that loses its VNI loses its hosts at once, and the VNI its machine; other VLANs are not touched.
TEST_F(TrackersTest, AVlanThatLosesItsVniLosesItsHostsAtOnce) {
  mapVlan("Vxlan1", 10, 10010);
  mapVlan("Vxlan1", 20, 10020);
  publish(10010, 1);
  publish(10020, 1);
  start();
  unmapVlan("Vxlan1", 10);
  EXPECT_EQ(received(), host(1, 20));
  EXPECT_EQ(exported(), host(1, 20));
  EXPECT_EQ(machines(), "10020 ");
}

// Also while the controller converges: the loss of a mapping is never deferred.
TEST_F(TrackersTest, AVlanThatLosesItsVniLosesItsHostsAlsoWhileConverging) {
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  publish(10010, 2);
  controllerConverges(true);
  start();
  withdraw(10010, 2);
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 1U);
  unmapVlan("Vxlan1", 10);
  EXPECT_EQ(received(), "");
  EXPECT_EQ(client->hostTable()->markedForDelCount(), 0U);
}

// With the client mode off the hosts of a VLAN that lost its VNI still go.
TEST_F(TrackersTest, WithTheClientModeOffALossStillDeletesHosts) {
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  mapVlan("Vxlan1", 10, 10010);
  start();
  Vxlan::ReceivedEntry left;
  left.key = key(1, 10);
  left.intf = vti("Vxlan1");
  client->hostTable()->receivedEntryIs(left);
  left.key = key(1, 20);
  client->hostTable()->receivedEntryIs(left);
  traceFromNow();
  unmapVlan("Vxlan1", 10);
  EXPECT_EQ(received(), "02:00:00:00:00:01:20 Vxlan1 0.0.0.0 moves 0\n");
  EXPECT_EQ(tracedLines("Returning: controllerMode = 0"), 1U);
}

// A VNI that moves to another VLAN takes its hosts along: they go with the old VLAN and come with the new
// one.
TEST_F(TrackersTest, AVniThatMovesToAnotherVlanTakesItsHostsAlong) {
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  start();
  unmapVlan("Vxlan1", 10);
  mapVlan("Vxlan1", 30, 10010);
  EXPECT_EQ(received(), host(1, 30));
  EXPECT_EQ(machines(), "10010 ");
}

// A second VTI that maps the VNI refreshes the machine that is there: its VLAN gets the hosts too.
TEST_F(TrackersTest, ASecondVtiThatMapsTheVniGetsTheHostsToo) {
  givenVti("Vxlan2");
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  start();
  const auto machine = client->rmxPerVniFdbStatusSm(vni(10010));
  mapVlan("Vxlan2", 20, 10010);
  EXPECT_EQ(received(), host(1, 10) + host(1, 20, "Vxlan2"));
  EXPECT_EQ(client->rmxPerVniFdbStatusSm(vni(10010)), machine) << "refreshed, not made anew";
}

// What a loss deletes by one predicate: every machine whose VNI has no VLAN on this VTI, and no other.
TEST_F(TrackersTest, ALossDeletesTheMachinesOfVnisWithoutVlanOnThisVti) {
  givenVti("Vxlan2");
  mapVlan("Vxlan1", 10, 10010);
  mapVlan("Vxlan1", 11, 10011);
  mapVlan("Vxlan2", 20, 10020);
  publish(10010, 1);
  publish(10011, 1);
  publish(10020, 1);
  start();
  EXPECT_EQ(machines(), "10010 10011 10020 ");
  unmapVlan("Vxlan1", 10);
  EXPECT_EQ(machines(), "10011 ") << "10020 has no VLAN on Vxlan1 either";
  map("Vxlan2")->notifyingVlanIs(vlan(20));
  EXPECT_EQ(machines(), "10011 10020 ") << "the next signal of its VLAN brings it back";
}

// A VLAN that was never mapped and is signalled all the same counts as one that lost its VNI.
TEST_F(TrackersTest, ASignalOfAVlanWithoutVniCountsAsALoss) {
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  start();
  Vxlan::ReceivedEntry stray;
  stray.key = key(5, 50);
  stray.intf = vti("Vxlan1");
  client->hostTable()->receivedEntryIs(stray);
  map("Vxlan1")->notifyingVlanIs(vlan(50));
  EXPECT_EQ(received(), host(1, 10));
  EXPECT_EQ(machines(), "10010 ");
}

// An entry that equals the empty pair is as good as none, in the tracker and in its owner.
TEST_F(TrackersTest, AnEmptyPairIsNoMapping) {
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  start();
  map("Vxlan1")->mappingIs(vlan(10), Vxlan::VniSourcePair());
  EXPECT_EQ(received(), "");
  EXPECT_EQ(machines(), "");
  EXPECT_FALSE(client->vniForVlan(vti("Vxlan1"), vlan(10)));
  EXPECT_FALSE(client->vlanVniMapSm(vti("Vxlan1"))->vniForVlan(vlan(10)));
  EXPECT_FALSE(client->vlanForVni(vti("Vxlan1"), vni(10010)));
}

// The client translates through the VTI's map in both directions, and finds nothing where there is nothing.
TEST_F(TrackersTest, VlansAndVnisAreFoundThroughTheMapOfTheVti) {
  mapVlan("Vxlan1", 10, 10010);
  mapVlan("Vxlan2", 20, 10020);
  start();
  EXPECT_EQ(client->vlanForVni(vti("Vxlan1"), vni(10010)).value(), 10U);
  EXPECT_EQ(client->vniForVlan(vti("Vxlan1"), vlan(10)).value(), 10010U);
  EXPECT_EQ(client->vlanForVni(vti("Vxlan1"), vni(10020)).value(), 0U);
  EXPECT_EQ(client->vniForVlan(vti("Vxlan1"), vlan(20)).value(), 4294967295U);
  EXPECT_EQ(client->vlanForVni(vti("Vxlan9"), vni(10010)).value(), 0U);
  EXPECT_EQ(client->vniForVlan(vti("Vxlan9"), vlan(10)).value(), 4294967295U);
  const auto tracker = client->vlanVniMapSm(vti("Vxlan2"));
  EXPECT_EQ(tracker->vlanForVni(vni(10020)).value(), 20U);
  EXPECT_EQ(tracker->vniForVlan(vlan(20)).value(), 10020U);
  EXPECT_FALSE(tracker->vlanForVni(vni(10010)));
}

// The base of a tracker finds nothing, and initializing it does nothing.
TEST_F(TrackersTest, TheBaseOfATrackerFindsNothing) {
  start();
  class Plain final : public Vxlan::VtiVlanVniMapSmBase {
   public:
    using VtiVlanVniMapSmBase::VtiVlanVniMapSmBase;
  };
  const auto plain = Kel::make<Plain>(vti("Vxlan1"), client.get());
  plain->handleInitialized();
  EXPECT_FALSE(plain->initialized());
  EXPECT_FALSE(plain->vniForVlan(vlan(10)));
  EXPECT_FALSE(plain->vlanForVni(vni(10010)));
}

// A tracker is inert until its owner is initialized: it neither looks at its map nor hears it.
TEST_F(TrackersTest, ATrackerIsInertUntilItsOwnerIsInitialized) {
  mapVlan("Vxlan1", 10, 10010);
  const auto owner = Vxlan::vxlanControllerMacAddrSmBaseFactory(
      handles.vtiStatusDir, handles.controllerStatusBaseDir, handles.rmxStateClientView,
      handles.vxlanHwStatusDir, handles.mlagStatus, handles.mlagVxlanStatus);
  traceFromNow();
  const auto tracker = Vxlan::VtiVlanVniMapSm::VtiVlanVniMapSmIs(vti("Vxlan1"), owner.get(), map("Vxlan1"));
  EXPECT_FALSE(tracker->initialized());
  EXPECT_EQ(tracedLines("virtual void Vxlan::VtiVlanVniMapSm::handleInitialized()  Init ? 0"), 1U);
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_EQ(tracedLines("handleVlanVniMapUpdate vlanId 20"), 1U);
  EXPECT_EQ(tracedLines("rmxProcessVniVlanMapUpdateComplete"), 0U);
  owner->handleInitialized();
  tracker->handleInitialized();
  EXPECT_TRUE(tracker->initialized());
  EXPECT_EQ(tracedLines("rmxProcessVniVlanMapUpdateComplete(Bridging::VlanId, Qnet::IntfId) vlan: "), 2U)
      << "both VLANs of its map";
  mapVlan("Vxlan1", 30, 10030);
  EXPECT_EQ(tracedLines("rmxProcessVniVlanMapUpdateComplete(Bridging::VlanId, Qnet::IntfId) vlan: 30"), 1U);
}

// The VTIs are walked in the order of their names, and the list follows the maps.
TEST_F(TrackersTest, TheVtisAreListedInTheOrderOfTheirNames) {
  givenMap("Vxlan2");
  givenMap("Vxlan1");
  start();
  EXPECT_EQ(client->getVtiIterator(), (std::vector{vti("Vxlan1"), vti("Vxlan2")}));
  givenMap("Vxlan0");
  mapGoes("Vxlan2");
  EXPECT_EQ(client->getVtiIterator(), (std::vector{vti("Vxlan0"), vti("Vxlan1")}));
}

// A map that takes the place of another under the same VTI is refused: the tracker cannot be made again.
TEST_F(TrackersTest, AMapReplacedInPlaceIsRefused) {
  mapVlan("Vxlan1", 10, 10010);
  start();
  const auto old = map("Vxlan1");
  const auto fresh = Kel::make<Vxlan::VlanVniMap>();
  std::ostringstream text;
  text << "Reinstantiating the pointer interface where constructor parameter attribute _vlanVniMap has a "
          "different value of "
       << static_cast<const void*>(fresh.get()) << " than the current value of "
       << static_cast<const void*>(old.get()) << " not allowed";
  EXPECT_EQ(refusal([&] { handles.vlanVniMaps->vlanVniMapIs(vti("Vxlan1"), fresh); }), text.str());
}

// Removed and added, another map is fine.
TEST_F(TrackersTest, AMapRemovedAndAddedIsFine) {
  mapVlan("Vxlan1", 10, 10010);
  publish(10010, 1);
  publish(10020, 1);
  start();
  unmapVlan("Vxlan1", 10);
  mapGoes("Vxlan1");
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_EQ(received(), host(1, 20));
  EXPECT_EQ(trackers(), "Vxlan1 ");
}

// All maps that go at once take all trackers with them.
TEST_F(TrackersTest, AllMapsThatGoAtOnceTakeTheirTrackersWithThem) {
  givenMap("Vxlan1");
  givenMap("Vxlan2");
  start();
  handles.vlanVniMaps->vlanVniMapDelAll();
  EXPECT_EQ(trackers(), "");
  EXPECT_TRUE(client->getVtiIterator().empty());
}

// Another set of maps is followed as if each of its maps had just come; trackers of the old one are dropped.
TEST_F(TrackersTest, AnotherSetOfMapsIsFollowed) {
  givenMap("Vxlan1");
  publish(10020, 1);
  start();
  const auto others = Kel::make<Vxlan::VlanVniMaps>();
  const auto other = Kel::make<Vxlan::VlanVniMap>();
  other->mappingIs(vlan(20), vni(10020));
  others->vlanVniMapIs(vti("Vxlan2"), other);
  client->vlanVniMapsIs(others);
  EXPECT_EQ(trackers(), "Vxlan2 ");
  EXPECT_EQ(received(), host(1, 20, "Vxlan2"));
  EXPECT_EQ(client->getVtiIterator(), std::vector{vti("Vxlan2")});
  client->vlanVniMapsDel();
  EXPECT_TRUE(client->getVtiIterator().empty());
}

// So is one that comes to lie where the old one lay, and has changed as often.
TEST_F(TrackersTest, AnotherSetOfMapsInTheSamePlaceIsFollowed) {
  givenMap("Vxlan1");
  start();
  EXPECT_EQ(client->getVtiIterator(), std::vector{vti("Vxlan1")});
  client->vlanVniMapsDel();
  handles.vlanVniMaps = nullptr;
  handles.vlanVniMaps = Kel::make<Vxlan::VlanVniMaps>();
  givenMap("Vxlan2");
  client->vlanVniMapsIs(handles.vlanVniMaps);
  EXPECT_EQ(client->getVtiIterator(), std::vector{vti("Vxlan2")});
}

}  // namespace
