// What is recorded comes back.

#include <algorithm>
#include <limits>
#include <optional>
#include <sstream>
#include <string_view>

#include "Scenario.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

enum class Colour : std::uint16_t { Red = 7 };
struct Vlan {
  std::uint16_t id;
};

struct Counted {
  static inline unsigned conversions = 0;
};

}  // namespace

template <>
struct RingLog::Argument<Vlan> {
  static std::uint16_t from(const Vlan& vlan) { return vlan.id; }
};

template <>
struct RingLog::Argument<Counted> {
  static unsigned from(const Counted&) { return ++Counted::conversions; }
};

TEST(Record, ConsistsOfTheSitesPiecesWithTheArgumentsInTheirPlaces) {
  const auto log = openInMemory();
  const unsigned vni = 10010;
  RINGLOG(*log, 8, "vni ", vni, " has ", 3U, " hosts");
  EXPECT_THAT(messages(*log), ElementsAre("vni 10010 has 3 hosts"));
}

TEST(Record, TellsWhereItWasMade) {
  const auto log = openInMemory();
  RINGLOG(*log, 6, "here ", 1U);
  const unsigned line = __LINE__ - 1;
  const RingLog::Trace trace = readBack(*log);
  ASSERT_EQ(trace.records().size(), 1U);
  const RingLog::Place& place = *trace.records()[0].place;
  EXPECT_EQ(place.level, 6U);
  EXPECT_EQ(place.line, line);
  EXPECT_THAT(place.file, HasSubstr("RecordTest.cpp"));
  EXPECT_THAT(place.function, HasSubstr("TestBody"));
  EXPECT_EQ(place.form(), "here {}");
}

TEST(Record, NeedsNoPieces) {
  const auto log = openInMemory();
  RINGLOG(*log, 0);
  EXPECT_THAT(messages(*log), ElementsAre(""));
}

TEST(Record, HoldsIntegersOfEveryWidthAtTheirLimits) {
  const auto log = openInMemory();
  RINGLOG(*log, 8, std::numeric_limits<std::uint8_t>::max(), " ", std::numeric_limits<std::uint16_t>::max(),
          " ", std::numeric_limits<std::uint32_t>::max(), " ", std::numeric_limits<std::uint64_t>::max());
  RINGLOG(*log, 8, std::numeric_limits<std::int8_t>::min(), " ", std::numeric_limits<std::int16_t>::min(),
          " ", std::numeric_limits<std::int32_t>::min(), " ", std::numeric_limits<std::int64_t>::min());
  EXPECT_THAT(messages(*log), ElementsAre("255 65535 4294967295 18446744073709551615",
                                          "-128 -32768 -2147483648 -9223372036854775808"));
}

TEST(Record, HoldsTruthCharactersDoublesAndEnumerators) {
  const auto log = openInMemory();
  RINGLOG(*log, 8, true, " ", false, " ", 'x', " ", 0.1, " ", -2.5F, " ", Colour::Red);
  EXPECT_THAT(messages(*log), ElementsAre("true false x 0.1 -2.5 7"));
}

TEST(Record, HoldsPointersAsAddresses) {
  const auto log = openInMemory();
  const Vlan vlan{1};
  std::ostringstream address;
  address << &vlan;
  RINGLOG(*log, 8, &vlan, " ", nullptr);
  EXPECT_THAT(messages(*log), ElementsAre(address.str() + " 0x0"));
}

TEST(Record, HoldsAddressesOfTheNetwork) {
  const auto log = openInMemory();
  RINGLOG(*log, 8, RingLog::Mac{{0x00, 0x1c, 0x73, 0xab, 0x00, 0x0f}}, " at ",
          RingLog::Ipv4{{10, 0, 255, 1}});
  EXPECT_THAT(messages(*log), ElementsAre("00:1c:73:ab:00:0f at 10.0.255.1"));
}

TEST(Record, HoldsTextOfEverySort) {
  const auto log = openInMemory();
  char buffer[16] = "buffer";
  const char* const pointer = "pointer";
  const std::string text = "string";
  RINGLOG(*log, 8, buffer, " ", pointer, " ", text, " ", std::string_view("view"), " ", std::string(),
          std::string_view());
  EXPECT_THAT(messages(*log), ElementsAre("buffer pointer string view "));
}

TEST(Record, TakesABufferAsArgumentAndNotAsFixedText) {
  const auto log = openInMemory();
  for (char buffer[] = "a"; buffer[0] <= 'c'; ++buffer[0]) {
    RINGLOG(*log, 8, buffer);
  }
  EXPECT_THAT(messages(*log), ElementsAre("a", "b", "c"));
}

TEST(Record, TakesNullTextWithoutReadingIt) {
  const auto log = openInMemory();
  const char* const nothing = nullptr;
  RINGLOG(*log, 8, nothing);
  EXPECT_THAT(messages(*log), ElementsAre("(null)"));
}

TEST(Record, CutsTextAtItsLimitAndKeepsWhatFollows) {
  const auto log = openInMemory();
  for (const std::size_t size : {63U, 64U, 65U, 1000U}) {
    RINGLOG(*log, 8, std::string(size, 'x'), 1U);
  }
  const auto shown = [](std::size_t size) { return std::string(size, 'x') + "1"; };
  EXPECT_THAT(messages(*log), ElementsAre(shown(63), shown(64), shown(64), shown(64)));
}

TEST(Record, TakesATypeThatSaysWhatIsStoredOfIt) {
  const auto log = openInMemory();
  RINGLOG(*log, 8, "vlan ", Vlan{4094});
  EXPECT_THAT(messages(*log), ElementsAre("vlan 4094"));
}

TEST(Record, ComesBackInTheOrderOfTimeOverTheLevels) {
  const auto log = openInMemory();
  std::vector<std::string> expected;
  for (unsigned i = 0; i < 300; i += 3) {
    RINGLOG(*log, 9, "n", i);
    RINGLOG(*log, 0, "n", i + 1);
    RINGLOG(*log, 5, "n", i + 2);
  }
  for (unsigned i = 0; i < 300; ++i) {
    expected.push_back("n" + std::to_string(i));
  }
  EXPECT_EQ(messages(*log), expected);
}

TEST(Record, CarriesATimeBetweenThoseOfTheClockBeforeAndAfter) {
  const std::int64_t tolerance = 1'000'000;  // UTC itself may be adjusted meanwhile
  const std::int64_t before = RingLog::detail::nanoseconds(CLOCK_REALTIME);
  const auto log = openInMemory();
  RINGLOG(*log, 8, "now");
  RINGLOG(*log, 8, "later");
  const std::int64_t after = RingLog::detail::nanoseconds(CLOCK_REALTIME);
  const RingLog::Trace trace = readBack(*log);
  ASSERT_EQ(trace.records().size(), 2U);
  EXPECT_GE(trace.records()[0].time, before - tolerance);
  EXPECT_GE(trace.records()[1].time, trace.records()[0].time);
  EXPECT_LE(trace.records()[1].time, after + tolerance);
}

TEST(Site, HasItsTextStoredOnce) {
  const auto log = openInMemory();
  for (unsigned i = 0; i < 1000; ++i) {
    RINGLOG(*log, 8, "a text like no other: ", i);
  }
  const std::string_view text = "a text like no other: ";
  const auto image = log->image();
  const auto* const bytes = reinterpret_cast<const char*>(image.data());
  const std::string_view all(bytes, image.size());
  const std::size_t first = all.find(text);
  ASSERT_NE(first, std::string_view::npos);
  EXPECT_EQ(all.find(text, first + 1), std::string_view::npos);
  EXPECT_EQ(log->siteCount(), 1U);
  EXPECT_EQ(messages(*log).size(), 1000U);
}

TEST(Site, ServesOneLogAfterAnother) {
  const auto one = openInMemory();
  const auto other = openInMemory();
  for (unsigned i = 0; i < 4; ++i) {
    RINGLOG(i % 2 == 0 ? *one : *other, 8, i);
  }
  EXPECT_THAT(messages(*one), ElementsAre("0", "2"));
  EXPECT_THAT(messages(*other), ElementsAre("1", "3"));
  EXPECT_EQ(one->siteCount(), 1U);
}

TEST(Site, OutlivesALogItRecordedIn) {
  const auto record = [](RingLog::Log& log) { RINGLOG(log, 8, "again"); };
  record(*openInMemory());
  const auto next = openInMemory();
  record(*next);
  EXPECT_THAT(messages(*next), ElementsAre("again"));
}

TEST(Site, ThatTookThePlaceOfAnotherInMemoryGetsItsOwnText) {
  const auto log = openInMemory();
  std::optional<RingLog::Site> site;
  site.emplace(8U, "gone", "a.cpp", 1U);
  log->record(*site, "first");
  site.emplace(8U, "here", "b.cpp", 2U);
  log->record(*site, "second");
  EXPECT_THAT(messages(*log), ElementsAre("first", "second"));
}

TEST(Site, IsCountedAndDroppedWhenTheTableIsFull) {
  const auto log = openInMemory({.siteKiB = 1});
  constexpr unsigned sites = 100;
  std::vector<std::unique_ptr<RingLog::Site>> all;
  for (unsigned line = 0; line < sites; ++line) {
    all.push_back(std::make_unique<RingLog::Site>(8U, "function", "file.cpp", line));
    log->record(*all.back(), "text ", line);
  }
  const std::size_t kept = log->siteCount();
  EXPECT_GT(kept, 0U);
  EXPECT_LT(kept, sites);
  EXPECT_EQ(log->droppedSites(), sites - kept);
  EXPECT_EQ(log->droppedRecords(), sites - kept);

  log->record(*all.back(), "text ", sites);
  EXPECT_EQ(log->droppedSites(), sites - kept) << "a site counts once";
  EXPECT_EQ(log->droppedRecords(), sites - kept + 1);

  log->record(*all.front(), "text ", 0U);
  const RingLog::Trace trace = readBack(*log);
  EXPECT_EQ(trace.records().size(), kept + 1) << "those that found room still record";
  EXPECT_EQ(trace.info().droppedRecords, sites - kept + 1);
}

TEST(Site, IsDroppedWhereTheLogHasNoSuchLevel) {
  const auto log = openInMemory({.levels = 3});
  RINGLOG(*log, 3, "too high");
  RINGLOG(*log, 2, "highest");
  EXPECT_THAT(messages(*log), ElementsAre("highest"));
  EXPECT_EQ(log->droppedSites(), 1U);
}

TEST(LogThatIsOff, WritesNothingAtAll) {
  const auto log = openInMemory();
  RINGLOG(*log, 8, "before");
  const std::vector<std::byte> before = copyOf(log->image());
  log->onIs(false);
  EXPECT_FALSE(log->on());
  for (unsigned i = 0; i < 5000; ++i) {
    RINGLOG(*log, 8, "unheard ", i);
  }
  EXPECT_EQ(copyOf(log->image()), before);
  EXPECT_EQ(log->siteCount(), 1U);
}

TEST(LogThatIsOff, ConvertsNoArgument) {
  const auto log = openInMemory();
  const Counted counted;
  log->onIs(false);
  RINGLOG(*log, 8, counted);
  EXPECT_EQ(Counted::conversions, 0U);
  log->onIs(true);
  RINGLOG(*log, 8, counted);
  EXPECT_GT(Counted::conversions, 0U);
}

TEST(LogThatIsOff, RecordsAgainWhenSwitchedOn) {
  const auto log = openInMemory();
  for (const bool on : {true, false, true, true, false}) {
    log->onIs(on);
    EXPECT_EQ(log->on(), on);
    RINGLOG(*log, 8, "on");
  }
  EXPECT_EQ(messages(*log).size(), 3U);
}

TEST(Log, RefusesOptionsOutOfRange) {
  const auto refusal = [](const RingLog::Options& options) {
    return errorOf<std::invalid_argument>([&] { openInMemory(options); });
  };
  EXPECT_EQ(refusal({.levels = 0}), "RingLog: number of levels 0 is not 1 to 64");
  EXPECT_EQ(refusal({.levels = 65}), "RingLog: number of levels 65 is not 1 to 64");
  EXPECT_EQ(refusal({.ringKiB = 1}), "RingLog: ring size in KiB 1 is not 2 to 65536");
  EXPECT_EQ(refusal({.ringKiB = 65537}), "RingLog: ring size in KiB 65537 is not 2 to 65536");
  EXPECT_EQ(refusal({.siteKiB = 0}), "RingLog: site table size in KiB 0 is not 1 to 65536");
  EXPECT_EQ(refusal({.levels = 64, .ringKiB = 2, .siteKiB = 1}), "no error");
}

TEST(Log, RefusesANameThatIsNotPlain) {
  for (const std::string name : {"", ".", "..", "a/b", "/etc/x"}) {
    EXPECT_EQ(errorOf<std::invalid_argument>([&] { RingLog::Log::open(name); }),
              "RingLog: \"" + name + "\" is not a plain file name");
  }
}

TEST(Log, StartsEmpty) {
  const auto log = openInMemory();
  EXPECT_THAT(messages(*log), IsEmpty());
  EXPECT_EQ(readBack(*log).info().levels, 10U);
  EXPECT_EQ(readBack(*log).info().ringBytes, 33U * 1024);
}
