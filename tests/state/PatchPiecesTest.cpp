// A large patch in pieces: together they are the patch, in its order.
#include "Scene.h"
#include "agent/state/PatchPieces.h"

namespace {

using nlohmann::json;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;
using ::testing::SizeIs;

std::string mac(int number) {
  return json::string_t("02:00:00:00:0") + std::to_string(number / 10) + ":0" + std::to_string(number % 10);
}

json hosts(int first, int last) {
  json table = json::object();
  for (int number = first; number <= last; ++number) {
    table[mac(number)] = {{"vtepIp", "10.0.0.2"}};
  }
  return table;
}

class PatchPiecesTest : public TestState::Scene {
 protected:
  std::vector<json> pieces(const json& whole, std::size_t room) {
    Agent::PatchPieces cut(world, whole, room);
    std::vector<json> all;
    for (json piece; cut.next(piece);) {
      all.push_back(piece);
    }
    return all;
  }
  json fdb(const char* vni, const json& tables) { return {{"controller", {{"fdb", {{vni, tables}}}}}}; }
  // How many hosts each piece names, in whatever VNI.
  std::vector<int> sizes(const std::vector<json>& all) {
    std::vector<int> counts;
    for (const json& piece : all) {
      counts.push_back(0);
      for (const json& vni : piece.value("/controller/fdb"_json_pointer, json::object())) {
        counts.back() +=
            vni.is_object() ? static_cast<int>(vni.value("macVtepTable", json::object()).size()) : 0;
      }
    }
    return counts;
  }
};

TEST_F(PatchPiecesTest, TheFirstHasAllButTheVnis) {
  const json patch =
      json::parse(R"({"vtiStatus": {"Vxlan1": {}}, "vlanVniMap": {"Vxlan1": {"10": 1}, "Vxlan2": {"20": 1}},
    "mlag": null, "hardware": {}, "controller": {"state": {"s": {}}, "fdb": {"1": {}, "2": null}}})");
  const std::vector<json> all = pieces(patch, 100);
  ASSERT_THAT(all, SizeIs(3U));
  json head = patch;
  head["controller"]["fdb"] = json::object();
  EXPECT_EQ(all[0], head);
  EXPECT_EQ(all[1], json::parse(R"({"controller": {"fdb": {"2": null}}})")) << "what goes goes first";
  EXPECT_EQ(all[2], json::parse(R"({"controller": {"fdb": {"1": {}}}})"));
}

TEST_F(PatchPiecesTest, HostsOfAnInstantiatedVniAreParted) {
  ASSERT_EQ(patch(fdb("1", json::object())), "");
  const std::vector<json> all = pieces(fdb("1", {{"macVtepTable", hosts(1, 10)}}), 4);
  EXPECT_THAT(sizes(all), ElementsAre(0, 4, 4, 2));
}

TEST_F(PatchPiecesTest, ANewVniStaysWhole) {
  EXPECT_THAT(sizes(pieces(fdb("1", {{"macVtepTable", hosts(1, 10)}}), 4)), ElementsAre(0, 10));
}

TEST_F(PatchPiecesTest, WhatGoesGoesBeforeWhatComes) {
  ASSERT_EQ(patch(fdb("1", json::object())), "");
  json table = hosts(1, 5);
  for (int number = 6; number <= 9; ++number) {
    table[mac(number)] = nullptr;
  }
  const std::vector<json> all = pieces(fdb("1", {{"macVtepTable", table}}), 4);
  ASSERT_THAT(sizes(all), ElementsAre(0, 4, 4, 1));
  const json& first = all[1].at("/controller/fdb/1/macVtepTable"_json_pointer);
  EXPECT_EQ(first, json({{mac(6), nullptr}, {mac(7), nullptr}, {mac(8), nullptr}, {mac(9), nullptr}}));
}

TEST_F(PatchPiecesTest, AnAddressThatCouldBeThereTwiceIsFound) {
  ASSERT_EQ(patch(fdb("1", json::object())), "");
  json table = hosts(1, 9);
  table["02:00:00:00:00:0A"] = {{"vtepIp", "10.0.0.2"}};
  table["02:00:00:00:00:0a"] = {{"vtepIp", "10.0.0.3"}};
  const std::vector<json> all = pieces(fdb("1", {{"macVtepTable", table}}), 4);
  ASSERT_THAT(sizes(all), ElementsAre(0, 11));
  EXPECT_EQ(patch(all[1]), "/controller/fdb/1/macVtepTable/02:00:00:00:00:0a: the same key is there twice");
}

TEST_F(PatchPiecesTest, AnnouncedEntriesKeepTheirPlace) {
  const json patch = json::parse(R"({"controller": {"fdb": {"1": {}, "2": "announced", "3": {}}}})");
  EXPECT_THAT(pieces(patch, 4), ElementsAre(patch));
}

TEST_F(PatchPiecesTest, WhatIsNoPatchStaysWhole) {
  for (const char* text : {"7", "null", R"({"controller": 7})", R"({"controller": {"fdb": {"x": {}}}})",
                           R"({"controller": {"fdb": null}})"}) {
    EXPECT_THAT(pieces(json::parse(text), 4), ElementsAre(json::parse(text)));
  }
}

// One after the other they lead to the document that the patch leads to.
TEST_F(PatchPiecesTest, TogetherTheyAreThePatch) {
  ASSERT_EQ(patch(fdb("1", {{"macVtepTable", hosts(1, 30)},
                            {"macVtepFloodListTable", {{mac(1), {{"10.0.0.2", true}}}}}})),
            "");
  json table = hosts(20, 50);
  for (int number = 1; number <= 15; ++number) {
    table[mac(number)] = nullptr;
  }
  json whole = fdb("1", {{"macVtepTable", table}, {"macVtepFloodListTable", {{mac(1), nullptr}}}});
  whole["controller"]["fdb"]["2"] = {{"macVtepTable", hosts(1, 20)}};
  whole["mlag"]["mlagState"] = 1;
  json expected = input();
  const std::vector<json> all = pieces(whole, 7);
  EXPECT_GT(all.size(), 6U);
  EXPECT_THAT(sizes(all), Each(Le(7 + 20)));
  for (const json& piece : all) {
    ASSERT_EQ(patch(piece), "");
  }
  const json parted = input();
  ASSERT_EQ(patch(fdb("1", nullptr)), "");
  ASSERT_EQ(patch(fdb("2", nullptr)), "");
  ASSERT_EQ(patch(json{{"controller", {{"fdb", expected.at("controller").at("fdb")}}}}), "");
  ASSERT_EQ(patch(whole), "");
  EXPECT_EQ(parted, input());
}

}  // namespace
