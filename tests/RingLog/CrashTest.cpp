// The trace outlives its process, and can be read while that still runs.

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "Scenario.h"

namespace {

// A process of its own that does `work`; how it ended is its wait status.
class Process {
 public:
  explicit Process(const std::function<void()>& work) : pid_(fork()) {
    if (pid_ == 0) {
      const rlimit none{0, 0};
      setrlimit(RLIMIT_CORE, &none);
      work();
      _exit(0);
    }
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (pid_ > 0) {
      kill();
      wait();
    }
  }

  void kill() const { ::kill(pid_, SIGKILL); }
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_;
};

void recordThenDie(const Directory& directory, const std::function<void()>& die) {
  const auto log = openIn(directory);
  for (unsigned i = 0; i < 100; ++i) {
    RINGLOG(*log, 8, "step ", i);
  }
  die();
}

// Records numbers together with what can be told from them, for ever.
void recordForEver(const Directory& directory) {
  const auto log = openIn(directory, {.levels = 2, .ringKiB = 4});
  for (std::uint64_t i = 0;; ++i) {
    RINGLOG(*log, 0, i, " ", ~i, " ", std::to_string(i));
    RINGLOG(*log, 1, i);
  }
}

// Every record is whole, and none is missing between the first and the last of a level.
void expectWhole(const RingLog::Trace& trace) {
  std::uint64_t last[2] = {0, 0};
  for (const RingLog::Record& record : trace.records()) {
    const unsigned level = record.place->level;
    const auto number = std::get<std::uint64_t>(record.arguments.at(0));
    if (last[level] != 0) {
      ASSERT_EQ(number, last[level] + 1);
    }
    last[level] = number;
    if (level == 0) {
      ASSERT_EQ(std::get<std::uint64_t>(record.arguments.at(1)), ~number);
      ASSERT_EQ(std::get<std::string>(record.arguments.at(2)), std::to_string(number));
    }
  }
  EXPECT_EQ(trace.info().damagedBlocks, 0U);
}

// Reads until the process has written at least `number`.
RingLog::Trace readUntil(const std::string& path, std::uint64_t number) {
  for (;;) {
    if (std::filesystem::exists(path)) {
      RingLog::Trace trace = RingLog::Trace::read(path);
      if (!trace.records().empty() && numbers(trace).back() >= number) {
        return trace;
      }
    }
  }
}

}  // namespace

TEST(Crash, ByKillLeavesEverythingUpToTheLastRecord) {
  const Directory directory;
  Process process([&] { recordThenDie(directory, [] { raise(SIGKILL); }); });
  const int status = process.wait();
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  const RingLog::Trace trace = RingLog::Trace::read(directory.file("Test.rl"));
  ASSERT_EQ(trace.records().size(), 100U);
  EXPECT_EQ(trace.records().back().message(), "step 99");
  EXPECT_FALSE(trace.info().closed);
}

TEST(Crash, ByAbortLeavesEverythingUpToTheLastRecord) {
  const Directory directory;
  Process process([&] { recordThenDie(directory, [] { std::abort(); }); });
  const int status = process.wait();
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGABRT);
  const RingLog::Trace trace = RingLog::Trace::read(directory.file("Test.rl"));
  ASSERT_EQ(trace.records().size(), 100U);
  EXPECT_EQ(trace.records().back().message(), "step 99");
}

TEST(Crash, AtAnyMomentLeavesWholeRecordsOnly) {
  for (unsigned round = 0; round < 20; ++round) {
    const Directory directory;
    Process process([&] { recordForEver(directory); });
    readUntil(directory.file("Test.rl"), 1 + round * 997);
    process.kill();
    process.wait();
    const RingLog::Trace trace = RingLog::Trace::read(directory.file("Test.rl"));
    expectWhole(trace);
    EXPECT_FALSE(trace.info().closed);
  }
}

TEST(Crash, LeavesATraceThatTheNextRunKeeps) {
  const Directory directory;
  Process process([&] { recordThenDie(directory, [] { raise(SIGKILL); }); });
  process.wait();
  const auto log = openIn(directory);
  EXPECT_EQ(messages(RingLog::Trace::read(directory.file("Test.rl.1"))).back(), "step 99");
}

TEST(RunningProcess, CanBeReadWithoutSeeingHalfARecord) {
  const Directory directory;
  const Process process([&] { recordForEver(directory); });
  std::uint64_t last = 0;
  for (unsigned reading = 0; reading < 300; ++reading) {
    const RingLog::Trace trace = readUntil(directory.file("Test.rl"), last + 1);
    expectWhole(trace);
    last = numbers(trace).back();
  }
}
