#include "agent/daemon/Log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>
#include <sstream>

namespace {

using namespace std::chrono_literals;
using Agent::Log;
using Service::EventLoop;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;

// Two ends of a channel: what is written to one is read from the other.
class Channel {
 public:
  enum class Kind { pipe, socket };
  explicit Channel(Kind kind) {
    std::array<int, 2> ends{};
    EXPECT_EQ(kind == Kind::pipe ? ::pipe(ends.data()) : ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()),
              0);
    reader_ = ends[0];
    writer = ends[1];
  }
  ~Channel() {
    closeReader();
    ::close(writer);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  void closeReader() {
    if (reader_ >= 0) {
      ::close(reader_);
      reader_ = -1;
    }
  }
  // Everything that is there to be read now.
  std::string text() const {
    EXPECT_EQ(::fcntl(reader_, F_SETFL, O_NONBLOCK), 0);
    std::string all;
    std::array<char, 65536> some{};
    for (ssize_t got = 0; (got = ::read(reader_, some.data(), some.size())) > 0;) {
      all.append(some.data(), static_cast<std::size_t>(got));
    }
    return all;
  }

  int writer = -1;

 private:
  int reader_ = -1;
};

class LogTest : public testing::TestWithParam<Channel::Kind> {
 protected:
  Log log(int fd, const Log::Limits& limits) {
    return {fd, [this] { return time; }, limits};
  }

  EventLoop::Clock::time_point time{1h};
  Channel channel{GetParam()};
};

constexpr double many = 1e6;

TEST_P(LogTest, SaysLinesAtOnce) {
  Log log(channel.writer);
  log.line("ready");
  log.line("two\nlines");
  EXPECT_EQ(channel.text(), "vxlan-agent: ready\nvxlan-agent: two\\u000alines\n");
}

TEST_P(LogTest, CutsWhatIsTooLong) {
  Log log(channel.writer);
  log.line(std::string(900'000, 'x'));
  EXPECT_THAT(channel.text(), testing::AllOf(SizeIs(Log::longestLine + 18), EndsWith("xxx ...\n")));
}

TEST_P(LogTest, OutlivesItsReader) {
  Log log(channel.writer);
  channel.closeReader();
  for (int line = 0; line < 3; ++line) {
    log.line("nobody reads this");
  }
  EXPECT_EQ(log.waiting(), 0U);
  EXPECT_GE(log.leftOut(), 3U);
}

// A line that did not find a reader who takes it would hang this test.
TEST_P(LogTest, NeverWaitsForAReaderWhoDoesNotRead) {
  Log log = this->log(channel.writer, {4'000, many, many});
  for (int line = 0; line < 20'000; ++line) {
    log.line("line " + std::to_string(line));
  }
  EXPECT_LE(log.waiting(), 4'000U);
  EXPECT_GT(log.leftOut(), 0U);
  std::string read = channel.text();
  EXPECT_THAT(read, testing::StartsWith("vxlan-agent: line 0\nvxlan-agent: line 1\n"));
  log.flush();
  log.line("afterwards");
  read += channel.text();
  EXPECT_THAT(read, EndsWith("vxlan-agent: " + std::to_string(log.leftOut()) +
                             " lines were left out here\nvxlan-agent: afterwards\n"));
  const auto lines = static_cast<std::uint64_t>(std::count(read.begin(), read.end(), '\n'));
  EXPECT_EQ(lines - 2 + log.leftOut(), 20'000U) << "every line is there or counted";
}

TEST_P(LogTest, LeavesTheFlagsOfTheDescriptionAsTheyAre) {
  const int before = ::fcntl(channel.writer, F_GETFL);
  Log log(channel.writer);
  log.line("x");
  EXPECT_EQ(::fcntl(channel.writer, F_GETFL), before);
  EXPECT_EQ(before & O_NONBLOCK, 0);
}

TEST_P(LogTest, LimitsTheRateAndCountsWhatItLeavesOut) {
  Log log = this->log(channel.writer, {64'000, 3, 2});
  for (int line = 0; line < 10; ++line) {
    log.line(std::to_string(line));
  }
  EXPECT_EQ(channel.text(), "vxlan-agent: 0\nvxlan-agent: 1\nvxlan-agent: 2\n");
  EXPECT_EQ(log.leftOut(), 7U);
  time += 500ms;
  log.line("10");
  log.line("11");
  EXPECT_EQ(channel.text(), "vxlan-agent: 7 lines were left out here\nvxlan-agent: 10\n");
  time += 1h;
  for (int line = 0; line < 10; ++line) {
    log.line(std::to_string(line));
  }
  EXPECT_EQ(channel.text(),
            "vxlan-agent: 1 lines were left out here\nvxlan-agent: 0\nvxlan-agent: 1\nvxlan-agent: 2\n");
}

INSTANTIATE_TEST_SUITE_P(To, LogTest, testing::Values(Channel::Kind::pipe, Channel::Kind::socket),
                         [](const auto& kind) {
                           return std::string(kind.param == Channel::Kind::pipe ? "APipe" : "ASocket");
                         });

TEST(LogToAFile, AppendsWhereTheFileIs) {
  const std::string path = testing::TempDir() + "log-" + std::to_string(::getpid());
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_EQ(::write(fd, "before\n", 7), 7);
  {
    Log log(fd);
    log.line("here");
  }
  ::close(fd);
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  EXPECT_EQ(text.str(), "before\nvxlan-agent: here\n");
  ::unlink(path.c_str());
}

TEST(LogToNowhere, IsNoError) {
  Log log(-1);
  log.line("x");
  Log full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
  full.line("x");
  EXPECT_EQ(full.leftOut(), 1U);
}

}  // namespace
