// Marking received hosts for deletion, and the paced job that deletes what is still marked.
#include <algorithm>
#include <functional>

#include "Kel/Clock.h"
#include "RingLog/Reader.h"
#include "Scenario.h"
#include "Vxlan/framework/Trace.h"

namespace {

using namespace scenario;

class DeferredDeletionTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
  }

  // So many hosts are received, then the controller converges and withdraws these.
  void givenMarked(std::uint64_t hosts, const std::vector<std::uint64_t>& withdrawn) {
    for (std::uint64_t number = 1; number <= hosts; ++number) {
      publish(10010, number);
    }
    controllerConverges(true);
    start();
    for (const std::uint64_t number : withdrawn) {
      withdraw(10010, number);
    }
  }
  void givenAllMarked(std::uint64_t hosts) {
    std::vector<std::uint64_t> all(hosts);
    for (std::uint64_t number = 1; number <= hosts; ++number) {
      all[number - 1] = number;
    }
    givenMarked(hosts, all);
  }
  // From now on a slice examines three entries: its first look at the clock sets the deadline, and each entry
  // takes a quarter of the budget.
  void threeEntriesASlice() {
    client->maxProcessTimeIs(1);
    time.tickPerReadIs(0.25);
  }

  // The keys of the table in the order of its walk.
  std::vector<Bridging::MacVlanPair> order() const {
    std::vector<Bridging::MacVlanPair> keys;
    for (auto&& entry : client->hostTable()->receivedEntry()) {
      keys.push_back(entry.key);
    }
    return keys;
  }
  std::size_t hosts() const { return client->hostTable()->receivedEntrys(); }
  std::uint32_t marked() const { return client->hostTable()->markedForDelCount(); }
  bool isMarked(const Bridging::MacVlanPair& at) const {
    return client->hostTable()->receivedEntry(at).markedForDel;
  }
  bool inProgress() const { return handles.rmxConvergenceStatus->unicastDeferredDeletionInProgress(); }
};

// Marking twice, and marking what is not there, leaves the count as it is.
TEST_F(DeferredDeletionTest, MarkingIsIdempotentAndIgnoresTheAbsent) {
  givenMarked(2, {});
  client->deferDeleteReceivedTableEntry(key(1, 10));
  client->deferDeleteReceivedTableEntry(key(1, 10));
  client->deferDeleteReceivedTableEntry(key(7, 10));
  client->deferDeleteReceivedTableEntry(key(1, 20));
  EXPECT_EQ(marked(), 1U);
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked\n"
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1\n");
}

// Deleting a marked entry lowers the count by one; deleting an unmarked or an absent one does not.
TEST_F(DeferredDeletionTest, DeletingAMarkedEntryLowersTheCount) {
  givenMarked(4, {1, 2});
  client->deleteReceivedTableEntry(key(3, 10));
  client->deleteReceivedTableEntry(key(7, 10));
  EXPECT_EQ(marked(), 2U);
  client->deleteReceivedTableEntry(key(1, 10));
  EXPECT_EQ(marked(), 1U);
  client->deleteReceivedTableEntry(key(1, 10));
  EXPECT_EQ(marked(), 1U);
  EXPECT_EQ(hosts(), 2U);
}

// All hosts of one VLAN can be marked; those of others are not.
TEST_F(DeferredDeletionTest, TheHostsOfOneVlanAreMarked) {
  mapVlan("Vxlan1", 20, 10020);
  publish(10020, 1);
  givenMarked(2, {});
  client->deleteRemoteMacFromController(vlan(10), true);
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked\n"
            "02:00:00:00:00:01:20 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1 marked\n");
  EXPECT_EQ(marked(), 2U);
}

// Marking does not start the job.
TEST_F(DeferredDeletionTest, MarkingDoesNotStartTheJob) {
  givenMarked(2, {1});
  turnsUntilIdle();
  EXPECT_EQ(hosts(), 2U);
  EXPECT_FALSE(inProgress());
}

// At the end of the convergence the marked hosts go, and no other; then nothing is marked, nothing in
// progress, and there is no bookmark.
TEST_F(DeferredDeletionTest, TheJobDeletesTheMarkedHostsAlone) {
  givenMarked(4, {2, 4});
  controllerConverges(false);
  EXPECT_EQ(hosts(), 4U) << "not before the next turn";
  EXPECT_TRUE(inProgress());
  turn();
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:03:10 Vxlan1 10.0.0.9 moves 1\n");
  EXPECT_EQ(exported(), received());
  EXPECT_EQ(marked(), 0U);
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), Bridging::MacVlanPair());
  EXPECT_EQ(client->unicastDeferredDeleteClock()->timeMin(), never);
}

// A run that finds nothing marked says that nothing is in progress, even if it never started.
TEST_F(DeferredDeletionTest, AnIdleRunClearsTheFlag) {
  start();
  turnsUntilIdle();
  handles.rmxConvergenceStatus->unicastDeferredDeletionInProgressIs(true);
  traceFromNow();
  client->processUnicastDeferredDeletes();
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(tracedLines(" no markedForDel entries"), 1U);
}

// A slice works until its budget is spent, then notes where to go on: an entry that it has not examined.
TEST_F(DeferredDeletionTest, ASliceEndsWithItsBudgetAndNotesWhereToGoOn) {
  givenAllMarked(8);
  const auto keys = order();
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  EXPECT_EQ(order(), std::vector(keys.begin() + 3, keys.end()));
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), keys[3]);
  EXPECT_TRUE(isMarked(keys[3]));
  EXPECT_TRUE(inProgress());
  EXPECT_LE(client->unicastDeferredDeleteClock()->timeMin(), time.peek());
  turn();
  EXPECT_EQ(order(), std::vector(keys.begin() + 6, keys.end()));
  turn();
  EXPECT_EQ(hosts(), 0U);
  EXPECT_FALSE(inProgress());
}

// The next slice is due at the time at which this one found its budget spent.
TEST_F(DeferredDeletionTest, TheNextSliceIsDueWhenTheBudgetWasFoundSpent) {
  givenAllMarked(8);
  client->maxProcessTimeIs(1);
  controllerConverges(false);
  const double begin = time.peek();
  time.tickPerReadIs(0.4);
  client->processUnicastDeferredDeletes();
  EXPECT_EQ(hosts(), 6U);
  EXPECT_DOUBLE_EQ(client->unicastDeferredDeleteClock()->timeMin(), begin + 1.2);
}

// Unmarked entries take their share of the budget too: it is time that counts, not deletions.
TEST_F(DeferredDeletionTest, UnmarkedEntriesTakeTimeToo) {
  givenMarked(8, {});
  const auto keys = order();
  client->deferDeleteReceivedTableEntry(keys[4]);
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), keys[3]);
  EXPECT_EQ(hosts(), 8U);
  turn();
  EXPECT_EQ(hosts(), 7U);
  EXPECT_FALSE(client->hostTable()->receivedEntry().contains(keys[4]));
}

// The job ends with the last marked entry: it does not look at the rest of the table.
TEST_F(DeferredDeletionTest, TheJobEndsWithTheLastMarkedEntry) {
  givenMarked(100, {});
  client->deferDeleteReceivedTableEntry(order().front());
  controllerConverges(false);
  time.tickPerReadIs(0.0001);
  const double before = time.peek();
  turn();
  EXPECT_EQ(hosts(), 99U);
  EXPECT_NEAR(time.peek() - before, 0.0002, 0.00001) << "two looks at the clock";
}

// Between two slices the loop serves others that are due.
TEST_F(DeferredDeletionTest, OthersAreServedBetweenTwoSlices) {
  givenAllMarked(9);
  threeEntriesASlice();
  struct Other final : Kel::Follows<Kel::Clock> {
    void onTime() override { then(); }
    std::function<void()> then;
  };
  const auto clock = Kel::ActivityFacility::clock();
  std::vector<std::size_t> seen;
  const auto other = Kel::make<Other>();
  other->then = [&] {
    seen.push_back(hosts());
    clock->timeMinIs(time.peek());
  };
  other->hasNotificationActiveIs(false);
  other->notifierIs(clock);
  other->hasNotificationActiveIs(true);
  controllerConverges(false);
  clock->timeMinIs(time.peek());
  for (int turns = 0; turns < 3; ++turns) {
    turn();
  }
  EXPECT_EQ(seen, (std::vector<std::size_t>{6, 3, 0}));
  other->notifierIs(nullptr);
}

// A bookmark whose entry has gone is no error: the run starts fresh.
TEST_F(DeferredDeletionTest, ABookmarkThatHasGoneMeansAFreshStart) {
  givenAllMarked(8);
  const auto keys = order();
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  client->deleteReceivedTableEntry(keys[3]);
  traceFromNow();
  turn();
  EXPECT_EQ(tracedLines(" no bookmark. start fresh"), 1U);
  EXPECT_EQ(order(), std::vector(keys.begin() + 7, keys.end()));
  turn();
  EXPECT_EQ(hosts(), 0U);
}

// A run that begins in the middle goes on to the end, wraps to the first entry, and ends when nothing is
// marked.
TEST_F(DeferredDeletionTest, ARunThatBeginsInTheMiddleWrapsAround) {
  givenMarked(8, {});
  const auto keys = order();
  for (const std::size_t at : {5U, 6U, 7U}) {
    client->deferDeleteReceivedTableEntry(keys[at]);
  }
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), keys[3]);
  controllerConverges(true);
  client->deferDeleteReceivedTableEntry(keys[0]);
  time.tickPerReadIs(0);
  controllerConverges(false);
  traceFromNow();
  turn();
  EXPECT_EQ(tracedLines(" starting at bookmark "), 1U);
  EXPECT_EQ(tracedLines(" reached end, resume from first entry"), 1U);
  EXPECT_EQ(order(), (std::vector{keys[1], keys[2], keys[3], keys[4]}));
  EXPECT_EQ(marked(), 0U);
}

// A host that the controller publishes again between two slices stays.
TEST_F(DeferredDeletionTest, AHostPublishedAgainBetweenTwoSlicesStays) {
  givenAllMarked(6);
  const auto keys = order();
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  ASSERT_EQ(client->unicastDeferredDeleteBookmark(), keys[3]);
  for (const std::uint64_t number : {1U, 2U, 3U, 4U, 5U, 6U}) {
    if (key(number, 10) == keys[3] || key(number, 10) == keys[0]) {
      publish(10010, number, {.moves = 9});
    }
  }
  turnsUntilIdle();
  auto left = order();
  std::sort(left.begin(), left.end());
  auto stay = std::vector{keys[0], keys[3]};
  std::sort(stay.begin(), stay.end());
  EXPECT_EQ(left, stay) << "one had gone and came back, one was at the bookmark";
  EXPECT_EQ(marked(), 0U);
  EXPECT_FALSE(inProgress());
}

// If everything marked is published again between two slices, the job ends without a deletion.
TEST_F(DeferredDeletionTest, IfEverythingIsPublishedAgainTheJobEnds) {
  givenAllMarked(4);
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  ASSERT_EQ(hosts(), 1U);
  for (const std::uint64_t number : {1U, 2U, 3U, 4U}) {
    publish(10010, number);
  }
  EXPECT_EQ(marked(), 0U);
  turn();
  EXPECT_EQ(hosts(), 4U);
  EXPECT_FALSE(inProgress());
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), Bridging::MacVlanPair());
}

// A new convergence in the middle of the job suspends it with its bookmark; the end goes on from there.
TEST_F(DeferredDeletionTest, ANewConvergenceSuspendsTheJobAndKeepsItsBookmark) {
  givenAllMarked(8);
  const auto keys = order();
  threeEntriesASlice();
  controllerConverges(false);
  turn();
  controllerConverges(true);
  EXPECT_FALSE(inProgress());
  traceFromNow();
  turnsUntilIdle();
  EXPECT_EQ(tracedLines("processUnicastDeferredDeletes() called but nothing to do") +
                tracedLines(" called but nothing to do - nexo rebooted again?"),
            1U)
      << "the slice that was scheduled finds the new convergence";
  EXPECT_EQ(hosts(), 5U);
  EXPECT_EQ(client->unicastDeferredDeleteBookmark(), keys[3]);
  controllerConverges(false);
  EXPECT_TRUE(inProgress());
  turn();
  EXPECT_EQ(order(), std::vector(keys.begin() + 6, keys.end()));
}

// A run while the controller converges, by whatever cause, deletes nothing and says nothing.
TEST_F(DeferredDeletionTest, ARunWhileConvergingDeletesNothing) {
  givenAllMarked(2);
  handles.rmxConvergenceStatus->unicastDeferredDeletionInProgressIs(true);
  client->processUnicastDeferredDeletes();
  EXPECT_EQ(hosts(), 2U);
  EXPECT_EQ(marked(), 2U);
  EXPECT_TRUE(inProgress());
}

// Without any budget a run deletes nothing, notes the first entry, and tries again for ever.
TEST_F(DeferredDeletionTest, WithoutABudgetNothingIsEverDeleted) {
  givenAllMarked(3);
  const auto keys = order();
  client->maxProcessTimeIs(0);
  controllerConverges(false);
  for (int turns = 0; turns < 5; ++turns) {
    turn();
    EXPECT_EQ(hosts(), 3U);
    EXPECT_EQ(client->unicastDeferredDeleteBookmark(), keys[0]);
    EXPECT_EQ(client->unicastDeferredDeleteClock()->timeMin(), time.peek());
  }
  client->maxProcessTimeIs(0.01);
  turn();
  EXPECT_EQ(hosts(), 0U);
}

// Binding another clock counts as its time, once; from then on the new one drives the job, not the old one.
TEST_F(DeferredDeletionTest, BindingAnotherClockRunsTheJobOnce) {
  givenAllMarked(2);
  handles.rmxStateClientView->convergenceInProgressIs(false);
  const auto old = client->unicastDeferredDeleteClock();
  old->timeMinIs(never);
  const auto fresh = Kel::ActivityFacility::clock();
  traceFromNow();
  client->unicastDeferredDeleteClockIs(fresh);
  EXPECT_EQ(tracedLines("unicast mac deferred delete complete."), 1U);
  EXPECT_EQ(hosts(), 0U);
  traceFromNow();
  old->timeMinIs(time.peek());
  turnsUntilIdle();
  EXPECT_EQ(tracedLines("processUnicastDeferredDeletes"), 0U);
  fresh->timeMinIs(time.peek());
  turnsUntilIdle();
  EXPECT_EQ(tracedLines("processUnicastDeferredDeletes") - tracedLines(" no markedForDel entries"), 1U);
}

// Binding the clock that is bound already is none.
TEST_F(DeferredDeletionTest, BindingTheSameClockRunsNothing) {
  givenAllMarked(2);
  handles.rmxStateClientView->convergenceInProgressIs(false);
  client->unicastDeferredDeleteClockIs(client->unicastDeferredDeleteClock());
  EXPECT_EQ(hosts(), 2U);
}

// While the controller converges a run says nothing either when nothing is marked: that is for its end.
TEST_F(DeferredDeletionTest, ARunWhileConvergingSaysNothingAlsoIfNothingIsMarked) {
  givenMarked(2, {});
  handles.rmxConvergenceStatus->unicastDeferredDeletionInProgressIs(true);
  traceFromNow();
  client->processUnicastDeferredDeletes();
  EXPECT_TRUE(inProgress());
  EXPECT_EQ(tracedLines(" called but nothing to do - nexo rebooted again?"), 1U);
  EXPECT_EQ(tracedLines(" no markedForDel entries"), 0U);
}

// The end of the job is recorded in the ring as it always was, and traced as a sentence.
TEST_F(DeferredDeletionTest, TheEndOfTheJobIsRecordedAndTraced) {
  givenAllMarked(1);
  controllerConverges(false);
  traceFromNow();
  turn();
  EXPECT_EQ(tracedLines("void Vxlan::VxlanControllerMacAddrSmBase::processUnicastDeferredDeletes()  unicast "
                        "mac deferred delete complete."),
            1U);
  const RingLog::Trace trace = RingLog::Trace::parse(Vxlan::vccRlHandle->image());
  std::string last;
  for (const RingLog::Record& record : trace.records()) {
    if (record.message().find("unicast mac deferred") != std::string::npos) {
      last = record.message();
    }
  }
  EXPECT_EQ(last, " unicast mac deferred del complete");
}

// Ten thousand marked hosts go in slices, each as long as its budget, and each slice leaves a table that is
// right: the count is the number of marked entries, and the layer-2 RIB has what the table has.
TEST_F(DeferredDeletionTest, ALargeBacklogGoesSliceBySlice) {
  constexpr std::uint64_t all = 10000;
  givenAllMarked(all);
  time.tickPerReadIs(0.00002);  // 500 entries a slice of 10 ms
  controllerConverges(false);
  std::size_t slices = 0;
  while (hosts() != 0 && slices < all) {
    const std::size_t before = hosts();
    turn();
    ++slices;
    EXPECT_EQ(marked(), hosts());
    EXPECT_EQ(handles.l2RibRmxInput->hosts(), hosts());
    EXPECT_NEAR(static_cast<double>(before - hosts()), std::min(static_cast<double>(before), 500.0), 2);
  }
  EXPECT_EQ(slices, 21U) << "a look at the clock sets each deadline";
  EXPECT_FALSE(inProgress());
}

}  // namespace
