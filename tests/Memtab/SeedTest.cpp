// The seed of a table: drawn when it is made, kept when it is adopted, and what it is for: keys that a
// stranger chose to collide do not. Ways are counted in the table, not timed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Hosts.h"
#include "Memtab/Name.h"
#include "bench/Memtab/Colliding.h"
#include "bench/Memtab/Ways.h"

namespace Memtab::Test {
namespace {

using MemtabBench::Ways;

std::uint64_t seedOf(const std::string& name) {
  return Segment::forReader(name, schema, nullptr).description().seed;
}

std::vector<Key> orderOf(const HostWriter& writer) {
  std::vector<Key> order;
  for (auto record = writer.first(); record; record = writer.next(record->first)) {
    order.push_back(record->first);
  }
  return order;
}

TEST(Seed, EachTableThatIsMadeDrawsItsOwn) {
  const Name one;
  const Name other;
  const HostWriter first(optionsFor(one));
  const HostWriter second(optionsFor(other));
  EXPECT_NE(seedOf(one.text()), seedOf(other.text()));
  EXPECT_NE(seedOf(one.text()), 0u);
  EXPECT_NE(seedOf(one.text()) >> 32U, 0u) << "both halves are drawn";
  EXPECT_NE(seedOf(one.text()) << 32U, 0u);
}

TEST(Seed, ThatIsGivenIsTaken) {
  for (const std::uint64_t seed : {std::uint64_t{0}, std::uint64_t{0x1234'5678'9abc'def0U}}) {
    const Name name;
    Options options = optionsFor(name);
    options.seed = seed;
    const HostWriter writer(options);
    EXPECT_EQ(seedOf(name.text()), seed);
  }
}

TEST(Seed, IsKeptByTheNextWriterWhateverItWouldTakeItself) {
  const Name name;
  std::uint64_t seed = 0;
  std::vector<Key> order;
  {
    HostWriter writer(optionsFor(name));
    for (Key key = 0; key < 500; ++key) {
      writer.is(key, hostOf(key, 1));
    }
    writer.publish();
    seed = seedOf(name.text());
    order = orderOf(writer);
  }
  Options options = optionsFor(name);
  options.seed = ~seed;
  HostWriter next(options);
  EXPECT_TRUE(next.adopted());
  EXPECT_EQ(seedOf(name.text()), seed);
  EXPECT_EQ(orderOf(next), order);
  next.is(1000, hostOf(1000, 1));
  next.publish();
  HostReader reader(name.text(), schema);
  EXPECT_EQ(reader.find(1000), hostOf(1000, 1));
  EXPECT_EQ(reader.find(3), hostOf(3, 1));
}

TEST(Seed, OfATableInPlaceOfADamagedOneIsAnother) {
  const Name name;
  Options options = optionsFor(name);
  options.replaceDamaged = true;
  { const HostWriter writer(options); }
  const std::uint64_t seed = seedOf(name.text());
  const Segment segment = Segment::forWriter(options, {sizeof(Key), sizeof(Host)});
  segment.heads()[0].store(Format::bucketBit);  // a circle
  HostWriter writer(options);
  ASSERT_TRUE(writer.replacing());
  writer.takePlace();
  EXPECT_NE(seedOf(name.text()), seed);
}

// The ways in a table of KEYS, made with SEED or with one that it draws.
Ways waysOf(const std::vector<Key>& keys, const std::optional<std::uint64_t>& seed) {
  const Name name;
  Options options = optionsFor(name);
  options.seed = seed;
  HostWriter writer(options);
  for (const Key key : keys) {
    writer.is(key, hostOf(key, 1));
  }
  writer.publish();
  HostReader reader(name.text(), schema);
  for (const Key key : keys) {
    EXPECT_TRUE(reader.find(key).has_value());
  }
  return MemtabBench::waysIn(Segment::forReader(name.text(), schema, nullptr));
}

std::vector<Key> randomHostKeys(std::size_t count, std::mt19937_64& random) {
  std::vector<Key> keys;
  while (keys.size() < count) {
    const Key key = random();
    if (MemtabBench::isHostKey(key)) {
      keys.push_back(key);
    }
  }
  return keys;
}

// 60,000 stretches of a Poisson number of records each, with a mean below two: more than this in any of them
// has a probability below 10^-13.
constexpr std::size_t longestEver = 24;

TEST(Seed, MakesCollidingHostsCostWhatRandomOnesDo) {
  constexpr std::size_t hosts = 60'000;
  const std::uint64_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  const Ways ordinary = waysOf(randomHostKeys(hosts, random), std::nullopt);
  const Ways colliding = waysOf(MemtabBench::collidingKeys(hosts, 20, 0), std::nullopt);
  EXPECT_EQ(colliding.records, hosts);
  EXPECT_LE(colliding.longest, longestEver);
  EXPECT_LE(ordinary.longest, longestEver);
  EXPECT_LT(colliding.mean(), 1.2 * ordinary.mean());
}

TEST(Seed, ThatIsKnownLeavesThemInOneBucket) {
  constexpr std::size_t hosts = 2000;
  constexpr std::uint64_t known = 0xfeed'beef;
  EXPECT_EQ(waysOf(MemtabBench::collidingKeys(hosts, 20, 0), 0).longest, hosts);
  EXPECT_EQ(waysOf(MemtabBench::collidingKeys(hosts, 20, known), known).longest, hosts);
  EXPECT_LE(waysOf(MemtabBench::collidingKeys(hosts, 20, known), 0).longest, longestEver);
}

}  // namespace
}  // namespace Memtab::Test
