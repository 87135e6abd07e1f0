#include "EngineWorld.h"

namespace Agent::Kernel::Test {
namespace {

TEST_F(EngineTest, MapsAVlanToABridgeAndADeviceWithItsRows) {
  kernel_.port("t0");
  ports_ = {"t0"};
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepB, vtepA});
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
  givenHostAt(vtepA);
  std::size_t before = kernel_.requestCount();
  engine().hostIs(10, host, vtepA);
  run();
  EXPECT_EQ(kernel_.requestCount(), before);
}

TEST_F(EngineTest, WaitsForTheMappingBeforeItProgramsAHost) {
  engine().hostIs(10, host, vtepA);
  run();
  EXPECT_EQ(kernel_.text(), "");
  mapVlan10();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2"));
}

TEST_F(EngineTest, LeavesOutAHostWithAGroupAddressAndSaysSoUntilItGoes) {
  mapVlan10();
  engine().hostIs(10, group, vtepA);
  engine().hostIs(10, host, vtepA);
  run();
  EXPECT_THAT(kernel_.text(), Not(HasSubstr(group.text())));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2"));
  EXPECT_THAT(problems(), HasSubstr("VLAN 10 host " + group.text()));
  EXPECT_EQ(engine().status().explain(10, group).problem, "a host has a unicast address");
  engine().hostDel(10, group);
  run();
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, MovesAHostWithoutAMomentWithoutARow) {
  givenHostAt(vtepA);
  for (int n = 0; n < 100; ++n) {
    engine().hostIs(10, host, n % 2 == 0 ? vtepB : vtepA);
    run();
    ASSERT_THAT(kernel_.text(), HasSubstr(n % 2 == 0 ? "via 10.0.0.3" : "via 10.0.0.2"));
  }
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, ChangesBetweenOneVtepAndAnyOfSeveralWithoutAGap) {
  givenHostAt(vtepA);
  engine().floodIs(10, host, FloodType::any, {vtepA, vtepB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2 10.0.0.3"));
  engine().floodDel(10, host);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, WithdrawsAHostAndTheNexthopsThatNothingElseUses) {
  givenHostAt(vtepA);
  engine().hostDel(10, host);
  run();
  EXPECT_EQ(kernel_.text(), "link vx5010 in vxb10\nlink vxb10\n");
  EXPECT_THAT(kernel_.nexthops(), IsEmpty());
}

TEST_F(EngineTest, ChangesTheMembersOfADefaultDestinationOfTypeAnyInPlace) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::any, {vtepA, vtepB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  kernel_.forgetGaps();
  engine().floodIs(10, all, FloodType::any, {vtepB, vtepC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 any 10.0.0.3 10.0.0.4"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, ChangesTheTypeOfTheDefaultDestination) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
  run();
  engine().floodIs(10, all, FloodType::any, {vtepA, vtepB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  engine().floodIs(10, all, FloodType::all, {vtepA});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 dst 10.0.0.2\n"));
}

TEST_F(EngineTest, FloodsAMulticastAddressToItsOwnVteps) {
  mapVlan10();
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::all, {vtepA, vtepC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 dst 10.0.0.2 10.0.0.4\n"));
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("row vxb10 01:00:5e:00:00:05")));
}

TEST_F(EngineTest, LeavesItsOwnAddressOutOfEveryKindOfSet) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::all, {local, vtepA});
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {local, vtepA, vtepB});
  engine().floodIs(10, host, FloodType::any, {local, vtepB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 any 10.0.0.2 10.0.0.3\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.3\n"));
}

TEST_F(EngineTest, ASetOfItsOwnAddressAloneIsNone) {
  givenHostAt(vtepA);
  std::string before = kernel_.text();
  for (FloodType type : {FloodType::all, FloodType::any}) {
    engine().floodIs(10, all, type, {local});
    engine().floodIs(10, host, type, {local});
    run();
    EXPECT_EQ(kernel_.text(), before);
    EXPECT_EQ(problems(), "");
  }
  for (const Tally& tally : engine().status().tallies()) {
    EXPECT_EQ(tally.desired, tally.actual) << tally.kind;
  }
}

TEST_F(EngineTest, FollowsAChangeOfItsOwnAddressInEveryKindOfSet) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::all, {local, vtepA});
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {local, vtepA});
  engine().floodIs(10, host, FloodType::any, {local, vtepA});
  run();
  mapVlan10(5010, vtepA);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.1\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 any 10.0.0.1\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.1\n"));
}

TEST_F(EngineTest, PutsBackARowThatSomebodyDeleted) {
  givenHostAt(vtepA);
  std::string before = kernel_.text();
  ASSERT_EQ(kernel_.apply(FdbDel{deviceEntry(host, {})}), 0);
  kernel_.age(index("vxb10"), host);
  run();
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().repairs, 2U);
}

TEST_F(EngineTest, CorrectsARowThatSomebodyTurnedElsewhere) {
  givenHostAt(vtepA);
  std::string before = kernel_.text();
  engine().hostIs(10, other, vtepB);
  run();
  const NexthopId others = kernel_.deviceEntries().at({index("vx5010"), other}).nexthop;
  engine().hostDel(10, other);
  ASSERT_EQ(kernel_.apply(FdbAdd{FdbAdd::How::replace,
                                 {Table::device, index("vx5010"), 0, host, {}, others, false, false}}),
            0);
  run();
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, LeavesRowsOfOthersAlone) {
  givenHostAt(vtepA);
  ASSERT_EQ(kernel_.apply(FdbAdd{FdbAdd::How::create, deviceEntry(other, vtepC)}), 0);
  ASSERT_EQ(kernel_.apply(FdbAdd{FdbAdd::How::append, deviceEntry(all, vtepC)}), 0);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  run();
  pass(seconds(120));
  engine().floodDel(10, all);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.4\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:02 dst 10.0.0.4\n"));
}

TEST_F(EngineTest, SaysThatARowOfSomebodyElseIsInTheWayAndTakesItsPlaceWhenItGoes) {
  mapVlan10();
  run();
  ASSERT_EQ(kernel_.apply(FdbAdd{FdbAdd::How::create, deviceEntry(host, vtepC)}), 0);
  run();
  engine().hostIs(10, host, vtepA);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.4\n"));
  EXPECT_THAT(problems(),
              HasSubstr("VLAN 10 host 02:00:00:00:00:01: the VXLAN device has a row of somebody else"));
  ASSERT_EQ(kernel_.apply(FdbDel{deviceEntry(host, {})}), 0);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, NoticesRowsThatWentWithTheirGroup) {
  givenHostAt(vtepA);
  std::string before = kernel_.text();
  NexthopId group = kernel_.deviceEntries().at({index("vx5010"), host}).nexthop;
  ASSERT_EQ(kernel_.apply(NexthopDel{group}), 0);
  ASSERT_NE(kernel_.text(), before);
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, ComparesWithADumpWhenReportsWereLost) {
  givenHostAt(vtepA);
  std::string before = kernel_.text();
  kernel_.reportLimitIs(0);
  ASSERT_EQ(kernel_.apply(FdbDel{deviceEntry(host, {})}), 0);
  kernel_.turn(engine(), now_);
  kernel_.reportLimitIs(100000);
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().overruns, 1U);
}

TEST_F(EngineTest, AuditFindsWhatNobodyReported) {
  givenHostAt(vtepA);
  std::string before = kernel_.text();
  std::uint64_t audits = engine().counters().audits;
  kernel_.reportLimitIs(0);
  ASSERT_EQ(kernel_.apply(FdbDel{deviceEntry(host, {})}), 0);
  kernel_.forgetLoss();
  kernel_.reportLimitIs(100000);
  run();
  ASSERT_NE(kernel_.text(), before);
  pass(seconds(61));
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().audits, audits + 1);
}

TEST_F(EngineTest, RebuildsADeviceThatSomebodyDeleted) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA});
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
    const auto* add = std::get_if<FdbAdd>(&request);
    if (add == nullptr || add->entry.mac != host || add->entry.table != Table::device) {
      return 0;
    }
    ++refusals;
    return EBUSY;
  });
  givenHostAt(vtepA);
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
  givenHostAt(vtepA);
  EXPECT_THAT(problems(), HasSubstr("CAP_NET_ADMIN"));
  std::size_t before = kernel_.requestCount();
  pass(milliseconds(100));
  EXPECT_EQ(kernel_.requestCount(), before + 1);
  kernel_.refusalIs({});
  for (int n = 0; n < 10; ++n) {
    pass(seconds(10));
  }
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
}

TEST_F(EngineTest, DoesWithoutNexthopGroupsWhatCanBeDone) {
  kernel_.nexthopsAre(false);
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  engine().floodIs(10, all, FloodType::any, {vtepA, vtepB});
  engine().floodIs(10, other, FloodType::any, {vtepB, vtepC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:02 dst 10.0.0.3\n"));
  EXPECT_THAT(problems(), HasSubstr("nexthops: the kernel has no nexthop objects"));
  kernel_.forgetGaps();
  engine().hostIs(10, host, vtepB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.3\n"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, FindsOutThatTheKernelRefusesNexthopsForRows) {
  kernel_.refusalIs(
      [](const Request& request) { return std::holds_alternative<NexthopSet>(request) ? EINVAL : 0; });
  givenHostAt(vtepA);
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.2\n"));
  EXPECT_THAT(problems(), HasSubstr("the kernel has no nexthop groups"));
}

TEST_F(EngineTest, LeavesAHostThatCameToALocalPortThereUntilTheControllerSaysSomethingNew) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  kernel_.learn(index("vxb10"), index("t0"), host);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  EXPECT_THAT(problems(), HasSubstr("seen at local port t0 although the controller says VTEP 10.0.0.2"));
  engine().hostIs(10, host, vtepB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx5010\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, TakesAHostBackFromALocalPortWhenTheControllerStandsByItsWord) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  kernel_.learn(index("vxb10"), index("t0"), host);
  run();
  pass(seconds(9));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx5010\n"));
}

TEST_F(EngineTest, WithdrawnHostStaysAtItsLocalPort) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  kernel_.learn(index("vxb10"), index("t0"), host);
  run();
  engine().hostDel(10, host);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("row vx5010 02:00:00:00:00:01")));
}

TEST_F(EngineTest, CountsWhatIsDesiredAndWithdrawsIt) {
  givenHostAt(vtepA);
  engine().hostIs(10, other, vtepB);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  run();
  EXPECT_EQ(tally("hosts").desired, 2U);
  EXPECT_EQ(tally("floods").desired, 1U);
  engine().hostDel(10, host);
  EXPECT_EQ(tally("hosts").desired, 1U);
  engine().hostDel(10, other);
  engine().floodDel(10, all);
  EXPECT_EQ(tally("hosts").desired, 0U);
  EXPECT_EQ(tally("floods").desired, 0U);
  run();
  EXPECT_EQ(kernel_.text(), "link vx5010 in vxb10\nlink vxb10\n") << "mappings stay";
  EXPECT_THAT(kernel_.nexthops(), IsEmpty());
}

TEST_F(EngineTest, ExplainsAHostWithoutNexthopGroups) {
  kernel_.nexthopsAre(false);
  givenHostAt(vtepA);
  EXPECT_EQ(engine().status().explain(10, host).deviceVteps, std::vector<Ip4>{vtepA});
}

TEST_F(EngineTest, CountsWhatIsWantedThereAndDiffering) {
  givenHostAt(vtepA);
  kernel_.refusalIs(
      [](const Request& request) { return std::holds_alternative<FdbAdd>(request) ? EBUSY : 0; });
  engine().hostIs(10, other, vtepA);
  run();
  for (const Tally& tally : engine().status().tallies()) {
    if (tally.kind != "hosts") {
      continue;
    }
    EXPECT_EQ(tally.desired, 2U);
    EXPECT_EQ(tally.actual, 1U);
    EXPECT_EQ(tally.differing, 1U);
  }
  const Explanation missing = engine().status().explain(10, other);
  EXPECT_EQ(missing.desiredVteps, std::vector<Ip4>{vtepA});
  EXPECT_EQ(missing.deviceOwner, Owner::none);
  EXPECT_THAT(missing.problem, HasSubstr("refused"));
  const Explanation there = engine().status().explain(10, host);
  EXPECT_EQ(there.deviceVteps, std::vector<Ip4>{vtepA});
  EXPECT_EQ(there.port, "vx5010");
  EXPECT_FALSE(there.differs);
}

}  // namespace
}  // namespace Agent::Kernel::Test
