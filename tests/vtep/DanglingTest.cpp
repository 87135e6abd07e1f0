// Rows that name rows that are not there: yet, any more, or ever.
#include <set>

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr const char* host1 = "02:00:00:00:00:01";
constexpr const char* host2 = "02:00:00:00:00:02";
constexpr const char* missing1 = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* missing2 = "aaaaaaaa-0000-4000-8000-000000000002";

json reference(const std::string& id) {
  return json::array({"uuid", id});
}

class DanglingTest : public testing::Test, public Mapping {
 protected:
  DanglingTest() {
    database.physicalSwitch("leaf1", {"10.0.0.1"});
    database.logicalSwitch("ls10", 5010, "source_node");
    everythingComes();
  }

  FakeDatabase::Id insertHost(const std::string& mac, const std::string& logicalSwitch,
                              const std::string& locator) {
    return database.insert(
        "Ucast_Macs_Remote",
        {{"MAC", mac}, {"logical_switch", reference(logicalSwitch)}, {"locator", reference(locator)}});
  }
  FakeDatabase::Id ls10() const { return database.find("Logical_Switch", "ls10"); }
  std::size_t hostsInDocument() const { return vni(5010).value("macVtepTable", json::object()).size(); }
};

}  // namespace

TEST_F(DanglingTest, ARowWithoutItsLocatorCanBeModifiedAndDeleted) {
  const auto row = insertHost(host1, ls10(), missing1);
  changesCome();
  database.row("Ucast_Macs_Remote", row)["MAC"] = host2;
  changesCome();
  EXPECT_EQ(problems(ProblemKind::referenceMissing), 1U);
  database.remove(row);
  changesCome();
  EXPECT_EQ(hostsInDocument(), 0U);
  EXPECT_EQ(problems(ProblemKind::referenceMissing), 0U);
}

TEST_F(DanglingTest, AnotherLocatorDoesNotTakeThePlaceOfOneThatIsMissing) {
  const auto row = insertHost(host1, ls10(), missing1);
  changesCome();
  database.row("Ucast_Macs_Remote", row)["MAC"] = host2;
  changesCome();
  database.insert("Physical_Locator", {{"dst_ip", "10.0.0.9"}});
  changesCome();
  EXPECT_EQ(hostsInDocument(), 0U) << document.dump();
  database.row("Physical_Locator", missing1) = {{"dst_ip", "10.0.0.8"}};
  changesCome();
  EXPECT_EQ(vtepOf(5010, host2), "10.0.0.8");
}

TEST_F(DanglingTest, ARowThatTurnsFromOneMissingLocatorToAnotherWaitsForTheSecond) {
  const auto row = insertHost(host1, ls10(), missing1);
  changesCome();
  database.row("Ucast_Macs_Remote", row)["locator"] = reference(missing2);
  changesCome();
  database.row("Physical_Locator", missing1) = {{"dst_ip", "10.0.0.8"}};
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "none");
  database.row("Physical_Locator", missing2) = {{"dst_ip", "10.0.0.9"}};
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.9");
}

TEST_F(DanglingTest, ARowThatTurnsFromOneMissingLogicalSwitchToAnotherWaitsForTheSecond) {
  const auto locator = database.insert("Physical_Locator", {{"dst_ip", "10.0.0.2"}});
  const auto row = insertHost(host1, missing1, locator);
  changesCome();
  database.row("Ucast_Macs_Remote", row)["MAC"] = host2;
  changesCome();
  database.row("Ucast_Macs_Remote", row)["logical_switch"] = reference(missing2);
  changesCome();
  EXPECT_EQ(problems(ProblemKind::referenceMissing), 1U);
  database.row("Logical_Switch", missing1) = {
      {"name", "one"}, {"tunnel_key", 6001}, {"replication_mode", "source_node"}};
  database.row("Logical_Switch", missing2) = {
      {"name", "two"}, {"tunnel_key", 6002}, {"replication_mode", "source_node"}};
  changesCome();
  EXPECT_EQ(vni(6001), json::object());
  EXPECT_EQ(vtepOf(6002, host2), "10.0.0.2");
}

TEST_F(DanglingTest, AFloodRowWithoutItsSetCanBeModifiedAndWaitsForIt) {
  const auto row = database.insert(
      "Mcast_Macs_Remote",
      {{"MAC", "unknown-dst"}, {"logical_switch", reference(ls10())}, {"locator_set", reference(missing1)}});
  changesCome();
  database.row("Mcast_Macs_Remote", row)["MAC"] = "01:00:5e:00:00:01";
  changesCome();
  database.row("Physical_Locator_Set", missing1) = {{"locators", reference(missing2)}};
  changesCome();
  EXPECT_TRUE(vni(5010).empty());
  database.row("Physical_Locator", missing2) = {{"dst_ip", "10.0.0.9"}};
  changesCome();
  EXPECT_EQ(vni(5010)["macVtepFloodListTable"]["01:00:5e:00:00:01"], json::parse(R"({"10.0.0.9": true})"));
  database.remove(row);
  changesCome();
  database.remove(missing1);
  database.remove(missing2);
  changesCome();
  EXPECT_TRUE(vni(5010)["macVtepFloodListTable"].empty());
}

TEST_F(DanglingTest, AnAddressThatTwoLocatorsOfASetHaveIsTakenOnce) {
  json elements = json::array();
  for (int i = 0; i < 2; ++i) {
    elements.push_back(reference(database.insert("Physical_Locator", {{"dst_ip", "10.0.0.2"}})));
  }
  const auto set = database.insert("Physical_Locator_Set", {{"locators", json::array({"set", elements})}});
  database.insert(
      "Mcast_Macs_Remote",
      {{"MAC", "01:00:5e:00:00:01"}, {"logical_switch", reference(ls10())}, {"locator_set", reference(set)}});
  changesCome();
  const json told = mapper.explain(0x01005e000001, std::nullopt, std::nullopt);
  EXPECT_EQ(told["logicalSwitches"][0]["flood"]["published"], json::parse(R"(["10.0.0.2"])"));
}

TEST_F(DanglingTest, TheMacOfAHostIsNeitherZeroNorAGroup) {
  const auto locator = database.insert("Physical_Locator", {{"dst_ip", "10.0.0.2"}});
  insertHost("00:00:00:00:00:00", ls10(), locator);
  insertHost("01:00:5e:00:00:01", ls10(), locator);
  changesCome();
  EXPECT_EQ(hostsInDocument(), 0U);
  EXPECT_EQ(problems(ProblemKind::badMac), 2U);
}

TEST_F(DanglingTest, APartOnTopOfAnUpdateThatDidNotEndIsAnErrorOfTheSession) {
  mapper.beginUpdate(false, now);
  EXPECT_THROW(mapper.beginUpdate(false, now), ProtocolError);
  mapper.beginUpdate(true, now);
}

TEST_F(DanglingTest, VnisThatGoWithManyHostsGoInSeveralPatches) {
  database.logicalSwitch("ls20", 5020, "source_node");
  for (const char* const name : {"ls10", "ls20"}) {
    for (int i = 0; i < 4; ++i) {
      database.host(name, "02:00:00:00:01:0" + std::to_string(i), "10.0.0.2");
    }
  }
  changesCome();
  patches.clear();
  database.removeLogicalSwitch("ls10");
  database.removeLogicalSwitch("ls20");
  changesCome();
  ASSERT_EQ(patches.size(), 2U);
  EXPECT_EQ(patches[0]["controller"]["fdb"], json::parse(R"({"5010": null})"));
}

TEST_F(DanglingTest, NoVniIsOnTwoVlansWhileVlansSwap) {
  for (int vlan = 1; vlan < 4; ++vlan) {
    const std::string name = "swap" + std::to_string(vlan);
    database.logicalSwitch(name, 7000 + vlan);
    database.bind("leaf1", "t9", vlan, name);
  }
  changesCome();
  json seen = vlans();
  patches.clear();
  for (int vlan = 1; vlan < 4; ++vlan) {
    database.key("swap" + std::to_string(vlan), 7000 + vlan % 3 + 1);
  }
  changesCome();
  for (const json& patch : patches) {
    seen.merge_patch(patch.value("/vlanVniMap/Vxlan1"_json_pointer, json::object()));
    const std::set<int> distinct(seen.begin(), seen.end());
    EXPECT_EQ(distinct.size(), seen.size()) << seen.dump();
  }
  EXPECT_EQ(vlans(), json::parse(R"({"1": 7002, "2": 7003, "3": 7001})"));
}

}  // namespace Agent::Vtep::Testing
