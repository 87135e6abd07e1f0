// Patches at the control socket that concern several VTIs, and in which pieces they are carried out.
// carried out.
#include "Running.h"

namespace {

using nlohmann::json;
using TestDaemon::Running;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* oneVti = R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": true}},
  "hardware": {"bumStatus": {"bumReplicationMode": 3}}, "vlanVniMap": {"Vxlan1": {"10": 1}},
  "controller": {"state": {"s": {}}, "fdb": {"1": {
    "macVtepTable": {"02:00:00:00:00:01": {"vtepIp": "10.0.0.1"}},
    "macVtepFloodListTable": {"ff:ff:ff:ff:ff:ff": {"10.0.0.1": true}}}}}})";
constexpr const char* anotherVtep =
    R"({"controller": {"fdb": {"1": {"macVtepFloodListTable": {"ff:ff:ff:ff:ff:ff": {"10.0.0.2": true}}}}}})";

void converge(Running& agent) {
  for (const char* flag : {"true", "false"}) {
    const std::string patch =
        R"({"controller": {"state": {"s": {"convergenceInProgress": )" + std::string(flag) + "}}}}";
    ASSERT_EQ(agent.patch(patch.c_str()), "");
    agent.settle();
  }
}

json dests(Running& agent, const std::string& vlan) {
  return agent.output("/l2Rib/floodSets/" + vlan + "/ff:ff:ff:ff:ff:ff/dests");
}

TEST(SeveralVtisTest, RefusesASecondVtiWithOtherVnis) {
  Running agent;
  ASSERT_EQ(agent.patch(oneVti), "");
  const json before = agent.input();
  EXPECT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {"20": 2}}})"),
            "/vlanVniMap: VTI Vxlan0 lacks VNI 1; VTI Vxlan1 lacks VNI 2: VTIs that map anything map the "
            "same VNIs");
  EXPECT_EQ(agent.input(), before);
  ASSERT_EQ(agent.patch(anotherVtep), "");
  converge(agent);
  EXPECT_EQ(dests(agent, "10"), json::parse(R"(["10.0.0.1", "10.0.0.2"])"));
}

TEST(SeveralVtisTest, RefusesToTakeAVniFromOneOfTwoVtis) {
  Running agent;
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1, "11": 2}, "Vxlan2": {"20": 1, "21": 2}}})"),
            "");
  EXPECT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan2": {"21": null}}})"),
            "/vlanVniMap: VTI Vxlan2 lacks VNI 2: VTIs that map anything map the same VNIs");
  EXPECT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan2": {"21": 3}}})"),
            "/vlanVniMap: VTI Vxlan1 lacks VNI 3; VTI Vxlan2 lacks VNI 2: VTIs that map anything map the "
            "same VNIs");
  EXPECT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan3": {"30": 1}}})"),
            "/vlanVniMap: VTI Vxlan3 lacks VNI 2: VTIs that map anything map the same VNIs");
}

TEST(SeveralVtisTest, NamesAFewOfManyVnisThatAreLacking) {
  Running agent;
  json maps;
  for (int number = 1; number <= 20; ++number) {
    maps["Vxlan1"][std::to_string(number)] = number;
  }
  maps["Vxlan2"]["100"] = 1;
  EXPECT_THAT(agent.patch(json{{"vlanVniMap", maps}}),
              AllOf(HasSubstr("VTI Vxlan2 lacks VNI 2, 3, 4, 5, 6 and 14 more"), Not(HasSubstr("Vxlan1"))));
}

TEST(SeveralVtisTest, OnePatchMayChangeSeveralVtis) {
  Running agent;
  ASSERT_EQ(agent.patch(oneVti), "");
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {"20": 1}}})"), "");
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {"20": 2}, "Vxlan1": {"10": 2}}})"), "");
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {"20": 1, "21": 2}, "Vxlan1": {"10": 2, "11": 1}}})"),
            "");
  agent.settle();
  ASSERT_EQ(agent.patch(anotherVtep), "");
  converge(agent);
  const json both = json::parse(R"(["10.0.0.1", "10.0.0.2"])");
  EXPECT_EQ(dests(agent, "11"), both);
  EXPECT_EQ(dests(agent, "20"), both);
}

TEST(SeveralVtisTest, ALargePatchIsJudgedWhole) {
  Running agent;
  json patch = json::parse(oneVti);
  for (int number = 0; number < 2000; ++number) {
    char mac[18];
    snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", number / 256, number % 256);
    patch["controller"]["fdb"]["1"]["macVtepTable"][mac]["vtepIp"] = "10.0.0.1";
  }
  patch["vlanVniMap"]["Vxlan2"]["20"] = 2;
  const json before = agent.input();
  EXPECT_THAT(agent.patch(patch), HasSubstr("VTI Vxlan1 lacks VNI 2"));
  EXPECT_EQ(agent.input(), before);
  patch["vlanVniMap"]["Vxlan2"]["20"] = 1;
  EXPECT_EQ(agent.patch(patch), "");
  EXPECT_EQ(agent.output("/l2Rib/hosts/20").size(), 2000U);
}

// What several VTIs map changes within one turn of the loop.
TEST(SeveralVtisTest, NoClockFiresBetweenTheMapsOfTwoVtis) {
  Running agent;
  ASSERT_EQ(agent.patch(oneVti), "");
  agent.settle();
  json maps;
  json hosts;
  for (int number = 1; number <= 600; ++number) {
    maps["Vxlan1"][std::to_string(number)] = number;
    maps["Vxlan2"][std::to_string(2000 + number)] = number;
    hosts["1"]["macVtepTable"]["02:00:00:00:" + std::to_string(10 + number / 90) + ":" +
                               std::to_string(10 + number % 90)]["vtepIp"] = "10.0.0.1";
  }
  bool done = false;
  bool apart = false;
  agent.loop.addTurnHook([&] {
    const std::size_t first = agent.input("/vlanVniMap").value("Vxlan1", json::object()).size();
    const std::size_t second = agent.input("/vlanVniMap").value("Vxlan2", json::object()).size();
    apart = apart || (second != 0 && first != second);
  });
  agent.queue.add(
      {{"vlanVniMap", maps}, {"controller", {{"fdb", hosts}, {"state", {{"s", json::object()}}}}}},
      [&](const std::exception* refused) {
        EXPECT_EQ(refused, nullptr);
        done = true;
      });
  while (!done) {
    agent.turn();
  }
  EXPECT_EQ(agent.input("/vlanVniMap/Vxlan2").size(), 600U);
  EXPECT_FALSE(apart) << "a turn ended between the maps of two VTIs";
}

TEST(SeveralVtisTest, AMapOfNothingGoesWhereAnotherVtiMapsSomething) {
  Running agent;
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {}, "Vxlan2": {}}})"), "");
  EXPECT_EQ(agent.input("/vlanVniMap"), json::parse(R"({"Vxlan0": {}, "Vxlan2": {}})"));
  ASSERT_EQ(agent.patch(oneVti), "");
  EXPECT_EQ(agent.input("/vlanVniMap"), json::parse(R"({"Vxlan1": {"10": 1}})"));
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {}}})"), "");
  EXPECT_EQ(agent.input("/vlanVniMap"), json::parse(R"({"Vxlan1": {"10": 1}})"));
  ASSERT_EQ(agent.patch(anotherVtep), "");
  converge(agent);
  EXPECT_EQ(dests(agent, "10"), json::parse(R"(["10.0.0.1", "10.0.0.2"])"));
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan1": {"10": null}}})"), "");
  EXPECT_EQ(agent.input("/vlanVniMap"), json::parse(R"({"Vxlan1": {}})"));
}

TEST(SeveralVtisTest, WhatOneVtiMapsOutlivesAnother) {
  for (const char* removal :
       {R"({"vlanVniMap": {"Vxlan0": null}})", R"({"vlanVniMap": {"Vxlan0": {"20": null}}})",
        R"({"vlanVniMap": {"Vxlan1": {"10": null}}})"}) {
    Running agent;
    ASSERT_EQ(agent.patch(oneVti), "");
    ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {"20": 1}}})"), "");
    ASSERT_EQ(agent.patch(removal), "");
    EXPECT_EQ(agent.output("/client/perVni"), json::parse("[1]")) << removal;
    ASSERT_EQ(agent.patch(anotherVtep), "");
    converge(agent);
    const std::string vlan = agent.input("/vlanVniMap").contains("Vxlan1") ? "10" : "20";
    EXPECT_EQ(dests(agent, vlan), json::parse(R"(["10.0.0.1", "10.0.0.2"])")) << removal;
    EXPECT_EQ(agent.output("/l2Rib/hosts").size(), 1U) << removal;
  }
}

// A recording that is replayed, patch after patch, leads to the same state.
TEST(SeveralVtisTest, RecordsWhatItDoes) {
  Running agent;
  ASSERT_EQ(agent.patch(oneVti), "");
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan0": {"20": 1}, "Vxlan2": {}}})"), "");
  ASSERT_EQ(agent.patch(R"({"vlanVniMap": {"Vxlan1": {"10": null}}})"), "");
  ASSERT_EQ(agent.patch(anotherVtep), "");
  agent.settle();
  const json outcome = agent.output();
  const std::vector<json> recorded = agent.recorded;

  Running again;
  for (const json& patch : recorded) {
    Agent::InputPatch(again.world, patch).carryOut();
  }
  again.settle();
  EXPECT_EQ(again.output(), outcome);
  EXPECT_EQ(again.input(), agent.input());
}

TEST(SeveralVtisTest, AnswersInTheOrderOfThePatches) {
  Running agent;
  std::vector<std::string> answers;
  const auto told = [&](const char* name) {
    return [&answers, name](const std::exception* refused) {
      answers.push_back(std::string(name) + (refused == nullptr ? "" : " refused"));
    };
  };
  json large = json::parse(oneVti);
  for (int number = 0; number < 2000; ++number) {
    large["mlag"]["vtepAddr"][std::to_string(number)] = "10.0.0.9";
  }
  agent.queue.add(large, told("large"));
  agent.queue.add(json::parse(R"({"vlanVniMap": {"Vxlan1": {"4095": 1}}})"), told("bad"));
  agent.queue.add(json::parse(anotherVtep), told("small"));
  EXPECT_THAT(answers, ElementsAre());
  agent.queue.finish();
  EXPECT_THAT(answers, ElementsAre("large", "bad refused", "small"));
}

}  // namespace
