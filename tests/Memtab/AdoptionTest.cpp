// Names and segments: what a writer adopts and what it refuses, what readers follow.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

#include "Hosts.h"
#include "Memtab/Describe.h"

namespace Memtab::Test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// The bytes of a table, to damage them.
class Bytes {
 public:
  explicit Bytes(const Name& name) {
    const int fd = ::open(name.path().c_str(), O_RDWR | O_CLOEXEC);
    struct stat status {};
    EXPECT_EQ(::fstat(fd, &status), 0);
    size_ = static_cast<std::size_t>(status.st_size);
    base_ = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    EXPECT_NE(base_, MAP_FAILED);
  }
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;
  ~Bytes() { ::munmap(base_, size_); }

  Format::Header& header() const { return *static_cast<Format::Header*>(base_); }
  Format::Description& description() const { return header().description; }
  template <class T>
  T* at(std::uint64_t offset) const {
    return reinterpret_cast<T*>(static_cast<std::byte*>(base_) + offset);
  }
  Format::Slot* slot(std::uint64_t number) const {
    return at<Format::Slot>(description().slotsAt + number * description().slotBytes);
  }
  std::string all() const { return {static_cast<const char*>(base_), size_}; }

 private:
  void* base_;
  std::size_t size_;
};

std::string errorOf(const std::function<void()>& attempt) {
  try {
    attempt();
  } catch (const Error& error) {
    return error.what();
  }
  return "(no error)";
}

class Adoption : public testing::Test {
 protected:
  void SetUp() override {
    HostWriter writer(optionsFor(name_, 100));
    for (Key key = 0; key < 5; ++key) {
      writer.is(key, hostOf(key, key));
    }
    writer.publish();
  }

  // What writer and reader say to the table after DAMAGE; neither changes a byte of it.
  void expectRefusal(const std::function<void(Bytes&)>& damage, const std::string& what,
                     bool readerToo = true) {
    Bytes bytes(name_);
    damage(bytes);
    const std::string before = bytes.all();
    EXPECT_EQ(errorOf([&] { HostWriter writer(optionsFor(name_)); }), "memtab " + name_.text() + ": " + what);
    if (readerToo) {
      EXPECT_EQ(errorOf([&] { HostReader reader(name_.text(), schema); }),
                "memtab " + name_.text() + ": " + what);
    }
    EXPECT_EQ(bytes.all(), before);
  }

  Name name_;
};

TEST_F(Adoption, FindsWhatWasPublished) {
  HostWriter writer(optionsFor(name_));
  EXPECT_TRUE(writer.adopted());
  EXPECT_EQ(writer.limit(), 100u) << "an adopted table keeps its limit";
  EXPECT_THAT(contentOf(writer), ElementsAre(Pair(0, 0), Pair(1, 1), Pair(2, 2), Pair(3, 3), Pair(4, 4)));
}

TEST_F(Adoption, TakesBackAnUnpublishedTurnButNotReplacedValues) {
  {
    HostWriter writer(optionsFor(name_));
    writer.is(7, hostOf(7, 7));
    writer.is(1, hostOf(1, 100));
    writer.del(2);
    writer.del(3);
    writer.is(3, hostOf(3, 300));
  }
  const HostWriter writer(optionsFor(name_));
  EXPECT_THAT(contentOf(writer), ElementsAre(Pair(0, 0), Pair(1, 100), Pair(2, 2), Pair(3, 300), Pair(4, 4)));
}

TEST_F(Adoption, FollowersHearOfValuesReplacedInATurnThatWasNeverPublished) {
  HostReader reader(name_.text(), schema);
  Mirror mirror;
  mirror.follow(reader);
  {
    HostWriter writer(optionsFor(name_));
    writer.is(1, hostOf(1, 100));
  }
  const HostWriter writer(optionsFor(name_));
  mirror.follow(reader);
  EXPECT_FALSE(mirror.last().everything);
  EXPECT_EQ(mirror.content(), contentOf(writer));
}

TEST_F(Adoption, RefusesASecondWriter) {
  const HostWriter first(optionsFor(name_));
  EXPECT_EQ(errorOf([&] { HostWriter second(optionsFor(name_)); }),
            "memtab " + name_.text() + ": another writer has it: process " + std::to_string(::getpid()) +
                " (memtab_test)");
}

TEST_F(Adoption, RefusesAnotherFormat) {
  expectRefusal([](Bytes& bytes) { bytes.description().version = 2; },
                "damaged: its format is 2, this program knows 1; perhaps another version made it");
}

TEST_F(Adoption, RefusesAnotherSchema) {
  Options options = optionsFor(name_);
  options.schema = "test-host 2";
  const std::string what =
      "memtab " + name_.text() +
      ": made for other records: its schema is \"test-host 1\", this program has \"test-host 2\"";
  EXPECT_EQ(errorOf([&] { HostWriter writer(options); }), what);
  EXPECT_EQ(errorOf([&] { HostReader reader(name_.text(), "test-host 2"); }), what);
}

TEST_F(Adoption, RefusesAnotherRecordSize) {
  const std::string what =
      "memtab " + name_.text() +
      ": made for other records: key and value have 8 and 104 bytes, in this program 8 and 4";
  EXPECT_EQ(errorOf([&] { Writer<Key, std::uint32_t> writer(optionsFor(name_)); }), what);
  EXPECT_EQ(errorOf([&] { Reader<Key, std::uint32_t> reader(name_.text(), schema); }), what);
}

// Its layout is not known, so nothing is written to it.
TEST_F(Adoption, ATableOfAnotherFormatIsRemovedWithoutAMarkForItsReaders) {
  const Bytes bytes(name_);
  bytes.description().version = 2;
  const std::string before = bytes.all();
  EXPECT_TRUE(Memtab::remove(name_.text()));
  EXPECT_EQ(bytes.all(), before);
}

TEST_F(Adoption, RefusesADamagedHeader) {
  expectRefusal([](Bytes& bytes) { bytes.description().slotsAt += 64; },
                "damaged: the checksum of its header is wrong");
  expectRefusal(
      [](Bytes& bytes) {
        bytes.description().limit += 1;
        bytes.description().checksum = Memtab::checksumOf(bytes.description());
      },
      "damaged: the figures in its header do not go together");
}

TEST_F(Adoption, RefusesWhatIsNoTable) {
  expectRefusal(
      [](Bytes& bytes) {
        bytes.description().magic = 0x7f;
        bytes.description().version = 0x45;
        bytes.description().headerBytes = 0x4c;
        bytes.description().stripes = 0x46;
      },
      "not a table: it does not begin with the mark of one");
}

TEST_F(Adoption, RefusesATableWhoseMarkIsDamaged) {
  expectRefusal([](Bytes& bytes) { bytes.description().magic = 0x7f; },
                "damaged: it does not begin with the mark of a table");
}

TEST_F(Adoption, RefusesWhatIsTooShort) {
  std::ofstream(name_.path(), std::ios::trunc) << "a few words\n";
  EXPECT_EQ(errorOf([&] { HostWriter writer(optionsFor(name_)); }),
            "memtab " + name_.text() + ": not a table: it does not begin with the mark of one");
}

TEST_F(Adoption, RefusesATruncatedTable) {
  const std::uint64_t whole = Bytes(name_).description().totalBytes;
  ASSERT_EQ(::truncate(name_.path().c_str(), 65536), 0);
  expectRefusal([](Bytes&) {}, "damaged: it has 65536 bytes, its header says " + std::to_string(whole));
}

TEST_F(Adoption, RefusesCountsThatCannotBe) {
  expectRefusal([](Bytes& bytes) { bytes.header().state.usedSlots = 201; },
                "damaged: 201 slots are said to be in use, there is room for 200", false);
  expectRefusal(
      [](Bytes& bytes) {
        bytes.header().state.usedSlots = 5;
        bytes.header().state.buckets = 0;
      },
      "damaged: 0 bucket heads are said to be in use, there is room for 200", false);
  expectRefusal([](Bytes& bytes) { bytes.header().state.buckets = 201; },
                "damaged: 201 bucket heads are said to be in use, there is room for 200", false);
}

TEST_F(Adoption, RefusesChangesThatCannotBe) {
  expectRefusal([](Bytes& bytes) { bytes.header().state.publishedChanges = 6; },
                "damaged: turn 2 with 6 of 5 changes cannot be", false);
  const std::uint64_t most = std::uint64_t{1} << 56U;
  expectRefusal(
      [&](Bytes& bytes) {
        bytes.header().state.publishedChanges = 5;
        bytes.header().state.changes = most + 1;
      },
      "damaged: turn 2 with 5 of " + std::to_string(most + 1) + " changes cannot be", false);
}

TEST_F(Adoption, RefusesALostRecord) {
  expectRefusal([](Bytes& bytes) { *bytes.at<Format::Half>(bytes.description().headsAt) = Format::end; },
                "damaged: the list has 1 bucket heads, 5 are in use", false);
}

// The link that leads to TO, of a bucket head or of a slot.
Format::Half& linkTo(const Bytes& bytes, std::uint32_t to) {
  auto* heads = bytes.at<Format::Half>(bytes.description().headsAt);
  for (std::uint32_t head = 0; head < 5; ++head) {
    if (heads[head] == to) {
      return heads[head];
    }
  }
  std::uint64_t number = 0;
  while (bytes.slot(number)->next != to) {
    ++number;
  }
  return bytes.slot(number)->next;
}

// Takes a bucket head out of the list.
void skipHead(const Bytes& bytes, std::uint32_t head) {
  linkTo(bytes, Format::bucketBit | head) = bytes.at<Format::Half>(bytes.description().headsAt)[head].load();
}

TEST_F(Adoption, RefusesARecordThatTheListPassesBy) {
  expectRefusal([](Bytes& bytes) { linkTo(bytes, 3) = bytes.slot(3)->next.load(); },
                "damaged: the record in slot 3 is not in the list", false);
}

TEST_F(Adoption, RefusesALinkToAHeadOrASlotThatIsNotInUse) {
  expectRefusal(
      [](Bytes& bytes) { *bytes.at<Format::Half>(bytes.description().headsAt) = Format::bucketBit | 50U; },
      "damaged: the list leads to bucket head 50, which is not in use", false);
  expectRefusal([](Bytes& bytes) { *bytes.at<Format::Half>(bytes.description().headsAt) = 5; },
                "damaged: the list leads to slot 5, which is not in use", false);
}

// The last head alone may be missing, as a writer leaves it that died while it added or removed one.
TEST_F(Adoption, RefusesAListWithoutOneOfItsHeadsButTheLast) {
  expectRefusal([](Bytes& bytes) { skipHead(bytes, 2); },
                "damaged: the list has 4 bucket heads, 5 are in use", false);
  expectRefusal([](Bytes& bytes) { bytes.header().state.buckets = 4; },
                "damaged: the list has 4 bucket heads, 4 are in use", false);
}

TEST_F(Adoption, TakesAListWithoutItsLastHead) {
  const Bytes bytes(name_);
  skipHead(bytes, 4);
  const HostWriter writer(optionsFor(name_));
  EXPECT_EQ(bytes.header().state.buckets, 4u);
  EXPECT_EQ(contentOf(writer).size(), 5u);
}

TEST_F(Adoption, TakesAListWithAHeadThatIsNotCounted) {
  const Bytes bytes(name_);
  bytes.header().state.buckets = 4;
  const HostWriter writer(optionsFor(name_));
  EXPECT_EQ(bytes.header().state.buckets, 5u);
  EXPECT_EQ(contentOf(writer).size(), 5u);
}

TEST_F(Adoption, RefusesAListThatRunsInACircle) {
  const auto damage = [](Bytes& bytes) {
    std::uint64_t number = 0;
    while (bytes.slot(number)->next >= Format::bucketBit && number < 4) {
      ++number;
    }
    bytes.slot(number)->next = static_cast<std::uint32_t>(number);
  };
  Bytes bytes(name_);
  damage(bytes);
  EXPECT_THAT(errorOf([&] { HostWriter writer(optionsFor(name_)); }), HasSubstr("twice"));
}

TEST_F(Adoption, RefusesARecordHalfWrittenThatNoWriterLeaves) {
  expectRefusal([](Bytes& bytes) { bytes.slot(3)->seq = 77; },
                "damaged: slot 3 is half written and the journal knows nothing of it", false);
  expectRefusal(
      [](Bytes& bytes) {
        bytes.slot(3)->seq = 2;
        bytes.slot(2)->life = 3;
      },
      "damaged: slot 2 is in no known state", false);
}

// A table as a writer leaves it that died while it replaced the value in slot 3; then CHANGE to its journal.
void tear(Bytes& bytes, const std::function<void(Format::Journal&)>& change) {
  Format::Journal& journal = *bytes.at<Format::Journal>(bytes.description().journalAt);
  journal.seq = 4;
  journal.slot = 3;
  journal.slotSeq = 77;
  journal.range = 1U << 16U | 1U;
  Format::wordsOf(&journal)[0] = 3;  // the stamp of the record
  bytes.slot(3)->seq = 77;
  Format::wordsOf(bytes.slot(3))[2] = 333;
  change(journal);
}

// Changes after which the journal is about another write, or about none.
std::vector<std::function<void(Format::Journal&)>> otherJournals() {
  return {
      [](Format::Journal& journal) { journal.seq = 5; },
      [](Format::Journal& journal) { journal.slot = 2; },
      [](Format::Journal& journal) { journal.slotSeq = 75; },
      [](Format::Journal& journal) { journal.range = 12U << 16U | 2U; },
      [](Format::Journal& journal) { journal.range = 13U << 16U | 1U; },
  };
}

TEST_F(Adoption, UndoesATornWriteByAJournalThatIsAboutItAndByNoOther) {
  for (const auto& other : otherJournals()) {
    expectRefusal([&](Bytes& bytes) { tear(bytes, other); },
                  "damaged: slot 3 is half written and the journal knows nothing of it", false);
  }
  Bytes bytes(name_);
  tear(bytes, [](Format::Journal&) {});
  const HostWriter writer(optionsFor(name_));
  EXPECT_EQ(writer.find(3), hostOf(3, 3));
  EXPECT_EQ(bytes.slot(3)->seq % 2, 0u);
}

TEST_F(Adoption, AReaderTakesOldWordsFromAJournalThatIsAboutTheRecordAndFromNoOther) {
  HostReader reader(name_.text(), schema);
  Bytes bytes(name_);
  for (const auto& other : otherJournals()) {
    tear(bytes, other);
    EXPECT_EQ(errorOf([&] { static_cast<void>(reader.find(3)); }),
              "memtab " + name_.text() + ": damaged: the record in slot 3 is never whole");
  }
  tear(bytes, [](Format::Journal&) {});
  EXPECT_EQ(reader.find(3), hostOf(3, 3));
}

// Nothing is known of a slot that was being given to another key: the journal has no part in it.
TEST_F(Adoption, LeavesTheWordsOfAFreeSlotThatIsHalfWritten) {
  {
    HostWriter writer(optionsFor(name_));
    writer.del(2);
    writer.publish();
    EXPECT_EQ(writer.sweep(10), 0u);
  }
  Bytes bytes(name_);
  std::uint64_t freed = 0;
  while (Format::Life(bytes.slot(freed)->life).state() != Format::Life::Free) {
    ++freed;
  }
  bytes.slot(freed)->seq = 77;
  Format::Journal& journal = *bytes.at<Format::Journal>(bytes.description().journalAt);
  journal.seq = 5;
  journal.range = 40;  // more words than a record has
  const HostWriter writer(optionsFor(name_));
  EXPECT_THAT(contentOf(writer), ElementsAre(Pair(0, 0), Pair(1, 1), Pair(3, 3), Pair(4, 4)));
  EXPECT_EQ(bytes.slot(freed)->seq, 78u);
  EXPECT_EQ(journal.seq, 4u) << "the journal is whole for the next write";
}

TEST_F(Adoption, AReaderOfADamagedTableSaysSo) {
  HostReader reader(name_.text(), schema);
  const Bytes bytes(name_);
  // The first slot and the first bucket head for which there is no room, and others far away.
  for (const std::uint32_t to : {200U, 12345U, Format::bucketBit | 200U, Format::bucketBit | 12345U}) {
    for (std::uint64_t number = 0; number < 5; ++number) {
      bytes.slot(number)->next = to;
    }
    for (std::uint64_t head = 0; head < 10; ++head) {
      bytes.at<Format::Half>(bytes.description().headsAt)[head] = to;
    }
    std::string said;
    for (Key key = 0; key < 100; ++key) {
      const std::string error = errorOf([&] { static_cast<void>(reader.find(key)); });
      said = error == "(no error)" ? said : error;
    }
    EXPECT_EQ(said, "memtab " + name_.text() + ": damaged: a link leads outside of it") << to;
  }
}

TEST_F(Adoption, FinishesATableWhoseMakerDiedBeforeItsFirstRecord) {
  for (const std::uint64_t magic : {std::uint64_t{0}, Format::magicBeingMade}) {
    const Name name;
    {
      std::ofstream file(name.path(), std::ios::binary);
      file.write(reinterpret_cast<const char*>(&magic), sizeof magic);
    }
    ASSERT_EQ(::truncate(name.path().c_str(), 100'000), 0);
    HostReader reader(name.text(), schema);
    EXPECT_FALSE(reader.attached());
    HostWriter writer(optionsFor(name));
    EXPECT_FALSE(writer.adopted());
    writer.is(1, hostOf(1, 1));
    writer.publish();
    EXPECT_EQ(reader.find(1), hostOf(1, 1));
  }
}

TEST_F(Adoption, WorksOnAFileToo) {
  const Name name(testing::TempDir() + "/memtab-test-" + std::to_string(::getpid()));
  {
    HostWriter writer(optionsFor(name));
    writer.is(1, hostOf(1, 1));
    writer.publish();
  }
  HostReader reader(name.text(), schema);
  EXPECT_THAT(contentOf(reader), ElementsAre(Pair(1, 1)));
  const HostWriter writer(optionsFor(name));
  EXPECT_TRUE(writer.adopted());
  EXPECT_THAT(contentOf(writer), ElementsAre(Pair(1, 1)));
}

TEST_F(Adoption, ModeOfANewTableIsAsAskedFor) {
  const Name name;
  Options options = optionsFor(name);
  options.mode = 0640;
  const HostWriter writer(options);
  struct stat status {};
  ASSERT_EQ(::stat(name.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0640u);
}

TEST(Names, AReaderWaitsForItsTable) {
  const Name name;
  HostReader reader(name.text(), schema);
  Mirror mirror;
  EXPECT_FALSE(reader.attached());
  EXPECT_EQ(reader.find(1), std::nullopt);
  EXPECT_EQ(reader.size(), 0u);
  EXPECT_EQ(reader.turn(), 0u);
  mirror.follow(reader);
  EXPECT_FALSE(mirror.last().everything);
  HostWriter writer(optionsFor(name));
  writer.is(1, hostOf(1, 1));
  writer.publish();
  EXPECT_EQ(reader.find(1), hostOf(1, 1));
  mirror.follow(reader);
  EXPECT_THAT(mirror.content(), ElementsAre(Pair(1, 1)));
}

class MadeAnew : public testing::TestWithParam<bool> {
 protected:
  // By the library, or behind its back.
  void removeTable() const {
    if (GetParam()) {
      EXPECT_TRUE(Memtab::remove(name_.text()));
    } else {
      EXPECT_EQ(::unlink(name_.path().c_str()), 0);
    }
  }

  Name name_;
};

TEST_P(MadeAnew, ReadersGoOverToTheNewTable) {
  auto writer = std::make_unique<HostWriter>(optionsFor(name_));
  writer->is(1, hostOf(1, 1));
  writer->is(2, hostOf(2, 1));
  writer->publish();
  HostReader reader(name_.text(), schema);
  HostReader looker(name_.text(), schema);
  const std::uint64_t generation = reader.generation();
  Mirror mirror;
  mirror.follow(reader);

  writer.reset();
  removeTable();
  EXPECT_EQ(reader.find(1), hostOf(1, 1)) << "until there is a new one the old one does";
  writer = std::make_unique<HostWriter>(optionsFor(name_));
  EXPECT_FALSE(writer->adopted());
  writer->is(2, hostOf(2, 2));
  writer->is(3, hostOf(3, 2));
  writer->publish();

  mirror.follow(reader);
  EXPECT_TRUE(mirror.last().everything);
  EXPECT_THAT(mirror.content(), ElementsAre(Pair(2, 2), Pair(3, 2)));
  EXPECT_NE(reader.generation(), generation);
  int lookups = 1;
  while (looker.find(3) == std::nullopt && lookups < 1000) {
    ++lookups;
  }
  EXPECT_LE(lookups, GetParam() ? 1 : 256);
}

TEST_P(MadeAnew, ForOtherRecordsReadersSaySo) {
  { HostWriter writer(optionsFor(name_)); }
  HostReader reader(name_.text(), schema);
  EXPECT_TRUE(reader.attached());
  removeTable();
  Options other = optionsFor(name_);
  other.schema = "test-host 2";
  const HostWriter writer(other);
  EXPECT_THAT(errorOf([&] { static_cast<void>(reader.attached()); }),
              HasSubstr("its schema is \"test-host 2\""));
}

INSTANTIATE_TEST_SUITE_P(Names, MadeAnew, testing::Bool(),
                         [](const auto& by) { return by.param ? "ByTheLibrary" : "ByTheSystem"; });

TEST(Names, RemovingSaysWhetherThereWasOne) {
  const Name name;
  EXPECT_FALSE(Memtab::remove(name.text()));
  { HostWriter writer(optionsFor(name)); }
  EXPECT_TRUE(Memtab::remove(name.text()));
  EXPECT_FALSE(Memtab::remove(name.text()));
  EXPECT_THAT(errorOf([] { Memtab::remove("no-name"); }), HasSubstr("memtab no-name: not a name"));
}

TEST(Names, AChecksumCoversEachByteOfADescription) {
  Format::Description description = describe(optionsFor(""), {8, 104});
  EXPECT_EQ(Memtab::checksumOf(description), description.checksum);
  for (std::size_t at = sizeof description.magic; at < offsetof(Format::Description, checksum); ++at) {
    auto& byte = reinterpret_cast<unsigned char*>(&description)[at];
    byte ^= 1U;
    ASSERT_NE(Memtab::checksumOf(description), description.checksum) << "byte " << at;
    byte ^= 1U;
  }
}

}  // namespace
}  // namespace Memtab::Test
