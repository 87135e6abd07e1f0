// Files that are no trace, or no longer one: the reader says so, or reads what is still good. Never more.

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>

#include "RingLog/Decode.h"
#include "Scenario.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

namespace Format = RingLog::Format;

constexpr unsigned levels = 2;
constexpr std::size_t ringKiB = 2;
constexpr std::size_t siteKiB = 1;
constexpr std::size_t ringsBegin = Format::headerBytes + siteKiB * 1024;

using Image = std::vector<std::byte>;

// A trace with records of all kinds on two levels, wrapped on the first.
Image sample() {
  const auto log = openInMemory({.levels = levels, .ringKiB = ringKiB, .siteKiB = siteKiB});
  for (std::uint64_t i = 0; i < 200; ++i) {
    RINGLOG(*log, 0, i, " of many");
  }
  for (std::uint64_t i = 0; i < 5; ++i) {
    RINGLOG(*log, 1, i, true, 'c', 1.5, std::string("text"), RingLog::Mac{}, RingLog::Ipv4{}, nullptr, -1);
  }
  return copyOf(log->image());
}

Format::Header headerOf(const Image& image) {
  Format::Header header{};
  std::memcpy(&header, image.data(), sizeof header);
  return header;
}

// Puts a header in with the checksum that it should have: so well-made, it is its figures that must be
// refused.
void setHeader(Image& image, Format::Header header) {
  header.checksum = Format::checksum(&header, offsetof(Format::Header, checksum));
  std::memcpy(image.data(), &header, sizeof header);
}

template <class Change>
std::string refusalAfter(Change change) {
  Image image = sample();
  Format::Header header = headerOf(image);
  change(header);
  setHeader(image, header);
  return errorOf<RingLog::TraceError>([&] { RingLog::Trace::parse(image); });
}

std::string refusalOf(const Image& image) {
  return errorOf<RingLog::TraceError>([&] { RingLog::Trace::parse(image); });
}

std::byte* wordOf(Image& image, const RingLog::Record& record) {
  const std::size_t block = (record.block - 1) % ringKiB;
  return image.data() + ringsBegin + (record.place->level * ringKiB + block) * Format::smallBlockBytes +
         record.offset;
}

}  // namespace

TEST(Damage, IsNotFoundInAGoodTrace) {
  const RingLog::Trace trace = RingLog::Trace::parse(sample());
  EXPECT_EQ(trace.info().damagedBlocks, 0U);
  EXPECT_EQ(trace.info().tornRecords, 0U);
  EXPECT_EQ(trace.records().size(), 62U + 200 - 186 + 5);
}

TEST(Damage, ByTruncationIsFoundAtEveryLength) {
  const Image whole = sample();
  for (std::size_t size = 0; size < whole.size(); size += size < 700 ? 1 : 53) {
    const Image image(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    const std::string expected =
        size < Format::headerBytes
            ? "not a trace: " + std::to_string(size) + " bytes are too few for its header"
            : "truncated: " + std::to_string(size) + " of " + std::to_string(whole.size()) + " bytes";
    ASSERT_EQ(refusalOf(image), expected);
  }
}

TEST(Damage, OfAnyBitOfTheHeaderIsFound) {
  const Image whole = sample();
  for (std::size_t at = 0; at < offsetof(Format::Header, sitesUsed); ++at) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      Image image = whole;
      image[at] ^= std::byte{1} << bit;
      ASSERT_NE(refusalOf(image), "no error") << "byte " << at << " bit " << bit;
    }
  }
}

TEST(Damage, OfAnyBitOfTheSitesIsFoundAndLocated) {
  const Image whole = sample();
  for (std::size_t at = 0; at < headerOf(whole).sitesUsed; ++at) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      Image image = whole;
      image[Format::headerBytes + at] ^= std::byte{1} << bit;
      ASSERT_THAT(refusalOf(image), testing::MatchesRegex("damaged: .* in the site table at byte [0-9]+"));
    }
  }
}

TEST(ForeignFile, IsCalledByWhatItIs) {
  const Image zeros(4096);
  EXPECT_EQ(refusalOf(zeros), "not a trace: it does not begin as one");
  EXPECT_EQ(refusalAfter([](auto& header) { header.version = 3; }),
            "of format version 3; this program reads versions 1 and 2");
  EXPECT_EQ(refusalAfter([](auto& header) { header.byteOrder = __builtin_bswap32(header.byteOrder); }),
            "written on a machine of the other byte order");
}

TEST(ForeignFile, WithAWellMadeHeaderOfImpossibleFiguresIsRefused) {
  const std::string refused = "damaged: the header is not as it was written";
  EXPECT_EQ(refusalAfter([](auto& header) { header.levels = 0; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.levels = 65; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.levels = 3; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.blocksPerRing = 0; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.blocksPerRing = 0xffffffff; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.sitesBytes = ~std::uint64_t{0}; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.sitesUsed = header.sitesBytes + 1; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.fileBytes += 1; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.blockBytes = 512; }), refused);
  const auto blocks = [](std::uint32_t version, std::uint32_t bytes) {
    return refusalAfter([&](auto& header) {
      header.version = version;
      header.blockBytes = bytes;
      header.blocksPerRing = 2;
      header.fileBytes = Format::headerBytes + header.sitesBytes + header.levels * std::uint64_t{2} * bytes;
    });
  };
  EXPECT_THAT(blocks(2, 4096), StartsWith("truncated: ")) << "a size that can be";
  EXPECT_EQ(blocks(1, 4096), refused) << "not of that version";
  EXPECT_THAT(blocks(2, 3072), StartsWith("truncated: "));
  EXPECT_EQ(blocks(2, 3080), refused);
  EXPECT_EQ(blocks(2, 512), refused);
  EXPECT_EQ(blocks(2, 0), refused);
  EXPECT_EQ(blocks(2, 131072), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.headerBytes = 1024; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.openedRealtime = -1; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.openedMonotonic = -1; }), refused);
  EXPECT_EQ(refusalAfter([](auto& header) { header.ticksPerSecond = 0; }), refused);
}

TEST(ForeignFile, IsNamedInTheError) {
  const Directory directory;
  std::ofstream(directory.file("text")) << "no trace";
  EXPECT_EQ(errorOf<RingLog::TraceError>([&] { RingLog::Trace::read(directory.file("text")); }),
            directory.file("text") + ": not a trace: 8 bytes are too few for its header");
}

TEST(TornRecord, IsRecognisedAndTheRestIsThere) {
  Image image = sample();
  const std::vector<std::string> before = messages(RingLog::Trace::parse(image));
  const RingLog::Trace whole = RingLog::Trace::parse(image);
  const RingLog::Record& last = whole.records().back();
  std::memset(wordOf(image, last), 0,
              Format::wordBytes);  // its arguments are there, its first word is not yet
  const RingLog::Trace torn = RingLog::Trace::parse(image);
  EXPECT_EQ(torn.info().tornRecords, 1U);
  EXPECT_EQ(torn.info().damagedBlocks, 0U);
  EXPECT_EQ(messages(torn), std::vector<std::string>(before.begin(), before.end() - 1));
}

TEST(TornRecord, InABlockThatIsNotTheLastIsDamage) {
  Image image = sample();
  const RingLog::Trace whole = RingLog::Trace::parse(image);
  std::memset(wordOf(image, whole.records().front()), 0, Format::wordBytes);
  const RingLog::Trace torn = RingLog::Trace::parse(image);
  EXPECT_EQ(torn.info().tornRecords, 0U);
  EXPECT_EQ(torn.info().damagedBlocks, 1U);
}

TEST(Block, ThatWasBeingClearedIsLeftOut) {
  Image image = sample();
  const RingLog::Trace whole = RingLog::Trace::parse(image);
  const RingLog::Record& first = whole.records().front();
  std::memset(wordOf(image, first) - first.offset, 0, Format::wordBytes);
  const RingLog::Trace trace = RingLog::Trace::parse(image);
  EXPECT_EQ(trace.records().size(), whole.records().size() - 62);
  EXPECT_EQ(trace.info().damagedBlocks, 0U);
}

TEST(Block, WithADamagedHeaderIsLeftOutAndCounted) {
  const Image good = sample();
  const RingLog::Trace whole = RingLog::Trace::parse(good);
  const RingLog::Record& first = whole.records().front();
  for (std::size_t at = 0; at < sizeof(Format::BlockHeader); ++at) {
    Image image = good;
    *(wordOf(image, first) - first.offset + at) ^= std::byte{0x10};
    const RingLog::Trace trace = RingLog::Trace::parse(image);
    EXPECT_EQ(trace.info().damagedBlocks, 1U) << "byte " << at;
    EXPECT_EQ(trace.records().size(), whole.records().size() - 62) << "byte " << at;
  }
}

TEST(Block, IsReadUpToARecordOfAnUnknownSiteOrOfAnotherLevel) {
  const Image good = sample();
  const RingLog::Trace whole = RingLog::Trace::parse(good);
  const RingLog::Record& third = whole.records()[2];
  for (const std::uint16_t number : std::initializer_list<std::uint16_t>{0, 2, 3, 0xffff}) {
    Image image = good;
    std::memcpy(wordOf(image, third) + 6, &number, sizeof number);
    const RingLog::Trace trace = RingLog::Trace::parse(image);
    EXPECT_EQ(trace.info().damagedBlocks, 1U) << "site " << number;
    EXPECT_EQ(trace.records().size(), whole.records().size() - 60) << "site " << number;
  }
}

TEST(Block, IsReadUpToATextThatRunsBeyondItsEnd) {
  const auto log = openInMemory({.levels = levels, .ringKiB = ringKiB, .siteKiB = siteKiB});
  for (unsigned i = 0; i < 61; ++i) {
    RINGLOG(*log, 0, std::string("1234567"));
  }
  Image image = copyOf(log->image());
  const RingLog::Trace whole = RingLog::Trace::parse(image);
  *(wordOf(image, whole.records().back()) + Format::wordBytes) = std::byte{0xff};
  const RingLog::Trace trace = RingLog::Trace::parse(image);
  EXPECT_EQ(trace.records().size(), 60U);
  EXPECT_EQ(trace.info().damagedBlocks, 1U);
}

TEST(Block, InThePlaceOfAnotherIsLeftOutAndCounted) {
  Image image = sample();
  const auto first = image.begin() + static_cast<std::ptrdiff_t>(ringsBegin);
  std::copy_n(first, Format::smallBlockBytes, first + Format::smallBlockBytes);
  EXPECT_EQ(RingLog::Trace::parse(image).info().damagedBlocks, 1U);
}

TEST(Site, WhoseTextsWouldReachBeyondItsEntryIsRefused) {
  Image image = sample();
  Format::SiteEntry entry{};
  std::memcpy(&entry, image.data() + Format::headerBytes, sizeof entry);
  entry.functionBytes = static_cast<std::uint16_t>(entry.bytes);
  std::memcpy(image.data() + Format::headerBytes, &entry, sizeof entry);
  const std::size_t summed = offsetof(Format::SiteEntry, bytes);
  entry.checksum = Format::checksum(image.data() + Format::headerBytes + summed, entry.bytes - summed);
  std::memcpy(image.data() + Format::headerBytes, &entry, sizeof entry);
  EXPECT_EQ(refusalOf(image), "damaged: incomplete entry in the site table at byte 512");
}

// Random damage of all sorts, often with the checksums put right, so that it gets past them.
TEST(Damage, OfAnySortNeverGetsThroughTheReader) {
  const Image good = sample();
  std::size_t refused = 0;
  std::size_t read = 0;
  for (unsigned seed = 1; seed <= 20000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Image image = good;
    for (unsigned changes = 1 + random() % 8; changes > 0; --changes) {
      const std::size_t regions[] = {sizeof(Format::Header), ringsBegin, image.size()};
      const std::size_t at = random() % regions[random() % 3];
      image[at] = random() % 4 == 0 ? std::byte{0xff} : static_cast<std::byte>(random());
    }
    if (random() % 2 == 0) {
      setHeader(image, headerOf(image));
    }
    for (std::size_t at = ringsBegin; random() % 2 == 0 && at < image.size(); at += Format::smallBlockBytes) {
      Format::BlockHeader block{};
      std::memcpy(&block, image.data() + at, sizeof block);
      block.check = Format::check(block.sequence, block.ticks, block.monotonic);
      std::memcpy(image.data() + at, &block, sizeof block);
    }
    if (random() % 8 == 0) {
      image.resize(random() % image.size());
    }
    try {
      const RingLog::Trace trace = RingLog::Trace::parse(image);
      ++read;
      for (const RingLog::Record& record : trace.records()) {
        ASSERT_EQ(record.message().empty(), false);
        ASSERT_LT(record.place->level, levels);
      }
    } catch (const RingLog::TraceError&) {
      ++refused;
    }
  }
  EXPECT_GT(read, 1000U);
  EXPECT_GT(refused, 1000U);
}

// The site table with its checksums put right after damage: whatever is in an entry, it is read within
// bounds.
TEST(Damage, OfSitesWithRightChecksumsStaysWithinTheirBounds) {
  const Image good = sample();
  for (unsigned seed = 1; seed <= 5000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Image image = good;
    Format::SiteEntry entry{};
    std::memcpy(&entry, image.data() + Format::headerBytes, sizeof entry);
    const std::size_t summed = offsetof(Format::SiteEntry, bytes);
    for (unsigned changes = 1 + random() % 4; changes > 0; --changes) {
      image[Format::headerBytes + sizeof entry.checksum + 4 + random() % (entry.bytes - 12)] =
          static_cast<std::byte>(random());
    }
    const std::uint64_t checksum =
        Format::checksum(image.data() + Format::headerBytes + summed, entry.bytes - summed);
    std::memcpy(image.data() + Format::headerBytes, &checksum, sizeof checksum);
    try {
      const RingLog::Trace trace = RingLog::Trace::parse(image);
      EXPECT_EQ(trace.places().size(), 2U);
    } catch (const RingLog::TraceError& error) {
      EXPECT_THAT(error.what(), HasSubstr("the site table at byte 512"));
    }
  }
}

namespace {

// A source that changes between readings, as a file does that is being written.
class ChangingSource final : public RingLog::detail::Source {
 public:
  explicit ChangingSource(std::vector<Image> images) : images_(std::move(images)) {}
  std::uint64_t size() const override { return images_[0].size(); }
  void read(std::uint64_t offset, std::span<std::byte> to) const override {
    const Image& image = images_[std::min(readings_++, images_.size() - 1)];
    std::memcpy(to.data(), image.data() + offset, to.size());
  }

 private:
  std::vector<Image> images_;
  mutable std::size_t readings_ = 0;
};

}  // namespace

namespace {

constexpr std::uint64_t numbersPerBlock = 62;

// A log of one level with rings of four blocks, of which images are taken while it is written.
class RingReadThreeTimes : public testing::Test {
 protected:
  void recordNumbers(std::uint64_t count) {
    for (; count > 0; --count) {
      RINGLOG(*log_, 0, next_++);
    }
  }
  Image image() const { return copyOf(log_->image()); }

  // What a reader sees whose three readings of the ring found these images.
  std::vector<std::uint64_t> read(const Image& first, const Image& second, const Image& third) {
    const ChangingSource source({first, second, third});
    const Format::Header header = headerOf(third);
    const auto ring = RingLog::detail::readRing(source, header, 0);
    const auto places = RingLog::detail::readPlaces(RingLog::detail::ImageSource(third), header);
    RingLog::detail::Moments moments;
    std::vector<std::uint64_t> result;
    for (const RingLog::Record& record : RingLog::detail::decodeRing(ring, 0, places, moments, info_)) {
      result.push_back(std::get<std::uint64_t>(record.arguments.at(0)));
    }
    return result;
  }

  static std::vector<std::uint64_t> numbersFrom(std::uint64_t first, std::uint64_t end) {
    std::vector<std::uint64_t> result;
    for (; first < end; ++first) {
      result.push_back(first);
    }
    return result;
  }

  // An image of which the block at `index` is that of another.
  static Image withBlock(Image image, std::size_t index, const Image& other) {
    const auto begin = static_cast<std::ptrdiff_t>(ringsBegin + index * Format::smallBlockBytes);
    std::copy_n(other.begin() + begin, Format::smallBlockBytes, image.begin() + begin);
    return image;
  }

  std::unique_ptr<RingLog::Log> log_ = openInMemory({.levels = 1, .ringKiB = 4, .siteKiB = siteKiB});
  std::uint64_t next_ = 0;
  RingLog::TraceInfo info_;
};

}  // namespace

TEST_F(RingReadThreeTimes, ShowsWhatWasWholeAtTheFirstReading) {
  recordNumbers(1);
  const Image first = image();
  recordNumbers(1);
  const Image second = image();
  recordNumbers(1);
  EXPECT_EQ(read(first, second, image()), numbersFrom(0, 1));
  EXPECT_EQ(info_.tornRecords, 0U) << "what came later is neither shown nor torn";
}

TEST_F(RingReadThreeTimes, LeavesOutABlockThatWasOverwrittenMeanwhile) {
  recordNumbers(4 * numbersPerBlock);
  const Image first = image();
  recordNumbers(1);
  EXPECT_EQ(read(first, first, image()), numbersFrom(numbersPerBlock, 4 * numbersPerBlock));
  EXPECT_EQ(info_.damagedBlocks, 0U);
}

// The first reading came to the first block before its last records, and to the second one after its first.
TEST_F(RingReadThreeTimes, ShowsNothingBehindRecordsThatItMissed) {
  recordNumbers(10);
  const Image early = image();
  recordNumbers(numbersPerBlock);
  const Image late = image();
  EXPECT_EQ(read(withBlock(late, 0, early), late, late), numbersFrom(0, 10));
}

// The first reading came to the second block before it was begun anew, and to the third one after that was.
TEST_F(RingReadThreeTimes, ShowsNothingBehindABlockThatItMissed) {
  recordNumbers(5 * numbersPerBlock);
  const Image early = image();
  recordNumbers(2 * numbersPerBlock);
  const Image late = image();
  EXPECT_EQ(read(withBlock(late, 1, early), late, late),
            numbersFrom(3 * numbersPerBlock, 5 * numbersPerBlock));
  EXPECT_EQ(info_.damagedBlocks, 0U);
}

TEST(TimeScale, IsLinearBetweenMomentsAndGoesOnAtTheRateOfTheTrace) {
  Format::Header header{};
  header.openedTicks = 1000;
  header.openedMonotonic = 0;
  header.openedRealtime = 5'000'000'000;
  header.ticksPerSecond = 1'000'000'000;
  const RingLog::detail::TimeScale scale(header, {{{5000, 40'000'000}, {3000, 10'000'000}}});
  EXPECT_EQ(scale.realtime(1000), 5'000'000'000);
  EXPECT_EQ(scale.realtime(2000), 5'005'000'000);
  EXPECT_EQ(scale.realtime(4000), 5'025'000'000);
  EXPECT_EQ(scale.realtime(6000), 5'050'000'000);
}

TEST(TimeScale, BelievesTheOpenersRateOnlyWhileTheTraceIsShort) {
  Format::Header header{};
  header.ticksPerSecond = 2'000'000'000;
  const RingLog::detail::TimeScale scale(header, {});
  EXPECT_EQ(scale.realtime(2000), 1000);
}
