// The seed of the hashed table: nothing that a table shows depends on it, and who does not know it cannot
// choose keys that collide.
#include <gmock/gmock.h>

#include <cstdint>
#include <set>
#include <vector>

#include "Kel/HashIndex.h"
#include "Kel/Table.h"
#include "Random.h"

namespace {

using Kel::HashIndex;
using Kel::Table;

// A seed for as long as it lives; what was there before behind it.
class Seed {
 public:
  explicit Seed(std::uint64_t seed) { Kel::tableSeedIs(seed); }
  Seed(const Seed&) = delete;
  Seed& operator=(const Seed&) = delete;
  ~Seed() { Kel::tableSeedIs(before_); }

 private:
  const std::uint64_t before_ = Kel::tableSeed();
};

// What mixHash makes `hash` of.
std::uint64_t unmixed(std::uint64_t hash) {
  const auto inverse = [](std::uint64_t factor) {
    std::uint64_t result = factor;  // right in three bits, twice as many with each step
    for (int step = 0; step < 5; ++step) {
      result *= 2 - factor * result;
    }
    return result;
  };
  hash ^= hash >> 33;
  hash *= inverse(0xc4ceb9fe1a85ec53ULL);
  hash ^= hash >> 33;
  hash *= inverse(0xff51afd7ed558ccdULL);
  return hash ^ hash >> 33;
}

// So many keys that all have one hash where the seed is zero.
std::vector<std::uint64_t> colliding(std::uint32_t count) {
  std::vector<std::uint64_t> keys;
  for (std::uint32_t key = 0; key < count; ++key) {
    keys.push_back(unmixed(std::uint64_t{0x12345678} << 32 | key));
  }
  return keys;
}

// The walk over a table after a random life of insertions and deletions.
std::vector<std::uint64_t> lifeWith(std::uint64_t seed, std::uint64_t program) {
  const Seed fixed(seed);
  scenario::Random random(program);
  Table<std::uint64_t, int> table;
  for (int step = 0; step < 6000; ++step) {
    const std::uint64_t key = random.below(3000);
    if (random.below(3) == 0) {
      table.erase(key);
    } else {
      table.emplace(key, step);
    }
  }
  std::vector<std::uint64_t> walk;
  for (auto&& pair : table) {
    walk.push_back(pair.key);
  }
  return walk;
}

TEST(SeedTest, TheOrderOfAWalkDoesNotDependOnIt) {
  for (std::uint64_t program = 1; program <= 5; ++program) {
    SCOPED_TRACE("program " + std::to_string(program));
    const std::vector<std::uint64_t> walk = lifeWith(0, program);
    ASSERT_GT(walk.size(), 1000U);
    for (const std::uint64_t seed : {1ULL, 0x123456789abcdefULL, ~0ULL}) {
      EXPECT_EQ(lifeWith(seed, program), walk) << "seed " << seed;
    }
  }
}

TEST(SeedTest, DecidesAboutTheHash) {
  const std::vector<std::uint64_t> keys = colliding(1000);
  for (const std::uint64_t seed : {0ULL, 1ULL, 0x123456789abcdefULL}) {
    std::set<std::uint32_t> hashes;
    for (const std::uint64_t key : keys) {
      hashes.insert(Kel::seededHash(key, seed));
    }
    if (seed == 0) {
      EXPECT_EQ(hashes.size(), 1U) << "the keys are not what they are to be";
    } else {
      EXPECT_GT(hashes.size(), 990U) << "seed " << seed;
    }
  }
}

TEST(SeedTest, IsRandomUnlessItIsSet) {
  EXPECT_EQ(Kel::tableSeed(), Kel::tableSeed());
  const Seed fixed(7);
  EXPECT_EQ(Kel::tableSeed(), 7U);
}

TEST(SeedTest, ATableThatHasKeysKeepsTheSeedThatItHas) {
  const Seed first(1);
  Table<std::uint64_t, std::uint64_t> table;
  table.emplace(5, 5U);
  const Seed second(2);
  for (std::uint64_t key = 6; key < 5000; ++key) {
    table.emplace(key, key);
  }
  for (std::uint64_t key = 5; key < 5000; ++key) {
    ASSERT_NE(table.find(key), nullptr) << key;
    ASSERT_EQ(*table.find(key), key);
  }
}

TEST(SeedTest, ATableThatWasEmptiedTakesTheSeedOfTheTime) {
  const Seed before(0);
  Table<std::uint64_t, int> table;
  table.emplace(5, 5);
  table.erase(5);
  const Seed seed(0x9e3779b97f4a7c15ULL);
  for (const std::uint64_t key : colliding(1200)) {
    table.emplace(key, 1);
  }
  EXPECT_LT(table.longestSearch(), 200U);
}

TEST(SeedTest, ATablesSearchesAreShortForKeysThatCollideWithoutIt) {
  const std::vector<std::uint64_t> keys = colliding(1200);
  const auto longest = [&](std::uint64_t seed) {
    const Seed fixed(seed);
    Table<std::uint64_t, int> table;
    for (const std::uint64_t key : keys) {
      table.emplace(key, 1);
    }
    for (const std::uint64_t key : keys) {
      EXPECT_NE(table.find(key), nullptr) << key;
    }
    return table.longestSearch();
  };
  EXPECT_EQ(longest(0), 1199U) << "the keys are not what they are to be";
  EXPECT_LT(longest(1), 200U);
  EXPECT_LT(longest(0x123456789abcdefULL), 200U);
}

// Hashes that share the low bits, which choose the cell, and differ in the high ones, which choose the
// bucket.
TEST(SeedTest, AClusterMakesItsBucketGrow) {
  const Seed fixed(0);
  Table<std::uint64_t, int> table;
  for (std::uint32_t key = 0; key < 20'000; ++key) {
    const std::uint32_t hash = key * 0x9e3779b9U << 11 | 77;
    table.emplace(unmixed(std::uint64_t{hash} << 32 | key), 1);
  }
  EXPECT_EQ(table.size(), 20'000U);
  EXPECT_LT(table.longestSearch(), 400U);
}

}  // namespace
