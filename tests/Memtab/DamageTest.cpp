// Bytes of a table change behind everybody's back: nobody is led outside of it or kept busy for ever, and the
// next writer either adopts the table or begins another.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Hosts.h"
#include "Memtab/Describe.h"
#include "Memtab/Name.h"
#include "Memtab/Reading.h"

namespace Memtab::Test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

constexpr std::size_t limit = 60;

Options replacing(const Name& name) {
  Options options = optionsFor(name, limit);
  options.replaceDamaged = true;
  return options;
}

std::string errorOf(const std::function<void()>& attempt) {
  try {
    attempt();
  } catch (const Error& error) {
    return error.what();
  }
  return "";
}

// The bytes of a table, through its file: no mapping of this process is involved.
class File {
 public:
  explicit File(const std::string& name)
      : fd_(::open(pathOf(name).c_str(), O_RDWR | O_CLOEXEC)),
        description_(describe(optionsFor(name, limit), {sizeof(Key), sizeof(Host)})) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { ::close(fd_); }

  const Format::Description& description() const { return description_; }
  std::uint64_t slotAt(std::uint64_t number) const {
    return description_.slotsAt + number * description_.slotBytes;
  }
  template <class T>
  void put(std::uint64_t at, T value) const {
    EXPECT_EQ(::pwrite(fd_, &value, sizeof value, static_cast<off_t>(at)), ssize_t{sizeof value});
  }
  template <class T>
  T get(std::uint64_t at) const {
    T value{};
    EXPECT_EQ(::pread(fd_, &value, sizeof value, static_cast<off_t>(at)), ssize_t{sizeof value});
    return value;
  }

 private:
  int fd_;
  Format::Description description_;  // as it was before any damage
};

// Some random bytes of a table: half of them anywhere, half of them where it is decided what is where.
void damage(const std::string& name, std::mt19937_64& random) {
  const File file(name);
  const Format::Description& d = file.description();
  const std::uint64_t usedEnd = file.slotAt(limit);
  for (std::uint64_t some = 1 + random() % 4; some > 0; --some) {
    std::uint64_t at = random() % d.totalBytes;
    switch (random() % 6) {
      case 0:
        at = random() % sizeof(Format::Header);
        break;
      case 1:
        at = offsetof(Format::Header, state) + random() % sizeof(Format::State);
        break;
      case 2:
        at = d.headsAt + random() % (sizeof(Format::Half) * d.buckets);
        break;
      case 3:
        at = d.slotsAt + random() % (usedEnd - d.slotsAt);
        break;
      case 4:  // number, link and life of a slot
        at = file.slotAt(random() % limit) + random() % sizeof(Format::Slot);
        break;
      default:
        break;
    }
    const auto bits = static_cast<unsigned char>(random() % 3 == 0 ? 1U << random() % 8 : random() % 256);
    file.put(at, static_cast<unsigned char>(file.get<unsigned char>(at) ^ bits));
  }
}

Stamps someContent(std::mt19937_64& random) {
  Stamps content;
  for (std::uint64_t records = random() % limit; records > 0; --records) {
    content[random() % 100] = random() >> 1U;
  }
  return content;
}

// As the user of a writer does who knows what belongs into the table.
void write(HostWriter& writer, const Stamps& content) {
  std::vector<Key> stale;
  for (auto record = writer.first(); record; record = writer.next(record->first)) {
    if (!content.contains(record->first)) {
      stale.push_back(record->first);
    }
    ASSERT_LE(stale.size(), 2 * limit) << "the walk does not end";
  }
  for (const Key key : stale) {
    writer.del(key);
  }
  for (const auto& [key, stamp] : content) {
    writer.is(key, hostOf(key, stamp));
  }
  writer.publish();
}

// A table with a past: records that were replaced, deleted, and are about to be swept.
void givenATable(HostWriter& writer, const Stamps& content, std::mt19937_64& random) {
  write(writer, someContent(random));
  write(writer, content);
}

// What a reader may make of a damaged table: anything but an end that never comes.
void readAll(HostReader& reader) {
  Position position;
  std::size_t calls = 0;
  const auto count = [&](Key, const auto&) { calls += 1; };
  static_cast<void>(errorOf([&] { reader.walk(count); }));
  static_cast<void>(errorOf([&] { static_cast<void>(reader.follow(position, count)); }));
  static_cast<void>(errorOf([&] { static_cast<void>(reader.follow(position, count)); }));
  for (Key key = 0; key < 100; ++key) {
    static_cast<void>(errorOf([&] { calls += reader.find(key) ? 1U : 0U; }));
  }
  EXPECT_LE(calls, 10'000u);
  EXPECT_LE(reader.size(), limit);
}

// The next writer, whatever is there: it starts, and with what belongs into the table written again, that is
// what readers see.
void expectTheNextWriterToBeRight(const Name& name, HostReader& oldReader, const Stamps& content,
                                  bool& replaced) {
  HostWriter writer(replacing(name));
  write(writer, content);
  write(writer, content);  // where the first met damage, the rest of it was written to another table
  replaced = writer.replacing();
  if (replaced) {
    EXPECT_FALSE(writer.damage().empty());
  }
  writer.takePlace();
  EXPECT_FALSE(writer.replacing());
  ASSERT_EQ(contentOf(writer), content);
  HostReader reader(name.text(), schema);
  ASSERT_EQ(contentOf(reader), content);
  for (const auto& [key, stamp] : content) {
    ASSERT_EQ(reader.find(key), hostOf(key, stamp)) << "key " << key;
  }
  ASSERT_EQ(reader.size(), content.size());
  ASSERT_EQ(contentOf(oldReader), content) << "for one who has had the damaged table open";
}

TEST(Damage, OfAnyBytesBeforeAStartIsAdoptedOrSetAside) {
  std::size_t setAside = 0;
  constexpr std::uint64_t rounds = 2000;
  for (std::uint64_t seed = 1; seed <= rounds && !testing::Test::HasFatalFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const Name name;
    const Stamps content = someContent(random);
    {
      HostWriter writer(replacing(name));
      givenATable(writer, content, random);
    }
    HostReader reader(name.text(), schema);
    ASSERT_EQ(contentOf(reader), content);
    damage(name.text(), random);
    readAll(reader);
    bool replaced = false;
    expectTheNextWriterToBeRight(name, reader, content, replaced);
    setAside += replaced ? 1U : 0U;
  }
  EXPECT_GT(setAside, rounds / 10);
  EXPECT_LT(setAside, rounds * 9 / 10);
}

TEST(Damage, OfAnyBytesUnderARunningWriterEndsNeitherItNorAReader) {
  std::size_t met = 0;
  constexpr std::uint64_t rounds = 2000;
  for (std::uint64_t seed = 1; seed <= rounds && !testing::Test::HasFatalFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const Name name;
    const Stamps content = someContent(random);
    auto writer = std::make_unique<HostWriter>(replacing(name));
    givenATable(*writer, someContent(random), random);
    HostReader reader(name.text(), schema);
    ASSERT_TRUE(reader.attached());
    for (int round = 0; round < 5; ++round) {
      damage(writer->replacing() ? successorOf(name.text()) : name.text(), random);
      readAll(reader);
      static_cast<void>(errorOf([&] { write(*writer, someContent(random)); }));  // perhaps that it is full
      static_cast<void>(writer->sweep(10));
      static_cast<void>(writer->find(random() % 100));
      writer->publish();
    }
    met += writer->replacing() ? 1U : 0U;
    writer.reset();
    bool replaced = false;
    expectTheNextWriterToBeRight(name, reader, content, replaced);
  }
  EXPECT_GT(met, rounds / 10);
}

class Damages : public testing::Test {
 protected:
  void SetUp() override {
    HostWriter writer(replacing(name_));
    write(writer, {{0, 0}, {1, 1}, {2, 2}});
  }
  Name name_;
};

TEST_F(Damages, AReaderThatMeetsARecordNeverWholeNamesItsSlotAtOnce) {
  HostReader reader(name_.text(), schema);
  const File file(name_.text());
  file.put(file.slotAt(1), std::uint32_t{77});
  EXPECT_EQ(errorOf([&] { contentOf(reader); }),
            "memtab " + name_.text() + ": damaged: the record in slot 1 is never whole");
}

TEST_F(Damages, ReadersKeepTheDamagedTableUntilTheNewOneTakesItsPlace) {
  HostReader reader(name_.text(), schema);
  Mirror mirror;
  mirror.follow(reader);
  const std::uint64_t generation = reader.generation();
  const File file(name_.text());
  file.put(file.description().headsAt, Format::end);

  HostWriter writer(replacing(name_));
  EXPECT_THAT(writer.damage(), HasSubstr("damaged: the list has 1 bucket heads"));
  EXPECT_TRUE(writer.replacing());
  EXPECT_FALSE(writer.adopted());
  EXPECT_TRUE(writer.empty());
  writer.is(7, hostOf(7, 7));
  writer.publish();
  EXPECT_EQ(reader.generation(), generation);
  EXPECT_THAT(contentOf(reader), ElementsAre(Pair(0, 0), Pair(1, 1), Pair(2, 2)));

  writer.is(8, hostOf(8, 8));
  writer.takePlace();
  EXPECT_EQ(reader.find(8), hostOf(8, 8)) << "at the first look-up, with what was not published yet";
  EXPECT_NE(reader.generation(), generation);
  mirror.follow(reader);
  EXPECT_TRUE(mirror.last().everything);
  EXPECT_THAT(mirror.content(), ElementsAre(Pair(7, 7), Pair(8, 8)));
  EXPECT_TRUE(std::filesystem::exists(pathOf(damagedOf(name_.text()))));
  EXPECT_FALSE(std::filesystem::exists(pathOf(successorOf(name_.text()))));
  EXPECT_FALSE(writer.damage().empty());
  writer.takePlace();
  EXPECT_EQ(reader.find(8), hostOf(8, 8)) << "a second time it does nothing";
}

TEST_F(Damages, AReaderNoticesANewTableThatTookThePlaceBehindItsBack) {
  HostReader reader(name_.text(), schema);
  ASSERT_TRUE(reader.attached());
  const Name other;
  {
    HostWriter writer(optionsFor(other));
    writer.is(9, hostOf(9, 9));
    writer.publish();
  }
  std::filesystem::rename(name_.path(), name_.path() + ".kept");
  std::filesystem::rename(other.path(), name_.path());
  int lookups = 1;
  while (reader.find(9) == std::nullopt && lookups < 1000) {
    ++lookups;
  }
  EXPECT_LE(lookups, 256);
  std::filesystem::remove(name_.path() + ".kept");
}

TEST_F(Damages, AWriterThatIsNotToReplaceSaysSoAndChangesNothing) {
  const File file(name_.text());
  file.put(file.description().headsAt, Format::end);
  EXPECT_THROW(HostWriter writer(optionsFor(name_)), Damaged);
  EXPECT_FALSE(std::filesystem::exists(pathOf(successorOf(name_.text()))));
}

TEST_F(Damages, AnUnfinishedReplacementIsBegunAgain) {
  const File file(name_.text());
  file.put(file.description().headsAt, Format::end);
  for (int start = 0; start < 2; ++start) {
    HostWriter writer(replacing(name_));
    EXPECT_TRUE(writer.replacing());
    EXPECT_TRUE(writer.empty());
    writer.is(5, hostOf(5, 5));
  }
  EXPECT_TRUE(Memtab::remove(name_.text()));
  EXPECT_FALSE(std::filesystem::exists(pathOf(successorOf(name_.text()))));
}

TEST_F(Damages, TheNumberOfRecordsMustBeRight) {
  const File file(name_.text());
  file.put(offsetof(Format::Header, state) + offsetof(Format::State, publishedRecords), std::uint64_t{2});
  EXPECT_EQ(errorOf([&] { HostWriter writer(optionsFor(name_)); }),
            "memtab " + name_.text() + ": damaged: it has 3 records, 2 were counted");
}

TEST_F(Damages, ATurnThatCannotBeIsNotAdopted) {
  const File file(name_.text());
  const std::uint64_t at = offsetof(Format::Header, state) + offsetof(Format::State, published);
  file.put(at, std::uint64_t{1} << 60U);
  EXPECT_THAT(errorOf([&] { HostWriter writer(optionsFor(name_)); }), HasSubstr("changes cannot be"));
  file.put(at, std::uint64_t{0});
  EXPECT_THAT(errorOf([&] { HostWriter writer(optionsFor(name_)); }), HasSubstr("is in no known state"));
}

TEST_F(Damages, SlotsThatWereNeverWrittenAreNotTaken) {
  const File file(name_.text());
  file.put(offsetof(Format::Header, state) + offsetof(Format::State, usedSlots), std::uint32_t{100});
  EXPECT_THAT(errorOf([&] { HostWriter writer(optionsFor(name_)); }),
              HasSubstr("slot 3 is said to be in use and was never written"));
}

TEST_F(Damages, AHeadThatLeadsToItselfIsFound) {
  const File file(name_.text());
  file.put(file.description().headsAt, Format::bucketBit);
  EXPECT_THAT(errorOf([&] { HostWriter writer(optionsFor(name_)); }), HasSubstr("runs in a circle"));
}

TEST_F(Damages, AMarkOfATableBeingMadeDoesNotEmptyAFullOne) {
  HostReader reader(name_.text(), schema);
  ASSERT_TRUE(reader.attached());
  const File file(name_.text());
  file.put(0, Format::magicBeingMade);
  {
    const HostWriter writer(replacing(name_));
    EXPECT_TRUE(writer.replacing());
  }
  EXPECT_THAT(contentOf(reader), ElementsAre(Pair(0, 0), Pair(1, 1), Pair(2, 2)));
}

// The writer's own walk, from key to key, over a list that is out of order.
TEST_F(Damages, AWalkOfTheWriterEnds) {
  HostWriter writer(optionsFor(name_));
  const File file(name_.text());
  for (std::uint64_t number = 0; number < 3; ++number) {
    file.put(file.slotAt(number) + sizeof(Format::Slot), std::uint64_t{1000 + number * 17});
  }
  const auto walk = [&] {
    std::size_t steps = 0;
    for (auto record = writer.first(); record && steps < 100; record = writer.next(record->first)) {
      steps += 1;
    }
    EXPECT_LT(steps, 100u);
  };
  static_cast<void>(errorOf(walk));
}

TEST_F(Damages, FreeSlotsThatAreNotFreeAreNotGivenAway) {
  HostWriter writer(optionsFor(name_));
  writer.del(0);
  writer.publish();
  writer.sweep(10);
  const File file(name_.text());
  std::uint64_t freed = 0;
  while (Format::Life(file.get<std::uint64_t>(file.slotAt(freed) + 8)).state() != Format::Life::Free) {
    ++freed;
  }
  file.put(file.slotAt(freed) + 4, static_cast<std::uint32_t>(freed == 0 ? 1 : 0));  // next of it: a record
  writer.is(50, hostOf(50, 50));
  EXPECT_THAT(errorOf([&] { writer.is(51, hostOf(51, 51)); }),
              HasSubstr("among the free ones and is not free"));
}

TEST_F(Damages, NoMoreRecordsGoThanThereAre) {
  HostWriter writer(optionsFor(name_));
  const File file(name_.text());
  for (Key key = 0; key < 3; ++key) {
    writer.del(key);
  }
  file.put(file.slotAt(0) + 8, Format::Life(Format::Life::Born, 0, true).raw());
  const Key back = file.get<Key>(file.slotAt(0) + sizeof(Format::Slot));
  EXPECT_THAT(errorOf([&] { writer.del(back); }), HasSubstr("more records go than were there"));
}

TEST_F(Damages, AFollowerOfALengthThatCannotBeIsToldEverything) {
  HostReader reader(name_.text(), schema);
  Mirror mirror;
  mirror.follow(reader);
  const File file(name_.text());
  file.put(offsetof(Format::Header, state) + offsetof(Format::State, publishedChanges),
           std::uint64_t{1} << 62U);
  mirror.follow(reader);
  EXPECT_TRUE(mirror.last().everything);
  EXPECT_EQ(mirror.last().calls, 3u);
}

}  // namespace
}  // namespace Memtab::Test
