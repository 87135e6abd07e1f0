#include "agent/vtep/MoveHistory.h"

#include <gtest/gtest.h>

namespace Agent::Vtep::Testing {

namespace {

constexpr Ipv4 vtep1 = 0x0a000001, vtep2 = 0x0a000002;

}  // namespace

TEST(MoveHistoryTest, AMacThatStaysHasNotMoved) {
  MoveHistory history(10);
  EXPECT_EQ(history.seen(5, 1, vtep1), 0U);
  EXPECT_EQ(history.seen(5, 1, vtep1), 0U);
}

TEST(MoveHistoryTest, EachChangeOfTheVtepCounts) {
  MoveHistory history(10);
  history.seen(5, 1, vtep1);
  EXPECT_EQ(history.seen(5, 1, vtep2), 1U);
  EXPECT_EQ(history.seen(5, 1, vtep1), 2U);
}

TEST(MoveHistoryTest, VnisAndMacsCountByThemselves) {
  MoveHistory history(10);
  history.seen(5, 1, vtep1);
  EXPECT_EQ(history.seen(6, 1, vtep2), 0U);
  EXPECT_EQ(history.seen(5, 2, vtep2), 0U);
  EXPECT_EQ(history.size(), 3U);
}

TEST(MoveHistoryTest, AMacThatLeftIsRemembered) {
  MoveHistory history(10);
  history.seen(5, 1, vtep1);
  history.left(5, 1);
  EXPECT_EQ(history.seen(5, 1, vtep2), 1U);
}

TEST(MoveHistoryTest, TheMacThatLeftFirstIsForgottenFirst) {
  MoveHistory history(2);
  for (Mac mac = 1; mac <= 3; ++mac) {
    history.seen(5, mac, vtep1);
    history.left(5, mac);
  }
  EXPECT_EQ(history.size(), 2U);
  EXPECT_EQ(history.seen(5, 1, vtep2), 0U);
  EXPECT_EQ(history.seen(5, 2, vtep2), 1U);
  EXPECT_EQ(history.seen(5, 3, vtep2), 1U);
}

TEST(MoveHistoryTest, AMacThatCameBackIsNotForgotten) {
  MoveHistory history(1);
  history.seen(5, 1, vtep1);
  history.left(5, 1);
  history.seen(5, 1, vtep1);
  history.seen(5, 2, vtep1);
  history.left(5, 2);
  EXPECT_EQ(history.seen(5, 1, vtep2), 1U);
}

TEST(MoveHistoryTest, AMacThatLeftTwiceIsAsYoungAsItsLastDeparture) {
  MoveHistory history(2);
  history.seen(5, 1, vtep1);
  history.left(5, 1);
  history.seen(5, 1, vtep1);
  history.seen(5, 2, vtep1);
  history.left(5, 2);
  history.left(5, 1);
  EXPECT_EQ(history.size(), 2U);
  EXPECT_EQ(history.seen(5, 1, vtep2), 1U);
}

TEST(MoveHistoryTest, AMacThatWasNeverSeenMayLeave) {
  MoveHistory history(2);
  history.left(5, 1);
  EXPECT_EQ(history.size(), 0U);
}

}  // namespace Agent::Vtep::Testing
