#include "agent/kernel/Engine.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "FakeKernel.h"

namespace Agent::Kernel::Test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

Ip4 ip(const char* text) {
  return Ip4::parse(text).value();
}
Mac mac(const char* text) {
  return Mac::parse(text).value();
}

const Mac kAll{};
const Mac kHost = mac("02:00:00:00:00:01");
const Mac kOther = mac("02:00:00:00:00:02");
const Ip4 kLocal = ip("10.0.0.1");
const Ip4 kA = ip("10.0.0.2");
const Ip4 kB = ip("10.0.0.3");
const Ip4 kC = ip("10.0.0.4");

class EngineTest : public ::testing::Test {
 protected:
  void restart() {
    engine_.emplace(Options{});
    kernel_.reconnect();
  }
  void run() { kernel_.run(engine(), now_); }
  void pass(Time span) {
    now_ += span;
    run();
  }
  Engine& engine() { return *engine_; }
  void mapVlan10(Vni vni = 5010, Ip4 local = kLocal) { engine().vniIs(vni, 10, "Vxlan1", local, ports_); }
  IfIndex index(const std::string& name) const { return kernel_.link(name)->index; }
  Row deviceRow(Mac mac, Ip4 dst) const {
    return {Table::device, index("vx5010"), 0, mac, dst, 0, false, false};
  }
  std::string problems() const {
    std::string out;
    for (const Problem& problem : engine_->problems(100).first)
      out += problem.what + ": " + problem.why + "\n";
    return out;
  }
  void givenHostAt(Ip4 vtep) {
    mapVlan10();
    engine().hostIs(10, kHost, vtep);
    engine().settled();
    run();
    kernel_.forgetGaps();
  }

  FakeKernel kernel_;
  std::optional<Engine> engine_{Options{}};
  std::vector<std::string> ports_;
  Time now_{seconds(1000)};
};

TEST_F(EngineTest, MapsAVlanToABridgeAndADeviceWithItsRows) {
  kernel_.port("t0");
  ports_ = {"t0"};
  mapVlan10();
  engine().hostIs(10, kHost, kA);
  engine().floodIs(10, kAll, FloodType::all, {kB, kA});
  run();
  EXPECT_EQ(kernel_.text(),
            "link t0 in vxb10\n"
            "link vx5010 in vxb10\n"
            "link vxb10\n"
            "row vx5010 00:00:00:00:00:00 dst 10.0.0.2 10.0.0.3\n"
            "row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"
            "row vxb10 02:00:00:00:00:01 port vx5010\n");
  EXPECT_TRUE(kernel_.link("vx5010")->up);
  EXPECT_FALSE(kernel_.link("vx5010")->portLearning);
  EXPECT_EQ(kernel_.link("vx5010")->alias, "vxlan-agent: vlan 10 vni 5010 Vxlan1");
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, SaysNothingMoreOnceAllIsThere) {
  givenHostAt(kA);
  std::size_t before = kernel_.requestCount();
  engine().hostIs(10, kHost, kA);
  run();
  EXPECT_EQ(kernel_.requestCount(), before);
}

TEST_F(EngineTest, WaitsForTheMappingBeforeItProgramsAHost) {
  engine().hostIs(10, kHost, kA);
  run();
  EXPECT_EQ(kernel_.text(), "");
  mapVlan10();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2"));
}

TEST_F(EngineTest, MovesAHostWithoutAMomentWithoutARow) {
  givenHostAt(kA);
  for (int n = 0; n < 100; ++n) {
    engine().hostIs(10, kHost, n % 2 == 0 ? kB : kA);
    run();
    ASSERT_THAT(kernel_.text(), HasSubstr(n % 2 == 0 ? "via 10.0.0.3" : "via 10.0.0.2"));
  }
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, ChangesBetweenOneVtepAndAnyOfSeveralWithoutAGap) {
  givenHostAt(kA);
  engine().floodIs(10, kHost, FloodType::any, {kA, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2 10.0.0.3"));
  engine().floodDel(10, kHost);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, WithdrawsAHostAndTheNexthopsThatNothingElseUses) {
  givenHostAt(kA);
  engine().hostDel(10, kHost);
  run();
  EXPECT_EQ(kernel_.text(), "link vx5010 in vxb10\nlink vxb10\n");
  EXPECT_THAT(kernel_.nexthops(), IsEmpty());
}

TEST_F(EngineTest, ChangesTheMembersOfADefaultDestinationOfTypeAnyInPlace) {
  mapVlan10();
  engine().floodIs(10, kAll, FloodType::any, {kA, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  kernel_.forgetGaps();
  engine().floodIs(10, kAll, FloodType::any, {kB, kC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 any 10.0.0.3 10.0.0.4"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, ChangesTheTypeOfTheDefaultDestination) {
  mapVlan10();
  engine().floodIs(10, kAll, FloodType::all, {kA, kB});
  run();
  engine().floodIs(10, kAll, FloodType::any, {kA, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  engine().floodIs(10, kAll, FloodType::all, {kA});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 dst 10.0.0.2\n"));
}

TEST_F(EngineTest, FloodsAMulticastAddressToItsOwnVteps) {
  mapVlan10();
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::all, {kA, kC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 dst 10.0.0.2 10.0.0.4\n"));
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("row vxb10 01:00:5e:00:00:05")));
}

TEST_F(EngineTest, LeavesItsOwnAddressOutOfEveryKindOfSet) {
  mapVlan10();
  engine().floodIs(10, kAll, FloodType::all, {kLocal, kA});
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {kLocal, kA, kB});
  engine().floodIs(10, kHost, FloodType::any, {kLocal, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 any 10.0.0.2 10.0.0.3\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.3\n"));
}

TEST_F(EngineTest, ASetOfItsOwnAddressAloneIsNone) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  for (FloodType type : {FloodType::all, FloodType::any}) {
    engine().floodIs(10, kAll, type, {kLocal});
    engine().floodIs(10, kHost, type, {kLocal});
    run();
    EXPECT_EQ(kernel_.text(), before);
    EXPECT_EQ(problems(), "");
  }
  for (const Tally& tally : engine().tallies()) EXPECT_EQ(tally.wanted, tally.there) << tally.kind;
}

TEST_F(EngineTest, FollowsAChangeOfItsOwnAddressInEveryKindOfSet) {
  mapVlan10();
  engine().floodIs(10, kAll, FloodType::all, {kLocal, kA});
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {kLocal, kA});
  engine().floodIs(10, kHost, FloodType::any, {kLocal, kA});
  run();
  mapVlan10(5010, kA);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.1\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 any 10.0.0.1\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.1\n"));
}

TEST_F(EngineTest, KnowsItsFloodRowsInADeviceThatItComesBackTo) {
  mapVlan10(5010);
  engine().floodIs(10, kAll, FloodType::all, {kA, kB});
  engine().settled();
  run();
  mapVlan10(5020);
  run();
  engine().floodIs(10, kAll, FloodType::all, {kA});
  pass(milliseconds(500));
  mapVlan10(5010);
  for (int n = 0; n < 5; ++n) pass(seconds(1));
  EXPECT_EQ(kernel_.text(),
            "link vx5010 in vxb10\n"
            "link vxb10\n"
            "row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n");
}

TEST_F(EngineTest, PutsBackARowThatSomebodyDeleted) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(kHost, {})}), 0);
  kernel_.age(index("vxb10"), kHost);
  run();
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().repairs, 2U);
}

TEST_F(EngineTest, CorrectsARowThatSomebodyTurnedElsewhere) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  engine().hostIs(10, kOther, kB);
  run();
  NexthopId other = kernel_.deviceRows().at({index("vx5010"), kOther}).nexthop;
  engine().hostDel(10, kOther);
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::replace,
                                 {Table::device, index("vx5010"), 0, kHost, {}, other, false, false}}),
            0);
  run();
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, LeavesRowsOfOthersAlone) {
  givenHostAt(kA);
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::create, deviceRow(kOther, kC)}), 0);
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::append, deviceRow(kAll, kC)}), 0);
  engine().floodIs(10, kAll, FloodType::all, {kA});
  run();
  pass(seconds(120));
  engine().floodDel(10, kAll);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.4\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:02 dst 10.0.0.4\n"));
}

TEST_F(EngineTest, SaysThatARowOfSomebodyElseIsInTheWayAndTakesItsPlaceWhenItGoes) {
  mapVlan10();
  run();
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::create, deviceRow(kHost, kC)}), 0);
  run();
  engine().hostIs(10, kHost, kA);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.4\n"));
  EXPECT_THAT(problems(),
              HasSubstr("VLAN 10 host 02:00:00:00:00:01: the VXLAN device has a row of somebody else"));
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(kHost, {})}), 0);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, NoticesRowsThatWentWithTheirGroup) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  NexthopId group = kernel_.deviceRows().at({index("vx5010"), kHost}).nexthop;
  ASSERT_EQ(kernel_.apply(NexthopDel{group}), 0);
  ASSERT_NE(kernel_.text(), before);
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, ComparesWithADumpWhenReportsWereLost) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  kernel_.reportLimitIs(0);
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(kHost, {})}), 0);
  kernel_.turn(engine(), now_);
  kernel_.reportLimitIs(100000);
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().overruns, 1U);
}

TEST_F(EngineTest, AuditFindsWhatNobodyReported) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  std::uint64_t audits = engine().counters().audits;
  kernel_.reportLimitIs(0);
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(kHost, {})}), 0);
  kernel_.forgetLoss();
  kernel_.reportLimitIs(100000);
  run();
  ASSERT_NE(kernel_.text(), before);
  pass(seconds(61));
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().audits, audits + 1);
}

TEST_F(EngineTest, RebuildsADeviceThatSomebodyDeleted) {
  givenHostAt(kA);
  engine().floodIs(10, kAll, FloodType::all, {kA});
  run();
  std::string before = kernel_.text();
  kernel_.deleteLink(index("vx5010"));
  run();
  EXPECT_EQ(kernel_.text(), before);
  kernel_.deleteLink(index("vxb10"));
  run();
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, RetriesWhatWasRefusedAfterPausesThatDouble) {
  int refusals = 0;
  kernel_.refusalIs([&](const Request& request) {
    const auto* add = std::get_if<RowAdd>(&request);
    if (add == nullptr || add->row.mac != kHost || add->row.table != Table::device) return 0;
    ++refusals;
    return EBUSY;
  });
  givenHostAt(kA);
  EXPECT_EQ(refusals, 1);
  EXPECT_THAT(problems(), HasSubstr("VLAN 10 host 02:00:00:00:00:01: refused with 16"));
  pass(milliseconds(99));
  EXPECT_EQ(refusals, 1);
  pass(milliseconds(1));
  EXPECT_EQ(refusals, 2);
  pass(milliseconds(199));
  EXPECT_EQ(refusals, 2);
  pass(milliseconds(1));
  EXPECT_EQ(refusals, 3);
  kernel_.refusalIs({});
  pass(seconds(1));
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
}

TEST_F(EngineTest, SaysOnceThatTheRightToChangeTheKernelIsMissing) {
  kernel_.refusalIs([](const Request&) { return EPERM; });
  givenHostAt(kA);
  EXPECT_THAT(problems(), HasSubstr("CAP_NET_ADMIN"));
  std::size_t before = kernel_.requestCount();
  pass(milliseconds(100));
  EXPECT_EQ(kernel_.requestCount(), before + 1);
  kernel_.refusalIs({});
  for (int n = 0; n < 10; ++n) pass(seconds(10));
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
}

TEST_F(EngineTest, DoesWithoutNexthopGroupsWhatCanBeDone) {
  kernel_.nexthopsAre(false);
  mapVlan10();
  engine().hostIs(10, kHost, kA);
  engine().floodIs(10, kAll, FloodType::any, {kA, kB});
  engine().floodIs(10, kOther, FloodType::any, {kB, kC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:02 dst 10.0.0.3\n"));
  EXPECT_THAT(problems(), HasSubstr("nexthops: the kernel has no nexthop objects"));
  kernel_.forgetGaps();
  engine().hostIs(10, kHost, kB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.3\n"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, FindsOutThatTheKernelRefusesNexthopsForRows) {
  kernel_.refusalIs(
      [](const Request& request) { return std::holds_alternative<NexthopSet>(request) ? EINVAL : 0; });
  givenHostAt(kA);
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.2\n"));
  EXPECT_THAT(problems(), HasSubstr("the kernel has no nexthop groups"));
}

TEST_F(EngineTest, AdoptsAfterARestartWithoutTouchingWhatIsWantedAgain) {
  givenHostAt(kA);
  engine().floodIs(10, kAll, FloodType::all, {kA, kB});
  run();
  std::string before = kernel_.text();
  kernel_.forgetGaps();
  restart();
  run();
  std::size_t requests = kernel_.requestCount();
  mapVlan10();
  engine().hostIs(10, kHost, kA);
  engine().floodIs(10, kAll, FloodType::all, {kA, kB});
  engine().settled();
  run();
  EXPECT_EQ(kernel_.requestCount(), requests);
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, RemovesAfterARestartWhatIsStaleButOnlyOnceSettled) {
  givenHostAt(kA);
  engine().hostIs(10, kOther, kB);
  engine().floodIs(10, kAll, FloodType::all, {kA, kB});
  engine().vniIs(5020, 20, "Vxlan1", ip("10.0.0.1"), {});
  run();
  std::string before = kernel_.text();
  restart();
  mapVlan10();
  engine().hostIs(10, kHost, kA);
  engine().floodIs(10, kAll, FloodType::all, {kA});
  pass(seconds(300));
  EXPECT_EQ(kernel_.text(), before);
  engine().settled();
  run();
  EXPECT_EQ(kernel_.text(),
            "link vx5010 in vxb10\n"
            "link vxb10\n"
            "row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"
            "row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"
            "row vxb10 02:00:00:00:00:01 port vx5010\n");
  EXPECT_EQ(kernel_.nexthops().size(), 2U) << "the nexthop of the one VTEP, and its group";
}

TEST_F(EngineTest, KnowsAfterARestartTheFloodRowOfSomebodyElse) {
  givenHostAt(kA);
  engine().floodIs(10, kAll, FloodType::all, {kA});
  run();
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::append, deviceRow(kAll, kC)}), 0);
  run();
  restart();
  mapVlan10();
  engine().settled();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.4\n"));
}

TEST_F(EngineTest, RenumbersAVniWithoutAMomentWithoutAWay) {
  givenHostAt(kA);
  engine().floodIs(10, kAll, FloodType::all, {kA});
  run();
  kernel_.refusalIs([&](const Request& request) {
    const Link* before = kernel_.link("vx5010");
    const Link* after = kernel_.link("vx6010");
    if (before == nullptr || after == nullptr || !after->up) return 0;
    EXPECT_TRUE(before->portIsolated && after->portIsolated)
        << "what comes in by one must not go out by the other";
    (void)request;
    return 0;
  });
  engine().vniDel(5010);
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

TEST_F(EngineTest, AHostThatMovesWhileItsVniIsRenumberedGoesTheNewWayAtOnce) {
  givenHostAt(kA);
  engine().hostIs(10, kOther, kA);
  run();
  engine().vniDel(5010);
  mapVlan10(6010);
  run();
  engine().hostIs(10, kHost, kB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx6010\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx6010 02:00:00:00:00:01 via 10.0.0.3\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:02 port vx5010\n"));
}

TEST_F(EngineTest, RemovesDevicesWithTheirMapping) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  engine().vniDel(5010);
  run();
  EXPECT_EQ(kernel_.text(), "link t0\n");
}

TEST_F(EngineTest, UsesADeviceOfSomebodyElseAndLeavesItThere) {
  (void)kernel_.apply(LinkAdd{"their-bridge", LinkKind::bridge, 0, 0, {}, 0, 0});
  (void)kernel_.apply(
      LinkAdd{"their-vxlan", LinkKind::vxlan, index("their-bridge"), 5010, ip("10.0.0.1"), 4789, 0});
  givenHostAt(kA);
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row their-vxlan 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row their-bridge 02:00:00:00:00:01 port their-vxlan\n"));
  EXPECT_THAT(problems(), HasSubstr("was made by somebody else and is used as it is: it is down"));
  engine().vniDel(5010);
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), "link their-bridge\nlink their-vxlan in their-bridge\n");
}

TEST_F(EngineTest, WaitsForAPortAndSaysSo) {
  ports_ = {"t0"};
  mapVlan10();
  run();
  EXPECT_THAT(problems(), HasSubstr("VLAN 10 port: the port t0 does not exist"));
  kernel_.port("t0");
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("link t0 in vxb10\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, MovesAPortFromOneVlanToAnother) {
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

TEST_F(EngineTest, DoesNotTakeAPortOutOfSomebodyElsesBridge) {
  (void)kernel_.apply(LinkAdd{"their-bridge", LinkKind::bridge, 0, 0, {}, 0, 0});
  IfIndex port = kernel_.port("t0");
  (void)kernel_.apply(LinkSet{port, LinkKind::other, {}, index("their-bridge"), {}, {}, {}, {}, {}, {}});
  ports_ = {"t0"};
  mapVlan10();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("link t0 in their-bridge\n"));
  EXPECT_THAT(problems(), HasSubstr("the port t0 belongs to their-bridge, which is not ours"));
}

TEST_F(EngineTest, LeavesAHostThatCameToALocalPortThereUntilTheControllerSaysSomethingNew) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  kernel_.learn(index("vxb10"), index("t0"), kHost);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  EXPECT_THAT(problems(), HasSubstr("seen at local port t0 although the controller says VTEP 10.0.0.2"));
  engine().hostIs(10, kHost, kB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx5010\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, TakesAHostBackFromALocalPortWhenTheControllerStandsByItsWord) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  kernel_.learn(index("vxb10"), index("t0"), kHost);
  run();
  pass(seconds(9));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx5010\n"));
}

TEST_F(EngineTest, WithdrawnHostStaysAtItsLocalPort) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  kernel_.learn(index("vxb10"), index("t0"), kHost);
  run();
  engine().hostDel(10, kHost);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("row vx5010 02:00:00:00:00:01")));
}

TEST_F(EngineTest, CountsWhatIsWantedThereAndDiffering) {
  givenHostAt(kA);
  kernel_.refusalIs(
      [](const Request& request) { return std::holds_alternative<RowAdd>(request) ? EBUSY : 0; });
  engine().hostIs(10, kOther, kA);
  run();
  for (const Tally& tally : engine().tallies()) {
    if (tally.kind != "hosts") continue;
    EXPECT_EQ(tally.wanted, 2U);
    EXPECT_EQ(tally.there, 1U);
    EXPECT_EQ(tally.differing, 1U);
  }
  Explanation other = engine().explain(10, kOther);
  EXPECT_EQ(other.wantedVteps, std::vector<Ip4>{kA});
  EXPECT_EQ(other.deviceMark, "none");
  EXPECT_THAT(other.problem, HasSubstr("refused"));
  Explanation host = engine().explain(10, kHost);
  EXPECT_EQ(host.deviceVteps, std::vector<Ip4>{kA});
  EXPECT_EQ(host.port, "vx5010");
  EXPECT_FALSE(host.differs);
}

}  // namespace
}  // namespace Agent::Kernel::Test
