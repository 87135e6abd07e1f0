// How many items a turn looks at, and that all turns together look at no more than a few for each row.
#include <cstdio>
#include <string>

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr std::size_t many = 20'000;
constexpr std::size_t perTurn = 64;
constexpr const char* locator1 = "20000000-0000-4000-8000-000000000001";
constexpr const char* set1 = "30000000-0000-4000-8000-000000000001";

std::string name(char kind, std::size_t number) {
  std::string digits = std::to_string(number);
  return kind + std::string("0000000-0000-4000-8000-") + std::string(12 - digits.size(), '0') + digits;
}

std::string mac(const std::string& begin, std::size_t number) {
  char text[18];
  std::snprintf(text, sizeof text, "%s:%02x:%02x:%02x:%02x", begin.c_str(),
                static_cast<unsigned>(number >> 24 & 0xff), static_cast<unsigned>(number >> 16 & 0xff),
                static_cast<unsigned>(number >> 8 & 0xff), static_cast<unsigned>(number & 0xff));
  return text;
}

std::string reference(const std::string& id) {
  return "[\"uuid\",\"" + id + "\"]";
}

// Many rows that hang on one logical switch, one locator, one set.
class TurnTest : public testing::Test, public Mapping {
 protected:
  TurnTest() { stepsPerTurn = perTurn; }

  static std::string small(const std::string& change = "insert") {
    return R"("Logical_Switch":{")" + name('1', 1) + R"(":{")" + change +
           R"(":{"name":"ls1","tunnel_key":5001,"replication_mode":"source_node"}}},)" + locator(change) +
           R"(,"Physical_Locator_Set":{")" + set1 + R"(":{")" + change + R"(":{"locators":)" +
           reference(locator1) + "}}}";
  }
  static std::string locator(const std::string& change, const std::string& address = "10.0.0.2") {
    return R"("Physical_Locator":{")" + std::string{locator1} + R"(":{")" + change + R"(":{"dst_ip":")" +
           address + R"("}}})";
  }
  template <typename Columns>
  static std::string rows(const std::string& table, char kind, Columns columns) {
    std::string text = "\"" + table + "\":{";
    for (std::size_t i = 0; i < many; ++i) {
      text += (i == 0 ? "\"" : ",\"") + name(kind, i) + R"(":{"insert":{)" + columns(i) + "}}";
    }
    return text + "}";
  }
  static std::string hostColumns(const std::string& mac, const std::string& locator = locator1) {
    return R"("MAC":")" + mac + R"(","logical_switch":)" + reference(name('1', 1)) + R"(,"locator":)" +
           reference(locator);
  }
  static std::string floodColumns(const std::string& mac, const std::string& set = set1) {
    return R"("MAC":")" + mac + R"(","logical_switch":)" + reference(name('1', 1)) + R"(,"locator_set":)" +
           reference(set);
  }
  static std::string hostsOfOneMac() {
    return rows("Ucast_Macs_Remote", '4', [](std::size_t) { return hostColumns("02:00:00:00:00:01"); });
  }
  static std::string floodsOfOneMac() {
    return rows("Mcast_Macs_Remote", '5', [](std::size_t) { return floodColumns("unknown-dst"); });
  }
  static std::string hostsOfManyMacs() {
    return rows("Ucast_Macs_Remote", '4', [](std::size_t i) { return hostColumns(mac("02:00", i)); });
  }
  static std::string floodsOfManyMacs() {
    return rows("Mcast_Macs_Remote", '5', [](std::size_t i) { return floodColumns(mac("01:00", i)); });
  }

  void comes(const std::string& tables, bool whole = false) {
    mostInATurn = inAllTurns = 0;
    take("{" + tables + "}", whole);
  }
  // A turn ends when it has looked at what it may; an item that is begun is looked at with its locator.
  void expectBoundedAndLinear(std::size_t itemsPerRow) const {
    EXPECT_LE(mostInATurn, perTurn + 2);
    EXPECT_GE(inAllTurns, many) << "the rows are looked at";
    EXPECT_LE(inAllTurns, many * itemsPerRow + 1000);
  }
};

}  // namespace

TEST_F(TurnTest, FloodRowsOfOneMacComeAndAreSweptInTurns) {
  comes(small() + "," + floodsOfOneMac(), true);
  expectBoundedAndLinear(3);
  EXPECT_EQ(problems(ProblemKind::duplicateMac), many - 1);
  comes(small("initial"), true);
  expectBoundedAndLinear(2);
  EXPECT_EQ(mapper.rows().floods().size(), 0U);
  EXPECT_EQ(problems(ProblemKind::duplicateMac), 0U);
}

TEST_F(TurnTest, OneMoreRowOfAMacWithManyDuplicatesIsLookedAtWithTheNextOneAlone) {
  comes(small() + "," + hostsOfOneMac());
  comes(R"("Ucast_Macs_Remote":{")" + name('b', 1) + R"(":{"insert":{)" + hostColumns("02:00:00:00:00:01") +
        "}}}");
  EXPECT_LE(inAllTurns, 10U);
  EXPECT_EQ(problems(ProblemKind::duplicateMac), many);
}

TEST_F(TurnTest, HostRowsOfOneMacFollowTheirLocatorInTurns) {
  comes(small() + "," + hostsOfOneMac());
  expectBoundedAndLinear(2);
  comes(R"("Physical_Locator":{")" + std::string{locator1} + R"(":{"delete":null}})");
  expectBoundedAndLinear(3);
  EXPECT_EQ(problems(ProblemKind::referenceMissing), many);
  comes(locator("insert"));
  expectBoundedAndLinear(3);
  EXPECT_EQ(problems(ProblemKind::duplicateMac), many - 1);
}

TEST_F(TurnTest, ALocatorThatManySetsHaveChangesTheirFloodsInTurns) {
  const std::string sets =
      rows("Physical_Locator_Set", '6', [](std::size_t) { return R"("locators":)" + reference(locator1); });
  const std::string floods = rows("Mcast_Macs_Remote", '5',
                                  [](std::size_t i) { return floodColumns(mac("01:00", i), name('6', i)); });
  comes(R"("Logical_Switch":{")" + name('1', 1) + R"(":{"insert":{"name":"ls1","tunnel_key":5001}}},)" +
        locator("insert") + "," + sets + "," + floods);
  expectBoundedAndLinear(7);
  comes(locator("modify", "10.0.0.3"));
  expectBoundedAndLinear(7);
  patchesAreTaken();
  EXPECT_EQ(vni(5001)["macVtepMultiPathTable"][mac("01:00", many - 1)], json::parse(R"({"10.0.0.3": true})"));
}

TEST_F(TurnTest, ALocatorThatNothingNamesChangesNoFlood) {
  comes(small() + "," + floodsOfManyMacs());
  comes(R"("Physical_Locator":{")" + name('2', 2) + R"(":{"insert":{"dst_ip":"10.0.0.9"}}})");
  EXPECT_LE(inAllTurns, 10U);
}

TEST_F(TurnTest, ALogicalSwitchChangesItsMacsInTurns) {
  comes(small() + "," + hostsOfManyMacs() + "," + floodsOfManyMacs());
  patchesAreTaken();
  EXPECT_EQ(mapper.publishedHosts(), many);
  EXPECT_LE(mostInAPatch, 5U);
  comes(R"("Logical_Switch":{")" + name('1', 1) + R"(":{"modify":{"replication_mode":"service_node"}}})");
  expectBoundedAndLinear(9);
  patchesAreTaken();
  EXPECT_EQ(vni(5001)["macVtepMultiPathTable"].size(), many);
  comes(R"("Logical_Switch":{")" + name('1', 1) + R"(":{"delete":null}})");
  expectBoundedAndLinear(9);
  patchesAreTaken();
  EXPECT_EQ(vni(5001), json());
}

TEST_F(TurnTest, EachTableIsSweptInTurns) {
  const auto ports = rows("Physical_Port", '7', [](std::size_t) {
    return std::string(R"("name":"p","vlan_bindings":["map",[]])");
  });
  const auto locators =
      rows("Physical_Locator", '8', [](std::size_t) { return std::string(R"("dst_ip":"10.0.0.7")"); });
  const auto sets = rows("Physical_Locator_Set", '6',
                         [](std::size_t i) { return R"("locators":)" + reference(name('8', i)); });
  const auto globals =
      rows("Global", '9', [](std::size_t) { return std::string(R"("other_config":["map",[]])"); });
  const auto switches = rows("Physical_Switch", 'a', [](std::size_t) {
    return std::string(R"("name":"s","ports":["set",[]],"tunnel_ips":["set",[]])");
  });
  for (const std::string& tables : {ports, locators + "," + sets, globals, switches}) {
    comes(tables, true);
    comes("", true);
    expectBoundedAndLinear(9);
    for (std::size_t table = 0; table < tableCount; ++table) {
      EXPECT_EQ(mapper.rows().rows(static_cast<Table>(table)), 0U);
    }
  }
  EXPECT_EQ(mapper.rows().locators().size(), 0U);
  EXPECT_EQ(mapper.rows().locatorSets().size(), 0U);
}

TEST_F(TurnTest, WhileConvergingAVniWithManyMacsButNoVtepCostsNothingToPublish) {
  comes(small() + "," + hostsOfManyMacs());
  patchesAreTaken();
  sessionIsLost();
  comes(locator("modify", "2001:db8::1"));
  patchesAreTaken();
  EXPECT_TRUE(converging());
  mostInAPatch = 0;
  comes(locator("modify", "2001:db8::2"));
  patchesAreTaken();
  EXPECT_LE(mostInAPatch, 5U);
  EXPECT_EQ(mapper.publishedHosts(), 0U);
}

TEST_F(TurnTest, WhatIsHeldBackIsReleasedInTurns) {
  comes(small() + "," + floodsOfManyMacs());
  patchesAreTaken();
  sessionIsLost();
  comes(R"("Physical_Locator_Set":{")" + std::string{set1} + R"(":{"delete":null}})");
  patchesAreTaken();
  EXPECT_EQ(vni(5001)["macVtepFloodListTable"].size(), many) << "held back while converging";
  mostInATurn = inAllTurns = 0;
  timePasses(200);
  expectBoundedAndLinear(4);
  EXPECT_TRUE(vni(5001)["macVtepFloodListTable"].empty());
}

}  // namespace Agent::Vtep::Testing
