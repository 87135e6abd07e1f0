#include "EngineWorld.h"

// What a dump shows, beside what was acknowledged and reported while it was under way.
namespace Agent::Kernel::Test {
namespace {

class EngineDumpTest : public EngineTest {};

TEST_F(EngineDumpTest, WhatWasAcknowledgedDuringADumpCountsMoreThanWhatTheDumpShows) {
  givenHostAt(vtepA);
  const NexthopId before = kernel_.deviceEntries().at({index("vx5010"), host}).nexthop;
  engine().hostIs(10, other, vtepA);
  run();
  goOnIntoADumpOfEntries();
  engine().hostIs(10, host, vtepB);
  (void)kernel_.turn(engine(), now_);
  const std::uint64_t repairs = engine().counters().repairs;
  FdbEntry old = deviceEntry(host, {});
  old.nexthop = before;
  old.marked = true;
  engine().entryIs(old, true);
  EXPECT_EQ(engine().status().explain(10, host).deviceVteps, std::vector<Ip4>{vtepB});
  run();
  EXPECT_EQ(engine().counters().repairs, repairs);
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.3\n"));
}

TEST_F(EngineDumpTest, ARowThatWentDuringADumpIsNotTakenFromTheDump) {
  givenHostAt(vtepA);
  goOnIntoADumpOfEntries();
  engine().hostDel(10, host);
  (void)kernel_.turn(engine(), now_);
  FdbEntry old = bridgeEntry(host, "vx5010");
  old.marked = true;
  engine().entryIs(old, true);
  const std::uint64_t refused = engine().counters().refused;
  run();
  EXPECT_EQ(engine().counters().refused, refused) << "nothing is deleted twice";
  EXPECT_EQ(engine().status().explain(10, host).portOwner, Owner::none);
}

TEST_F(EngineDumpTest, AFloodDestinationThatWentDuringADumpIsNotTakenFromTheDump) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::all, {vtepA, vtepB});
  run();
  goOnIntoADumpOfEntries();
  engine().floodIs(10, all, FloodType::all, {vtepA});
  (void)kernel_.turn(engine(), now_);
  engine().entryIs(deviceEntry(all, vtepB), true);
  EXPECT_EQ(engine().status().explain(10, all).deviceVteps, std::vector<Ip4>{vtepA});
  run();
  EXPECT_EQ(engine().status().explain(10, all).deviceVteps, std::vector<Ip4>{vtepA});
  EXPECT_FALSE(engine().status().explain(10, all).differs);
}

TEST_F(EngineDumpTest, AFloodGroupThatWentDuringADumpIsNotTakenFromTheDump) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::any, {vtepA, vtepB});
  run();
  FdbEntry old = deviceEntry(all, {});
  old.nexthop = kernel_.deviceEntries().at({index("vx5010"), all}).nexthop;
  goOnIntoADumpOfEntries();
  engine().floodDel(10, all);
  (void)kernel_.turn(engine(), now_);
  engine().entryIs(old, true);
  EXPECT_EQ(engine().status().explain(10, all).deviceOwner, Owner::none);
  run();
  EXPECT_EQ(kernel_.deviceEntries().count({index("vx5010"), all}), 0U);
}

TEST_F(EngineDumpTest, LocalHostsAreNotKept) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  kernel_.learn(index("vxb10"), index("t0"), other);
  run();
  now_ += seconds(61);
  const std::uint64_t audits = engine().counters().audits;
  while (engine().counters().audits == audits) {
    (void)kernel_.turn(engine(), now_);
    ASSERT_EQ(engine().status().explain(10, other).portOwner, Owner::none);
  }
}

TEST_F(EngineDumpTest, TheDeletionOfABridgeRowAtAnotherPortIsNotOfTheRowThatIsThere) {
  kernel_.port("t0");
  ports_ = {"t0"};
  givenHostAt(vtepA);
  const std::size_t requests = kernel_.requestCount();
  engine().entryDel(bridgeEntry(host, "t0"));
  EXPECT_EQ(engine().status().explain(10, host).portOwner, Owner::ours);
  run();
  EXPECT_EQ(kernel_.requestCount(), requests);
  EXPECT_EQ(engine().counters().repairs, 0U);
}

TEST_F(EngineDumpTest, ARowOfOursThatIsReportedBeforeAllIsSaidStaysUntilThen) {
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  run();
  const NexthopId group = kernel_.deviceEntries().at({index("vx5010"), host}).nexthop;
  // An earlier run's row, which a report tells and no dump.
  FdbEntry left = deviceEntry(other, {});
  left.nexthop = group;
  left.marked = true;
  ASSERT_EQ(kernel_.apply(FdbAdd{FdbAdd::How::create, left}), 0);
  run();
  EXPECT_EQ(kernel_.deviceEntries().count({index("vx5010"), other}), 1U);
  engine().initialSyncComplete();
  run();
  EXPECT_EQ(kernel_.deviceEntries().count({index("vx5010"), other}), 0U);
}

TEST_F(EngineDumpTest, AFloodRowToAGroupOfAnEarlierRunStaysUntilAllIsSaid) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::any, {vtepA, vtepB});
  run();
  restart();
  mapVlan10();
  pass(seconds(1));
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.2 10.0.0.3"));
  engine().initialSyncComplete();
  run();
  EXPECT_THAT(kernel_.text(), Not(HasSubstr("00:00:00:00:00:00")));
}

TEST_F(EngineDumpTest, AGroupOfAnEarlierRunIsUsedAgainForTheSameFloodSet) {
  givenHostAt(vtepA);
  engine().floodIs(10, all, FloodType::any, {vtepA, vtepB});
  run();
  const NexthopId before = kernel_.deviceEntries().at({index("vx5010"), all}).nexthop;
  restart();
  kernel_.forgetGaps();
  mapVlan10();
  engine().hostIs(10, host, vtepA);
  engine().floodIs(10, all, FloodType::any, {vtepB, vtepC});
  engine().initialSyncComplete();
  run();
  EXPECT_EQ(kernel_.deviceEntries().at({index("vx5010"), all}).nexthop, before);
  EXPECT_THAT(kernel_.text(), HasSubstr("00:00:00:00:00:00 any 10.0.0.3 10.0.0.4"));
  EXPECT_THAT(kernel_.gaps(), IsEmpty());
}

TEST_F(EngineDumpTest, WhatIsOthersInTheRangeOfItsNumbersIsLeftAlone) {
  const Options options;
  ASSERT_EQ(kernel_.apply(NexthopSet{{options.nexthopBase, 4, true, vtepC, {}}}), 0);
  ASSERT_EQ(
      kernel_.apply(NexthopSet{{options.nexthopBase + (1U << 20U), 4, true, {}, {options.nexthopBase}}}), 0);
  restart();
  givenHostAt(vtepA);
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
  EXPECT_EQ(kernel_.nexthops().at(options.nexthopBase).gateway, vtepC);
  EXPECT_EQ(kernel_.nexthops().size(), 4U);
}

TEST_F(EngineDumpTest, ASecondNexthopOfOursForAVtepGoes) {
  givenHostAt(vtepA);
  const Options options;
  ASSERT_EQ(kernel_.apply(NexthopSet{{options.nexthopBase + 77, options.nexthopProtocol, true, vtepA, {}}}),
            0);
  run();
  EXPECT_EQ(kernel_.nexthops().count(options.nexthopBase + 77), 0U);
  EXPECT_THAT(kernel_.text(), HasSubstr("row vx5010 02:00:00:00:00:01 via 10.0.0.2\n"));
}

}  // namespace
}  // namespace Agent::Kernel::Test
