// A trace is followed while it is written.

#include "Scenario.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::vector<std::string> newMessages(RingLog::Follower& follower) {
  std::vector<std::string> result;
  for (const RingLog::Follower::News& news : follower.poll()) {
    for (const std::string& message : messages(news.trace)) {
      result.push_back(message);
    }
  }
  return result;
}

std::uint64_t lostBlocks(RingLog::Follower& follower) {
  std::uint64_t result = 0;
  for (const RingLog::Follower::News& news : follower.poll()) {
    result += news.lostBlocks;
  }
  return result;
}

void fillBlocks(RingLog::Log& log, unsigned blocks) {
  for (std::uint64_t i = 0; i < blocks * (RingLog::Format::maxRecordBytes / 16); ++i) {
    RINGLOG(log, 8, i);
  }
}

}  // namespace

TEST(Follower, GivesEachRecordOnce) {
  const Directory directory;
  const auto log = openIn(directory);
  RINGLOG(*log, 8, "before");
  RingLog::Follower follower(log->path());
  EXPECT_THAT(newMessages(follower), ElementsAre("before"));
  EXPECT_THAT(newMessages(follower), IsEmpty());
  RINGLOG(*log, 8, "first");
  RINGLOG(*log, 2, "second");
  EXPECT_THAT(newMessages(follower), ElementsAre("first", "second"));
  RINGLOG(*log, 2, "third");
  EXPECT_THAT(newMessages(follower), ElementsAre("third"));
  EXPECT_THAT(newMessages(follower), IsEmpty());
}

TEST(Follower, KeepsUpThroughWrapAround) {
  const Directory directory;
  const auto log = openIn(directory, {.ringKiB = 2});
  RingLog::Follower follower(log->path());
  std::vector<std::string> heard;
  std::vector<std::string> expected;
  for (std::uint64_t i = 0; i < 1000; ++i) {
    RINGLOG(*log, 8, i);
    expected.push_back(std::to_string(i));
    if (i % 60 == 0 || i == 999) {
      const auto news = newMessages(follower);
      heard.insert(heard.end(), news.begin(), news.end());
    }
  }
  EXPECT_EQ(heard, expected);
}

TEST(Follower, CountsTheBlocksThatItMissed) {
  const Directory directory;
  const auto log = openIn(directory, {.ringKiB = 4});
  fillBlocks(*log, 10);
  RingLog::Follower follower(log->path());
  EXPECT_EQ(lostBlocks(follower), 0U) << "what was overwritten before it came is not lost to it";
  fillBlocks(*log, 4);
  EXPECT_EQ(lostBlocks(follower), 0U);
  fillBlocks(*log, 7);
  EXPECT_EQ(lostBlocks(follower), 3U);
}

TEST(Follower, GoesOnWithTheTraceOfTheNextProcess) {
  const Directory directory;
  auto log = openIn(directory);
  RINGLOG(*log, 8, "one");
  RingLog::Follower follower(log->path());
  EXPECT_THAT(newMessages(follower), ElementsAre("one"));
  RINGLOG(*log, 8, "last words");
  log = openIn(directory);
  RINGLOG(*log, 8, "first words");
  EXPECT_THAT(newMessages(follower), ElementsAre("last words", "first words"));
  RINGLOG(*log, 8, "more");
  EXPECT_THAT(newMessages(follower), ElementsAre("more"));
}

TEST(Follower, WaitsWhileTheFileIsGone) {
  const Directory directory;
  const auto log = openIn(directory);
  RingLog::Follower follower(log->path());
  std::filesystem::remove(log->path());
  RINGLOG(*log, 8, "unseen by others");
  EXPECT_THAT(newMessages(follower), ElementsAre("unseen by others"));
  const auto next = openIn(directory);
  RINGLOG(*next, 8, "back");
  EXPECT_THAT(newMessages(follower), ElementsAre("back"));
}

TEST(Follower, RefusesWhatIsNoTrace) {
  const Directory directory;
  EXPECT_THROW(RingLog::Follower(directory.file("none")), std::system_error);
}
