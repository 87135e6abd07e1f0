// The hosts of a VNI that are changed in one handler, against the same changes made one by one.
#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kel/Activity.h"
#include "Kel/System.h"
#include "agent/state/InputDocument.h"
#include "agent/state/InputPatch.h"
#include "agent/state/OutputDocument.h"
#include "agent/state/World.h"

namespace {

using nlohmann::json;

// A state database with its client, in simulated time, whose patches are carried out so many hosts at once.
class Side {
 public:
  explicit Side(std::size_t hosts) : hosts_(hosts) {
    world.clientIs();
    Kel::ActivityLoop::instance().atTurnEnd([](void* side) { ++static_cast<Side*>(side)->publications; },
                                            this);
  }
  ~Side() {
    Kel::ActivityLoop::instance().forgetTurnEnd(this);
    world.clientDel();
  }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  void patch(const json& patch) {
    Agent::InputPatch input(world, patch);
    while (input.step(hosts_)) {
    }
  }
  void settle() { Kel::ActivityLoop::instance().runUntilIdle(); }
  void advance(double seconds) { time_.time.timeIs(time_.time.peek() + seconds); }
  json documents() {
    return {Service::jsonOf(Agent::inputPart(world)),
            Service::jsonOf(Agent::OutputDocument(world, "").part())};
  }

 private:
  struct Time {
    Time() { Kel::System::timeSourceIs(&time); }
    ~Time() { Kel::System::timeSourceIs(nullptr); }
    Kel::SimulatedTime time;
  };
  std::size_t hosts_;
  Time time_;

 public:
  Agent::World world{L2Rib::HostInput::Options()};
  int publications = 0;
};

std::string mac(unsigned number) {
  return Qnet::EthAddr(0x020000000000U + number).text();
}

json begin() {
  return json::parse(R"({
    "vtiStatus": {"Vxlan1": {"controllerClientMode": true, "localVtepAddr": "10.0.0.1"}},
    "vlanVniMap": {"Vxlan1": {"10": 5010, "20": 5020}},
    "controller": {"state": {"c": {"convergenceInProgress": false}}, "fdb": {"5010": {}, "5020": {}}}})");
}

json hosts(unsigned count, const char* vtep = "10.0.0.2") {
  json table = json::object();
  for (unsigned number = 0; number < count; ++number) {
    table[mac(number)] = {{"vtepIp", vtep}};
  }
  return {{"controller", {{"fdb", {{"5010", {{"macVtepTable", table}}}}}}}};
}

// Patches of the hosts of two VNIs, with maps, addresses and convergences between them.
std::vector<json> someStory(std::uint64_t seed) {
  std::mt19937_64 dice(seed);
  const auto below = [&](unsigned bound) { return static_cast<unsigned>(dice() % bound); };
  const auto vtep = [&] { return "10.0.0." + std::to_string(1 + below(3)); };
  std::vector<json> story{begin()};
  for (int i = 0; i < 30; ++i) {
    json patch = json::object();
    for (const char* const vni : {"5010", "5020"}) {
      for (unsigned count = below(40); count != 0; --count) {
        const std::string who = mac(below(60));
        patch["controller"]["fdb"][vni]["macVtepTable"][who] =
            below(3) == 0 ? json() : json{{"vtepIp", vtep()}, {"moveCount", below(3)}};
      }
      if (below(12) == 0) {
        patch["controller"]["fdb"][vni]["macVtepTable"] = nullptr;
      }
    }
    if (below(4) == 0) {
      patch["controller"]["state"]["c"]["convergenceInProgress"] = below(2) == 0;
    }
    if (below(6) == 0) {
      const bool first = below(2) == 0;
      patch["vlanVniMap"]["Vxlan1"][first ? "10" : "20"] = below(2) == 0 ? json() : json(first ? 5010 : 5020);
    }
    if (below(6) == 0) {
      patch["vtiStatus"]["Vxlan1"]["localVtepAddr"] = vtep();
    }
    story.push_back(std::move(patch));
  }
  return story;
}

std::vector<json> told(const std::vector<json>& story, std::size_t hosts) {
  Side side(hosts);
  std::vector<json> documents;
  for (const json& patch : story) {
    side.patch(patch);
    documents.push_back(side.documents());
    side.advance(0.5);
    side.settle();
    documents.push_back(side.documents());
  }
  return documents;
}

TEST(BatchTest, EndsInTheSameDocumentsAsOneByOne) {
  for (std::uint64_t seed = 0; seed < 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::vector<json> story = someStory(seed);
    ASSERT_EQ(told(story, Agent::InputPatch::hostsInHandler), told(story, 1));
  }
}

TEST(BatchTest, IsPublishedOnce) {
  Side single(1);
  single.patch(begin());
  single.publications = 0;
  single.patch(hosts(100));
  EXPECT_EQ(single.publications, 100);
}

TEST(BatchTest, HoldsAsManyHostsAsAreAskedFor) {
  Side side(40);
  side.patch(begin());
  side.publications = 0;
  side.patch(hosts(100));
  EXPECT_EQ(side.publications, 3);
  EXPECT_EQ(side.world.hosts->hosts(), 100U);
}

TEST(BatchTest, EndsWithTheVni) {
  Side side(128);
  side.patch(begin());
  json both = hosts(5);
  both["controller"]["fdb"]["5020"] = both["controller"]["fdb"]["5010"];
  side.patch(both);
  side.publications = 0;
  side.patch(
      json::parse(R"({"controller":{"fdb":{"5010":{"macVtepTable":null},"5020":{"macVtepTable":null}}}})"));
  EXPECT_EQ(side.publications, 2);
  EXPECT_EQ(side.world.hosts->hosts(), 0U);
}

}  // namespace
