#include <gmock/gmock.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Rig.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Timers = EventLoopTest;
using Descriptors = EventLoopTest;
using BulkWork = EventLoopTest;
using Hooks = EventLoopTest;
using Stall = EventLoopTest;
using Signals = EventLoopTest;

TEST_F(Timers, FireInOrderOfDueTimeAndTiesInOrderOfArming) {
  loop.after(2s, note("two"));
  loop.after(1s, note("one"));
  loop.after(2s, note("two again"));
  loop.after(3s, note("three"));
  time += 2s;
  turn();
  EXPECT_THAT(happened, ElementsAre("one", "two", "two again"));
}

TEST_F(Timers, AreNeverEarly) {
  loop.after(1s, note("fired"));
  time += 1s - 1ns;
  turn();
  EXPECT_THAT(happened, IsEmpty());
  time += 1ns;
  turn();
  EXPECT_THAT(happened, ElementsAre("fired"));
}

TEST_F(Timers, ArmedForNowInsideAHandlerFireInTheNextTurn) {
  loop.after(0ns, [this] { loop.after(-5s, note("second")); });
  turn();
  EXPECT_THAT(happened, IsEmpty());
  turn();
  EXPECT_THAT(happened, ElementsAre("second"));
}

TEST_F(Timers, CancelledByAnEarlierOneOfTheSameTurnStaySilent) {
  EventLoop::TimerId second = EventLoop::TimerId::none;
  loop.after(0ns, [&] { EXPECT_TRUE(loop.cancel(second)); });
  second = loop.after(0ns, note("second"));
  turn();
  EXPECT_THAT(happened, IsEmpty());
  EXPECT_FALSE(loop.cancel(second));
}

TEST_F(Timers, CannotBeCancelledOnceTheyFire) {
  EventLoop::TimerId own = EventLoop::TimerId::none;
  own = loop.after(0ns, [&] { EXPECT_FALSE(loop.cancel(own)); });
  turn();
}

TEST_F(Timers, OfEternityNeverFire) {
  loop.after(std::chrono::nanoseconds::max(), note("fired"));
  time += 24h * 365;
  turn();
  EXPECT_THAT(happened, IsEmpty());
}

TEST_F(Timers, WakeAWaitingLoop) {
  EventLoop real;
  real.after(1ms, [&] { real.stop(); });
  real.run();
  EXPECT_TRUE(real.stopped());
}

TEST_F(Timers, AThrowingHandlerLeavesTheOthersForTheNextTurn) {
  loop.after(0ns, [] { throw std::runtime_error("out of here"); });
  loop.after(0ns, note("next"));
  EXPECT_THROW(turn(), std::runtime_error);
  EXPECT_THAT(happened, IsEmpty());
  turn();
  EXPECT_THAT(happened, ElementsAre("next"));
}

TEST_F(Descriptors, ReadyOnesAreHandledOnceATurn) {
  const Pair pair;
  int calls = 0;
  loop.watch(pair.near, EPOLLIN, [&](std::uint32_t events) {
    EXPECT_EQ(events, static_cast<std::uint32_t>(EPOLLIN));
    ++calls;
  });
  turn();
  EXPECT_EQ(calls, 0);
  pair.send();
  turn();
  EXPECT_EQ(calls, 1);
  turn();  // the byte is still there
  EXPECT_EQ(calls, 2);
}

TEST_F(Descriptors, ForgottenByAnotherHandlerOfTheTurnStaySilent) {
  const Pair one;
  const Pair two;
  const auto loner = [&](int other) {
    return [this, other](std::uint32_t) {
      happened.emplace_back("handled");
      loop.forget(other);
    };
  };
  loop.watch(one.near, EPOLLIN, loner(two.near));
  loop.watch(two.near, EPOLLIN, loner(one.near));
  one.send();
  two.send();
  turn();
  EXPECT_THAT(happened, ElementsAre("handled"));
}

TEST_F(Descriptors, CanBeForgottenInTheirOwnHandler) {
  const Pair pair;
  const auto owned = std::make_shared<std::string>("still here");
  std::weak_ptr<std::string> observer = owned;
  loop.watch(pair.near, EPOLLIN, [this, owned, &pair](std::uint32_t) {
    loop.forget(pair.near);
    happened.push_back(*owned);  // the handler outlives its own forgetting
  });
  pair.send();
  turn();
  turn();
  EXPECT_THAT(happened, ElementsAre("still here"));
  EXPECT_FALSE(loop.watches(pair.near));
}

TEST_F(Descriptors, ANewWatchOfAnOldNumberSeesNothingOfTheOldOne) {
  const Pair one;
  const Pair two;
  // Whichever comes first replaces the watch of the other, whose event is already at hand.
  const auto replace = [&](int other) {
    return [this, other](std::uint32_t) {
      happened.emplace_back("old");
      loop.forget(other);
      loop.watch(other, EPOLLOUT, [this](std::uint32_t) { happened.emplace_back("new"); });
    };
  };
  loop.watch(one.near, EPOLLIN, replace(two.near));
  loop.watch(two.near, EPOLLIN, replace(one.near));
  one.send();
  two.send();
  turn();
  EXPECT_THAT(happened, ElementsAre("old"));
}

TEST_F(Descriptors, FollowTheEventsTheyAreChangedTo) {
  const Pair pair;
  std::vector<std::uint32_t> seen;
  loop.watch(pair.near, EPOLLIN, [&](std::uint32_t events) { seen.push_back(events); });
  loop.change(pair.near, EPOLLIN | EPOLLOUT);
  turn();
  EXPECT_THAT(seen, ElementsAre(EPOLLOUT));
}

TEST_F(Descriptors, ThatCannotBePolledAreRefused) {
  FILE* file = tmpfile();
  ASSERT_NE(file, nullptr);
  EXPECT_THROW(loop.watch(fileno(file), EPOLLIN, [](std::uint32_t) {}), std::system_error);
  EXPECT_FALSE(loop.watches(fileno(file)));
  fclose(file);
}

TEST_F(Descriptors, WatchedTwiceAreAMistakeOfOurs) {
  const Pair pair;
  loop.watch(pair.near, EPOLLIN, [](std::uint32_t) {});
  EXPECT_DEATH(loop.watch(pair.near, EPOLLIN, [](std::uint32_t) {}), "a descriptor is watched once");
}

TEST_F(BulkWork, IsCalledUntilNothingIsLeft) {
  int left = 3;
  loop.workBudgetIs(1ms);
  loop.addWork([&] {
    time += 1ms;
    return --left > 0;
  });
  turn();
  EXPECT_EQ(left, 2);
  turn();
  turn();
  EXPECT_EQ(left, 0);
  EXPECT_EQ(loop.works(), 0U);
  turn();
  EXPECT_EQ(left, 0);
}

TEST_F(BulkWork, OfSeveralKindsTakesTurns) {
  loop.workBudgetIs(1ms);
  for (const char* name : {"a", "b", "c"}) {
    loop.addWork([this, name] {
      happened.emplace_back(name);
      time += 1ms;
      return true;
    });
  }
  for (int i = 0; i < 7; ++i) {
    turn();
  }
  EXPECT_THAT(happened, ElementsAre("a", "b", "c", "a", "b", "c", "a"));
}

TEST_F(BulkWork, RunsAsManySlicesATurnAsTheBudgetAllows) {
  int slices = 0;
  loop.workBudgetIs(5ms);
  loop.addWork([&] {
    ++slices;
    time += 2ms;
    return true;
  });
  turn();
  EXPECT_EQ(slices, 3);  // begun at 0, 2 and 4 ms
}

TEST_F(BulkWork, CanAskForItsBudget) {
  int rows = 0;
  loop.workBudgetIs(5ms);
  EXPECT_FALSE(loop.budgetLeft());
  loop.addWork([&] {
    while (loop.budgetLeft()) {
      ++rows;
      time += 1ms;
    }
    return false;
  });
  turn();
  EXPECT_EQ(rows, 5);
  EXPECT_FALSE(loop.budgetLeft());
}

TEST_F(BulkWork, DoesNotStarveDescriptorsAndTimers) {
  const Pair pair;
  loop.workBudgetIs(1ms);
  loop.addWork([&] {
    time += 1ms;
    return true;  // endless
  });
  int bytes = 0;
  loop.watch(pair.near, EPOLLIN, [&](std::uint32_t) {
    pair.take();
    ++bytes;
  });
  int ticks = 0;
  std::function<void()> tick = [&] {
    ++ticks;
    loop.after(1ms, tick);
  };
  loop.after(1ms, tick);
  constexpr int turns = 50;
  for (int i = 0; i < turns; ++i) {
    pair.send();
    turn();
  }
  EXPECT_EQ(bytes, turns);
  EXPECT_EQ(ticks, turns - 1);  // due from the second turn on
}

TEST_F(BulkWork, IsNotStarvedByADescriptorThatIsAlwaysReady) {
  const Pair pair;
  loop.watch(pair.near, EPOLLOUT, [](std::uint32_t) {});
  int left = 10;
  loop.addWork([&] {
    time += 10ms;
    return --left > 0;
  });
  for (int i = 0; i < 10; ++i) {
    turn();
  }
  EXPECT_EQ(left, 0);
}

TEST_F(BulkWork, CanBeDroppedByItselfAndByOthers) {
  EventLoop::WorkId self = EventLoop::WorkId::none;
  self = loop.addWork([&] {
    happened.emplace_back("self");
    EXPECT_TRUE(loop.dropWork(self));
    return true;
  });
  const EventLoop::WorkId other = loop.addWork([&] {
    happened.emplace_back("other");
    return true;
  });
  loop.addWork([&] {
    EXPECT_TRUE(loop.dropWork(other));
    return false;
  });
  loop.workBudgetIs(0ns);  // one slice a turn
  for (int i = 0; i < 5; ++i) {
    turn();
  }
  EXPECT_THAT(happened, ElementsAre("self", "other"));
  EXPECT_EQ(loop.works(), 0U);
  EXPECT_FALSE(loop.dropWork(self));
}

TEST_F(BulkWork, ThatThrowsIsDroppedAndTheRestGoesOn) {
  loop.addWork([]() -> bool { throw std::runtime_error("bad row"); });
  loop.addWork([this] {
    happened.emplace_back("rest");
    return false;
  });
  EXPECT_THROW(turn(), std::runtime_error);
  turn();
  EXPECT_THAT(happened, ElementsAre("rest"));
  EXPECT_EQ(loop.works(), 0U);
}

// An embedded loop that has a number of turns to do and says so.
class Framework : public EventLoop::Embedded {
 public:
  bool turn() override {
    if (left > 0) {
      --left;
    }
    ++turns;
    if (onTurn) {
      onTurn();
    }
    return left > 0;
  }
  double nextWakeup() override { return wakeup; }

  int left = 0;
  int turns = 0;
  double wakeup = std::numeric_limits<double>::infinity();
  std::function<void()> onTurn;
};

TEST_F(EventLoopTest, AnEmbeddedLoopTurnsOnceATurnAndWithoutWaitWhileMoreIsDue) {
  Framework framework;
  framework.left = 3;
  EventLoop real;
  framework.onTurn = [&] {
    if (framework.left == 0) {
      real.stop();
    }
  };
  real.embed(framework);
  real.run();  // would wait forever if `left` did not keep it turning
  EXPECT_EQ(framework.turns, 3);
}

TEST_F(EventLoopTest, AnEmbeddedLoopIsWokenWhenItAsksTo) {
  Framework framework;
  EventLoop real;
  real.embed(framework);
  real.runOnce(0ns);
  framework.wakeup = 0.001;
  framework.onTurn = [&] { real.stop(); };
  real.run();
  EXPECT_EQ(framework.turns, 2);
}

TEST_F(EventLoopTest, AnEmbeddedLoopCanLeaveWhileTurning) {
  Framework framework;
  framework.left = 100;
  framework.onTurn = [&] { loop.unembed(framework); };
  loop.embed(framework);
  turn();
  turn();
  EXPECT_EQ(framework.turns, 1);
}

TEST_F(Hooks, RunAfterAllChangesOfTheTurn) {
  Framework framework;
  framework.onTurn = note("framework");
  loop.addTurnHook(note("hook"));
  loop.embed(framework);
  loop.after(0ns, note("timer"));
  loop.addWork([this] {
    happened.emplace_back("work");
    return false;
  });
  turn();
  EXPECT_THAT(happened, ElementsAre("timer", "framework", "work", "hook"));
}

TEST_F(Hooks, CanDropOneAnotherAndAddMore) {
  EventLoop::HookId second = EventLoop::HookId::none;
  loop.addTurnHook([&] {
    if (loop.dropTurnHook(second)) {
      loop.addTurnHook(note("third"));
    }
  });
  second = loop.addTurnHook(note("second"));
  turn();
  EXPECT_THAT(happened, IsEmpty());
  turn();
  EXPECT_THAT(happened, ElementsAre("third"));
  EXPECT_FALSE(loop.dropTurnHook(second));
}

TEST_F(Stall, IsTheTimeFromOnePollToTheNext) {
  loop.after(0ns, [this] { time += 30ms; });
  turn();
  time += 5s;  // between the turns nobody waits for the loop's own doing
  turn();
  const Service::LoopStall& stall = loop.stall();
  EXPECT_EQ(stall.turns, 2U);
  EXPECT_EQ(stall.longest, 30ms);
  EXPECT_EQ(stall.total, 30ms);
  EXPECT_EQ(stall.counts[0], 1U);  // up to 100 us
  EXPECT_EQ(stall.counts[8], 1U);  // up to 50 ms
}

TEST_F(Stall, BucketsHoldTheirUpperBound) {
  Service::LoopStall stall;
  stall.add(100us);
  stall.add(100us + 1ns);
  stall.add(2s);
  EXPECT_EQ(stall.counts.front(), 1U);
  EXPECT_EQ(stall.counts[1], 1U);
  EXPECT_EQ(stall.counts.back(), 1U);
}

TEST_F(Signals, AreCallbacksOfATurn) {
  loop.onSignal(SIGHUP, note("hup"));
  loop.onSignal(SIGUSR1, note("usr1"));
  raise(SIGUSR1);
  raise(SIGHUP);
  EXPECT_THAT(happened, IsEmpty());
  turn();
  EXPECT_THAT(happened, testing::UnorderedElementsAre("hup", "usr1"));
}

TEST_F(EventLoopTest, StopEndsTheRunAfterTheTurn) {
  loop.after(0ns, [this] { loop.stop(); });
  loop.addTurnHook(note("hook"));
  loop.run();
  EXPECT_THAT(happened, ElementsAre("hook"));
  loop.run();
  EXPECT_THAT(happened, ElementsAre("hook"));
}

TEST_F(EventLoopTest, ATurnInsideATurnIsAMistakeOfOurs) {
  loop.after(0ns, [this] { loop.runOnce(0ns); });
  EXPECT_DEATH(turn(), "a turn does not begin inside another");
}

}  // namespace
