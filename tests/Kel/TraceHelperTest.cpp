#include "Kel/TraceHelper.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Kel::TraceHelper;
using testing::ElementsAre;

const Kel::TraceFacility pump("TestPump");
const Kel::TraceFacility valve("TestValve");

class TraceHelperTest : public testing::Test {
 protected:
  TraceHelperTest() {
    Kel::traceSinkIs([this](std::string_view line) { lines.emplace_back(line); });
  }
  ~TraceHelperTest() override {
    Kel::traceSinkIs(nullptr);
    Kel::traceLevelsIs("");
  }
  // The levels at which a facility is on, such as "0368".
  static std::string levels(const Kel::TraceFacility& facility) {
    std::string on;
    for (unsigned level = 0; level < 10; ++level) {
      if (facility.enabled(level)) {
        on += std::to_string(level);
      }
    }
    return on;
  }
  static std::string refusal(const std::string& setting) {
    try {
      Kel::traceLevelsIs(setting);
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "accepted";
  }

  std::vector<std::string> lines;
};

TEST_F(TraceHelperTest, OffByDefaultNothingIsFormatted) {
  EXPECT_EQ(levels(pump), "");
  int formatted = 0;
  if (auto trace = TraceHelper::createIfEnabled(pump, 8)) {
    trace << ++formatted;
  }
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(lines.empty());
}

TEST_F(TraceHelperTest, SwitchedOnEachHelperWritesOneLine) {
  Kel::traceLevelsIs("TestPump=8");
  if (auto trace = TraceHelper::createIfEnabled(pump, 8)) {
    trace << "void handleUp()"
          << " vlanId " << 17;
    EXPECT_TRUE(lines.empty());  // written when it is complete
  }
  if (auto trace = TraceHelper::createIfEnabled(pump, 7)) {
    trace << "not seen";
  }
  if (auto trace = TraceHelper::createIfEnabled(valve, 8)) {
    trace << "not seen";
  }
  EXPECT_THAT(lines, ElementsAre("void handleUp() vlanId 17"));
}

TEST_F(TraceHelperTest, LevelsAreNumbersRangesOrAll) {
  Kel::traceLevelsIs("TestPump=0,3-5,9;TestValve=*");
  EXPECT_EQ(levels(pump), "03459");
  EXPECT_EQ(levels(valve), "0123456789");
}

TEST_F(TraceHelperTest, AStarStandsForEveryFacility) {
  Kel::traceLevelsIs("*=8;TestPump=6");
  EXPECT_EQ(levels(pump), "68");
  EXPECT_EQ(levels(valve), "8");
}

TEST_F(TraceHelperTest, ASettingReplacesTheOneBefore) {
  Kel::traceLevelsIs("TestPump=8");
  Kel::traceLevelsIs("TestValve=1");
  EXPECT_EQ(levels(pump), "");
  EXPECT_EQ(levels(valve), "1");
  Kel::traceLevelsIs("");
  EXPECT_EQ(levels(valve), "");
}

TEST_F(TraceHelperTest, AFacilityThatComesLaterTakesItsLevels) {
  Kel::traceLevelsIs("TestLate=4");
  static const Kel::TraceFacility late("TestLate");
  EXPECT_EQ(levels(late), "4");
}

TEST_F(TraceHelperTest, AMalformedSettingIsRefusedAndTheOldOneStays) {
  Kel::traceLevelsIs("TestPump=8");
  EXPECT_EQ(refusal("TestPump"), "trace setting \"TestPump\", at character 1: FACILITY=LEVELS was expected");
  EXPECT_EQ(refusal("=8"), "trace setting \"=8\", at character 1: FACILITY=LEVELS was expected");
  EXPECT_EQ(refusal("TestPump="),
            "trace setting \"TestPump=\", at character 10: a level from 0 to 9 was expected");
  EXPECT_EQ(refusal("TestPump=x"),
            "trace setting \"TestPump=x\", at character 10: a level from 0 to 9 was expected");
  EXPECT_EQ(refusal("TestPump=8,"),
            "trace setting \"TestPump=8,\", at character 12: a level from 0 to 9 was expected");
  EXPECT_EQ(refusal("TestPump=10"),
            "trace setting \"TestPump=10\", at character 11: a comma or a semicolon was expected");
  EXPECT_EQ(refusal("TestPump=5-3"),
            "trace setting \"TestPump=5-3\", at character 10: a range of levels runs upwards");
  EXPECT_EQ(refusal("TestValve=1;;"),
            "trace setting \"TestValve=1;;\", at character 13: FACILITY=LEVELS was expected");
  EXPECT_EQ(levels(pump), "8");
  EXPECT_EQ(levels(valve), "");
}

TEST_F(TraceHelperTest, ASemicolonMayEndASetting) {
  Kel::traceLevelsIs("TestPump=8;");
  EXPECT_EQ(levels(pump), "8");
}

// The environment is read when the process starts, so that these run in a process of their own.
class TraceEnvironmentDeathTest : public testing::Test {
 protected:
  TraceEnvironmentDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~TraceEnvironmentDeathTest() override { unsetenv("KEL_TRACE"); }
  static void traceAndExit() {
    if (auto trace = TraceHelper::createIfEnabled(pump, 8)) {
      trace << "pump at level 8";
    }
    std::_Exit(pump.enabled(3) ? 3 : 0);
  }
};

TEST_F(TraceEnvironmentDeathTest, TheEnvironmentSwitchesItOn) {
  setenv("KEL_TRACE", "TestPump=8", 1);
  EXPECT_EXIT(traceAndExit(), testing::ExitedWithCode(0), "pump at level 8\n");
}

TEST_F(TraceEnvironmentDeathTest, AMalformedEnvironmentIsReportedAndIgnored) {
  setenv("KEL_TRACE", "TestPump=8-", 1);
  EXPECT_EXIT(traceAndExit(), testing::ExitedWithCode(0),
              "KEL_TRACE is ignored: trace setting \"TestPump=8-\", at character 12: a level from 0 to 9 was "
              "expected\n");
}

}  // namespace
