#include "EngineWorld.h"

namespace Agent::Kernel::Test {
namespace {

TEST_F(EngineTest, MapsAVlanToABridgeAndADeviceWithItsRows) {
  kernel_.port("t0");
  ports_ = {"t0"};
  mapVlan10();
  engine().hostIs(10, host, kA);
  engine().floodIs(10, all, FloodType::all, {kB, kA});
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
  engine().hostIs(10, host, kA);
  run();
  EXPECT_EQ(kernel_.requestCount(), before);
}

TEST_F(EngineTest, WaitsForTheMappingBeforeItProgramsAHost) {
  engine().hostIs(10, host, kA);
  run();
  EXPECT_EQ(kernel_.text(), "");
  mapVlan10();
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2"));
}

TEST_F(EngineTest, LeavesOutAHostWithAGroupAddressAndSaysSoUntilItGoes) {
  mapVlan10();
  engine().hostIs(10, group, kA);
  engine().hostIs(10, host, kA);
  run();
  EXPECT_THAT(kernel_.text(), Not(HasSubstr(group.text())));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2"));
  EXPECT_THAT(problems(), HasSubstr("VLAN 10 host " + group.text()));
  EXPECT_EQ(engine().explain(10, group).problem, "a host has a unicast address");
  engine().hostDel(10, group);
  run();
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, MovesAHostWithoutAMomentWithoutARow) {
  givenHostAt(kA);
  for (int n = 0; n < 100; ++n) {
    engine().hostIs(10, host, n % 2 == 0 ? kB : kA);
    run();
    ASSERT_THAT(kernel_.text(), HasSubstr(n % 2 == 0 ? "via 10.0.0.3" : "via 10.0.0.2"));
  }
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, ChangesBetweenOneVtepAndAnyOfSeveralWithoutAGap) {
  givenHostAt(kA);
  engine().floodIs(10, host, FloodType::any, {kA, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2 10.0.0.3"));
  engine().floodDel(10, host);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, WithdrawsAHostAndTheNexthopsThatNothingElseUses) {
  givenHostAt(kA);
  engine().hostDel(10, host);
  run();
  EXPECT_EQ(kernel_.text(), "link vx5010 in vxb10\nlink vxb10\n");
  EXPECT_THAT(kernel_.nexthops(), IsEmpty());
}

TEST_F(EngineTest, ChangesTheMembersOfADefaultDestinationOfTypeAnyInPlace) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::any, {kA, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  kernel_.forgetGaps();
  engine().floodIs(10, all, FloodType::any, {kB, kC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 any 10.0.0.3 10.0.0.4"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineTest, ChangesTheTypeOfTheDefaultDestination) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::all, {kA, kB});
  run();
  engine().floodIs(10, all, FloodType::any, {kA, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  engine().floodIs(10, all, FloodType::all, {kA});
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
  engine().floodIs(10, all, FloodType::all, {local, kA});
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {local, kA, kB});
  engine().floodIs(10, host, FloodType::any, {local, kB});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 any 10.0.0.2 10.0.0.3\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.3\n"));
}

TEST_F(EngineTest, ASetOfItsOwnAddressAloneIsNone) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  for (FloodType type : {FloodType::all, FloodType::any}) {
    engine().floodIs(10, all, type, {local});
    engine().floodIs(10, host, type, {local});
    run();
    EXPECT_EQ(kernel_.text(), before);
    EXPECT_EQ(problems(), "");
  }
  for (const Tally& tally : engine().tallies()) {
    EXPECT_EQ(tally.wanted, tally.there) << tally.kind;
  }
}

TEST_F(EngineTest, FollowsAChangeOfItsOwnAddressInEveryKindOfSet) {
  mapVlan10();
  engine().floodIs(10, all, FloodType::all, {local, kA});
  engine().floodIs(10, mac("01:00:5e:00:00:05"), FloodType::any, {local, kA});
  engine().floodIs(10, host, FloodType::any, {local, kA});
  run();
  mapVlan10(5010, kA);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.1\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 01:00:5e:00:00:05 any 10.0.0.1\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.1\n"));
}

TEST_F(EngineTest, PutsBackARowThatSomebodyDeleted) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(host, {})}), 0);
  kernel_.age(index("vxb10"), host);
  run();
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().repairs, 2U);
}

TEST_F(EngineTest, CorrectsARowThatSomebodyTurnedElsewhere) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  engine().hostIs(10, other, kB);
  run();
  NexthopId other = kernel_.deviceRows().at({index("vx5010"), other}).nexthop;
  engine().hostDel(10, other);
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::replace,
                                 {Table::device, index("vx5010"), 0, host, {}, other, false, false}}),
            0);
  run();
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, LeavesRowsOfOthersAlone) {
  givenHostAt(kA);
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::create, deviceRow(other, kC)}), 0);
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::append, deviceRow(all, kC)}), 0);
  engine().floodIs(10, all, FloodType::all, {kA});
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
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::create, deviceRow(host, kC)}), 0);
  run();
  engine().hostIs(10, host, kA);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.4\n"));
  EXPECT_THAT(problems(),
              HasSubstr("VLAN 10 host 02:00:00:00:00:01: the VXLAN device has a row of somebody else"));
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(host, {})}), 0);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, NoticesRowsThatWentWithTheirGroup) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  NexthopId group = kernel_.deviceRows().at({index("vx5010"), host}).nexthop;
  ASSERT_EQ(kernel_.apply(NexthopDel{group}), 0);
  ASSERT_NE(kernel_.text(), before);
  pass(seconds(1));
  EXPECT_EQ(kernel_.text(), before);
}

TEST_F(EngineTest, ComparesWithADumpWhenReportsWereLost) {
  givenHostAt(kA);
  std::string before = kernel_.text();
  kernel_.reportLimitIs(0);
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(host, {})}), 0);
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
  ASSERT_EQ(kernel_.apply(RowDel{deviceRow(host, {})}), 0);
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
  engine().floodIs(10, all, FloodType::all, {kA});
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
    if (add == nullptr || add->row.mac != host || add->row.table != Table::device) {
      return 0;
    }
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
  for (int n = 0; n < 10; ++n) {
    pass(seconds(10));
  }
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
}

TEST_F(EngineTest, DoesWithoutNexthopGroupsWhatCanBeDone) {
  kernel_.nexthopsAre(false);
  mapVlan10();
  engine().hostIs(10, host, kA);
  engine().floodIs(10, all, FloodType::any, {kA, kB});
  engine().floodIs(10, other, FloodType::any, {kB, kC});
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 00:00:00:00:00:00 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 dst 10.0.0.2\n"));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:02 dst 10.0.0.3\n"));
  EXPECT_THAT(problems(), HasSubstr("nexthops: the kernel has no nexthop objects"));
  kernel_.forgetGaps();
  engine().hostIs(10, host, kB);
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

TEST_F(EngineTest, LeavesAHostThatCameToALocalPortThereUntilTheControllerSaysSomethingNew) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  kernel_.learn(index("vxb10"), index("t0"), host);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  EXPECT_THAT(problems(), HasSubstr("seen at local port t0 although the controller says VTEP 10.0.0.2"));
  engine().hostIs(10, host, kB);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port vx5010\n"));
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineTest, TakesAHostBackFromALocalPortWhenTheControllerStandsByItsWord) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
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
  givenHostAt(kA);
  kernel_.learn(index("vxb10"), index("t0"), host);
  run();
  engine().hostDel(10, host);
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("row vx5010 02:00:00:00:00:01")));
}

TEST_F(EngineTest, CountsWhatIsWantedThereAndDiffering) {
  givenHostAt(kA);
  kernel_.refusalIs(
      [](const Request& request) { return std::holds_alternative<RowAdd>(request) ? EBUSY : 0; });
  engine().hostIs(10, other, kA);
  run();
  for (const Tally& tally : engine().tallies()) {
    if (tally.kind != "hosts") {
      continue;
    }
    EXPECT_EQ(tally.wanted, 2U);
    EXPECT_EQ(tally.there, 1U);
    EXPECT_EQ(tally.differing, 1U);
  }
  Explanation other = engine().explain(10, other);
  EXPECT_EQ(other.wantedVteps, std::vector<Ip4>{kA});
  EXPECT_EQ(other.deviceMark, "none");
  EXPECT_THAT(other.problem, HasSubstr("refused"));
  Explanation host = engine().explain(10, host);
  EXPECT_EQ(host.deviceVteps, std::vector<Ip4>{kA});
  EXPECT_EQ(host.port, "vx5010");
  EXPECT_FALSE(host.differs);
}

}  // namespace
}  // namespace Agent::Kernel::Test
