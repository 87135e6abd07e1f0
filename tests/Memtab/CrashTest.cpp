// The end of a writer at any instant: what readers see of the table it leaves, and what the next writer
// finds.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <new>

#include "Script.h"

namespace Memtab::Test {
namespace {

// Turns that are published when a table has just been made.
constexpr std::uint64_t firstTurn = 1;

std::size_t turnsPublishedIn(const Name& name) {
  const Segment segment = Segment::forReader(name.text(), schema, nullptr);
  return segment.state().published.load() - firstTurn;
}

pid_t startChild(const std::function<void()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    body();
    ::_exit(0);
  }
  return child;
}

// Keeps this process and a child on one processor, so that handing over between them is cheap.
class OneProcessor {
 public:
  explicit OneProcessor(pid_t child) {
    ::sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &one);
    ::sched_setaffinity(0, sizeof one, &one);
    ::sched_setaffinity(child, sizeof one, &one);
  }
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;
  ~OneProcessor() { ::sched_setaffinity(0, sizeof before_, &before_); }

 private:
  cpu_set_t before_{};
};

// Runs BODY in a child instruction by instruction and calls LOOK between each two, until the child ends.
void stepThrough(const std::function<void()>& body, const std::function<void()>& look) {
  const pid_t child = startChild([&] {
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    static_cast<void>(::raise(SIGSTOP));
    body();
  });
  int status = 0;
  ::waitpid(child, &status, 0);
  const OneProcessor here(child);
  while (WIFSTOPPED(status)) {
    look();
    if (::ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0 || ::waitpid(child, &status, 0) != child ||
        testing::Test::HasFatalFailure()) {
      break;
    }
  }
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
}

// A table under one name whose bytes are looked at, and copied, under another.
class Copied {
 public:
  explicit Copied(const Name& name) {
    const int fd = ::shm_open(name.text().c_str(), O_RDONLY, 0);
    bytes_.resize(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)));
    now_ = ::mmap(nullptr, bytes_.size(), PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    EXPECT_NE(now_, MAP_FAILED);
  }
  Copied(const Copied&) = delete;
  Copied& operator=(const Copied&) = delete;
  ~Copied() { ::munmap(now_, bytes_.size()); }

  // Whether the bytes differ from those of the last time.
  bool changed() {
    if (std::memcmp(now_, bytes_.data(), bytes_.size()) == 0) {
      return false;
    }
    std::memcpy(bytes_.data(), now_, bytes_.size());
    return true;
  }
  void writeTo(const Name& name) const {
    std::ofstream(name.path(), std::ios::binary | std::ios::trunc)
        .write(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
  }

 private:
  void* now_;
  std::vector<char> bytes_;
};

void adoptCopies(std::uint64_t seed, std::size_t turns, std::size_t changes, Key keys) {
  const Script script(seed, turns, changes, keys, keys / 4);
  const Name name;
  const Name copy;
  HostWriter writer(optionsFor(name, 2 * keys));
  Copied copied(name);
  std::size_t instants = 0;
  const auto look = [&] {
    if (!copied.changed()) {
      return;
    }
    instants += 1;
    copied.writeTo(copy);
    const std::size_t published = turnsPublishedIn(copy);
    HostReader reader(copy.text(), schema);
    ASSERT_EQ(script.mistakeIn(contentOf(reader), published), "") << "for a reader, instant " << instants;
    for (const auto& [key, stamp] : script.after(published)) {
      ASSERT_TRUE(reader.find(key) && whole(key, *reader.find(key)))
          << "key " << key << ", instant " << instants;
    }
    HostWriter next(optionsFor(copy, 1));
    ASSERT_TRUE(next.adopted());
    ASSERT_EQ(script.mistakeIn(contentOf(next), published), "")
        << "for the next writer, instant " << instants;
    ASSERT_EQ(contentOf(reader), contentOf(next)) << "instant " << instants;
    ASSERT_EQ(next.size(), script.after(published).size());
    for (Key key = 0; key <= keys; ++key) {
      next.is(key, hostOf(key, 1));  // and it is fit for use
    }
    ASSERT_EQ(next.size(), keys + 1);
  };
  stepThrough(
      [&] {
        for (const Script::Turn& turn : script.turns()) {
          Script::run(turn, writer);
        }
      },
      look);
  if (!testing::Test::HasFatalFailure()) {
    EXPECT_EQ(turnsPublishedIn(name), turns) << "the child did not come to its end";
    EXPECT_GT(instants, turns * 10);
  }
}

TEST(Crash, LeavesEverythingPublishedWholeAtEachInstruction) {
  adoptCopies(1, 12, 6, 20);
}

TEST(Crash, LeavesEverythingPublishedWholeWhileTheTableGrowsAndShrinks) {
  // Enough records, then few enough, that bucket heads come and go.
  adoptCopies(2, 3, 60, 50);
}

// The end of a writer while it adopts, of a table whose writer had counted the turn that it did not publish
// any more.
TEST(Crash, OfTheNextWriterWhileItAdoptsLosesNothingEither) {
  constexpr std::size_t limit = 30;
  const Name name;
  const Name copy;
  Stamps content;
  {
    HostWriter writer(optionsFor(name, limit));
    for (Key key = 0; key < 12; ++key) {
      writer.is(key, hostOf(key, key));
      content[key] = key;
    }
    writer.publish();
    for (Key key = 0; key < 5; ++key) {
      writer.del(key);
      writer.is(key + 20, hostOf(key + 20, 1));
      writer.is(key + 40, hostOf(key + 40, 1));
    }
  }
  constexpr std::uint64_t counted = 12 - 5 + 10;
  const int fd = ::open(name.path().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::pwrite(fd, &counted, sizeof counted,
                     offsetof(Format::Header, state) + offsetof(Format::State, publishedRecords)),
            ssize_t{sizeof counted});
  ::close(fd);
  Copied copied(name);
  std::size_t instants = 0;
  stepThrough([&] { const HostWriter next(optionsFor(name, limit)); },
              [&] {
                if (copied.changed()) {
                  instants += 1;
                  copied.writeTo(copy);
                  const HostWriter writer(optionsFor(copy, limit));
                  ASSERT_TRUE(writer.adopted());
                  ASSERT_EQ(contentOf(writer), content) << "instant " << instants;
                }
              });
  EXPECT_GT(instants, 20u);
}

// What the killer and the killed share.
struct Progress {
  std::atomic<std::uint64_t> changes{0};
  std::atomic<std::uint64_t> published{0};
};

class SharedProgress {
 public:
  SharedProgress()
      : page_(::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
        progress_(new (page_) Progress) {}
  SharedProgress(const SharedProgress&) = delete;
  SharedProgress& operator=(const SharedProgress&) = delete;
  ~SharedProgress() { ::munmap(page_, sizeof(Progress)); }
  Progress& operator*() const { return *progress_; }
  Progress* operator->() const { return progress_; }

 private:
  void* page_;
  Progress* progress_;
};

// Adopts the table, and goes on with the script behind the turns that are published.
void goOn(const Script& script, const Name& name, Progress& progress) {
  const std::size_t begin = std::min<std::size_t>(progress.published.load(), script.turns().size());
  HostWriter writer(optionsFor(name));
  for (std::size_t turn = begin; turn < script.turns().size(); ++turn) {
    for (const Script::Change& change : script.turns()[turn]) {
      if (change.del) {
        writer.del(change.key);
      } else {
        writer.is(change.key, hostOf(change.key, change.stamp));
      }
      progress.changes.fetch_add(1);
    }
    writer.publish();
    progress.published.store(turn + 1);
  }
}

// Kills writer after writer of one script, and looks each time. Returns how many did not come to their end.
int killWriters(std::uint64_t seed, const Name& name, HostReader& reader, Mirror& mirror) {
  const Script script(seed, 1500, 200, 1000, 300);
  const SharedProgress progress;
  std::mt19937_64 random(seed);
  int kills = 0;
  while (progress->published.load() < script.turns().size() && !testing::Test::HasFailure()) {
    const std::uint64_t target = progress->changes.load() + 1 + random() % 2000;
    const pid_t child = startChild([&] { goOn(script, name, *progress); });
    while (progress->changes.load() < target && progress->published.load() < script.turns().size()) {
    }
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    kills += WIFSIGNALED(status) ? 1 : 0;
    // Between the publication and the note of it lies one instant.
    const std::size_t noted = progress->published.load();
    const Stamps seen = contentOf(reader);
    const std::size_t published = script.mistakeIn(seen, noted).empty() ? noted : noted + 1;
    EXPECT_EQ(script.mistakeIn(seen, published), "") << "for a reader";
    progress->published.store(published);
    {
      const HostWriter next(optionsFor(name));
      EXPECT_EQ(script.mistakeIn(contentOf(next), published), "") << "for the next writer";
      EXPECT_EQ(contentOf(next), seen);
    }
    mirror.follow(reader);
    EXPECT_EQ(mirror.content(), seen);
  }
  EXPECT_EQ(contentOf(reader), script.after(script.turns().size()));
  return kills;
}

TEST(Crash, KilledAtRandomTimesNothingPublishedIsLostAndReadersGoOn) {
  const Name name;
  HostReader reader(name.text(), schema);
  Mirror mirror;
  int kills = 0;
  for (std::uint64_t seed = 1; kills < 30 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    kills += killWriters(seed, name, reader, mirror);
    Memtab::remove(name.text());
  }
}

}  // namespace
}  // namespace Memtab::Test
