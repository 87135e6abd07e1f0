// The newest records overwrite the oldest of their level.

#include <algorithm>
#include <cstring>
#include <deque>
#include <numeric>
#include <random>

#include "Scenario.h"

using testing::ElementsAre;

namespace RingLog {

// Reaches into a log for what otherwise takes a day.
class LogProbe {
 public:
  // Makes the block that a level is writing as old as its records' ticks can count, and older.
  static void outlive(Log& log, unsigned level) { log.rings_[level].baseHigh -= 0x10000; }
};

}  // namespace RingLog

namespace {

namespace Format = RingLog::Format;

constexpr std::size_t blockRoom = RingLog::Format::maxRecordBytes;
constexpr std::size_t numberBytes = 16;  // a record of one number

std::deque<std::string> onLevel(const RingLog::Trace& trace, unsigned level) {
  std::deque<std::string> result;
  for (const RingLog::Record& record : trace.records()) {
    if (record.place->level == level) {
      result.push_back(record.message());
    }
  }
  return result;
}

std::vector<std::uint64_t> countUpTo(std::uint64_t end, std::size_t size) {
  std::vector<std::uint64_t> result(size);
  std::iota(result.begin(), result.end(), end - size);
  return result;
}

void recordNumbers(RingLog::Log& log, std::uint64_t from, std::uint64_t end) {
  for (std::uint64_t i = from; i < end; ++i) {
    RINGLOG(log, 8, i);
  }
}

}  // namespace

TEST(Ring, KeepsEverythingUntilItsLastBlockIsFull) {
  const auto log = openInMemory({.ringKiB = 4});
  const std::uint64_t room = 4 * (blockRoom / numberBytes);
  recordNumbers(*log, 0, room);
  EXPECT_EQ(numbers(readBack(*log)), countUpTo(room, room));
}

TEST(Ring, GivesUpItsOldestBlockForTheNextRecord) {
  const auto log = openInMemory({.ringKiB = 4});
  const std::uint64_t block = blockRoom / numberBytes;
  recordNumbers(*log, 0, 4 * block + 1);
  EXPECT_EQ(numbers(readBack(*log)), countUpTo(4 * block + 1, 3 * block + 1));
}

TEST(Ring, HoldsTheNewestAfterManyTurns) {
  const auto log = openInMemory({.ringKiB = 31});
  const std::uint64_t block = blockRoom / numberBytes;
  recordNumbers(*log, 0, 1000 * block);
  EXPECT_EQ(numbers(readBack(*log)), countUpTo(1000 * block, 31 * block));
}

// 33 KiB are eleven blocks of three.
TEST(Ring, OfTheUsualSizeHasLargeBlocks) {
  const auto log = openInMemory();
  const std::uint64_t block = (3072 - sizeof(Format::BlockHeader)) / numberBytes;
  recordNumbers(*log, 0, 1000 * block);
  const RingLog::Trace full = readBack(*log);
  EXPECT_EQ(numbers(full), countUpTo(1000 * block, 11 * block));
  EXPECT_EQ(full.info().ringBytes, 33U * 1024);
  recordNumbers(*log, 1000 * block, 1000 * block + 1);
  EXPECT_EQ(numbers(readBack(*log)), countUpTo(1000 * block + 1, 10 * block + 1));
}

// A reader of version 1 knows small blocks only.
TEST(Ring, SaysVersionTwoWhereItsBlocksAreLarge) {
  const auto versionOf = [](std::size_t ringKiB) {
    const auto log = openInMemory({.ringKiB = ringKiB});
    Format::Header header{};
    std::memcpy(&header, log->image().data(), sizeof header);
    EXPECT_EQ(header.blockBytes * header.blocksPerRing, ringKiB * 1024);
    return std::pair(header.version, header.blockBytes);
  };
  EXPECT_EQ(versionOf(31), std::pair(1U, 1024U));
  EXPECT_EQ(versionOf(14), std::pair(1U, 1024U)) << "seven blocks of 2 KiB would be too few";
  EXPECT_EQ(versionOf(16), std::pair(2U, 2048U));
  EXPECT_EQ(versionOf(33), std::pair(2U, 3072U));
  EXPECT_EQ(versionOf(32), std::pair(2U, 4096U));
  EXPECT_EQ(versionOf(60), std::pair(2U, 4096U)) << "the largest of those that fit";
}

// In a burst most blocks do not ask the clock: their records get their time from the others.
TEST(Ring, HasRisingTimesAlsoInABurst) {
  const std::int64_t tolerance = 1'000'000;  // UTC itself may be adjusted meanwhile
  const auto log = openInMemory();
  recordNumbers(*log, 0, 100000);
  const std::int64_t after = RingLog::detail::nanoseconds(CLOCK_REALTIME);
  const RingLog::Trace trace = readBack(*log);
  std::int64_t last = trace.info().opened;
  for (const RingLog::Record& record : trace.records()) {
    ASSERT_GE(record.time, last);
    last = record.time;
  }
  EXPECT_LE(last, after + tolerance);
}

TEST(Ring, IsIndependentOfTheOtherLevels) {
  const auto log = openInMemory();
  RINGLOG(*log, 7, "rare ", 1U);
  recordNumbers(*log, 0, 100000);
  RINGLOG(*log, 7, "rare ", 2U);
  EXPECT_THAT(onLevel(readBack(*log), 7), ElementsAre("rare 1", "rare 2"));
}

TEST(Ring, TakesTheLargestRecordThatFitsIntoABlock) {
  const auto log = openInMemory({.ringKiB = 2});
  const std::string text(RingLog::Format::maxTextBytes, 'x');
  for (unsigned i = 0; i < 5; ++i) {
    RINGLOG(*log, 8, i, text, text, text, text, text, text, text, text, text, text, text, text, text, text,
            text);
  }
  const auto read = readBack(*log);
  ASSERT_EQ(read.records().size(), 2U) << "one to a block";
  EXPECT_EQ(numbers(read), (std::vector<std::uint64_t>{3, 4}));
  EXPECT_EQ(read.records()[0].message(), "3" + std::string(15 * text.size(), 'x'));
}

TEST(Ring, BeginsANewBlockWhenTicksNoLongerCountFromTheBaseOfTheOld) {
  const auto log = openInMemory();
  recordNumbers(*log, 0, 2);
  RingLog::LogProbe::outlive(*log, 8);
  recordNumbers(*log, 2, 4);
  const RingLog::Trace trace = readBack(*log);
  EXPECT_EQ(numbers(trace), countUpTo(4, 4));
  std::vector<std::uint64_t> blocks;
  for (const RingLog::Record& record : trace.records()) {
    blocks.push_back(record.block);
  }
  EXPECT_THAT(blocks, ElementsAre(1, 1, 2, 2));
}

namespace {

// Records of random size on random levels, and beside each level a plain list of what was recorded there.
class RandomRecording {
 public:
  RandomRecording(unsigned seed, RingLog::Log& log) : random_(seed), log_(log) {}

  void go(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      const std::string text(random_() % 70, static_cast<char>('a' + random_() % 26));
      const std::size_t level = random_() % log_.levels();
      RingLog::Site& site = sites_[level];
      log_.record(site, i, ":", text);
      recorded_[level].push_back(std::to_string(i) + ":" + text.substr(0, RingLog::Format::maxTextBytes));
    }
  }

  const std::deque<std::string>& recorded(unsigned level) const { return recorded_[level]; }

 private:
  std::mt19937 random_;
  RingLog::Log& log_;
  RingLog::Site sites_[3] = {{0, "f", "x.cpp", 0}, {1, "f", "x.cpp", 1}, {2, "f", "x.cpp", 2}};
  std::deque<std::string> recorded_[3];
};

}  // namespace

// Each level has the end of its list without a gap, and as much as fits into all its blocks but one.
TEST(Ring, HasTheEndOfWhatWasRecordedWhateverTheSizes) {
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::size_t ringKiB = 2 + seed % 4;
    const auto log = openInMemory({.levels = 3, .ringKiB = ringKiB});
    RandomRecording recording(seed, *log);
    recording.go(seed * 3);
    const RingLog::Trace trace = readBack(*log);
    constexpr std::size_t largest = 80;
    for (unsigned level = 0; level < 3; ++level) {
      const std::deque<std::string> kept = onLevel(trace, level);
      std::deque<std::string> expected = recording.recorded(level);
      const std::size_t atLeast = std::min(expected.size(), (ringKiB - 1) * (blockRoom / largest));
      ASSERT_GE(kept.size(), atLeast);
      expected.erase(expected.begin(), expected.end() - static_cast<std::ptrdiff_t>(kept.size()));
      ASSERT_EQ(kept, expected);
    }
  }
}
