#include <sys/wait.h>

#include <fstream>

#include "Operator.h"

namespace {

using TestVxlanctl::json;

class DriveTest : public TestVxlanctl::OperatorTest {
 protected:
  std::string fileWith(const std::string& text) const {
    const std::string path = folder + "/patch.json";
    std::ofstream(path) << text;
    return path;
  }
};

TEST_F(DriveTest, PatchComesFromAFileOrStandardInput) {
  startAgent();
  EXPECT_EQ(run({"patch", fileWith(R"({"vlanVniMap":{"Vxlan1":{"10":5010}}})")}), 0) << err;
  EXPECT_EQ(run({"patch", "-"}, R"({"mlag":{"mlagState":1}})"), 0) << err;
  EXPECT_EQ(run({"dump", "/input"}), 0);
  EXPECT_EQ(json::parse(out), json::parse(R"({"vlanVniMap":{"Vxlan1":{"10":5010}},"mlag":{"mlagState":1}})"));
}

TEST_F(DriveTest, APatchThatIsRefusedSaysWhereAndWhy) {
  startAgent();
  EXPECT_EQ(run({"patch", "-"}, R"({"vlanVniMap":{"bad":{"5000":1}}})"), 2);
  EXPECT_EQ(err, "vxlanctl: /vlanVniMap/bad/5000: VLAN out of range 1 to 4094\n");
}

TEST_F(DriveTest, APatchThatIsNoneDoesNotReachTheAgent) {
  EXPECT_EQ(run({"patch", folder + "/none"}), 2);
  EXPECT_EQ(err, "vxlanctl: " + folder + "/none: cannot be read\n");
  EXPECT_EQ(run({"patch", folder}), 2);
  EXPECT_EQ(run({"patch", "-"}, "{\n \"a\": 1,\n}\n"), 2);
  EXPECT_EQ(err, "vxlanctl: -:3: not JSON\n");
  EXPECT_EQ(run({"patch", "-"}, R"({"mlag":{"mlagState":1e999}})"), 2);
  EXPECT_EQ(err, "vxlanctl: -: a number is out of range\n");
  EXPECT_EQ(run({"patch", "-"}, std::string(100000, '[') + std::string(100000, ']')), 2);
  EXPECT_EQ(err, "vxlanctl: -: nested deeper than 64 levels\n");
}

TEST_F(DriveTest, FlushSaysWhatItRemoved) {
  agent.answers["flush"] = json::parse(R"({"hosts":100,"floodSets":3})");
  startAgent();
  EXPECT_EQ(run({"flush"}), 0) << err;
  EXPECT_EQ(out, "removed 100 hosts and 3 flood sets\n");
}

TEST_F(DriveTest, WhatTheAgentDoesNotKnowIsRefused) {
  startAgent();
  EXPECT_EQ(run({"flush"}), 2);
  EXPECT_EQ(err, "vxlanctl: unknown method \"flush\"\n");
}

// Output and exit status of a command.
std::pair<std::string, int> outputOf(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  std::string text;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) {
    text += static_cast<char>(c);
  }
  const int status = pclose(pipe);
  return {text, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST_F(DriveTest, BashCompletesCommandsAndOptions) {
  ASSERT_EQ(run({"completion", "bash"}), 0);
  std::ofstream(folder + "/completion") << out;
  std::ofstream(folder + "/complete")
      << "source \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _vxlanctl; "
         "echo -n \"${COMPREPLY[*]}\"";
  const auto offered = [this](const std::string& line) {
    return outputOf("bash '" + folder + "/complete' '" + folder + "/completion' " + line).first;
  };
  EXPECT_EQ(offered("vxlanctl ex"), "explain");
  EXPECT_EQ(offered("vxlanctl show v"), "vni vti");
  EXPECT_EQ(offered("vxlanctl show hosts --v"), "--vlan --vtep --vti --vni");
  EXPECT_EQ(offered("vxlanctl --socket /x show floods --j"), "--json");
  EXPECT_EQ(offered("vxlanctl completion ''"), "bash --help");
}

TEST_F(DriveTest, TheProgramEndsWithTheCodesThatScriptsGoBy) {
  agent.document = json::parse(R"({"input":{"a":1}})");
  startAgent();
  const std::string program = std::string(VXLANCTL_PROGRAM) + " --socket " + folder + "/control.sock ";
  EXPECT_EQ(outputOf(program + "dump /input/a"), std::pair(std::string("1\n"), 0));
  EXPECT_EQ(outputOf(program + "dump /none 2>&1"),
            std::pair(std::string("vxlanctl: /none: nothing is there\n"), 1));
  EXPECT_EQ(outputOf(program + "nonsense 2>/dev/null").second, 2);
  EXPECT_EQ(outputOf(program + "dump >/dev/full").second, 2);
  stopAgent();
  EXPECT_EQ(outputOf(program + "dump 2>/dev/null").second, 3);
  EXPECT_EQ(outputOf("VXLANCTL_SOCKET=/no/where " + std::string(VXLANCTL_PROGRAM) + " dump 2>&1").first,
            "vxlanctl: no agent at /no/where: No such file or directory\n");
}

}  // namespace
