#include "Kel/System.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

using Kel::System;

double monotonic() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class SimulatedTimeTest : public testing::Test {
 protected:
  SimulatedTimeTest() { System::timeSourceIs(&time); }
  ~SimulatedTimeTest() override { System::timeSourceIs(nullptr); }
  Kel::SimulatedTime time{10};
};

TEST_F(SimulatedTimeTest, StandsStillUntilItIsMoved) {
  EXPECT_EQ(System::currentTime(), 10);
  EXPECT_EQ(System::currentTime(), 10);
  time.timeIs(12.5);
  EXPECT_EQ(System::currentTime(), 12.5);
  EXPECT_EQ(System::loopTime(), 12.5);
}

TEST_F(SimulatedTimeTest, NeverGoesBack) {
  time.timeIs(3);
  EXPECT_EQ(System::currentTime(), 10);
}

TEST_F(SimulatedTimeTest, MovesByATickAfterEachReadOfAHandlerOnly) {
  time.tickPerReadIs(0.5);
  EXPECT_EQ(System::currentTime(), 10);
  EXPECT_EQ(System::loopTime(), 10.5);
  EXPECT_EQ(System::loopTime(), 10.5);
  EXPECT_EQ(System::currentTime(), 10.5);
  EXPECT_EQ(System::currentTime(), 11);
}

TEST(SystemTest, WithoutASourceTheTimeIsTheMachines) {
  // However long anything between takes, the reading in the middle lies between the two around it; the margin
  // is what a rate that was measured in 200 microseconds may be off within the second that it is used.
  const double margin = 0.02;
  const double before = monotonic();
  const double read = System::currentTime();
  const double after = monotonic();
  EXPECT_GE(read, before - margin);
  EXPECT_LE(read, after + margin);
}

TEST(SystemTest, TheMachinesTimeNeverGoesBack) {
  double last = System::currentTime();
  for (int reading = 0; reading < 200'000; ++reading) {
    const double now = reading % 2 == 0 ? System::currentTime() : System::loopTime();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(SystemTest, NullGivesTheMachinesTimeBack) {
  Kel::SimulatedTime past{-1e9};
  System::timeSourceIs(&past);
  EXPECT_EQ(System::currentTime(), -1e9);
  System::timeSourceIs(nullptr);
  EXPECT_GT(System::currentTime(), -1e8);
}

}  // namespace
