#include "Operator.h"

namespace {

using testing::HasSubstr;
using TestVxlanctl::json;

class AskTest : public TestVxlanctl::OperatorTest {};

TEST_F(AskTest, ExplainFollowsAMacStepByStep) {
  agent.answers["explain"] = json::parse(R"({"mac":"02:00:00:00:00:01","vlan":10,"vni":5010,"published":true,
      "verdict":"in the L2 RIB behind 10.0.0.2","steps":[
        {"step":"controller row","ok":true,"detail":"VTEP 10.0.0.2, move count 3"},
        {"step":"VLAN","ok":true,"detail":"VNI 5010 is VLAN 10 of Vxlan1"},
        {"step":"own VTEP","ok":false,"detail":"10.0.0.2 is not of this switch"},
        {"step":"L2 RIB","ok":null,"detail":"published"}]})");
  startAgent();
  EXPECT_EQ(run({"explain", "02:00:00:00:00:01", "--vlan", "10"}), 0) << err;
  EXPECT_EQ(out,
            "02:00:00:00:00:01 in VLAN 10 (VNI 5010)\n"
            "  1. controller row  yes  VTEP 10.0.0.2, move count 3\n"
            "  2. VLAN            yes  VNI 5010 is VLAN 10 of Vxlan1\n"
            "  3. own VTEP        no   10.0.0.2 is not of this switch\n"
            "  4. L2 RIB          -    published\n"
            "published: in the L2 RIB behind 10.0.0.2\n");
  stopAgent();
  EXPECT_EQ(agent.called.at(0),
            json::parse(R"({"method":"explain","params":{"mac":"02:00:00:00:00:01","vlan":10}})"));
}

TEST_F(AskTest, ExplainOfAHostThatIsNotPublishedIsANegativeAnswer) {
  agent.answers["explain"] = json::parse(R"({"mac":"02:00:00:00:00:01","vni":5010,"published":false,
      "verdict":"the controller does not publish it","steps":[]})");
  startAgent();
  EXPECT_EQ(run({"explain", "02:00:00:00:00:01", "--vni", "5010"}), 1);
  EXPECT_EQ(out,
            "02:00:00:00:00:01 in VLAN - (VNI 5010)\n"
            "not published: the controller does not publish it\n");
  EXPECT_EQ(run({"explain", "02:00:00:00:00:01", "--vni", "5010", "--json"}), 1);
  EXPECT_EQ(json::parse(out), agent.answers.at("explain"));
}

TEST_F(AskTest, DumpPrintsThePartItIsPointedAt) {
  agent.document = json::parse(R"({"input":{"mlag":{"mlagState":1}}})");
  startAgent();
  EXPECT_EQ(run({"dump", "/input/mlag"}), 0);
  EXPECT_EQ(out, "{\n  \"mlagState\": 1\n}\n");
  EXPECT_EQ(run({"dump"}), 0);
  EXPECT_EQ(json::parse(out), agent.document);
  EXPECT_EQ(run({"dump", "/output"}), 1);
  EXPECT_EQ(err, "vxlanctl: /output: nothing is there\n");
  EXPECT_EQ(run({"dump", "output"}), 2);
  EXPECT_THAT(err, HasSubstr("\"output\" is no JSON Pointer"));
}

TEST_F(AskTest, WatchPrintsTheValueAndThenEachChange) {
  agent.document = json::parse(R"({"input":{"mlag":{"mlagState":1}}})");
  agent.toCome = json::parse(R"([{"input":{"mlag":{"mlagState":2}}},{"input":{"mlag":null}}])");
  startAgent();
  EXPECT_EQ(run({"watch", "/input", "--count", "2"}), 0) << err;
  EXPECT_EQ(out,
            "{\"value\":{\"mlag\":{\"mlagState\":1}}}\n"
            "{\"merge\":{\"mlag\":{\"mlagState\":2}}}\n"
            "{\"merge\":{\"mlag\":null}}\n");
}

TEST_F(AskTest, WatchEndsWhenTheAgentDoes) {
  agent.document = json::parse(R"({"input":{}})");
  agent.whenNothingComes = [this] { loop.stop(); };
  startAgent();
  EXPECT_EQ(run({"watch", "/input"}), 3);
  EXPECT_EQ(out, "{\"value\":{}}\n");
  EXPECT_THAT(err, HasSubstr("has closed the connection"));
}

TEST_F(AskTest, WrongUsageIsToldApart) {
  EXPECT_EQ(run({}), 2);
  EXPECT_EQ(run({"show"}), 2);
  EXPECT_EQ(run({"show", "nothing"}), 2);
  EXPECT_EQ(run({"show", "hosts", "--vlan", "4095"}), 2);
  EXPECT_THAT(err, HasSubstr("\"4095\" is no VLAN: 1 to 4094"));
  EXPECT_EQ(run({"show", "vni", "--vni", "0"}), 2);
  EXPECT_EQ(run({"show", "hosts", "--mac", "02:00"}), 2);
  EXPECT_THAT(err, HasSubstr("\"02:00\" is no MAC address"));
  EXPECT_EQ(run({"explain", "02:00:00:00:00:01", "--vlan", "1", "--vni", "2"}), 2);
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_THAT(out, HasSubstr("Exit status:"));
}

}  // namespace
