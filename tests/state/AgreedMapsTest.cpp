// The maps of several VTIs: what a patch leaves, and what is to be renewed.
#include "Scene.h"
#include "agent/state/AgreedMaps.h"

namespace {

using nlohmann::json;

class AgreedMapsTest : public TestState::Scene {
 protected:
  // The patch as it may be carried out; for one that is refused, why.
  json agreed(const char* text) {
    try {
      return Agent::agreedPatch(world, json::parse(text)).patch;
    } catch (const Agent::Refused& refused) {
      return refused.pointer() + ": " + refused.what();
    }
  }
  json renewed(const char* text) { return Agent::agreedPatch(world, json::parse(text)).renewed; }
};

TEST_F(AgreedMapsTest, JudgesTheMapsThatAPatchLeaves) {
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1, "11": 2}}})"), "");
  EXPECT_EQ(agreed(R"({"vlanVniMap": {"Vxlan2": {"20": 2}}})"),
            "/vlanVniMap: VTI Vxlan2 lacks VNI 1: VTIs that map anything map the same VNIs");
  for (const char* fine : {R"({"vlanVniMap": {"Vxlan2": {"20": 2, "21": 1}}})",
                           R"({"vlanVniMap": {"Vxlan2": {"20": 2}, "Vxlan1": {"10": null}}})",
                           R"({"vlanVniMap": {"Vxlan2": {"20": 3}, "Vxlan1": null}})",
                           R"({"vlanVniMap": null})", R"({"vlanVniMap": {"Vxlan1": {"10": null}}})"}) {
    EXPECT_EQ(agreed(fine), json::parse(fine));
  }
}

TEST_F(AgreedMapsTest, TakesPatchesWithoutMapsAsTheyAre) {
  // Two VTIs that do not agree, as a journal may have them.
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1}, "Vxlan2": {"20": 2}}})"), "");
  for (const char* text : {R"({"mlag": {"mlagState": 1}})", "{}", "7", "null"}) {
    EXPECT_EQ(agreed(text), json::parse(text));
  }
}

TEST_F(AgreedMapsTest, LeavesWhatIsNoMapToThoseWhoReadItsForm) {
  for (const char* text :
       {R"({"vlanVniMap": {"Vxlan1": {"4095": 1}, "Vxlan2": {"20": 2}}})", R"({"vlanVniMap": 7})",
        R"({"vlanVniMap": {"Vxlan1": {"10": "1"}, "Vxlan2": {"20": 2}}})",
        R"({"vlanVniMap": {"": {"10": 1}}})"}) {
    EXPECT_EQ(agreed(text), json::parse(text));
    EXPECT_NE(patch(text), "");
  }
}

TEST_F(AgreedMapsTest, RemovesMapsOfNothingBesideOneOfSomething) {
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1}, "Vxlan3": {}}})"), "");
  EXPECT_EQ(agreed(R"({"vlanVniMap": {"Vxlan2": {}}})"),
            json::parse(R"({"vlanVniMap": {"Vxlan2": null, "Vxlan3": null}})"));
  EXPECT_EQ(agreed(R"({"vlanVniMap": {"Vxlan2": {"10": 1}, "Vxlan1": {"10": null}}})"),
            json::parse(R"({"vlanVniMap": {"Vxlan1": null, "Vxlan2": {"10": 1}, "Vxlan3": null}})"));
  EXPECT_EQ(agreed(R"({"vlanVniMap": {"Vxlan1": {"10": null}}})"),
            json::parse(R"({"vlanVniMap": {"Vxlan1": {"10": null}}})"));
}

TEST_F(AgreedMapsTest, RenewsWhatIsKeptWhereAVtiCeasesToMapAnything) {
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": {"10": 1, "11": 2}, "Vxlan2": {"20": 1, "21": 2}}})"), "");
  EXPECT_EQ(renewed(R"({"vlanVniMap": {"Vxlan1": null}})"), json::parse(R"({"Vxlan2": {"20": 1, "21": 2}})"));
  EXPECT_EQ(
      renewed(R"({"vlanVniMap": {"Vxlan1": {"10": null, "11": null}, "Vxlan2": {"20": null, "22": 1}}})"),
      json::parse(R"({"Vxlan2": {"21": 2}})"));
  EXPECT_EQ(renewed(R"({"vlanVniMap": {"Vxlan1": null, "Vxlan2": {"21": 3}}})"),
            json::parse(R"({"Vxlan2": {"20": 1}})"));
  EXPECT_EQ(renewed(R"({"vlanVniMap": {"Vxlan1": {"10": 3}, "Vxlan2": {"20": 3}}})"), json());
  EXPECT_EQ(renewed(R"({"vlanVniMap": null})"), json());
}

TEST_F(AgreedMapsTest, RenewingDoesWhatTheTwoPatchesDo) {
  ASSERT_EQ(
      patch(R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": true}}, "vlanVniMap": {"Vxlan1": {"10": 1},
                      "Vxlan2": {"20": 1}}, "controller": {"fdb": {"1": {}}}})"),
      "");
  ASSERT_EQ(patch(R"({"vlanVniMap": {"Vxlan1": null}})"), "");
  EXPECT_FALSE(world.client->rmxPerVniFdbStatusSm(Vxlan::VniExt(1)));
  const json left = json::parse(R"({"Vxlan2": {"20": 1}})");
  Agent::renew(world, left);
  EXPECT_TRUE(world.client->rmxPerVniFdbStatusSm(Vxlan::VniExt(1)));
  const auto [removal, setting] = Agent::asPatches(left);
  EXPECT_EQ(removal, json::parse(R"({"vlanVniMap": {"Vxlan2": {"20": null}}})"));
  EXPECT_EQ(setting, json::parse(R"({"vlanVniMap": {"Vxlan2": {"20": 1}}})"));
  ASSERT_EQ(patch(removal), "");
  EXPECT_FALSE(world.client->rmxPerVniFdbStatusSm(Vxlan::VniExt(1)));
  ASSERT_EQ(patch(setting), "");
  EXPECT_TRUE(world.client->rmxPerVniFdbStatusSm(Vxlan::VniExt(1)));
}

}  // namespace
