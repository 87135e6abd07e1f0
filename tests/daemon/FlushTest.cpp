// The switch is taken out of service, a part at a time.
#include "agent/daemon/Flush.h"

#include "Running.h"

namespace {

using TestDaemon::json;
using testing::ElementsAre;

json hosts(unsigned count) {
  json table = json::object();
  for (unsigned number = 0; number < count; ++number) {
    table[Qnet::EthAddr(0x020000000000U + number).text()] = {{"vtepIp", "10.0.0.2"}};
  }
  return table;
}

json floodLists(unsigned count) {
  json table = json::object();
  for (unsigned number = 0; number < count; ++number) {
    table[Qnet::EthAddr(0x030000000000U + number).text()] = {{"10.0.0.2", true}, {"10.0.0.3", true}};
  }
  return table;
}

class FlushTest : public testing::Test {
 protected:
  void fill(unsigned hostCount, unsigned floodCount) {
    json tables = {{"macVtepTable", hosts(hostCount)}, {"macVtepFloodListTable", floodLists(floodCount)}};
    ASSERT_EQ(agent.patch({{"vtiStatus",
                            {{"Vxlan1", {{"controllerClientMode", true}, {"localVtepAddr", "10.0.0.1"}}}}},
                           {"vlanVniMap", {{"Vxlan1", {{"10", 5010}, {"20", 5020}}}}},
                           {"controller", {{"fdb", {{"5010", tables}, {"5020", tables}}}}}}),
              "");
    ASSERT_EQ(agent.patch({{"hardware", {{"bumStatus", {{"bumReplicationMode", 3}}}}}}), "");
    agent.settle();
    ASSERT_EQ(agent.world.hosts->hosts(), 2 * hostCount);
    ASSERT_EQ(floodSets(), 2 * floodCount);
  }
  std::size_t floodSets() const {
    std::size_t count = 0;
    for (auto&& vlan : agent.world.floodSets->vlanFloodSet()) {
      count += vlan.value->floodSets();
    }
    return count;
  }

  TestDaemon::Running agent;
};

TEST_F(FlushTest, RemovesAllForwardingStateAndCountsIt) {
  fill(1'500, 600);
  const Kel::Ptr<Vxlan::BumStatus> bum = agent.world.hwStatus->bumStatus();
  bum->bumVtepListIs({Qnet::EthAddr(0x01U), Bridging::VlanId(10)});
  const json input = agent.input();
  Agent::Flush flush(agent.world);
  while (flush.step()) {
  }
  EXPECT_EQ(flush.hosts(), 3'000U);
  EXPECT_EQ(flush.floodSets(), 1'200U);
  EXPECT_EQ(agent.output("/l2Rib/hosts"), json::object());
  EXPECT_EQ(agent.output("/l2Rib/floodSets"), json::object());
  EXPECT_EQ(agent.output("/hardware/bumVtepList"), json::object());
  EXPECT_EQ(agent.world.floodSets->vlanFloodSets(), 0U);
  EXPECT_FALSE(agent.world.client);
  EXPECT_EQ(agent.input(), input) << "the inputs stay";
}

TEST_F(FlushTest, AStepRemovesAFewAndNothingComesBackBetweenTwo) {
  fill(1'500, 600);
  Agent::Flush flush(agent.world);
  EXPECT_TRUE(flush.step());
  EXPECT_FALSE(agent.world.client) << "first of all nothing more is written";
  EXPECT_EQ(agent.patch({{"controller", {{"fdb", {{"5010", {{"macVtepTable", hosts(1'600)}}}}}}}}), "");
  std::size_t hostsLeft = agent.world.hosts->hosts();
  std::size_t setsLeft = floodSets();
  EXPECT_EQ(hostsLeft, 3'000U);
  bool more = true;
  int steps = 0;
  for (; more; ++steps) {
    more = flush.step();
    const std::size_t gone = hostsLeft + setsLeft - agent.world.hosts->hosts() - floodSets();
    EXPECT_LE(gone, 512U);
    hostsLeft = agent.world.hosts->hosts();
    setsLeft = floodSets();
  }
  EXPECT_GE(steps, 14) << "3,000 received hosts, as many exported, and 1,200 flood sets";
  EXPECT_EQ(hostsLeft + setsLeft, 0U);
}

TEST_F(FlushTest, StepsOfTheQueueLeaveTheLoopItsTurns) {
  int steps = 0;
  bool done = false;
  agent.queue.addSteps([&] { return ++steps < 50; }, [&](const std::exception*) { done = true; });
  EXPECT_EQ(steps, 0) << "it begins in a later turn";
  int turns = 0;
  for (; !done && turns < 1'000; ++turns) {
    agent.turn();
  }
  EXPECT_EQ(steps, 50);
  EXPECT_GE(turns, 8) << "a turn has 5 ms, of which each look at the time takes one";
}

TEST_F(FlushTest, OfASwitchThatIsOutOfServiceRemovesNothing) {
  fill(10, 10);
  Agent::Flush first(agent.world);
  while (first.step()) {
  }
  Agent::Flush second(agent.world);
  while (second.step()) {
  }
  EXPECT_EQ(second.hosts() + second.floodSets(), 0U);
}

}  // namespace
