#include <gmock/gmock.h>

#include "agent/kernel/Failures.h"

namespace Agent::Kernel::Test {
namespace {

using std::chrono::seconds;

const Key one{Key::Kind::host, 1, 1};
const Key two{Key::Kind::host, 1, 2};

class FailuresTest : public ::testing::Test {
 protected:
  Failures failures_{seconds(1), seconds(4)};
};

TEST_F(FailuresTest, ThePauseDoublesUpToTheLongest) {
  Time now{};
  for (const int pause : {1, 2, 4, 4}) {
    failures_.failed(one, now, "no");
    EXPECT_EQ(failures_.find(one)->next, now + seconds(pause));
    now += seconds(pause);
  }
  EXPECT_EQ(failures_.find(one)->attempts, 4U);
}

TEST_F(FailuresTest, WhatIsDueIsTakenOnceAndStaysListed) {
  failures_.failed(one, Time{}, "no");
  failures_.failed(two, Time{}, "no");
  EXPECT_TRUE(failures_.pausing(one, Time{}));
  EXPECT_FALSE(failures_.pausing(one, seconds(1)));
  EXPECT_THAT(failures_.due(Time{}, 9), ::testing::IsEmpty());
  EXPECT_THAT(failures_.due(seconds(1), 1), ::testing::ElementsAre(one));
  EXPECT_EQ(failures_.next(), seconds(1));
  EXPECT_THAT(failures_.due(seconds(1), 9), ::testing::ElementsAre(two));
  EXPECT_EQ(failures_.next(), std::nullopt);
  EXPECT_EQ(failures_.all().size(), 2U);
}

TEST_F(FailuresTest, WhatIsClearedIsNoLongerDue) {
  failures_.failed(one, Time{}, "no");
  failures_.cleared(one);
  failures_.cleared(two);
  EXPECT_EQ(failures_.next(), std::nullopt);
  EXPECT_TRUE(failures_.all().empty());
}

}  // namespace
}  // namespace Agent::Kernel::Test
