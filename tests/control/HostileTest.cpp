// Many hostile clients at once, and what holds whatever they do.
#include "Hostile.h"

namespace {

using namespace std::chrono_literals;
using TestControl::HostileClient;
using TestControl::json;

constexpr int crowd = 80;
constexpr int steps = 400;

class HostileTest : public TestControl::ControlTest, public testing::WithParamInterface<unsigned> {
 protected:
  HostileTest() : random(GetParam()) {
    options.access.othersRead = true;
    options.access.owner = 990;
    options.identify = [this](int) {
      const uid_t whose = isRoot ? 0 : 1000 + static_cast<uid_t>(random() % 7);
      return Control::Peer{whose, whose, 4711};
    };
    for (int i = 0; i < 3'000; ++i) {
      service.document["output"]["hosts"][std::to_string(i)] = {{"number", i}};
    }
    service.throwsAt = "boom";
  }

  std::mt19937 random;
  bool isRoot = false;
};

TEST_P(HostileTest, NobodyHoldsUpTheLoopOrLocksOutWhoMayPatch) {
  const json input = service.document.at("input");
  serve();
  std::vector<HostileClient> clients;
  for (unsigned i = 0; i < crowd; ++i) {
    clients.emplace_back(options.path, GetParam() * 1'000 + i);
  }
  for (int step = 1; step <= steps; ++step) {
    for (HostileClient& client : clients) {
      client.act();
    }
    service.document["output"]["hosts"][std::to_string(random() % 3'000)]["number"] = step;
    service.tellChange();
    time += 50ms;
    turns(1);
    ASSERT_LE(server->clients(), options.places.all + 1);
    if (step % 50 == 0) {
      const int flushes = service.flushes;
      turns(10);  // so that nobody else is let in as root
      isRoot = true;
      TestControl::RawClient root(options.path);
      ASSERT_TRUE(root.connected);
      root.send("{\"call\":\"flush\"}\n");
      turns(10);
      isRoot = false;
      root.take();
      ASSERT_EQ(root.lines.size(), 1U) << "at step " << step;
      ASSERT_TRUE(root.lines[0].contains("value")) << root.lines[0].dump();
      ASSERT_EQ(service.flushes, flushes + 1);
    }
  }
  EXPECT_LE(server->stats().mostItems, options.turn.items + options.turn.instant);
  EXPECT_EQ(service.document.at("input"), input) << "no reader has changed anything";
  EXPECT_EQ(service.flushes, steps / 50);
  clients.clear();
  time += options.patience;
  turns(400);
  EXPECT_EQ(server->clients(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, HostileTest, testing::Range(1U, 4U),
                         [](const auto& seed) { return "seed" + std::to_string(seed.param); });

}  // namespace
