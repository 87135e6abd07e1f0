#include "agent/daemon/SlotSweep.h"

#include <gmock/gmock.h>

namespace {

using namespace std::chrono_literals;
using Agent::SlotSweep;
using Bridging::MacVlanPair;
using Bridging::VlanId;
using Service::EventLoop;

constexpr unsigned many = 3000;

MacVlanPair key(unsigned number) {
  return {Qnet::EthAddr(0x020000000000U + number), VlanId(10)};
}

// A table that had many hosts, which were all removed in one turn, in a loop whose time stands still.
class SlotSweepTest : public testing::Test {
 protected:
  void SetUp() override {
    Kel::ActivityLoop::instance().asHandler([&] {
      for (unsigned number = 0; number < many; ++number) {
        L2Rib::Host host;
        host.key = key(number);
        hosts->hostIs(host);
      }
    });
  }
  void removeAll() {
    for (unsigned number = 0; number < many; ++number) {
      hosts->hostDel(key(number));
    }
  }
  std::size_t waiting() { return hosts->sweep(0); }

  EventLoop::Clock::time_point time{1h};
  EventLoop loop{[this] { return time; }};
  Kel::Ptr<L2Rib::HostInput> hosts = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{});
  SlotSweep sweep{loop, hosts};
};

TEST_F(SlotSweepTest, HasNoWorkWhereNothingWaits) {
  sweep.look();
  EXPECT_FALSE(sweep.sweeping());
  EXPECT_EQ(loop.works(), 0U);
}

TEST_F(SlotSweepTest, SweepsAllInOneSliceWhileTheBudgetLasts) {
  Kel::ActivityLoop::instance().asHandler([&] { removeAll(); });
  EXPECT_EQ(waiting(), many);
  sweep.look();
  sweep.look();
  EXPECT_EQ(loop.works(), 1U) << "one work, however often it is looked for";
  loop.runOnce(0ns);
  EXPECT_EQ(waiting(), 0U);
  EXPECT_FALSE(sweep.sweeping());
  EXPECT_EQ(loop.works(), 0U);
}

TEST_F(SlotSweepTest, TakesAFewATurnOnceTheBudgetIsUsedUp) {
  Kel::ActivityLoop::instance().asHandler([&] { removeAll(); });
  loop.workBudgetIs(0ns);
  sweep.look();
  loop.runOnce(0ns);
  EXPECT_EQ(waiting(), many - SlotSweep::atOnce);
  loop.runOnce(0ns);
  EXPECT_EQ(waiting(), many - 2 * SlotSweep::atOnce);
  EXPECT_TRUE(sweep.sweeping());
}

TEST_F(SlotSweepTest, TakesAFewATurnBesideOtherWork) {
  Kel::ActivityLoop::instance().asHandler([&] { removeAll(); });
  int slices = 0;
  sweep.look();
  loop.addWork([&] { return ++slices < 3; });
  loop.runOnce(0ns);
  EXPECT_EQ(slices, 3);
  EXPECT_EQ(waiting(), 0U) << "the rest, when the other work had ended";
  SetUp();
  Kel::ActivityLoop::instance().asHandler([&] { removeAll(); });
  std::vector<std::size_t> left;
  sweep.look();
  loop.addWork([&] {
    left.push_back(waiting());
    return left.size() < 3;
  });
  loop.runOnce(0ns);
  EXPECT_THAT(left, testing::ElementsAre(many - SlotSweep::atOnce, many - 2 * SlotSweep::atOnce,
                                         many - 3 * SlotSweep::atOnce));
}

TEST_F(SlotSweepTest, LeavesWhatItsTurnHasNotPublishedAndEnds) {
  Kel::ActivityLoop::instance().asHandler([&] {
    removeAll();
    sweep.look();
    EXPECT_TRUE(sweep.sweeping());
    loop.runOnce(0ns);
    EXPECT_FALSE(sweep.sweeping()) << "it does not keep the loop busy for it";
    EXPECT_EQ(waiting(), many);
  });
  sweep.look();
  loop.runOnce(0ns);
  EXPECT_EQ(waiting(), 0U);
}

TEST_F(SlotSweepTest, ThatEndsTakesItsWorkWithIt) {
  Kel::ActivityLoop::instance().asHandler([&] { removeAll(); });
  {
    SlotSweep other(loop, hosts);
    other.look();
    EXPECT_EQ(loop.works(), 1U);
  }
  EXPECT_EQ(loop.works(), 0U);
}

}  // namespace
