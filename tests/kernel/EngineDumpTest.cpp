#include "EngineWorld.h"

// What a dump shows, beside what was acknowledged and reported while it was under way.
namespace Agent::Kernel::Test {
namespace {

class EngineDumpTest : public EngineTest {};

TEST_F(EngineDumpTest, WhatWasAcknowledgedDuringADumpCountsMoreThanWhatTheDumpShows) {
  givenHostAt(kA);
  const NexthopId before = kernel_.deviceRows().at({index("vx5010"), host}).nexthop;
  engine().hostIs(10, other, kA);
  run();
  goOnIntoADumpOfRows();
  engine().hostIs(10, host, kB);
  (void)kernel_.turn(engine(), now_);
  const std::uint64_t repairs = engine().counters().repairs;
  Row old = deviceRow(host, {});
  old.nexthop = before;
  old.marked = true;
  engine().rowIs(old, true);
  EXPECT_EQ(engine().explain(10, host).deviceVteps, std::vector<Ip4>{kB});
  run();
  EXPECT_EQ(engine().counters().repairs, repairs);
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.3\n"));
}

TEST_F(EngineDumpTest, ARowThatWentDuringADumpIsNotTakenFromTheDump) {
  givenHostAt(kA);
  goOnIntoADumpOfRows();
  engine().hostDel(10, host);
  (void)kernel_.turn(engine(), now_);
  Row old = bridgeRow(host, "vx5010");
  old.marked = true;
  engine().rowIs(old, true);
  const std::uint64_t refused = engine().counters().refused;
  run();
  EXPECT_EQ(engine().counters().refused, refused) << "nothing is deleted twice";
  EXPECT_EQ(engine().explain(10, host).portMark, "none");
}

TEST_F(EngineDumpTest, AFloodDestinationThatWentDuringADumpIsNotTakenFromTheDump) {
  givenHostAt(kA);
  engine().floodIs(10, all, FloodType::all, {kA, kB});
  run();
  goOnIntoADumpOfRows();
  engine().floodIs(10, all, FloodType::all, {kA});
  (void)kernel_.turn(engine(), now_);
  engine().rowIs(deviceRow(all, kB), true);
  EXPECT_EQ(engine().explain(10, all).deviceVteps, std::vector<Ip4>{kA});
  run();
  EXPECT_EQ(engine().explain(10, all).deviceVteps, std::vector<Ip4>{kA});
  EXPECT_FALSE(engine().explain(10, all).differs);
}

TEST_F(EngineDumpTest, AFloodGroupThatWentDuringADumpIsNotTakenFromTheDump) {
  givenHostAt(kA);
  engine().floodIs(10, all, FloodType::any, {kA, kB});
  run();
  Row old = deviceRow(all, {});
  old.nexthop = kernel_.deviceRows().at({index("vx5010"), all}).nexthop;
  goOnIntoADumpOfRows();
  engine().floodDel(10, all);
  (void)kernel_.turn(engine(), now_);
  engine().rowIs(old, true);
  EXPECT_EQ(engine().explain(10, all).deviceMark, "none");
  run();
  EXPECT_EQ(kernel_.deviceRows().count({index("vx5010"), all}), 0U);
}

TEST_F(EngineDumpTest, LocalHostsAreNotKept) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  kernel_.learn(index("vxb10"), index("t0"), other);
  run();
  now_ += seconds(61);
  const std::uint64_t audits = engine().counters().audits;
  while (engine().counters().audits == audits) {
    (void)kernel_.turn(engine(), now_);
    ASSERT_EQ(engine().explain(10, other).portMark, "none");
  }
}

TEST_F(EngineDumpTest, TheDeletionOfABridgeRowAtAnotherPortIsNotOfTheRowThatIsThere) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(kA);
  const std::size_t requests = kernel_.requestCount();
  engine().rowDel(bridgeRow(host, "t0"));
  EXPECT_EQ(engine().explain(10, host).portMark, "ours");
  run();
  EXPECT_EQ(kernel_.requestCount(), requests);
  EXPECT_EQ(engine().counters().repairs, 0U);
}

TEST_F(EngineDumpTest, ARowOfOursThatIsReportedBeforeAllIsSaidStaysUntilThen) {
  mapVlan10();
  engine().hostIs(10, host, kA);
  run();
  const NexthopId group = kernel_.deviceRows().at({index("vx5010"), host}).nexthop;
  // An earlier run's row, which a report tells and no dump.
  Row left = deviceRow(other, {});
  left.nexthop = group;
  left.marked = true;
  ASSERT_EQ(kernel_.apply(RowAdd{RowAdd::How::create, left}), 0);
  run();
  EXPECT_EQ(kernel_.deviceRows().count({index("vx5010"), other}), 1U);
  engine().settled();
  run();
  EXPECT_EQ(kernel_.deviceRows().count({index("vx5010"), other}), 0U);
}

TEST_F(EngineDumpTest, AFloodRowToAGroupOfAnEarlierRunStaysUntilAllIsSaid) {
  givenHostAt(kA);
  engine().floodIs(10, all, FloodType::any, {kA, kB});
  run();
  restart();
  mapVlan10();
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  engine().settled();
  run();
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("00:00:00:00:00:00")));
}

TEST_F(EngineDumpTest, AGroupOfAnEarlierRunIsUsedAgainForTheSameFloodSet) {
  givenHostAt(kA);
  engine().floodIs(10, all, FloodType::any, {kA, kB});
  run();
  const NexthopId before = kernel_.deviceRows().at({index("vx5010"), all}).nexthop;
  restart();
  kernel_.forgetGaps();
  mapVlan10();
  engine().hostIs(10, host, kA);
  engine().floodIs(10, all, FloodType::any, {kB, kC});
  engine().settled();
  run();
  EXPECT_EQ(kernel_.deviceRows().at({index("vx5010"), all}).nexthop, before);
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.3 10.0.0.4"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineDumpTest, WhatIsOthersInTheRangeOfItsNumbersIsLeftAlone) {
  const Options options;
  ASSERT_EQ(kernel_.apply(NexthopSet{{options.nexthopBase, 4, true, kC, {}}}), 0);
  ASSERT_EQ(
      kernel_.apply(NexthopSet{{options.nexthopBase + (1U << 20U), 4, true, {}, {options.nexthopBase}}}), 0);
  restart();
  givenHostAt(kA);
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_EQ(kernel_.nexthops().at(options.nexthopBase).gateway, kC);
  EXPECT_EQ(kernel_.nexthops().size(), 4U);
}

TEST_F(EngineDumpTest, ASecondNexthopOfOursForAVtepGoes) {
  givenHostAt(kA);
  const Options options;
  ASSERT_EQ(kernel_.apply(NexthopSet{{options.nexthopBase + 77, options.nexthopProtocol, true, kA, {}}}), 0);
  run();
  EXPECT_EQ(kernel_.nexthops().count(options.nexthopBase + 77), 0U);
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
}

}  // namespace
}  // namespace Agent::Kernel::Test
