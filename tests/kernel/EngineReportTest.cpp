#include "EngineWorld.h"

// What others do to devices and what the engine says of what it knows; and what its look at a report costs.
namespace Agent::Kernel::Test {
namespace {

class EngineReportTest : public EngineTest {
 protected:
  void given(unsigned vlans) {
    for (unsigned n = 0; n < vlans; ++n) {
      engine().vniIs(5000 + n, static_cast<Vlan>(100 + n), "Vxlan1", local, {});
    }
    engine().initialSyncComplete();
    run();
  }
};

TEST_F(EngineReportTest, ABridgeThatIsRenamedKeepsItsRows) {
  givenHostAt(vtepA);
  const std::size_t requests = kernel_.requestCount();
  kernel_.rename(index("vxb10"), "somewhere");
  run();
  EXPECT_EQ(kernel_.text(),
            "link somewhere\n"
            "link vx5010 in somewhere\n"
            "row somewhere 02:00:00:00:00:01 port vx5010\n"
            "row vx5010 02:00:00:00:00:01 via 10.0.0.2\n");
  EXPECT_EQ(kernel_.requestCount(), requests);
  EXPECT_EQ(engine().status().explain(10, host).bridge, "somewhere");
  EXPECT_EQ(problems(), "");
}

TEST_F(EngineReportTest, ABridgeThatWasRenamedIsKnownAfterARestart) {
  givenHostAt(vtepA);
  kernel_.rename(index("vxb10"), "somewhere");
  run();
  const std::string before = kernel_.text();
  restart();
  givenHostAt(vtepA);
  EXPECT_EQ(kernel_.text(), before);
  EXPECT_EQ(engine().counters().acknowledged, 0U);
}

TEST_F(EngineReportTest, ABridgeThatWasRenamedGetsTheNewDevice) {
  givenHostAt(vtepA);
  kernel_.rename(index("vxb10"), "somewhere");
  kernel_.deleteLink(index("vx5010"));
  run();
  EXPECT_EQ(kernel_.text(),
            "link somewhere\n"
            "link vx5010 in somewhere\n"
            "row somewhere 02:00:00:00:00:01 port vx5010\n"
            "row vx5010 02:00:00:00:00:01 via 10.0.0.2\n");
}

TEST_F(EngineReportTest, ARenamedBridgeGoesWithItsMapping) {
  givenHostAt(vtepA);
  kernel_.rename(index("vxb10"), "somewhere");
  run();
  engine().vniDel(10, "Vxlan1");
  run();
  EXPECT_EQ(kernel_.text(), "");
}

TEST_F(EngineReportTest, AnotherBridgeThatIsUsedWithoutBeingOursLosesNothingWhenItIsRenamed) {
  (void)kernel_.apply(LinkAdd{"vxb10", LinkKind::bridge, 0, 0, {}, 0, 0});
  givenHostAt(vtepA);
  kernel_.rename(index("vxb10"), "somewhere");
  run();
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("row somewhere 02:00:00:00:00:01 port vx5010\n"));
  EXPECT_EQ(tally("hosts").differing + tally("hosts").unknown, 0U);
}

TEST_F(EngineReportTest, ADeviceThatIsRenamedKeepsItsRows) {
  givenHostAt(vtepA);
  const std::size_t requests = kernel_.requestCount();
  kernel_.rename(index("vx5010"), "elsewhere");
  run();
  EXPECT_THAT(kernel_.text(), HasSubstr("row elsewhere 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_EQ(kernel_.requestCount(), requests);
}

TEST_F(EngineReportTest, APortThatIsRenamedIsMissedAtOnce) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  kernel_.rename(index("t0"), "t1");
  run();
  EXPECT_THAT(problems(), HasSubstr("the port t0 does not exist"));
  kernel_.rename(index("t1"), "t0");
  run();
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(kernel_.text(), HasSubstr("link t0 in vxb10\n"));
}

TEST_F(EngineReportTest, WhatIsInTheWayOfABridgeIsMissedAtOnceWhenItGoesOrIsRenamed) {
  kernel_.port("vxb10");
  mapVlan10();
  run();
  EXPECT_THAT(problems(), HasSubstr("the device vxb10 is in the way: it is not a bridge"));
  kernel_.rename(index("vxb10"), "t0");
  run();
  EXPECT_EQ(problems(), "");
  EXPECT_THAT(kernel_.text(), HasSubstr("link vx5010 in vxb10\n"));
}

TEST_F(EngineReportTest, LearningThatIsSetAtThePortIsTakenBackAtOnce) {
  givenHostAt(vtepA);
  kernel_.portLearningIs(index("vx5010"), true);
  run();
  EXPECT_FALSE(kernel_.link("vx5010")->portLearning);
  EXPECT_EQ(engine().counters().repairs, 1U);
}

TEST_F(EngineReportTest, ADeviceThatIsNotAsWantedDiffers) {
  givenHostAt(vtepA);
  EXPECT_EQ(tally("devices").differing, 0U);
  const IfIndex device = index("vx5010");
  Link link = *kernel_.link("vx5010");
  const auto differs = [&](Link changed) {
    engine().linkIs(changed);
    const bool found = tally("devices").differing == 1;
    engine().linkIs(link);
    EXPECT_EQ(tally("devices").differing, 0U);
    return found;
  };
  Link changed = link;
  changed.portLearning = true;
  EXPECT_TRUE(differs(changed));
  changed = link;
  changed.learning = true;
  EXPECT_TRUE(differs(changed));
  changed = link;
  changed.up = false;
  EXPECT_TRUE(differs(changed));
  changed = link;
  changed.local = vtepB;
  EXPECT_TRUE(differs(changed));
  changed = link;
  changed.portIsolated = true;
  EXPECT_TRUE(differs(changed));
  changed = link;
  changed.alias += " ";
  EXPECT_TRUE(differs(changed));
  changed = link;
  changed.master = 0;
  EXPECT_TRUE(differs(changed));
  engine().portIs({device, link.master, true, false});
  EXPECT_EQ(tally("devices").differing, 1U);
  engine().portIs({device, link.master, false, false});
  engine().portIs({device, 999, true, true});
  EXPECT_EQ(tally("devices").differing, 0U) << "another bridge speaks of a port that it had";
}

TEST_F(EngineReportTest, NothingIsSaidToDifferBeforeItWasCompared) {
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA});
  for (const char* kind : {"devices", "hosts", "floods"}) {
    EXPECT_EQ(tally(kind).unknown, tally(kind).desired) << kind;
    EXPECT_EQ(tally(kind).differing, 0U) << kind;
    EXPECT_GT(tally(kind).desired, 0U) << kind;
  }
  EXPECT_FALSE(engine().certain());
  run();
  for (const Tally& tally : engine().status().tallies()) {
    EXPECT_EQ(tally.unknown + tally.differing, 0U) << tally.kind;
    EXPECT_GT(tally.actual, 0U) << tally.kind;
  }
}

TEST_F(EngineReportTest, LostReportsPutEverythingInDoubtUntilAComparisonThatBeganLater) {
  givenHostAt(vtepA);
  EXPECT_TRUE(engine().certain());
  engine().overrun();
  EXPECT_EQ(tally("hosts").unknown, 1U);
  pass(seconds(1));
  EXPECT_EQ(tally("hosts").unknown, 0U);
  goOnIntoADumpOfEntries();
  EXPECT_TRUE(engine().certain()) << "a routine comparison has no reason";
  engine().overrun();
  const std::uint64_t audits = engine().counters().audits;
  while (engine().counters().audits == audits) {
    (void)kernel_.turn(engine(), now_);
  }
  EXPECT_FALSE(engine().certain()) << "it had begun before";
  run();
  EXPECT_TRUE(engine().certain());
}

TEST_F(EngineReportTest, RowsThatWentWithTheirGroupAreInDoubt) {
  givenHostAt(vtepA);
  engine().nexthopDel(kernel_.deviceEntries().at({index("vx5010"), host}).nexthop);
  EXPECT_FALSE(engine().certain());
}

TEST_F(EngineReportTest, RowsOfADeviceThatNoDumpHasToldAreUnknown) {
  givenHostAt(vtepA);
  kernel_.deleteLink(index("vx5010"));
  (void)kernel_.apply(LinkAdd{"theirs", LinkKind::vxlan, index("vxb10"), 5010, local, 4789, 0});
  bool unknown = false;
  for (int n = 0; n < 6; ++n) {
    (void)kernel_.turn(engine(), now_);
    unknown = unknown || (tally("hosts").unknown == 1 && tally("hosts").differing == 0);
  }
  EXPECT_TRUE(unknown);
  run();
  EXPECT_EQ(tally("hosts").unknown + tally("hosts").differing, 0U);
}

TEST_F(EngineReportTest, RowsOfOthersInABridgeThatComesIntoUseAreReadBeforeItIsProgrammed) {
  givenHostAt(vtepA);
  (void)kernel_.apply(LinkAdd{"theirs", LinkKind::bridge, 0, 0, {}, 0, 0});
  const IfIndex theirs = index("theirs");
  (void)kernel_.apply(LinkAdd{"device", LinkKind::vxlan, theirs, 6010, local, 4789, 0});
  const IfIndex port = kernel_.port("t9");
  (void)kernel_.apply(LinkSet{.index = port, .master = theirs});
  ASSERT_EQ(
      kernel_.apply(FdbAdd{FdbAdd::How::replace, {Table::bridge, port, theirs, host, {}, 0, false, false}}),
      0);
  run();
  mapVlan10(6010);
  run();
  pass(seconds(5));
  EXPECT_EQ(kernel_.bridgeEntries().at({theirs, host}).port, port);
  EXPECT_THAT(problems(), HasSubstr("the bridge has a row of somebody else for it"));
}

TEST_F(EngineReportTest, AHostThatComesToALocalPortAfterAQuietTimeIsLeftThereAsLong) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  now_ += seconds(50);
  kernel_.learn(index("vxb10"), index("t0"), host);
  run();
  pass(seconds(9));
  EXPECT_THAT(kernel_.text(), HasSubstr("row vxb10 02:00:00:00:00:01 port t0\n"));
}

TEST_F(EngineReportTest, AReportOfADeviceThatNobodyWaitsForCostsNoLookAtAllVlans) {
  given(200);
  const std::uint64_t before = engine().steps();
  kernel_.port("t0");
  run();
  EXPECT_LT(engine().steps() - before, 20U);
  kernel_.deleteLink(index("t0"));
  run();
  EXPECT_LT(engine().steps() - before, 40U);
}

TEST_F(EngineReportTest, VlansCostLookUpsInProportionToTheirNumber) {
  given(50);
  const std::uint64_t few = engine().steps();
  restart();
  for (const auto& [index, link] : std::map(kernel_.links())) {
    kernel_.deleteLink(index);
  }
  kernel_.reconnect();
  given(400);
  const std::uint64_t many = engine().steps();
  EXPECT_LT(many, 16 * few) << few << " for 50";
  for (const auto& [index, link] : std::map(kernel_.links())) {
    kernel_.deleteLink(index);
  }
  kernel_.reconnect();
  engine().overrun();
  for (unsigned n = 0; n < 400; ++n) {
    engine().vniDel(static_cast<Vlan>(100 + n), "Vxlan1");
  }
  pass(seconds(1));
  EXPECT_LT(engine().steps() - many, 16 * few) << "devices that went without a report";
}

TEST_F(EngineReportTest, ARefusalThatContradictsTheObservedStateBeginsAComparison) {
  givenHostAt(vtepA);
  bool atB = false;
  const std::vector<std::pair<int, bool>> refusals{
      {EEXIST, true}, {ENOENT, true}, {EOPNOTSUPP, true}, {EBUSY, false}};
  for (const auto& [error, compares] : refusals) {
    const std::uint64_t before = engine().counters().audits;
    kernel_.refusalIs([refusal = error](const Request& request) {
      return std::holds_alternative<FdbAdd>(request) ? refusal : 0;
    });
    atB = !atB;
    engine().hostIs(10, host, atB ? vtepB : vtepA);
    run();
    kernel_.refusalIs({});
    pass(seconds(1));
    EXPECT_EQ(engine().counters().audits - before, compares ? 1U : 0U) << error;
    EXPECT_EQ(problems(), "") << error;
  }
}

TEST_F(EngineReportTest, AFloodDestinationThatIsThereAlreadyBeginsAComparison) {
  givenHostAt(vtepA);
  const std::vector<std::pair<int, bool>> refusals{{EEXIST, true}, {EBUSY, false}};
  for (const auto& [error, compares] : refusals) {
    const std::uint64_t before = engine().counters().audits;
    kernel_.refusalIs([refusal = error](const Request& request) {
      return std::holds_alternative<FdbAdd>(request) ? refusal : 0;
    });
    engine().floodIs(10, all, FloodType::all, {vtepA});
    run();
    kernel_.refusalIs({});
    pass(seconds(1));
    EXPECT_EQ(engine().counters().audits - before, compares ? 1U : 0U) << error;
    engine().floodDel(10, all);
    run();
  }
}

TEST_F(EngineReportTest, StaleDevicesCostNothingUntilTheyMayGo) {
  given(100);
  restart();
  run();
  const std::uint64_t before = engine().steps();
  for (unsigned n = 0; n < 100; ++n) {
    mapVlan10();
    engine().hostIs(10, Mac{host.bits + n}, vtepA);
    run();
  }
  EXPECT_LT(engine().steps() - before, 4000U);
}

}  // namespace
}  // namespace Agent::Kernel::Test
