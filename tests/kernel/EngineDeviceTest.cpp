#include "EngineWorld.h"

// Devices: what a kernel lacks, what an earlier run has left, a VNI that changes, ports.
namespace Agent::Kernel::Test {
namespace {

class EngineDeviceTest : public EngineTest {};

TEST_F(EngineDeviceTest, KnowsItsFloodRowsInADeviceThatItComesBackTo) {
  mapVlan10(5010);
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
  engine().initialSyncComplete();
  run();
  mapVlan10(5020);
  run();
  engine().floodIs(10, all, FloodType::all, {vtepA});
  pass(milliseconds(500));
  mapVlan10(5010);
  for (int n = 0; n < 5; ++n) {
    pass(seconds(1));
  }
  EXPECT_EQ(kernel_.text(),
            "link vx5010 in vxb10\n"
            "link vxb10\n"
            "row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n");
}

TEST_F(EngineDeviceTest, SaysWhichKindOfDeviceTheKernelLacks) {
  LinkKind lacking = LinkKind::bridge;
  kernel_.refusalIs([&lacking](const Request& request) {
    const auto* add = std::get_if<LinkAdd>(&request);
    return add != nullptr && add->kind == lacking ? EOPNOTSUPP : 0;
  });
  mapVlan10();
  run();
  EXPECT_THAT(problems(),
              MatchesRegex("VLAN 10: the kernel has no bridges \\(.*\\): its module bridge is needed\n"));
  lacking = LinkKind::vxlan;
  pass(milliseconds(100));
  EXPECT_THAT(
      problems(),
      MatchesRegex("VLAN 10: the kernel has no VXLAN devices \\(.*\\): its module vxlan is needed\n"));
  lacking = LinkKind::other;
  pass(seconds(1));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineDeviceTest, AdoptsAfterARestartWithoutTouchingWhatIsWantedAgain) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
  run();
  std::string before = kernel_.text();
  kernel_.forgetGaps();
  restart();
  run();
  std::size_t requests = kernel_.requestCount();
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
  engine().initialSyncComplete();
  run();
  EXPECT_EQ(kernel_.requestCount(), requests);
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineDeviceTest, RemovesAfterARestartWhatIsStaleButOnlyOnceSettled) {
  givenHostAt(vtepA);
  engine().hostIs(10, other, vtepB);
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
  engine().vniIs(5020, 20, "Vxlan1", ip("10.0.0.1"), {});
  run();
  std::string before = kernel_.text();
  restart();
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  pass(seconds(300));
  EXPECT_EQ(kernel_.text(), before);
  engine().initialSyncComplete();
  run();
  EXPECT_EQ(kernel_.text(),
            "link vx5010 in vxb10\n"
            "link vxb10\n"
            "row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"
            "row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"
            "row vxb10 02:00:00:00:00:01 port vx5010\n");
  EXPECT_EQ(kernel_.nexthops().size(), 2U) << "the nexthop of the one VTEP, and its group";
}

TEST_F(EngineDeviceTest, KnowsAfterARestartTheFloodRowOfSomebodyElse) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  run();
  ASSERT_EQ(kernel_.apply(FdbAdd{FdbAdd::How::append, deviceEntry(all, vtepC)}), 0);
  run();
  restart();
  mapVlan10();
  engine().initialSyncComplete();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.4\n"));
}

TEST_F(EngineDeviceTest, RenumbersAVniWithoutAMomentWithoutAWay) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  run();
  kernel_.refusalIs([&](const Request& request) {
    const Link* before = kernel_.link("vx5010");
    const Link* after = kernel_.link("vx6010");
    if (before == nullptr || after == nullptr || !after->up) {
      return 0;
    }
    EXPECT_TRUE(before->portIsolated && after->portIsolated)
        << "what comes in by one must not go out by the other";
    (void)request;
    return 0;
  });
  engine().vniDel(10, "Vxlan1");
  mapVlan10(6010);
  run();
  std::string receives = kernel_.text();
  EXPECT_THAT(receives, HasSubstr("row vx6010 02:00:00:00:00:01 via 10.0.0.2\n")) << "ready to receive";
  EXPECT_THAT(receives, HasSubstr("row vxb10 02:00:00:00:00:01 port vx5010\n")) << "others may not be ready";
  EXPECT_THAT(receives, HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(receives, Not(HasSubstr("row vx6010 00:00:00:00:00:00")));
  pass(seconds(1));
  std::string sends = kernel_.text();
  EXPECT_THAT(sends, HasSubstr("row vxb10 02:00:00:00:00:01 port vx6010\n"));
  EXPECT_THAT(sends, HasSubstr("row vx6010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(sends, HasSubstr("link vx5010 in vxb10\n")) << "others may still send by it";
  EXPECT_THAT(sends, Not(HasSubstr("row vx5010 00:00:00:00:00:00"))) << "flooded once";
  pass(seconds(1));
  EXPECT_EQ(kernel_.link("vx5010"), nullptr);
  EXPECT_FALSE(kernel_.link("vx6010")->portIsolated);
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineDeviceTest, AHostThatMovesWhileItsVniIsRenumberedGoesTheNewWayAtOnce) {
  givenHostAt(vtepA);
  engine().hostIs(10, other, vtepA);
  run();
  engine().vniDel(10, "Vxlan1");
  mapVlan10(6010);
  run();
  engine().hostIs(10, host, vtepB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx6010\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx6010 02:00:00:00:00:01 via 10.0.0.3\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:02 port vx5010\n"));
}

TEST_F(EngineDeviceTest, RemovesDevicesWithTheirMapping) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  engine().vniDel(10, "Vxlan1");
  run();
  EXPECT_EQ(kernel_.text(), "link t0\n");
}

TEST_F(EngineDeviceTest, TwoInterfacesShareADeviceUntilTheLastGivesItUp) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  run();
  const std::string before = kernel_.text();
  const IfIndex device = index("vx5010");
  kernel_.forgetGaps();
  engine().vniIs(5010, 10, "Vxlan2", local, {});
  run();
  EXPECT_EQ(kernel_.link("vx5010")->alias, "vxlan-agent: vlan 10 vni 5010 Vxlan2");
  engine().vniDel(10, "Vxlan2");
  pass(seconds(300));
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(index("vx5010"), device) << "it was kept, not made again";
  EXPECT_EQ(kernel_.link("vx5010")->alias, "vxlan-agent: vlan 10 vni 5010 Vxlan1");
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
  engine().vniDel(10, "Vxlan1");
  run();
  EXPECT_EQ(kernel_.text(), "");
}

TEST_F(EngineDeviceTest, AVniThatTwoVlansWantIsWithTheLatestAndThenGoesBack) {
  givenHostAt(vtepA);
  const std::string before = kernel_.text();
  engine().hostIs(20, other, vtepB);
  engine().vniIs(5010, 20, "Vxlan2", local, {});
  for (int n = 0; n < 3; ++n) {
    pass(seconds(1));
  }
  EXPECT_EQ(kernel_.text(),
            "link vx5010 in vxb20\n"
            "link vxb20\n"
            "row vx5010 02:00:00:00:00:02 via 10.0.0.3\n"
            "row vxb20 02:00:00:00:00:02 port vx5010\n");
  engine().vniDel(20, "Vxlan2");
  for (int n = 0; n < 3; ++n) {
    pass(seconds(1));
  }
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineDeviceTest, UsesADeviceOfSomebodyElseAndLeavesItThere) {
  (void)kernel_.apply(LinkAdd{"their-bridge", LinkKind::bridge, 0, 0, {}, 0, 0});
  (void)kernel_.apply(
      LinkAdd{"their-vxlan", LinkKind::vxlan, index("their-bridge"), 5010, ip("10.0.0.1"), 4789, 0});
  givenHostAt(vtepA);
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row their-vxlan 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row their-bridge 02:00:00:00:00:01 port their-vxlan\n"));
  EXPECT_THAT(problems(), HasSubstr("was made by somebody else and is used as it is: it is down"));
  engine().vniDel(10, "Vxlan1");
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), "link their-bridge\nlink their-vxlan in their-bridge\n");
}

TEST_F(EngineDeviceTest, WaitsForAPortAndSaysSo) {
  ports_ = {"t0"};
  mapVlan10();
  run();
  EXPECT_THAT(problems(), HasSubstr("VLAN 10 port: the port t0 does not exist"));
  kernel_.port("t0");
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("link t0 in vxb10\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineDeviceTest, MovesAPortFromOneVlanToAnother) {
  kernel_.port("t0");
  ports_ = {"t0"};
  mapVlan10();
  run();
  ports_ = {};
  mapVlan10();
  engine().vniIs(5020, 20, "Vxlan1", ip("10.0.0.1"), {"t0"});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("link t0 in vxb20\n"));
}

TEST_F(EngineDeviceTest, DoesNotTakeAPortOutOfSomebodyElsesBridge) {
  (void)kernel_.apply(LinkAdd{"their-bridge", LinkKind::bridge, 0, 0, {}, 0, 0});
  IfIndex port = kernel_.port("t0");
  (void)kernel_.apply(LinkSet{.index = port, .master = index("their-bridge")});
  ports_ = {"t0"};
  mapVlan10();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("link t0 in their-bridge\n"));
  EXPECT_THAT(problems(), HasSubstr("the port t0 belongs to their-bridge, which is not ours"));
}

}  // namespace
}  // namespace Agent::Kernel::Test
