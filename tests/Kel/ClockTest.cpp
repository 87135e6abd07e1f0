// Clocks and the activity loop, on simulated time.
#include "Kel/Clock.h"

#include <limits>

#include "Kel/System.h"
#include "Scenario.h"

namespace {

using namespace scenario;
using Kel::Clock;

constexpr double never = std::numeric_limits<double>::infinity();

// Writes down when it rang, and does what it was told to.
struct Ringer final : Kel::Follows<Clock> {
  Ringer(std::string who, Heard& what) : name(std::move(who)), heard(what) {}
  void onTime() override {
    heard.push_back(name);
    if (then) {
      then();
    }
  }
  std::string name;
  Heard& heard;
  std::function<void()> then;
};

class ClockTest : public KelTest {
 protected:
  ClockTest() { Kel::System::timeSourceIs(&time); }
  ~ClockTest() override { Kel::System::timeSourceIs(nullptr); }

  // A clock whose ringing is heard under this name, parked.
  struct Watch {
    Ptr<Clock> clock;
    Ptr<Ringer> ringer;
    Clock* operator->() const { return clock.get(); }
  };
  Watch watch(const std::string& name) {
    Watch fresh{Kel::ActivityFacility::clock(), Kel::make<Ringer>(name, heard)};
    fresh.ringer->notifierIs(fresh.clock);
    heard.clear();
    return fresh;
  }
  Heard turn() {
    loop().turn();
    return take();
  }
  Heard turnAt(double when) {
    time.timeIs(when);
    return turn();
  }

  Kel::SimulatedTime time{100};
};

TEST_F(ClockTest, ANewClockIsParked) {
  const Watch a = watch("a");
  EXPECT_EQ(a->timeMin(), never);
  EXPECT_EQ(loop().nextWakeup(), never);
  EXPECT_FALSE(loop().turn());
  EXPECT_THAT(turnAt(1e12), IsEmpty());
}

TEST_F(ClockTest, AClockRingsOnceWhenItsTimeHasComeAndIsParkedAgain) {
  const Watch a = watch("a");
  a->timeMinIs(105);
  EXPECT_EQ(a->timeMin(), 105);
  EXPECT_EQ(loop().nextWakeup(), 105);
  EXPECT_THAT(turnAt(104.999), IsEmpty());
  EXPECT_THAT(turnAt(105), ElementsAre("a"));
  EXPECT_EQ(a->timeMin(), never);
  EXPECT_THAT(turnAt(200), IsEmpty());
}

TEST_F(ClockTest, WritingItsTimeRingsNothingByItself) {
  const Watch a = watch("a");
  a->timeMinIs(1);  // long past
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_FALSE(loop().idle());
  EXPECT_THAT(turn(), ElementsAre("a"));
}

TEST_F(ClockTest, PlusInfinityParksIt) {
  const Watch a = watch("a");
  a->timeMinIs(105);
  a->timeMinIs(never);
  EXPECT_EQ(loop().nextWakeup(), never);
  EXPECT_THAT(turnAt(1e12), IsEmpty());
}

TEST_F(ClockTest, AnotherTimeReplacesTheFirst) {
  const Watch a = watch("a");
  a->timeMinIs(101);
  a->timeMinIs(103);
  EXPECT_THAT(turnAt(102), IsEmpty());
  EXPECT_THAT(turnAt(103), ElementsAre("a"));
}

TEST_F(ClockTest, DueClocksRingInTheOrderOfTheirTimesThenOfArming) {
  const Watch a = watch("a");
  const Watch b = watch("b");
  const Watch c = watch("c");
  const Watch d = watch("d");
  d->timeMinIs(102);
  c->timeMinIs(101);
  a->timeMinIs(102);
  b->timeMinIs(102);
  d->timeMinIs(102);  // rearmed: now the last of the three
  EXPECT_THAT(turnAt(110), ElementsAre("c", "a", "b", "d"));
}

TEST_F(ClockTest, ArmedForNowByItsOwnHandlerItRingsOnTheNextTurn) {
  const Watch a = watch("a");
  a.ringer->then = [&] { a->timeMinIs(time.peek()); };
  a->timeMinIs(100);
  EXPECT_THAT(turn(), ElementsAre("a"));
  EXPECT_THAT(turn(), ElementsAre("a"));
}

TEST_F(ClockTest, ArmedForThePastByAnotherHandlerItRingsOnTheNextTurn) {
  const Watch a = watch("a");
  const Watch b = watch("b");
  a.ringer->then = [&] { b->timeMinIs(1); };
  a->timeMinIs(100);
  EXPECT_THAT(turn(), ElementsAre("a"));
  EXPECT_THAT(turn(), ElementsAre("b"));
}

TEST_F(ClockTest, AClockThatIsDueButArmedAnewMeanwhileWaits) {
  const Watch a = watch("a");
  const Watch b = watch("b");
  a.ringer->then = [&] { b->timeMinIs(100); };
  a->timeMinIs(100);
  b->timeMinIs(100);
  EXPECT_THAT(turn(), ElementsAre("a"));
  EXPECT_THAT(turn(), ElementsAre("b"));
}

TEST_F(ClockTest, AClockThatIsParkedMeanwhileDoesNotRing) {
  const Watch a = watch("a");
  const Watch b = watch("b");
  a.ringer->then = [&] { b->timeMinIs(never); };
  a->timeMinIs(100);
  b->timeMinIs(100);
  EXPECT_THAT(turn(), ElementsAre("a"));
  EXPECT_THAT(turn(), IsEmpty());
}

TEST_F(ClockTest, AClockMayBeDestroyedWhileItIsDue) {
  const Watch a = watch("a");
  Watch b = watch("b");
  a.ringer->then = [&] { b = Watch{}; };
  a->timeMinIs(100);
  b->timeMinIs(100);
  EXPECT_THAT(turn(), ElementsAre("a"));
  Watch c = watch("c");
  c->timeMinIs(100);
  c = Watch{};
  EXPECT_EQ(loop().nextWakeup(), never);
}

TEST_F(ClockTest, WhatIsPendingIsDeliveredBeforeAnyClockRings) {
  const Watch a = watch("a");
  const auto listener1 = listener("A");
  a->timeMinIs(100);
  EXPECT_THROW(inHandler([&] {
                 device->upIs(true);
                 throw Broken();
               }),
               Broken);
  EXPECT_THAT(turn(), ElementsAre("A up", "a"));
}

TEST_F(ClockTest, WhatOneClockSetsOffIsDeliveredBeforeTheNextRings) {
  const Watch a = watch("a");
  const Watch b = watch("b");
  const auto listener1 = listener("A");
  a.ringer->then = [&] { device->upIs(true); };
  listener1->when("up", [&] { device->loadIs(1); });
  a->timeMinIs(100);
  b->timeMinIs(100);
  EXPECT_THAT(turn(), ElementsAre("a", "A up", "A load", "b"));
}

// Until the queue is empty again, no clock rings, however often the writer comes back.
TEST_F(ClockTest, NoClockRingsInsideAChangeFromOutside) {
  const Watch a = watch("a");
  const auto listener1 = listener("A");
  a->timeMinIs(100);
  device->upIs(true);
  device->loadIs(1);
  EXPECT_THAT(take(), ElementsAre("A up", "A load"));
}

TEST_F(ClockTest, AnErrorLeavesTheOtherDueClocksArmed) {
  const Watch a = watch("a");
  const Watch b = watch("b");
  a.ringer->then = [] { throw Broken(); };
  a->timeMinIs(100);
  b->timeMinIs(100);
  EXPECT_THROW(loop().turn(), Broken);
  EXPECT_THAT(take(), ElementsAre("a"));
  EXPECT_THAT(turn(), ElementsAre("b"));
}

TEST_F(ClockTest, BindingAClockToALiveListenerCountsAsItsTime) {
  const auto clock = Kel::ActivityFacility::clock();
  const auto ringer = Kel::make<Ringer>("a", heard);
  ringer->notifierIs(clock);
  EXPECT_THAT(take(), ElementsAre("a"));
}

TEST_F(ClockTest, ATurnTellsWhetherAnythingRan) {
  const Watch a = watch("a");
  EXPECT_FALSE(loop().turn());
  a->timeMinIs(100);
  const std::uint64_t fired = loop().clocksFired();
  EXPECT_TRUE(loop().turn());
  EXPECT_EQ(loop().clocksFired(), fired + 1);
  EXPECT_FALSE(loop().turn());
}

TEST_F(ClockTest, TheLoopRunsUntilItIsIdleOrTheBoundIsReached) {
  const Watch a = watch("a");
  a.ringer->then = [&] {
    if (heard.size() < 5) {
      a->timeMinIs(0);
    }
  };
  a->timeMinIs(0);
  EXPECT_FALSE(loop().runUntilIdle(3));
  EXPECT_EQ(heard.size(), 3U);
  EXPECT_TRUE(loop().runUntilIdle());
  EXPECT_EQ(heard.size(), 5U);
  EXPECT_TRUE(loop().runUntilIdle(0));
}

using ClockDeathTest = ClockTest;

TEST_F(ClockDeathTest, ATimeThatIsNoNumberIsOurOwnMistake) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Watch a = watch("a");
  EXPECT_DEATH(a->timeMinIs(std::numeric_limits<double>::quiet_NaN()),
               "a clock is armed for a time that is no number");
}

TEST_F(ClockDeathTest, ATurnInsideAHandlerIsOurOwnMistake) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(inHandler([] { loop().turn(); }), "a turn of the activity loop inside a handler");
}

}  // namespace
