#include "tools/vxlanctl/TraceText.h"

#include <fstream>
#include <regex>

#include "Operator.h"
#include "RingLog/RingLog.h"

namespace {

using testing::HasSubstr;

class TraceTest : public TestVxlanctl::OperatorTest {
 protected:
  // A recorder with a record on level 6 and three on level 8, as a killed agent leaves it.
  std::string recorded() const {
    RingLog::Options options;
    options.directory = folder;
    const auto log = RingLog::Log::open("agent.trace", options);
    RINGLOG(*log, 6, "convergence begins");
    for (int i = 1; i <= 3; ++i) {
      RINGLOG(*log, 8, "host ", i, " added");
    }
    return log->path();
  }

  // What was printed, without the times.
  std::string messages() const {
    return std::regex_replace(out, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z  )"), "");
  }
};

TEST_F(TraceTest, PrintsTheRecordsInTheOrderOfTime) {
  EXPECT_EQ(run({"trace", "--file", recorded()}), 0) << err;
  EXPECT_EQ(messages(),
            "6  convergence begins\n"
            "8  host 1 added\n"
            "8  host 2 added\n"
            "8  host 3 added\n");
}

TEST_F(TraceTest, FiltersByLevelTextAndNumber) {
  const std::string file = recorded();
  EXPECT_EQ(run({"trace", "--file", file, "--level", "0-6,9"}), 0);
  EXPECT_EQ(messages(), "6  convergence begins\n");
  EXPECT_EQ(run({"trace", "--file", file, "--grep", "host", "--last", "2"}), 0);
  EXPECT_EQ(messages(), "8  host 2 added\n8  host 3 added\n");
  EXPECT_EQ(run({"trace", "--file", file, "--grep", "host 7"}), 1);
  EXPECT_EQ(out, "");
}

TEST_F(TraceTest, IsThatOfTheAgentUnlessAFileIsNamed) {
  agent.document = {{"agent", {{"trace", recorded()}}}};
  startAgent();
  EXPECT_EQ(run({"trace", "--grep", "convergence"}), 0) << err;
  EXPECT_EQ(messages(), "6  convergence begins\n");
}

TEST_F(TraceTest, IsThatOfTheEnvironmentIfThatNamesOne) {
  setenv("VXLANCTL_TRACE", (folder + "/none").c_str(), 1);
  EXPECT_EQ(run({"trace"}), 2);
  unsetenv("VXLANCTL_TRACE");
  EXPECT_THAT(err, HasSubstr(folder + "/none"));
}

TEST_F(TraceTest, WhatIsNoTraceIsRefused) {
  EXPECT_EQ(run({"trace", "--file", folder + "/none"}), 2);
  EXPECT_THAT(err, HasSubstr("vxlanctl: " + folder + "/none"));
  std::ofstream(folder + "/garbage") << "garbage";
  EXPECT_EQ(run({"trace", "--file", folder + "/garbage"}), 2);
  EXPECT_THAT(err, HasSubstr(folder + "/garbage"));
  EXPECT_EQ(run({"trace", "--file", recorded(), "--level", "3-x"}), 2);
  EXPECT_EQ(err, "vxlanctl: levels \"3-x\": want numbers and ranges such as 8 or 0-3,8\n");
}

TEST(TraceTime, IsUtcToTheMicrosecond) {
  EXPECT_EQ(Vxlanctl::traceTime(0), "1970-01-01T00:00:00.000000Z");
  EXPECT_EQ(Vxlanctl::traceTime(1'700'000'000'123'456'789), "2023-11-14T22:13:20.123456Z");
  EXPECT_EQ(Vxlanctl::traceTime(-1), "1969-12-31T23:59:59.999999Z");
}

}  // namespace
