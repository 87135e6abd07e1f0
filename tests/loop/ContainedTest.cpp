#include <csignal>
#include <limits>
#include <stdexcept>
#include <string_view>

#include <sys/epoll.h>
#include "Rig.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A loop that contains what its callbacks throw, and what it reported about them.
class Contained : public EventLoopTest {
 protected:
  Contained() {
    loop.containErrors([this](std::string_view where, std::string_view what) {
      told.push_back(std::string(where) + ": " + std::string(what));
    });
  }
  [[noreturn]] static void fail() { throw std::runtime_error("out of here"); }

  std::vector<std::string> told;
};

TEST_F(Contained, AThrowingTimerLeavesTheRestOfTheTurnAsItIs) {
  loop.after(0ns, [] { fail(); });
  loop.after(0ns, note("next"));
  loop.addTurnHook(note("hook"));
  turn();
  EXPECT_THAT(happened, ElementsAre("next", "hook"));
  EXPECT_THAT(told, ElementsAre("a timer: out of here"));
  EXPECT_EQ(loop.errors(), 1U);
}

TEST_F(Contained, AThrowingDescriptorRestsAndIsCalledAgain) {
  const Pair pair;
  const Pair other;
  int calls = 0;
  loop.watch(pair.near, EPOLLIN, [&](std::uint32_t) {
    ++calls;
    fail();
  });
  loop.watch(other.near, EPOLLIN, [&](std::uint32_t) { happened.emplace_back("other"); });
  pair.send();
  other.send();
  turn();
  turn();
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(happened, ElementsAre("other", "other"));
  time += EventLoop::restAfterError;
  turn();
  turn();
  EXPECT_EQ(calls, 2);
  EXPECT_THAT(told, ElementsAre("a descriptor: out of here", "a descriptor: out of here"));
}

TEST_F(Contained, ADescriptorThatRestsCanBeChangedAndForgotten) {
  const Pair changed;
  const Pair forgotten;
  loop.watch(changed.near, EPOLLIN, [&](std::uint32_t events) {
    if (events == EPOLLIN) {
      fail();
    }
    happened.emplace_back("out");
  });
  loop.watch(forgotten.near, EPOLLIN, [&](std::uint32_t) { fail(); });
  changed.send();
  forgotten.send();
  turn();
  loop.forget(forgotten.near);
  loop.change(changed.near, EPOLLOUT);
  turn();
  EXPECT_THAT(happened, IsEmpty());
  time += EventLoop::restAfterError;
  turn();  // the timers come after the descriptors
  turn();
  EXPECT_THAT(happened, ElementsAre("out"));
  EXPECT_EQ(told.size(), 2U);
  EXPECT_FALSE(loop.watches(forgotten.near));
}

TEST_F(Contained, WorkThatThrowsRestsAndGoesOn) {
  int calls = 0;
  loop.addWork([&]() -> bool {
    if (++calls == 1) {
      fail();
    }
    return false;
  });
  turn();
  turn();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(loop.works(), 1U);
  time += EventLoop::restAfterError;
  turn();
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(loop.works(), 0U);
  EXPECT_THAT(told, ElementsAre("bulk work: out of here"));
}

TEST_F(Contained, WorkThatRestsCanBeDropped) {
  const EventLoop::WorkId work = loop.addWork([]() -> bool { fail(); });
  turn();
  EXPECT_TRUE(loop.dropWork(work));
  time += EventLoop::restAfterError;
  turn();
  EXPECT_EQ(told.size(), 1U);
}

TEST_F(Contained, WorkThatDropsItselfAndThrowsIsGone) {
  EventLoop::WorkId work = EventLoop::WorkId::none;
  work = loop.addWork([&]() -> bool {
    loop.dropWork(work);
    fail();
  });
  turn();
  EXPECT_EQ(loop.works(), 0U);
}

TEST_F(Contained, HooksEmbeddedLoopsAndSignals) {
  class Thrower final : public EventLoop::Embedded {
   public:
    bool turn() override { fail(); }
    double nextWakeup() override { return std::numeric_limits<double>::infinity(); }
  } thrower;
  loop.onSignal(SIGUSR1, [] { fail(); });
  loop.embed(thrower);
  loop.addTurnHook([] { fail(); });
  loop.addTurnHook(note("second hook"));
  raise(SIGUSR1);
  turn();
  EXPECT_THAT(told, ElementsAre("a signal: out of here", "an embedded loop: out of here",
                                "a turn hook: out of here"));
  EXPECT_THAT(happened, ElementsAre("second hook"));
  loop.unembed(thrower);
}

TEST_F(Contained, WhatIsNoExceptionOfTheLibraryAndWhatTheHandlerThrows) {
  loop.containErrors([this](std::string_view, std::string_view what) {
    told.emplace_back(what);
    fail();
  });
  loop.after(0ns, [] { throw 7; });
  turn();
  EXPECT_THAT(told, ElementsAre("an exception of an unknown type"));
}

}  // namespace
