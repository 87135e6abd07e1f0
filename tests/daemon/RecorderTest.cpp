#include "agent/daemon/Recorder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace {

using Agent::Recorder;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// A folder of its own, in which runs of an agent record one after the other.
class RecorderTest : public testing::Test {
 protected:
  RecorderTest() : folder_(testing::TempDir() + "recorder-" + std::to_string(::getpid())) {
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directory(folder_);
  }
  ~RecorderTest() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string& ending = "") const { return folder_ + "/journal" + ending; }
  // What is in a file, without the lines that a replay skips.
  std::string text(const std::string& ending = "") const {
    std::ifstream file(path(ending));
    std::string all;
    for (std::string line; std::getline(file, line);) {
      all += line.starts_with("#") ? "" : line + '\n';
    }
    return all;
  }
  static std::string recorded(int run) { return json{{"patch", {{"run", run}}}}.dump() + '\n'; }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // A run that records its number and ends at once: killed, or as it was told to.
  void killed(int run, std::int64_t seconds) const { Recorder(path(), 0, seconds).patch({{"run", run}}, 0); }
  void ended(int run, std::int64_t seconds) const {
    Recorder recorder(path(), 0, seconds);
    recorder.patch({{"run", run}}, 0);
    recorder.ends();
  }

  static constexpr std::int64_t day = 1'700'000'000;

 private:
  std::string folder_;
};

TEST_F(RecorderTest, WritesPatchesWithTheTimeBetweenThem) {
  Recorder recorder(path(), 5, day);
  recorder.patch({{"a", 1}}, 5);
  recorder.patch({{"b", 2}}, 7.5);
  recorder.patch({{"c", 3}}, 7.5);
  EXPECT_EQ(text(),
            "{\"patch\":{\"a\":1}}\n{\"advance\":2.5}\n{\"patch\":{\"b\":2}}\n{\"patch\":{\"c\":3}}\n")
      << "each is in the file at once";
  EXPECT_EQ(recorder.problem(), "");
}

TEST_F(RecorderTest, ReplacesWhatIsNoUtf8) {
  Recorder recorder(path(), 0, day);
  recorder.patch({{"name", "a\xff"}}, 0);
  EXPECT_EQ(text(), "{\"patch\":{\"name\":\"a\uFFFD\"}}\n");
}

TEST_F(RecorderTest, WithoutAPathThereIsNone) {
  Recorder recorder("", 0, day);
  recorder.patch({{"a", 1}}, 1);
  recorder.ends();
  EXPECT_TRUE(files().empty());
}

TEST_F(RecorderTest, KeepsTheLastThreeRuns) {
  for (int run = 1; run <= 6; ++run) {
    ended(run, day + run);
  }
  EXPECT_THAT(files(), ElementsAre("journal", "journal.1", "journal.2", "journal.3"));
  EXPECT_EQ(text(), recorded(6));
  EXPECT_EQ(text(".1"), recorded(5));
  EXPECT_EQ(text(".3"), recorded(3));
}

TEST_F(RecorderTest, ARunWithoutInputsPushesNothingOut) {
  killed(1, day);
  for (int start = 0; start < 10; ++start) {
    const Recorder recorder(path(), 0, day + 1000 * start);
  }
  killed(2, day + 20'000);
  EXPECT_THAT(files(), ElementsAre("journal", "journal.1"));
  EXPECT_EQ(text(".1"), recorded(1));
}

TEST_F(RecorderTest, KeepsTheFirstOfACrashLoop) {
  for (int run = 1; run <= 12; ++run) {
    killed(run, day + 20 * run);
  }
  EXPECT_THAT(files(), ElementsAre("journal", "journal.1", "journal.2", "journal.3", "journal.first"));
  EXPECT_EQ(text(".first"), recorded(1));
  EXPECT_EQ(text(".1"), recorded(11));
}

TEST_F(RecorderTest, KeepsTheFirstOfASlowCrashLoop) {
  for (int run = 1; run <= 12; ++run) {
    killed(run, day + 290 * run);
  }
  EXPECT_EQ(text(".first"), recorded(1)) << "three ends are always within ten minutes";
}

TEST_F(RecorderTest, EndsThatAreFarApartAreNoLoop) {
  for (int run = 1; run <= 6; ++run) {
    killed(run, day + 301 * run);
  }
  EXPECT_FALSE(std::filesystem::exists(path(".first")));
}

TEST_F(RecorderTest, TwoEndsAreNoLoop) {
  killed(1, day);
  killed(2, day + 1);
  ended(3, day + 2);
  killed(4, day + 3);
  killed(5, day + 4);
  ended(6, day + 5);
  killed(7, day + 6);
  EXPECT_FALSE(std::filesystem::exists(path(".first"))) << "an end as told begins the count again";
}

TEST_F(RecorderTest, ALoopOfAnotherDayReplacesTheFirst) {
  for (int run = 1; run <= 4; ++run) {
    killed(run, day + run);
  }
  EXPECT_EQ(text(".first"), recorded(1));
  for (int run = 11; run <= 15; ++run) {
    killed(run, day + 100'000 + run);
  }
  // The last run of the first day ends, as far as anybody knows, when the first of the other day begins.
  EXPECT_EQ(text(".first"), recorded(4));
}

TEST_F(RecorderTest, AClockThatGoesBackMakesNoLoop) {
  killed(1, day + 30);
  killed(2, day + 20);
  killed(3, day + 10);
  killed(4, day);
  EXPECT_FALSE(std::filesystem::exists(path(".first")));
}

TEST_F(RecorderTest, MarksThatAreDamagedCountAsNone) {
  for (const char* head :
       {"# {\n", "# {\"unexpectedEnds\":3}\n", "# []\n", "# {\"unexpectedEnds\":[\"x\",1e300]}\n", ""}) {
    std::ofstream(path()) << head << "{\"patch\":{}}\n";
    const Recorder recorder(path(), 0, day);
    EXPECT_EQ(text(".1"), "{\"patch\":{}}\n") << head;
  }
}

TEST_F(RecorderTest, RefusesWhatIsNoFile) {
  const auto refused = [&](const char* what) {
    EXPECT_THAT([&] { const Recorder recorder(path(), 0, day); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr("not a regular file")))
        << what;
    std::filesystem::remove(path());
  };
  ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
  refused("a FIFO without a reader, which would hang");
  std::filesystem::create_directory(path());
  refused("a folder");
  std::ofstream(path(".other")) << "of somebody else";
  std::filesystem::create_symlink(path(".other"), path());
  refused("a link");
  EXPECT_TRUE(std::filesystem::exists(path(".other")));
}

TEST_F(RecorderTest, SaysWhichFileCannotBeMade) {
  const std::string missing = path("/no/such");
  EXPECT_THAT([&] { const Recorder recorder(missing, 0, day); },
              testing::ThrowsMessage<std::system_error>(HasSubstr("\"" + missing + "\" cannot be made: ")));
}

// Limits how large files may grow, while it lives.
class SmallFiles {
 public:
  explicit SmallFiles(rlim_t bytes) {
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit small{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
  }
  ~SmallFiles() { ::setrlimit(RLIMIT_FSIZE, &before_); }
  SmallFiles(const SmallFiles&) = delete;
  SmallFiles& operator=(const SmallFiles&) = delete;

 private:
  rlimit before_{};
};

TEST_F(RecorderTest, EndsBehindTheLastWholeLineWhereTheDiskIsFull) {
  Recorder recorder(path(), 0, day);
  recorder.patch({{"a", 1}}, 0);
  const SmallFiles small(std::filesystem::file_size(path()) + 10);
  recorder.patch({{"b", std::string(1000, 'x')}}, 0);
  recorder.patch({{"c", 3}}, 0);
  recorder.ends();
  EXPECT_THAT(recorder.problem(), StartsWith("the recording ends here: "));
  EXPECT_EQ(text(), "{\"patch\":{\"a\":1}}\n");
}

}  // namespace
