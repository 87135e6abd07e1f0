// Where a trace goes.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>

#include "RingLog/Earlier.h"
#include "Scenario.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

// Sets RINGLOG_DIR for one scenario.
class Environment {
 public:
  explicit Environment(const std::string& directory) { setenv("RINGLOG_DIR", directory.c_str(), 1); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  ~Environment() { unsetenv("RINGLOG_DIR"); }
};

}  // namespace

TEST(TraceFile, IsWrittenWhereADirectoryIsGiven) {
  const Directory directory;
  const auto log = openIn(directory);
  RINGLOG(*log, 8, "in a file");
  EXPECT_EQ(log->path(), directory.file("Test.rl"));
  EXPECT_THAT(messages(RingLog::Trace::read(directory.file("Test.rl"))), ElementsAre("in a file"));
}

TEST(TraceFile, IsWrittenWhereTheEnvironmentSays) {
  const Directory directory;
  const Environment environment(directory.path());
  const auto log = RingLog::Log::open("Test.rl");
  EXPECT_THAT(directory.files(), ElementsAre("Test.rl"));
}

TEST(TraceFile, IsWrittenToTheDirectoryOfTheOptionsBeforeThatOfTheEnvironment) {
  const Directory directory;
  const Directory other;
  const Environment environment(other.path());
  const auto log = openIn(directory);
  EXPECT_THAT(directory.files(), ElementsAre("Test.rl"));
  EXPECT_THAT(other.files(), IsEmpty());
}

TEST(TraceFile, DoesNotExistWhereNoDirectoryIsConfigured) {
  const Directory directory;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(directory.path());
  const auto log = openInMemory();
  RINGLOG(*log, 8, "in memory");
  std::filesystem::current_path(before);
  EXPECT_EQ(log->path(), "");
  EXPECT_THAT(directory.files(), IsEmpty());
  EXPECT_THAT(messages(*log), ElementsAre("in memory"));
}

TEST(TraceFile, TellsWhetherItsProcessClosedIt) {
  const Directory directory;
  auto log = openIn(directory);
  EXPECT_FALSE(RingLog::Trace::read(directory.file("Test.rl")).info().closed);
  log.reset();
  EXPECT_TRUE(RingLog::Trace::read(directory.file("Test.rl")).info().closed);
}

TEST(TraceFile, TellsWhoWroteIt) {
  const auto log = openInMemory();
  const RingLog::TraceInfo info = readBack(*log).info();
  EXPECT_EQ(info.pid, static_cast<std::uint64_t>(getpid()));
  EXPECT_EQ(info.program, processName());
}

// A run that records its number: it ends in good order, or is killed.
void runToItsEnd(const Directory& directory, unsigned run) {
  const auto log = openIn(directory);
  RINGLOG(*log, 8, "run ", run);
}
void runAndDie(const Directory& directory, unsigned run) {
  const pid_t child = fork();
  if (child == 0) {
    const auto log = openIn(directory);
    RINGLOG(*log, 8, "run ", run);
    ::kill(getpid(), SIGKILL);
  }
  waitpid(child, nullptr, 0);
}
std::string runIn(const std::string& file) {
  return messages(RingLog::Trace::read(file)).at(0);
}

TEST(TraceFile, KeepsThoseOfTheLastThreeRuns) {
  const Directory directory;
  for (const unsigned run : {1U, 2U, 3U, 4U, 5U, 6U}) {
    runToItsEnd(directory, run);
  }
  EXPECT_THAT(directory.files(), UnorderedElementsAre("Test.rl", "Test.rl.1", "Test.rl.2", "Test.rl.3"));
  EXPECT_EQ(runIn(directory.file("Test.rl")), "run 6");
  EXPECT_EQ(runIn(directory.file("Test.rl.1")), "run 5");
  EXPECT_EQ(runIn(directory.file("Test.rl.3")), "run 3");
}

TEST(TraceFile, KeepsTheLatestCrashHoweverManyRunsCameAfterIt) {
  const Directory directory;
  runAndDie(directory, 1);
  runAndDie(directory, 2);
  for (unsigned run = 3; run < 20; ++run) {
    runToItsEnd(directory, run);
  }
  EXPECT_THAT(directory.files(),
              UnorderedElementsAre("Test.rl", "Test.rl.1", "Test.rl.2", "Test.rl.3", "Test.rl.4"));
  EXPECT_EQ(runIn(directory.file("Test.rl.4")), "run 2");
}

TEST(TraceFile, OfALivingProcessStays) {
  const Directory directory;
  const auto log = openIn(directory);
  RINGLOG(*log, 8, "run ", 0);
  for (unsigned run = 1; run < 10; ++run) {
    runToItsEnd(directory, run);
  }
  EXPECT_EQ(runIn(directory.file("Test.rl.4")), "run 0") << "behind the three last that have ended";
  EXPECT_THAT(directory.files(), testing::SizeIs(5));
}

TEST(TraceFile, RemovesWhatOthersLeftUnfinished) {
  const Directory directory;
  const auto make = [&](const std::string& name, bool old) {
    std::ofstream(directory.file(name)) << "unfinished";
    if (old) {
      std::filesystem::last_write_time(directory.file(name),
                                       std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    }
  };
  make("Test.rl.123.new", true);
  make("Test.rl.124.new", false);
  make("Test.rl.x.new", true);
  make("Other.rl.123.new", true);
  const auto log = openIn(directory);
  EXPECT_THAT(directory.files(),
              UnorderedElementsAre("Test.rl", "Test.rl.124.new", "Test.rl.x.new", "Other.rl.123.new"))
      << "what may still be made, and what is no trace, stays";
}

TEST(TraceFile, LeavesAloneWhatAnotherProcessIsMaking) {
  const Directory directory;
  const std::string name = directory.file("Test.rl.123.new");
  const int making = ::open(name.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  RingLog::detail::markLiving(making);
  std::filesystem::last_write_time(name,
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  const auto log = openIn(directory);
  EXPECT_THAT(directory.files(), UnorderedElementsAre("Test.rl", "Test.rl.123.new"));
  ::close(making);
}

TEST(TraceFile, GoesOnForALogThatAnotherHasReplaced) {
  const Directory directory;
  const auto first = openIn(directory);
  const auto second = openIn(directory);
  RINGLOG(*first, 8, "first");
  RINGLOG(*second, 8, "second");
  EXPECT_THAT(messages(RingLog::Trace::read(directory.file("Test.rl.1"))), ElementsAre("first"));
  EXPECT_THAT(messages(RingLog::Trace::read(directory.file("Test.rl"))), ElementsAre("second"));
}

TEST(TraceFile, CannotBeMadeInADirectoryThatIsNotThere) {
  const Directory directory;
  const std::string missing = directory.file("missing");
  const std::string error =
      errorOf<std::system_error>([&] { RingLog::Log::open("Test.rl", {.directory = missing}); });
  EXPECT_EQ(error, "RingLog: cannot create " + missing + "/Test.rl." + std::to_string(getpid()) +
                       ".new: No such file or directory");
}

TEST(TraceFile, LeavesNothingBehindWhereItCannotTakeItsName) {
  const Directory directory;
  std::filesystem::create_directories(directory.file("Test.rl.1") + "/in the way");
  { const auto log = openIn(directory); }
  const std::string error = errorOf<std::system_error>([&] { openIn(directory); });
  EXPECT_EQ(error, "RingLog: cannot keep " + directory.file("Test.rl") + " as " +
                       directory.file("Test.rl.1") + ": Is a directory");
  EXPECT_THAT(directory.files(), UnorderedElementsAre("Test.rl", "Test.rl.1"));
  EXPECT_TRUE(RingLog::Trace::read(directory.file("Test.rl")).info().closed) << "the old one is untouched";
}

TEST(TraceFile, TakesThePlaceOfALeftoverOfTheSameProcessNumber) {
  const Directory directory;
  std::ofstream(directory.file("Test.rl." + std::to_string(getpid()) + ".new"))
      << "left by one that was killed";
  const auto log = openIn(directory);
  EXPECT_THAT(directory.files(), ElementsAre("Test.rl"));
}

TEST(TraceFile, IsNotReadFromWhatIsNoFile) {
  const Directory directory;
  EXPECT_EQ(errorOf<std::system_error>([&] { RingLog::Trace::read(directory.file("none")); }),
            directory.file("none") + ": cannot open: No such file or directory");
  EXPECT_EQ(errorOf<std::system_error>([&] { RingLog::Trace::read(directory.path()); }),
            directory.path() + ": not a regular file: Is a directory");
}
