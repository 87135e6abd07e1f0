// A VLAN that loses its VNI on a VTI takes along every machine whose VNI that VTI does not map. Random lives,
// compared with that sentence; how the tracker finds those machines must not show.
#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>

#include "Scenario.h"

namespace {

using namespace scenario;

class LostVlansTest : public Scenario {
 protected:
  static constexpr std::uint32_t vnis = 40;
  static constexpr std::uint32_t vlans = 50;
  using Map = std::map<std::uint32_t, std::uint32_t>;  // a VTI's VNI by VLAN

  void SetUp() override {
    for (const char* const name : names) {
      givenVti(name);
      givenMap(name);
    }
    for (std::uint32_t number = 1; number <= vnis; ++number) {
      givenVni(number);
    }
    start();
  }

  static bool has(const Map& map, std::uint32_t vniNumber) {
    return std::any_of(map.begin(), map.end(), [&](const auto& one) { return one.second == vniNumber; });
  }
  void mapOne(std::size_t at) {
    const std::uint32_t number = 1 + pick(vnis);
    if (has(maps[at], number)) {
      return;
    }
    const std::uint32_t vlanNumber = 1 + pick(vlans);
    maps[at][vlanNumber] = number;
    if (on) {
      machined.insert(number);
    }
    mapVlan(names[at], vlanNumber, number);
  }
  void unmapOne(std::size_t at) {
    const std::uint32_t vlanNumber = 1 + pick(vlans);
    if (maps[at].erase(vlanNumber) == 0) {
      return;
    }
    if (on) {
      std::erase_if(machined, [&](const std::uint32_t number) { return !has(maps[at], number); });
    }
    unmapVlan(names[at], vlanNumber);
  }
  void modeIs(bool wanted) {
    on = wanted;
    for (const char* const name : names) {
      vtiStatus(name)->controllerClientModeIs(wanted);
    }
    machined.clear();
    for (std::uint32_t number = 1; on && number <= vnis; ++number) {
      if (has(maps[0], number) || has(maps[1], number)) {
        machined.insert(number);
      }
    }
  }
  std::uint32_t pick(std::uint32_t below) { return static_cast<std::uint32_t>(random() % below); }
  std::string expected() const {
    std::string all;
    for (const std::uint32_t number : machined) {
      all += std::to_string(number) + ' ';
    }
    return all;
  }

  static constexpr std::array names{"Vxlan1", "Vxlan2"};
  std::mt19937_64 random;
  std::array<Map, 2> maps;
  std::set<std::uint32_t> machined;
  bool on = true;
};

TEST_F(LostVlansTest, TheMachinesAreThoseThatTheSentenceSays) {
  const std::uint64_t seed = 20261122;
  random.seed(seed);
  std::cout << "seed " << seed << '\n';
  for (int step = 0; step < 6000; ++step) {
    const std::size_t at = pick(2);
    if (pick(400) == 0) {
      modeIs(!on);
    } else if (pick(2) == 0) {
      mapOne(at);
    } else {
      unmapOne(at);
    }
    ASSERT_EQ(machines(), expected()) << "step " << step;
  }
}

// Also after more losses than are remembered, none of which was acted on.
TEST_F(LostVlansTest, MoreLossesThanAreRememberedAreFoundAllTheSame) {
  for (std::uint32_t number = 1; number <= vnis; ++number) {
    mapVlan("Vxlan1", number, number);
  }
  unmapVlan("Vxlan1", 40);
  Kel::ActivityLoop::instance().asHandler([&] {
    for (std::uint32_t number = 1; number <= 10; ++number) {
      mapVlan("Vxlan1", number, 1000 + number);  // VNI `number` loses its VLAN, and nothing sweeps
    }
    for (int round = 0; round < 300; ++round) {
      mapVlan("Vxlan1", 11, round % 2 == 0 ? 12345 : 11);
    }
  });
  EXPECT_EQ(machines().substr(0, 6), "1 2 3 ");
  unmapVlan("Vxlan1", 39);
  EXPECT_EQ(machines().substr(0, 6), "11 12 ");
}

// In the order in which the machines stand in their table, whatever lost its VLAN first.
TEST_F(LostVlansTest, TheMachinesGoInTheOrderOfTheirTable) {
  for (const std::uint32_t number : {7U, 3U, 9U, 5U}) {
    mapVlan("Vxlan1", number, number);
  }
  unmapVlan("Vxlan1", 5);
  for (const std::uint32_t number : {9U, 3U, 7U}) {
    mapVlan("Vxlan1", number, 100 + number);
  }
  mapVlan("Vxlan2", 8, 8);
  mapVlan("Vxlan1", 20, 20);
  traceFromNow();
  unmapVlan("Vxlan1", 20);
  std::vector<std::string> gone;
  for (const std::string& line : lines) {
    if (const auto at = line.find("Deleting rmxPerVniFdbStatusSm for vni "); at != std::string::npos) {
      gone.push_back(line.substr(line.rfind(' ') + 1));
    }
  }
  EXPECT_EQ(gone, (std::vector<std::string>{"7", "3", "9", "8", "20"}));
}

// A machine that another VTI's map brought, and one whose tracker follows another map.
TEST_F(LostVlansTest, AnotherMapOfTheTrackerIsSweptAsAWhole) {
  mapVlan("Vxlan1", 10, 10);
  mapVlan("Vxlan1", 11, 11);
  mapVlan("Vxlan1", 12, 12);
  unmapVlan("Vxlan1", 12);
  const auto fresh = Kel::make<Vxlan::VlanVniMap>();
  fresh->mappingIs(vlan(11), vni(11));
  fresh->mappingIs(vlan(13), vni(13));
  client->vlanVniMapSmShadow(vti("Vxlan1"))->vlanVniMapIs(fresh);
  EXPECT_EQ(machines(), "10 11 ");
  fresh->mappingDel(vlan(13));
  EXPECT_EQ(machines(), "11 ");
}

}  // namespace
