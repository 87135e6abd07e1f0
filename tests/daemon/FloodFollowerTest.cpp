// Which flood sets the data plane has, while VLANs lose their VNI and get others.
#include "agent/daemon/FloodFollower.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <sstream>

namespace {

using Agent::FloodFollower;

// What the data plane has, as one text: "10 02:00:00:00:00:01 all 10.0.0.2 10.0.0.3", a line for each.
class Programmed final : public FloodFollower::Sink {
 public:
  void floodIs(Bridging::VlanId vlan, const Qnet::EthAddr& mac, L2Rib::FloodSetType type,
               std::vector<Qnet::IpAddr> vteps) override {
    std::ostringstream text;
    text << vlan << ' ' << mac << (type == L2Rib::FloodSetType::SendToAny ? " any" : " all");
    for (const Qnet::IpAddr vtep : vteps) {
      text << ' ' << vtep;
    }
    sets_[{mac, vlan}] = text.str() + '\n';
  }
  void floodDel(Bridging::VlanId vlan, const Qnet::EthAddr& mac) override {
    EXPECT_EQ(sets_.erase({mac, vlan}), 1U) << "what is taken away was there";
  }
  std::string text() const {
    std::string all;
    for (const auto& [key, line] : sets_) {
      all += line;
    }
    return all;
  }

 private:
  std::map<Bridging::MacVlanPair, std::string> sets_;
};

// A switch with VLAN 10 in VNI 1, for which the controller publishes one flood list, and a follower.
class FloodFollowerTest : public testing::Test {
 protected:
  FloodFollowerTest() : world(L2Rib::HostInput::Options{}) {
    const auto vti = Kel::make<Vxlan::VtiStatus>(intf);
    vti->controllerClientModeIs(true);
    vti->datapathLearningIs(false);
    world.vtiStatusDir->vtiStatusIs(vti);
    map = Kel::make<Vxlan::VlanVniMap>();
    world.vlanVniMaps->vlanVniMapIs(intf, map);
    world.hwStatus->bumStatus()->bumReplicationModeIs(Vxlan::BumReplicationMode::Controller);
    state = Kel::make<VxlanController::RmxStateV2>();
    world.controllerState->entityPtrIs(Kel::Name("controller"), state);
    world.clientIs();
    mapped(10, 1);
    publishes(1, {"10.0.0.2"});
    follower.emplace(world, sink);
  }
  ~FloodFollowerTest() override {
    follower.reset();
    world.clientDel();
  }
  void mapped(std::uint32_t vlan, std::uint32_t vni) {
    map->mappingIs(Bridging::VlanId(vlan), Vxlan::VniExt(vni));
    changed(vlan);
  }
  void unmapped(std::uint32_t vlan) {
    map->mappingDel(Bridging::VlanId(vlan));
    changed(vlan);
  }
  void changed(std::uint32_t vlan) {
    if (follower) {
      follower->mappingChanged(Bridging::VlanId(vlan));
    }
  }
  Kel::Ptr<VxlanController::VniFdbStatusV2> fdb(std::uint32_t vni) {
    const Kel::Name name(std::to_string(vni));
    if (!world.fdb->entityPtr(name)) {
      world.fdb->entityPtrIs(name, Kel::make<VxlanController::VniFdbStatusV2>());
    }
    return Kel::ptrCast<VxlanController::VniFdbStatusV2>(world.fdb->entityPtr(name));
  }
  static Kel::Ptr<VxlanController::MacVtepFloodListV2> listOf(const std::vector<const char*>& vteps) {
    const auto list = Kel::make<VxlanController::MacVtepFloodListV2>();
    for (const char* vtep : vteps) {
      list->vtepIpFloodListIs(Qnet::IpAddr::parse(vtep).value(), true);
    }
    return list;
  }
  void publishes(std::uint32_t vni, const std::vector<const char*>& vteps) {
    fdb(vni)->macVtepFloodListTableIs(mac, listOf(vteps));
  }
  // Whether the client still has a set for the VLAN, programmed or not.
  bool clientHasSet(std::uint32_t vlan) const {
    return static_cast<bool>(world.floodSets->vlanFloodSet(Bridging::VlanId(vlan)));
  }

  const Qnet::IntfId intf{"Vxlan1"};
  const Qnet::EthAddr mac{0x020000000001};
  Agent::World world;
  Kel::Ptr<Vxlan::VlanVniMap> map;
  Kel::Ptr<VxlanController::RmxStateV2> state;
  Programmed sink;
  std::optional<FloodFollower> follower;
  const std::string set10 = "10 02:00:00:00:00:01 all 10.0.0.2\n";
};

TEST_F(FloodFollowerTest, ASetIsProgrammedAsItComesChangesAndGoes) {
  EXPECT_EQ(sink.text(), set10) << "what was there at the start";
  fdb(1)->macVtepFloodListTable(mac)->vtepIpFloodListIs(Qnet::IpAddr::parse("10.0.0.3").value(), true);
  EXPECT_EQ(sink.text(), "10 02:00:00:00:00:01 all 10.0.0.2 10.0.0.3\n");
  fdb(1)->macVtepMultiPathTableIs({mac, {{Qnet::IpAddr::parse("10.0.0.4").value(), true}}});
  EXPECT_EQ(sink.text(), "10 02:00:00:00:00:01 any 10.0.0.4\n");
  fdb(1)->macVtepMultiPathTableDel(mac);
  fdb(1)->macVtepFloodListTableDel(mac);
  EXPECT_EQ(sink.text(), "");
  EXPECT_FALSE(clientHasSet(10));
}

TEST_F(FloodFollowerTest, AVlanWithoutAVniHasNothingAndGetsItBack) {
  unmapped(10);
  EXPECT_TRUE(clientHasSet(10)) << "until the next convergence has ended";
  EXPECT_EQ(sink.text(), "");
  mapped(11, 1);
  EXPECT_EQ(sink.text(), "11 02:00:00:00:00:01 all 10.0.0.2\n") << "the VLAN that has the VNI now";
  unmapped(11);
  mapped(10, 1);
  EXPECT_EQ(sink.text(), set10);
}

// Another VNI gets nothing of the old one's, until it publishes the address itself: also with the same
// destinations, of which nobody is notified.
TEST_F(FloodFollowerTest, AnotherVniGetsNothingOfTheOldOnes) {
  unmapped(10);
  mapped(10, 2);
  EXPECT_TRUE(clientHasSet(10));
  EXPECT_EQ(sink.text(), "") << "the controller does not publish VNI 2";
  fdb(2);
  EXPECT_EQ(sink.text(), "") << "nor the address in it";
  publishes(2, {"10.0.0.2"});
  EXPECT_EQ(sink.text(), set10);
}

TEST_F(FloodFollowerTest, AVniThatIsPublishedWholeWritesTheSetAnew) {
  mapped(10, 2);
  EXPECT_EQ(sink.text(), "");
  const auto status = Kel::make<VxlanController::VniFdbStatusV2>();
  status->macVtepFloodListTableIs(mac, listOf({"10.0.0.2"}));
  world.fdb->entityPtrIs(Kel::Name("2"), status);
  EXPECT_EQ(sink.text(), set10);
}

TEST_F(FloodFollowerTest, AMultiPathEntryOfTheNewVniWritesTheSetAnew) {
  mapped(10, 2);
  fdb(2)->macVtepMultiPathTableIs({mac, {{Qnet::IpAddr::parse("10.0.0.4").value(), true}}});
  EXPECT_EQ(sink.text(), "10 02:00:00:00:00:01 any 10.0.0.4\n");
}

// A VNI that is published already takes the set over at once.
TEST_F(FloodFollowerTest, ARenumberedVlanKeepsItsSetWhereTheNewVniHasIt) {
  publishes(2, {"10.0.0.2"});
  mapped(10, 2);
  EXPECT_EQ(sink.text(), set10);
}

// While the controller converges, programmed sets stay, no matter how the mapping changes; those that have
// not been written again by then go when it has converged.
TEST_F(FloodFollowerTest, WhatIsProgrammedStaysDuringAConvergence) {
  state->convergenceInProgressIs(true);
  unmapped(10);
  EXPECT_EQ(sink.text(), set10);
  mapped(10, 2);
  EXPECT_EQ(sink.text(), set10);
  state->convergenceInProgressIs(false);
  EXPECT_EQ(sink.text(), "");
}

TEST_F(FloodFollowerTest, WhatIsWrittenAnewDuringAConvergenceStaysBehindIt) {
  state->convergenceInProgressIs(true);
  mapped(10, 2);
  publishes(2, {"10.0.0.2"});
  state->convergenceInProgressIs(false);
  EXPECT_EQ(sink.text(), set10);
}

// The client's set that waits goes with the next convergence; the follower had nothing of it programmed.
TEST_F(FloodFollowerTest, ASetThatWaitsGoesWithTheNextConvergence) {
  unmapped(10);
  state->convergenceInProgressIs(true);
  state->convergenceInProgressIs(false);
  Kel::ActivityLoop::instance().runUntilIdle(10);
  EXPECT_FALSE(clientHasSet(10));
  EXPECT_EQ(sink.text(), "");
}

}  // namespace
