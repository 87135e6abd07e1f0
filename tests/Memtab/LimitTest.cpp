// The limit of a table, its growth, and walks through it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <set>

#include "Hosts.h"

namespace Memtab::Test {
namespace {

using testing::HasSubstr;

std::string messageOf(const std::function<void()>& attempt) {
  try {
    attempt();
  } catch (const Error& error) {
    return error.what();
  }
  return "(no error)";
}

TEST(Limit, AFullTableRefusesTheNextRecordAndKeepsTheRest) {
  const Name name;
  HostWriter writer(optionsFor(name, 100));
  HostReader reader(name.text(), schema);
  Stamps expected;
  for (Key key = 0; key < 100; ++key) {
    writer.is(key, hostOf(key, 1));
    expected[key] = 1;
  }
  EXPECT_EQ(messageOf([&] { writer.is(100, hostOf(100, 1)); }),
            "memtab " + name.text() + ": full: it has its limit of 100 records");
  EXPECT_THROW(writer.is(100, hostOf(100, 1)), Full);
  writer.is(5, hostOf(5, 2));
  expected[5] = 2;
  writer.publish();
  EXPECT_EQ(contentOf(writer), expected);
  EXPECT_EQ(contentOf(reader), expected);

  writer.del(7);
  writer.is(100, hostOf(100, 1));
  expected.erase(7);
  expected[100] = 1;
  EXPECT_THROW(writer.is(7, hostOf(7, 1)), Full) << "a deleted key needs room to come back";
  writer.publish();
  EXPECT_EQ(contentOf(reader), expected);
}

TEST(Limit, OneTurnMayReplaceAllRecordsOfAFullTableByOthers) {
  const Name name;
  HostWriter writer(optionsFor(name, 50));
  HostReader reader(name.text(), schema);
  for (Key round = 0; round < 20; ++round) {
    const Stamps before = contentOf(reader);
    Stamps after;
    for (Key key = round * 50; key < round * 50 + 50; ++key) {
      writer.del(key - 50);
      writer.is(key, hostOf(key, round));
      after[key] = round;
    }
    EXPECT_EQ(contentOf(reader), before);
    writer.publish();
    EXPECT_EQ(contentOf(reader), after);
  }
}

TEST(Limit, SlotsAreFoundAmongThoseThatMustWait) {
  // All slots in use, the one that waited longest deleted anew in this turn, another free to be swept.
  const Name name;
  HostWriter writer(optionsFor(name, 4));
  HostReader reader(name.text(), schema);
  std::mt19937_64 random(7);
  Stamps content;
  for (int step = 0; step < 20'000; ++step) {
    const Key key = random() % 12;
    if (content.contains(key)) {
      EXPECT_TRUE(writer.del(key));
      content.erase(key);
    } else if (content.size() < 4) {
      writer.is(key, hostOf(key, static_cast<std::uint64_t>(step)));
      content[key] = static_cast<std::uint64_t>(step);
    }
    if (random() % 6 == 0) {
      writer.publish();
      ASSERT_EQ(contentOf(reader), content);
    }
  }
}

TEST(Limit, WhatCannotBeIsRefusedAndNothingIsMade) {
  const Name name;
  const auto refusal = [&](auto change) {
    Options options = optionsFor(name);
    change(options);
    return messageOf([&] { HostWriter writer(options); });
  };
  EXPECT_THAT(refusal([](Options& o) { o.limit = 0; }), HasSubstr("limit 0 is not within 1 to 268435455"));
  EXPECT_THAT(refusal([](Options& o) { o.limit = std::size_t{1} << 28; }),
              HasSubstr("limit 268435456 is not within"));
  EXPECT_THAT(refusal([](Options& o) { o.schema = std::string(128, 's'); }),
              HasSubstr("schema of 128 bytes"));
  EXPECT_THAT(refusal([](Options& o) { o.fields = std::string(1024, 'f'); }),
              HasSubstr("description of 1024 bytes"));
  EXPECT_THAT(refusal([](Options& o) { o.fields = "key:u64"; }),
              HasSubstr("covers 8 bytes, a record has 112"));
  EXPECT_THAT(refusal([](Options& o) { o.name = "name"; }), HasSubstr("memtab name: not a name"));
  EXPECT_THAT(refusal([](Options& o) { o.name = "/no/such/folder/table"; }),
              HasSubstr("memtab /no/such/folder/table: its lock file /no/such/folder/table.lock cannot be "
                        "made: no such folder"));
  EXPECT_FALSE(Memtab::remove(name.text()));
}

// Puts a file system of one megabyte over FOLDER, for this process alone. False where that is not permitted.
bool coverWithOneMegabyte(const std::string& folder) {
  if (::unshare(CLONE_NEWNS) != 0) {
    const std::string users = "0 " + std::to_string(::getuid()) + " 1";
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !(std::ofstream("/proc/self/uid_map") << users)) {
      return false;
    }
  }
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", folder.c_str(), "tmpfs", 0, "size=1m") == 0;
}

// What FILL, called in a child with a path in such a file system, says; nothing where that is not permitted.
std::optional<std::string> withOneMegabyte(const std::function<std::string(const std::string&)>& fill) {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe(ends.data()), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const std::string folder = testing::TempDir();
    const std::string text = coverWithOneMegabyte(folder) ? fill(folder + "table") : "";
    ::_exit(::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  ::close(ends[1]);
  std::string text;
  std::array<char, 4096> some{};
  for (ssize_t bytes = 0; (bytes = ::read(ends[0], some.data(), some.size())) > 0;) {
    text.append(some.data(), static_cast<std::size_t>(bytes));
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

TEST(Limit, WithoutMemoryLeftTheInsertIsRefusedAndTheRestStays) {
  const auto text = withOneMegabyte([](const std::string& path) {
    std::string said;
    const std::string elsewhere = messageOf([&] {
      HostWriter writer(optionsFor(path));
      Stamps expected;
      said = messageOf([&] {
        for (Key key = 0;; ++key) {
          writer.is(key, hostOf(key, key));
          expected[key] = key;
        }
      });
      writer.publish();
      HostReader reader(path, schema);
      const bool kept =
          contentOf(writer) == expected && contentOf(reader) == expected && expected.size() > 5000;
      said += kept ? "; kept" : "; lost";
    });
    return said + "; " + elsewhere;
  });
  if (!text) {
    GTEST_SKIP() << "a file system of one's own is not permitted here";
  }
  EXPECT_THAT(
      *text, HasSubstr("/table: no memory for 262144 bytes more: No space left on device; kept; (no error)"));
}

TEST(Walk, MeetsEachRecordOnceAndGoesOnBehindAnyKey) {
  HostWriter writer(optionsFor(""));
  Stamps expected;
  for (Key key = 0; key < 10'000; ++key) {
    writer.is(key * 3, hostOf(key * 3, key));
    expected[key * 3] = key;
  }
  std::vector<Key> order;
  for (auto record = writer.first(); record; record = writer.next(record->first)) {
    order.push_back(record->first);
  }
  EXPECT_EQ(std::set<Key>(order.begin(), order.end()).size(), 10'000u);
  EXPECT_EQ(order.size(), 10'000u);
  for (std::size_t i = 0; i + 1 < order.size(); i += 100) {
    EXPECT_EQ(writer.next(order[i])->first, order[i + 1]);
    writer.del(order[i]);
    EXPECT_EQ(writer.next(order[i])->first, order[i + 1]) << "behind a key that was deleted";
    writer.publish();
    writer.sweep(10);
    EXPECT_EQ(writer.next(order[i])->first, order[i + 1]) << "behind a key whose slot was swept";
  }
}

TEST(Walk, IsNotDisturbedByErasingReplacingAndGrowth) {
  HostWriter writer(optionsFor(""));
  std::mt19937_64 random(3);
  std::set<Key> constant;
  for (Key key = 0; key < 5000; ++key) {
    writer.is(key, hostOf(key, 1));
    if (key % 3 != 0) {
      constant.insert(key);
    }
  }
  std::multiset<Key> met;
  Key fresh = 1'000'000;
  for (auto record = writer.first(); record; record = writer.next(record->first)) {
    const Key key = record->first;
    if (constant.contains(key)) {
      met.insert(key);
      writer.is(key, hostOf(key, 2));
    } else {
      writer.del(key);
    }
    if (fresh < 1'030'000) {
      writer.is(fresh, hostOf(fresh, 3));
      ++fresh;
    }
    if (random() % 16 == 0) {
      writer.publish();
    }
  }
  EXPECT_EQ(std::multiset<Key>(constant.begin(), constant.end()), met);
}

TEST(Walk, OrderDependsOnKeysAndSeedAlone) {
  const auto orderOf = [](std::uint64_t seed, bool backwards) {
    Options options = optionsFor("");
    options.seed = seed;
    HostWriter writer(options);
    for (Key i = 0; i < 1000; ++i) {
      const Key key = backwards ? 999 - i : i;
      writer.is(key, hostOf(key, 1));
    }
    std::vector<Key> order;
    for (auto record = writer.first(); record; record = writer.next(record->first)) {
      order.push_back(record->first);
    }
    return order;
  };
  EXPECT_EQ(orderOf(0, false), orderOf(0, true));
  EXPECT_EQ(orderOf(9, false), orderOf(9, true));
  EXPECT_NE(orderOf(0, false), orderOf(9, false));
}

TEST(Walk, TheKeyWhoseHashIsZeroIsTheFirstOfAll) {
  Options options = optionsFor("");
  options.seed = 0;
  HostWriter writer(options);
  for (Key key = 0; key < 1000; ++key) {
    writer.is(key, hostOf(key, 1));
  }
  EXPECT_EQ(writer.first()->first, 0u);
}

TEST(Keys, OfSeveralWordsAndOddSizesAreTold) {
  struct Pair {
    std::array<std::uint8_t, 6> mac;
    std::array<std::uint8_t, 13> rest;
  };
  struct Value {
    std::array<char, 3> text;
  };
  Options options = optionsFor("");
  Writer<Pair, Value> writer(options);
  Reader<Pair, Value> reader(writer);
  for (std::uint8_t i = 0; i < 200; ++i) {
    Pair key{};
    key.mac[i % 6] = i;
    key.rest[12] = i;
    writer.is(key, Value{{'v', static_cast<char>(i), '!'}});
  }
  writer.publish();
  EXPECT_EQ(writer.size(), 200u);
  for (std::uint8_t i = 0; i < 200; ++i) {
    Pair key{};
    key.mac[i % 6] = i;
    key.rest[12] = i;
    ASSERT_TRUE(reader.find(key));
    EXPECT_EQ(reader.find(key)->text[1], static_cast<char>(i));
  }
}

TEST(Growth, BucketHeadsComeAndGoWithTheSlotsInTheList) {
  const Name name;
  HostWriter writer(optionsFor(name, 10'000));
  const Segment segment = Segment::forReader(name.text(), schema, nullptr);
  const auto heads = [&] { return segment.state().buckets.load(); };
  for (Key key = 0; key < 10'000; ++key) {
    writer.is(key, hostOf(key, 1));
  }
  writer.publish();
  EXPECT_EQ(heads(), 10'000u);
  for (Key key = 0; key < 10'000; ++key) {
    writer.del(key);
  }
  EXPECT_EQ(heads(), 10'000u) << "deleted records are in the list until they are swept";
  writer.publish();
  EXPECT_EQ(writer.sweep(10'000), 0u);
  EXPECT_LE(heads(), 64u);
  EXPECT_EQ(contentOf(writer), Stamps());
}

TEST(Growth, OneHeadForEachSlotComesEightAtATimeAndTheFirstOnesAtOnce) {
  const Name name;
  HostWriter writer(optionsFor(name, 1000));
  const Segment segment = Segment::forReader(name.text(), schema, nullptr);
  for (Key key = 0; key < 1000; ++key) {
    writer.is(key, hostOf(key, 1));
    const auto records = static_cast<std::uint32_t>(key + 1);
    ASSERT_EQ(segment.state().buckets.load(), records < 8 ? records : records / 8 * 8);
  }
}

// As an older writer leaves it, which kept two heads for each record.
TEST(Growth, ATableWithMoreHeadsThanItNeedsKeepsThemUntilThereAreMoreThanTwice) {
  const Name name;
  HostWriter writer(optionsFor(name, 1000));
  const Segment segment = Segment::forReader(name.text(), schema, nullptr);
  const auto heads = [&] { return segment.state().buckets.load(); };
  for (Key key = 0; key < 1000; ++key) {
    writer.is(key, hostOf(key, 1));
  }
  writer.publish();
  std::size_t left = 1000;
  while (heads() == 1000) {
    writer.del(left - 1);
    writer.publish();
    writer.sweep(1);
    left -= 1;
  }
  EXPECT_EQ(left, 467u) << "the first number of which twice as many and 64 are less than 1,000";
  EXPECT_EQ(heads(), 992u);
}

TEST(Growth, IsSeenByAReaderThatWasThereBefore) {
  const Name name;
  HostWriter writer(optionsFor(name, 50'000));
  HostReader reader(name.text(), schema);
  Stamps expected;
  for (Key key = 0; key < 50'000; ++key) {
    writer.is(key, hostOf(key, key));
    expected[key] = key;
    if ((key & (key + 1)) == 0) {
      writer.publish();
      EXPECT_EQ(contentOf(reader), expected);
    }
  }
  writer.publish();
  EXPECT_EQ(contentOf(reader), expected);
  EXPECT_LT(writer.bytesTaken(), 50'000u * 140 + 512 * 1024);
}

}  // namespace
}  // namespace Memtab::Test
