// The table of hosts that also knows the hosts of each VLAN, beside a plain model.
#include <map>
#include <random>

#include "Refusal.h"
#include "Vxlan/types/VlanTable.h"

namespace {

using Bridging::MacVlanPair;
using Bridging::VlanId;
using Table = Vxlan::VlanTable<MacVlanPair, int>;

MacVlanPair key(std::uint64_t mac, std::uint32_t vlan) {
  return {Qnet::EthAddr(mac), VlanId(vlan)};
}

std::vector<MacVlanPair> ofVlan(const Table& table, std::uint32_t vlan) {
  std::vector<MacVlanPair> keys;
  for (const MacVlanPair& at : table.ofVlan(VlanId(vlan))) {
    keys.push_back(at);
  }
  return keys;
}

// The hosts of a VLAN are met in the order in which they came, and no others.
TEST(VlanTableTest, AVlanIsWalkedInTheOrderOfArrival) {
  Table table;
  table.emplace(key(3, 10), 0);
  table.emplace(key(1, 20), 0);
  table.emplace(key(1, 10), 0);
  table.emplace(key(2, 10), 0);
  EXPECT_EQ(ofVlan(table, 10), (std::vector{key(3, 10), key(1, 10), key(2, 10)}));
  EXPECT_EQ(ofVlan(table, 20), std::vector{key(1, 20)});
  EXPECT_TRUE(ofVlan(table, 4094).empty());
  EXPECT_FALSE(table.emplace(key(1, 10), 5).second) << "it is there already";
  EXPECT_EQ(ofVlan(table, 10).size(), 3U);
  EXPECT_FALSE(table.erase(key(9, 10)));
}

// The first, the middle and the last of a VLAN can go; the others stay linked.
TEST(VlanTableTest, AnyHostOfAVlanCanGo) {
  for (const std::uint64_t gone : {1U, 2U, 3U}) {
    Table table;
    std::vector<MacVlanPair> left;
    for (const std::uint64_t mac : {1U, 2U, 3U}) {
      table.emplace(key(mac, 10), 0);
      if (mac != gone) {
        left.push_back(key(mac, 10));
      }
    }
    EXPECT_TRUE(table.erase(key(gone, 10)));
    EXPECT_EQ(ofVlan(table, 10), left);
    table.emplace(key(gone, 10), 0);
    left.push_back(key(gone, 10));
    EXPECT_EQ(ofVlan(table, 10), left);
  }
}

// The walk may remove the host that it is at.
TEST(VlanTableTest, AWalkMayRemoveWhatItIsAt) {
  Table table;
  for (std::uint64_t mac = 0; mac < 100; ++mac) {
    table.emplace(key(mac, 10), 0);
    table.emplace(key(mac, 20), 0);
  }
  for (const MacVlanPair& at : table.ofVlan(VlanId(10U))) {
    table.erase(at);
  }
  EXPECT_TRUE(ofVlan(table, 10).empty());
  EXPECT_EQ(ofVlan(table, 20).size(), 100U);
  EXPECT_EQ(table.size(), 100U);
}

// More hosts than one block of links holds, with whole blocks free in between.
TEST(VlanTableTest, ThousandsOfHostsStayLinked) {
  Table table;
  for (std::uint64_t mac = 0; mac < 7000; ++mac) {
    table.emplace(key(mac, static_cast<std::uint32_t>(10 + mac % 3)), 0);
  }
  for (std::uint64_t mac = 1000; mac < 6500; ++mac) {
    EXPECT_TRUE(table.erase(key(mac, static_cast<std::uint32_t>(10 + mac % 3))));
  }
  for (std::uint64_t mac = 5000; mac < 5100; ++mac) {
    table.emplace(key(mac, 10), 0);
  }
  std::vector<MacVlanPair> expected;
  for (std::uint64_t mac = 0; mac < 7000; ++mac) {
    if (mac % 3 == 0 && (mac < 1000 || mac >= 6500)) {
      expected.push_back(key(mac, 10));
    }
  }
  for (std::uint64_t mac = 5000; mac < 5100; ++mac) {
    expected.push_back(key(mac, 10));
  }
  EXPECT_EQ(ofVlan(table, 10), expected);
}

// The start-of-table bookmark, of no VLAN, is a key like any other.
TEST(VlanTableTest, TheBookmarkIsAKeyLikeAnyOther) {
  Table table;
  table.emplace(MacVlanPair(), 7);
  EXPECT_EQ(*table.find(MacVlanPair()), 7);
  EXPECT_TRUE(table.erase(MacVlanPair()));
  EXPECT_TRUE(table.empty());
}

// Random changes, compared with a map beside the table after each of them.
TEST(VlanTableTest, RandomChangesAgreeWithAPlainModel) {
  constexpr std::uint64_t seeds = 300;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    Table table;
    std::map<MacVlanPair, int> model;
    std::map<std::uint32_t, std::vector<MacVlanPair>> arrival;
    for (int step = 0; step < 400; ++step) {
      const MacVlanPair at = key(random() % 40, 1 + static_cast<std::uint32_t>(random() % 4));
      auto& order = arrival[at.vlan.value()];
      if (random() % 5 < 3) {
        const bool added = table.emplace(at, step).second;
        ASSERT_EQ(added, model.emplace(at, step).second);
        if (added) {
          order.push_back(at);
        }
      } else {
        ASSERT_EQ(table.erase(at), model.erase(at) == 1);
        std::erase(order, at);
      }
      ASSERT_EQ(table.size(), model.size());
      const int* found = table.find(at);
      ASSERT_EQ(found != nullptr, model.contains(at));
      ASSERT_EQ(ofVlan(table, at.vlan.value()), order);
    }
    std::map<MacVlanPair, int> walked;
    for (auto&& pair : table) {
      walked.emplace(pair.key, pair.value);
    }
    ASSERT_EQ(walked, model);
  }
  std::cout << "seeds 1 to " << seeds << '\n';
}

}  // namespace
