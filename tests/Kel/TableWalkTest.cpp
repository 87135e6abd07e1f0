// Walks over tables that change under them.
#include <gmock/gmock.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Kel/OrderedTable.h"
#include "Kel/Table.h"
#include "Random.h"

namespace {

template <class Storage>
class TableWalkTest : public testing::Test {
 protected:
  void fill(std::uint32_t keys) {
    for (std::uint32_t key = 0; key < keys; ++key) {
      table.emplace(key, static_cast<int>(key));
    }
  }
  std::vector<std::uint32_t> walked() const {
    std::vector<std::uint32_t> keys;
    for (auto&& pair : table) {
      keys.push_back(pair.key);
    }
    return keys;
  }
  Storage table;
};
using Storages = testing::Types<Kel::Table<std::uint32_t, int>, Kel::OrderedTable<std::uint32_t, int>>;
TYPED_TEST_SUITE(TableWalkTest, Storages);

TYPED_TEST(TableWalkTest, ErasingTheCurrentElementGoesOnWithTheNext) {
  this->fill(200);
  std::vector<std::uint32_t> met;
  for (auto&& pair : this->table) {
    const std::uint32_t key = pair.key;
    met.push_back(key);
    this->table.erase(key);
  }
  EXPECT_EQ(met.size(), 200U);
  EXPECT_TRUE(this->table.empty());
}

TYPED_TEST(TableWalkTest, ReplacingValuesKeepsTheOrder) {
  this->fill(200);
  const std::vector<std::uint32_t> before = this->walked();
  std::vector<std::uint32_t> met;
  for (auto&& pair : this->table) {
    met.push_back(pair.key);
    pair.value = -1;
    *this->table.find(199 - pair.key) = -2;
  }
  EXPECT_EQ(met, before);
  EXPECT_EQ(this->walked(), before);
}

TYPED_TEST(TableWalkTest, ErasingKeepsTheOrderOfTheRest) {
  this->fill(200);
  std::vector<std::uint32_t> expected;
  for (const std::uint32_t key : this->walked()) {
    if (key % 3 != 0) {
      expected.push_back(key);
    }
  }
  for (std::uint32_t key = 0; key < 200; key += 3) {
    this->table.erase(key);
  }
  EXPECT_EQ(this->walked(), expected);
}

TYPED_TEST(TableWalkTest, AWalkIsResumedAtAKey) {
  this->fill(100);
  const std::vector<std::uint32_t> all = this->walked();
  std::vector<std::uint32_t> rest;
  for (auto at = this->table.at(all[40]); at; ++at) {
    rest.push_back(at->key);
  }
  EXPECT_EQ(rest, std::vector<std::uint32_t>(all.begin() + 40, all.end()));
  this->table.erase(all[40]);
  EXPECT_FALSE(this->table.at(all[40]));
}

TYPED_TEST(TableWalkTest, AWalkEndsWhenTheTableIsEmptiedUnderIt) {
  this->fill(100);
  int met = 0;
  for (auto at = this->table.begin(); at; ++at) {
    ++met;
    for (std::uint32_t key = 0; key < 100; ++key) {
      this->table.erase(key);
    }
  }
  EXPECT_EQ(met, 1);
}

TYPED_TEST(TableWalkTest, AWalkGoesOnInATableThatWasFilledAnew) {
  this->fill(100);
  std::set<std::uint32_t> met;
  auto at = this->table.begin();
  this->table.clear();
  this->fill(300);
  for (++at; at; ++at) {
    EXPECT_TRUE(met.insert(at->key).second);
  }
  EXPECT_GE(met.size(), 299U);
}

// At every step of a walk something else may be erased, replaced or added, also so much that the table grows.
// What was there from beginning to end is met exactly once, nothing is met twice that was not erased and
// added again.
TYPED_TEST(TableWalkTest, WhatStaysIsMetOnceWhateverElseHappens) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    scenario::Random random(seed);
    this->table.clear();
    this->fill(1 + random.below(300));
    std::set<std::uint32_t> stayed;
    for (const std::uint32_t key : this->walked()) {
      stayed.insert(key);
    }
    std::map<std::uint32_t, int> met;
    std::uint32_t fresh = 1'000;
    for (auto at = this->table.begin(); at; ++at) {
      const std::uint32_t key = at->key;
      ++met[key];
      for (std::uint32_t changes = random.below(4); changes > 0; --changes) {
        const std::uint32_t other = random.below(2) == 0 ? key : random.below(300);
        switch (random.below(3)) {
          case 0:
            if (this->table.erase(other)) {
              stayed.erase(other);
            }
            break;
          case 1:
            if (int* value = this->table.find(other)) {
              *value = -1;
            }
            break;
          default:
            if (fresh < 1'400) {
              this->table.emplace(fresh++, 0);
            }
        }
      }
    }
    for (const std::uint32_t key : stayed) {
      ASSERT_EQ(met[key], 1) << "key " << key;
    }
    for (const auto& [key, times] : met) {
      ASSERT_EQ(times, 1) << "key " << key;
    }
  }
}

}  // namespace
