// Patches on the input document: checked whole, carried out change by change, and read back.
#include "Scene.h"

namespace {

using nlohmann::json;
using ::testing::HasSubstr;

class InputPatchTest : public TestState::Scene {
 protected:
  using Scene::input;
  json input(const std::string& section) { return input().at(section); }
};

TEST_F(InputPatchTest, ABadPatchChangesNothing) {
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1}}, "controller": {"fdb": {"1": {}}}})"), "");
  const json before = input();
  for (const auto& [text, why] : std::vector<std::pair<const char*, const char*>>{
           {R"({"vlanVniMap": {"Vxlan1": {"11": 2}}, "mlag": {"mlagState": -1}})", "/mlag/mlagState: "},
           {R"({"vtiStatus": {"Vxlan1": {"localVtepAddr": "10.0.0.1", "mode": 1}}})",
            "/vtiStatus/Vxlan1/mode: unknown"},
           {R"({"controller": {"fdb": {"2": {}, "1": "announced"}}})", "/controller/fdb/1: "},
           {R"({"controller": {"fdb": {"1": {"macVtepTable": {"02:00:00:00:00:01": {}}}}}})",
            "a host needs a vtepIp"},
           {R"({"controller": {"state": {"a": {}, "b": {}}}})", "the controller has one state"},
           {R"({"vlanVniMap": {"Vxlan1": {"11": 1}}})", "would belong to VLAN 10 of this VTI as well"},
           {R"({"vlanVniMap": {"Vxlan2": {"10": 1}}})", "would belong to VTI Vxlan1 as well"},
           {R"({"hardware": {"bumStatus": {"bumReplicationMode": 4294967296}}})", "out of range"},
           {R"([])", ""}}) {
    const std::string refusal = patch(text);
    EXPECT_NE(refusal, "") << text;
    EXPECT_THAT(refusal, HasSubstr(why)) << text;
    EXPECT_EQ(input(), before) << text;
  }
}

TEST_F(InputPatchTest, MergesAsRfc7396Says) {
  ASSERT_EQ(
      patch(R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": true, "localVtepAddr": "10.0.0.1"}}})"), "");
  ASSERT_EQ(patch(R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": null}, "Vxlan2": {}}})"), "");
  EXPECT_EQ(input("vtiStatus"), json::parse(R"({
    "Vxlan1": {"controllerClientMode": false, "datapathLearning": false, "localVtepAddr": "10.0.0.1", "dgwVtepAddr": "0.0.0.0"},
    "Vxlan2": {"controllerClientMode": false, "datapathLearning": false, "localVtepAddr": "0.0.0.0", "dgwVtepAddr": "0.0.0.0"}})"));
  ASSERT_EQ(patch(R"({"vtiStatus": null})"), "");
  EXPECT_EQ(input("vtiStatus"), json::object());
}

TEST_F(InputPatchTest, AHostThatEqualsTheDefaultIsNone) {
  const auto table = [&] { return input("controller").at("/fdb/1/macVtepTable"_json_pointer); };
  const std::string zero = "00:00:00:00:00:00";
  ASSERT_EQ(
      patch({{"controller", {{"fdb", {{"1", {{"macVtepTable", {{zero, {{"vtepIp", "10.0.0.5"}}}}}}}}}}}}),
      "");
  EXPECT_EQ(table().size(), 1U);
  ASSERT_EQ(
      patch({{"controller", {{"fdb", {{"1", {{"macVtepTable", {{zero, {{"vtepIp", "0.0.0.0"}}}}}}}}}}}}), "");
  EXPECT_EQ(table(), json::object());
}

TEST_F(InputPatchTest, StepsOneChangeAtATime) {
  Agent::InputPatch patch(world,
                          json::parse(R"({"vtiStatus": {"Vxlan1": {}}, "vlanVniMap": {"Vxlan1": {"10": 1}},
                                                "controller": {"state": {"s": {}}}})"));
  EXPECT_TRUE(patch.step());
  EXPECT_EQ(input("vtiStatus").size(), 1U);
  EXPECT_EQ(input("vlanVniMap"), json::object());
  EXPECT_TRUE(patch.step());
  EXPECT_EQ(input("vlanVniMap"), json::parse(R"({"Vxlan1": {"10": 1}})"));
  EXPECT_TRUE(patch.step());
  EXPECT_FALSE(patch.step());
  EXPECT_EQ(input("controller").at("state"), json::parse(R"({"s": {"convergenceInProgress": false}})"));
}

// A VNI goes from one VLAN to another, and a VLAN from one VTI to another, in one patch: removals come first.
TEST_F(InputPatchTest, RemovesBeforeItSets) {
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1, "11": 2}}})"), "");
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 2, "11": 1}}})"), "");
  EXPECT_EQ(input("vlanVniMap"), json::parse(R"({"Vxlan1": {"10": 2, "11": 1}})"));
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan0": {"10": 1}, "Vxlan1": {"10": null}}})"), "");
  EXPECT_EQ(input("vlanVniMap"), json::parse(R"({"Vxlan0": {"10": 1}, "Vxlan1": {"11": 1}})"));
}

// What a journal may have and a running agent refuses: see the tests of the agreed maps.
TEST_F(InputPatchTest, TakesVtisThatMapDifferentVnis) {
  EXPECT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1}, "Vxlan2": {"20": 2}, "Vxlan3": {}}})"), "");
  EXPECT_EQ(input("vlanVniMap"), json::parse(R"({"Vxlan1": {"10": 1}, "Vxlan2": {"20": 2}, "Vxlan3": {}})"));
}

TEST_F(InputPatchTest, WhatItReadsItPrints) {
  const json document = json::parse(R"({
    "vtiStatus": {"Vxlan1": {"controllerClientMode": true, "datapathLearning": true, "localVtepAddr": "10.0.0.1",
                             "dgwVtepAddr": "10.0.1.1"}},
    "vlanVniMap": {"Vxlan1": {"10": 1, "4094": 16777215}, "Vxlan2": {}},
    "mlag": {"mlagState": 2, "vtepAddr": {"": "10.0.2.1"},
             "bumStatus": {"bumReplicationMode": 3, "bumVtepList": {"10": {"02:00:00:00:00:01": {
               "bumVtepIpListType": 1, "remoteVtepAddr": {"10.0.0.2": true, "10.0.0.3": false}}}}}},
    "hardware": {"bumStatus": {"bumReplicationMode": 3}},
    "controller": {"state": {"s": {"convergenceInProgress": true}, "t": "announced"},
      "fdb": {"1": "announced", "16777215": {
        "macVtepTable": {"02:00:00:00:00:01": {"vtepIp": "10.0.0.2", "moveCount": 4294967295, "hostAttr": 255}},
        "macVtepMultiPathTable": {"02:00:00:00:00:02": {"10.0.0.2": true, "10.0.0.3": false}},
        "macVtepFloodListTable": {"ff:ff:ff:ff:ff:ff": {"10.0.0.2": true, "10.0.0.3": false}}}}}})");
  ASSERT_EQ(patch(document), "");
  EXPECT_EQ(input(), document);
}

}  // namespace
