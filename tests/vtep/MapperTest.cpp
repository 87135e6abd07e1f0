#include <gmock/gmock.h>

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr const char* host1 = "02:00:00:00:00:01";
constexpr const char* host2 = "02:00:00:00:00:02";

// A switch with one port, and one logical switch bound to it on VLAN 10.
class MapperTest : public testing::Test, public Mapping {
 protected:
  MapperTest() {
    database.physicalSwitch("leaf1", {"10.0.0.1"});
    database.logicalSwitch("ls10", 5010, "source_node");
    database.bind("leaf1", "t0", 10, "ls10");
  }
};

}  // namespace

TEST_F(MapperTest, AConfiguredControllerPutsTheVtiIntoClientModeBeforeAnythingIsKnown) {
  patchesAreTaken();
  EXPECT_EQ(document, json::parse(R"({
    "vtiStatus": {"Vxlan1": {"controllerClientMode": true, "datapathLearning": false}},
    "vlanVniMap": {"Vxlan1": {}},
    "hardware": {"bumStatus": {"bumReplicationMode": 3}},
    "controller": {"state": {"ovsdb": {"convergenceInProgress": false}}}})"));
}

TEST_F(MapperTest, RowsBecomeTheInputDocument) {
  database.host("ls10", host1, "10.0.0.2");
  database.flood("ls10", "unknown-dst", {"10.0.0.2", "10.0.0.3"});
  everythingComes();
  EXPECT_EQ(document, json::parse(R"({
    "vtiStatus": {"Vxlan1": {"controllerClientMode": true, "datapathLearning": false, "localVtepAddr": "10.0.0.1"}},
    "vlanVniMap": {"Vxlan1": {"10": 5010}},
    "hardware": {"bumStatus": {"bumReplicationMode": 3}},
    "controller": {
      "state": {"ovsdb": {"convergenceInProgress": false}},
      "fdb": {"5010": {"macVtepTable": {"02:00:00:00:00:01": {"vtepIp": "10.0.0.2", "moveCount": 0}},
                       "macVtepFloodListTable": {"00:00:00:00:00:00": {"10.0.0.2": true, "10.0.0.3": true}}}}}})"));
  EXPECT_TRUE(mapper.problems(10).empty());
}

TEST_F(MapperTest, AMacInUpperCaseIsTheSameMac) {
  database.host("ls10", "02:AB:CD:EF:00:01", "10.0.0.2");
  everythingComes();
  EXPECT_EQ(vtepOf(5010, "02:ab:cd:ef:00:01"), "10.0.0.2");
}

TEST_F(MapperTest, ARowThatGoesTakesItsHostAlong) {
  const auto row = database.host("ls10", host1, "10.0.0.2");
  database.host("ls10", host2, "10.0.0.2");
  everythingComes();
  database.remove(row);
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "none");
  EXPECT_EQ(vtepOf(5010, host2), "10.0.0.2");
  EXPECT_EQ(mapper.publishedHosts(), 1U);
}

TEST_F(MapperTest, PatchesCarryNoMoreHostsThanAskedFor) {
  for (int i = 0; i < 9; ++i) {
    database.host("ls10", "02:00:00:00:01:0" + std::to_string(i), "10.0.0.2");
  }
  everythingComes();
  int most = 0;
  for (const json& patch : patches) {
    const json::json_pointer table("/controller/fdb/5010/macVtepTable");
    most = std::max(most, patch.contains(table) ? static_cast<int>(patch.at(table).size()) : 0);
  }
  EXPECT_EQ(most, 2);
  EXPECT_EQ(vni(5010)["macVtepTable"].size(), 9U);
}

TEST_F(MapperTest, NoPatchShowsHalfATransaction) {
  patchesAreTaken();
  database.host("ls10", host1, "10.0.0.2");
  const std::string text = database.everything();
  UpdateWalk walk(hardwareVtep(), text);
  mapper.beginUpdate(true, now);
  while (walk.step(1, mapper)) {
    EXPECT_FALSE(mapper.pending());
    EXPECT_FALSE(mapper.next(10));
  }
  mapper.endUpdate(now);
  while (mapper.settle(1, now)) {
    EXPECT_FALSE(mapper.next(10));
  }
  EXPECT_TRUE(mapper.pending());
}

// --- moves

TEST_F(MapperTest, AMoveIsCountedWhenItsRowChanges) {
  const auto row = database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  database.moveHost(row, "10.0.0.3");
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.3");
  EXPECT_EQ(movesOf(5010, host1), 1);
}

TEST_F(MapperTest, AMoveIsCountedAcrossADeleteAndAnInsertInTwoUpdates) {
  const auto row = database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  database.remove(row);
  changesCome();
  ASSERT_EQ(vtepOf(5010, host1), "none");
  database.host("ls10", host1, "10.0.0.3");
  changesCome();
  EXPECT_EQ(movesOf(5010, host1), 1);
}

TEST_F(MapperTest, AMoveIsCountedThoughItsPatchWasNotTaken) {
  const auto row = database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  database.moveHost(row, "10.0.0.3");
  changesComeUntaken();
  database.moveHost(row, "10.0.0.2");
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(movesOf(5010, host1), 2);
}

TEST_F(MapperTest, AHostThatComesBackToItsVtepHasNotMoved) {
  const auto row = database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  database.remove(row);
  changesCome();
  database.host("ls10", host1, "10.0.0.2");
  changesCome();
  EXPECT_EQ(movesOf(5010, host1), 0);
}

TEST_F(MapperTest, MovesAreCountedPerVni) {
  const auto row = database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  database.moveHost(row, "10.0.0.3");
  changesCome();
  database.key("ls10", 5011);
  changesCome();
  EXPECT_EQ(movesOf(5011, host1), 0);
  database.key("ls10", 5010);
  changesCome();
  EXPECT_EQ(movesOf(5010, host1), 1);
}

TEST(MapperMoves, NoMoreMacsThatLeftAreRememberedThanConfigured) {
  MapperOptions options = Mapping::options();
  options.rememberedMacs = 1;
  Mapping mapping(options);
  mapping.database.logicalSwitch("ls10", 5010);
  const auto first = mapping.database.host("ls10", host1, "10.0.0.2");
  const auto second = mapping.database.host("ls10", host2, "10.0.0.2");
  mapping.everythingComes();
  mapping.database.remove(first);
  mapping.changesCome();
  mapping.database.remove(second);
  mapping.changesCome();
  mapping.database.host("ls10", host1, "10.0.0.3");
  mapping.database.host("ls10", host2, "10.0.0.3");
  mapping.changesCome();
  EXPECT_EQ(mapping.movesOf(5010, host1), 0);
  EXPECT_EQ(mapping.movesOf(5010, host2), 1);
}

// --- duplicates

TEST_F(MapperTest, OfDuplicateRowsTheOneThatCameLastCounts) {
  database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  const auto later = database.host("ls10", host1, "10.0.0.3");
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.3");
  EXPECT_EQ(mapper.duplicates(), 1U);
  database.remove(later);
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(mapper.duplicates(), 0U);
}

TEST_F(MapperTest, ADuplicateRowThatChangesCountsAsTheLast) {
  const auto first = database.host("ls10", host1, "10.0.0.2");
  database.host("ls10", host1, "10.0.0.3");
  everythingComes();
  database.moveHost(first, "10.0.0.4");
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.4");
  EXPECT_EQ(mapper.duplicates(), 1U);
}

TEST_F(MapperTest, OfManyDuplicatesAllButOneAreNamed) {
  for (int i = 2; i < 7; ++i) {
    database.host("ls10", host1, "10.0.0." + std::to_string(i));
  }
  everythingComes();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.6");
  EXPECT_EQ(problems(ProblemKind::duplicateMac), 4U);
  EXPECT_EQ(problemText(ProblemKind::duplicateMac),
            "02:00:00:00:00:01 in logical switch \"ls10\": another row of this MAC came later");
}

TEST_F(MapperTest, DuplicateFloodRowsAreRememberedToo) {
  database.flood("ls10", "unknown-dst", {"10.0.0.2"});
  const auto later = database.flood("ls10", "unknown-dst", {"10.0.0.3"});
  everythingComes();
  EXPECT_EQ(vni(5010)["macVtepFloodListTable"]["00:00:00:00:00:00"], json::parse(R"({"10.0.0.3": true})"));
  EXPECT_EQ(mapper.duplicates(), 1U);
  database.remove(later);
  changesCome();
  EXPECT_EQ(vni(5010)["macVtepFloodListTable"]["00:00:00:00:00:00"], json::parse(R"({"10.0.0.2": true})"));
}

// --- floods

TEST_F(MapperTest, AFloodListChangesInPlace) {
  const auto row = database.flood("ls10", "unknown-dst", {"10.0.0.2", "10.0.0.3"});
  everythingComes();
  patches.clear();
  database.moveFlood(row, {"10.0.0.3", "10.0.0.4"});
  changesCome();
  ASSERT_EQ(patches.size(), 1U);
  EXPECT_EQ(patches[0], json::parse(R"({"controller": {"fdb": {"5010": {"macVtepFloodListTable":
    {"00:00:00:00:00:00": {"10.0.0.2": null, "10.0.0.4": true}}}}}})"));
}

TEST_F(MapperTest, ServiceNodesAreAMultipath) {
  database.mode("ls10", "service_node");
  database.flood("ls10", "unknown-dst", {"10.0.0.2", "10.0.0.3"});
  everythingComes();
  EXPECT_EQ(vni(5010), json::parse(R"({"macVtepMultiPathTable":
    {"00:00:00:00:00:00": {"10.0.0.2": true, "10.0.0.3": true}}})"));
}

TEST_F(MapperTest, WithoutAReplicationModeServiceNodesAreAssumed) {
  database.logicalSwitch("ls20", 5020);
  database.flood("ls20", "unknown-dst", {"10.0.0.2"});
  everythingComes();
  EXPECT_TRUE(vni(5020).contains("macVtepMultiPathTable"));
}

TEST_F(MapperTest, AChangeOfTheReplicationModeMovesTheDestinations) {
  database.flood("ls10", "unknown-dst", {"10.0.0.2"});
  everythingComes();
  database.mode("ls10", "service_node");
  changesCome();
  EXPECT_TRUE(vni(5010)["macVtepFloodListTable"].empty());
  EXPECT_EQ(vni(5010)["macVtepMultiPathTable"]["00:00:00:00:00:00"], json::parse(R"({"10.0.0.2": true})"));
}

TEST_F(MapperTest, AFloodDestinationWithoutARowGoes) {
  const auto row = database.flood("ls10", "unknown-dst", {"10.0.0.2"});
  everythingComes();
  database.remove(row);
  changesCome();
  EXPECT_TRUE(vni(5010)["macVtepFloodListTable"].empty());
}

// --- VLANs and VNIs

TEST_F(MapperTest, ALogicalSwitchHasTheLowestVlanThatItsPortsBind) {
  database.bind("leaf1", "t0", 30, "ls10");
  database.bind("leaf1", "t1", 7, "ls10");
  everythingComes();
  EXPECT_EQ(vlans(), json::parse(R"({"7": 5010})"));
  EXPECT_EQ(problems(ProblemKind::vniWithTwoVlans), 2U);
  EXPECT_EQ(problemText(ProblemKind::vniWithTwoVlans),
            "the bindings of \"ls10\" to VLAN 10 are left out: VNI 5010 has VLAN 7");
  database.unbind("t1", 7);
  changesCome();
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010})"));
}

TEST_F(MapperTest, BindingsOfAnotherSwitchDoNotCount) {
  database.physicalSwitch("leaf2", {"10.0.0.9"});
  database.logicalSwitch("ls20", 5020);
  database.bind("leaf2", "u0", 20, "ls20");
  everythingComes();
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010})"));
  EXPECT_EQ(vni(5020), json::object()) << "published all the same";
}

TEST_F(MapperTest, AnUntaggedBindingAloneGetsAVlanOfTheRangeAndKeepsIt) {
  database.logicalSwitch("lsA", 6001);
  database.logicalSwitch("lsB", 6002);
  database.bind("leaf1", "t1", 0, "lsA");
  database.bind("leaf1", "t2", 0, "lsB");
  everythingComes();
  ASSERT_EQ(vlans().size(), 3U);
  const json before = vlans();
  for (const auto& [vlan, vni] : before.items()) {
    EXPECT_TRUE(vlan == "10" || std::stoi(vlan) >= 4000) << vlan;
  }
  database.unbind("t1", 0);
  changesCome();
  EXPECT_EQ(vlans().size(), 2U);
  database.bind("leaf1", "t1", 0, "lsA");
  changesCome();
  EXPECT_EQ(vlans(), before) << "found again by name";

  Mapping restarted;
  restarted.database = database;
  restarted.everythingComes();
  EXPECT_EQ(restarted.vlans(), before);
}

TEST_F(MapperTest, ATaggedBindingComesBeforeAnUntaggedOne) {
  database.bind("leaf1", "t1", 0, "ls10");
  everythingComes();
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010})"));
  EXPECT_TRUE(mapper.problems(10).empty());
}

TEST(MapperUntagged, TheRangeCanBeFullAndAPortsOwnVlanIsLeftAlone) {
  MapperOptions options = Mapping::options();
  options.topology.untaggedFirst = 100;
  options.topology.untaggedLast = 101;
  Mapping mapping(options);
  mapping.database.physicalSwitch("leaf1", {"10.0.0.1"});
  mapping.database.logicalSwitch("tagged", 6000);
  mapping.database.bind("leaf1", "t0", 100, "tagged");
  for (const char* const name : {"a", "b"}) {
    mapping.database.logicalSwitch(name, name[0] == 'a' ? 6001 : 6002);
    mapping.database.bind("leaf1", std::string{"port-"} + name, 0, name);
  }
  mapping.everythingComes();
  EXPECT_EQ(mapping.vlans(), json::parse(R"({"100": 6000, "101": 6001})"));
  EXPECT_EQ(mapping.problemText(ProblemKind::untaggedRangeFull),
            "\"b\" is not mapped: no VLAN from 100 to 101 is left for its untagged ports");
}

TEST_F(MapperTest, TwoLogicalSwitchesOnOneVlanTheFirstByNameHasIt) {
  database.logicalSwitch("ls05", 5005);
  database.bind("leaf1", "t1", 10, "ls05");
  everythingComes();
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5005})"));
  EXPECT_EQ(problemText(ProblemKind::vlanWithTwoVnis), "\"ls10\" is not mapped: VLAN 10 belongs to \"ls05\"");
}

TEST_F(MapperTest, AVniOfTwoLogicalSwitchesBelongsToTheFirstByName) {
  database.logicalSwitch("ls05", 5010);
  database.bind("leaf1", "t1", 20, "ls05");
  database.host("ls10", host1, "10.0.0.2");
  database.host("ls05", host2, "10.0.0.3");
  everythingComes();
  EXPECT_EQ(vlans(), json::parse(R"({"20": 5010})"));
  EXPECT_EQ(vtepOf(5010, host1), "none");
  EXPECT_EQ(vtepOf(5010, host2), "10.0.0.3");
  EXPECT_EQ(problemText(ProblemKind::vniWithTwoVlans), "\"ls10\" is left out: VNI 5010 belongs to \"ls05\"");
  database.removeLogicalSwitch("ls05");
  changesCome();
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010})"));
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(vtepOf(5010, host2), "none");
  EXPECT_TRUE(mapper.problems(10).empty());
}

TEST_F(MapperTest, AChangedTunnelKeyTakesTheHostsToTheNewVni) {
  database.host("ls10", host1, "10.0.0.2");
  database.flood("ls10", "unknown-dst", {"10.0.0.2"});
  everythingComes();
  const json before = vni(5010);
  database.key("ls10", 5099);
  changesCome();
  EXPECT_EQ(vni(5010), json());
  EXPECT_EQ(vni(5099), before);
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5099})"));
}

TEST_F(MapperTest, TwoLogicalSwitchesCanSwapTheirTunnelKeys) {
  database.logicalSwitch("ls20", 5020);
  database.bind("leaf1", "t0", 20, "ls20");
  database.host("ls10", host1, "10.0.0.2");
  database.host("ls20", host2, "10.0.0.3");
  everythingComes();
  database.key("ls10", 5020);
  database.key("ls20", 5010);
  changesCome();
  EXPECT_EQ(vtepOf(5020, host1), "10.0.0.2");
  EXPECT_EQ(vtepOf(5010, host2), "10.0.0.3");
  EXPECT_EQ(vtepOf(5010, host1), "none");
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5020, "20": 5010})"));
}

TEST_F(MapperTest, ARemovedLogicalSwitchTakesItsVniAndVlanAlong) {
  database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  database.removeLogicalSwitch("ls10");
  changesCome();
  EXPECT_EQ(vni(5010), json());
  EXPECT_EQ(vlans(), json::object());
  EXPECT_FALSE(converging());
  EXPECT_EQ(mapper.publishedHosts(), 0U);
  EXPECT_EQ(mapper.rows().hosts().entries(), 0U);
  EXPECT_EQ(mapper.rows().logicalSwitches().size(), 0U);
}

TEST_F(MapperTest, ALogicalSwitchWithoutATunnelKeyIsNotPublished) {
  database.logicalSwitch("ls20");
  database.bind("leaf1", "t0", 20, "ls20");
  database.host("ls20", host1, "10.0.0.2");
  everythingComes();
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010})"));
  database.key("ls20", 5020);
  changesCome();
  EXPECT_EQ(vtepOf(5020, host1), "10.0.0.2");
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010, "20": 5020})"));
}

TEST_F(MapperTest, OneTunnelKeyOfSeveralTakenAwayIsNoLeave) {
  database.logicalSwitch("ls20", 5020);
  everythingComes();
  database.key("ls10", std::nullopt);
  changesCome();
  EXPECT_FALSE(converging());
  EXPECT_EQ(vni(5010), json());
  EXPECT_EQ(vlans(), json::object());
}

TEST_F(MapperTest, ALargeChangeOfTheVlansComesInPartsThatRemoveFirst) {
  for (int vlan = 1; vlan < 7; ++vlan) {
    const std::string name = "swap" + std::to_string(vlan);
    database.logicalSwitch(name, 7000 + vlan);
    database.bind("leaf1", "t9", vlan, name);
  }
  everythingComes();
  patches.clear();
  for (int vlan = 1; vlan < 7; ++vlan) {
    database.key("swap" + std::to_string(vlan), 7000 + 7 - vlan);
  }
  changesCome();
  EXPECT_EQ(vlans(),
            json::parse(R"({"1": 7006, "2": 7005, "3": 7004, "4": 7003, "5": 7002, "6": 7001, "10": 5010})"));
  bool set = false;
  for (const json& patch : patches) {
    const json map = patch.value("/vlanVniMap/Vxlan1"_json_pointer, json::object());
    EXPECT_LE(map.size(), 2U);
    for (const json& vni : map) {
      EXPECT_FALSE(vni.is_null() && set) << "a removal after a setting";
      set |= !vni.is_null();
    }
  }
}

// --- bad rows

TEST_F(MapperTest, BadRowsAreLeftOutCountedAndNamedAndTheRestGoesOn) {
  database.host("ls10", host1, "10.0.0.2");
  database.host("ls10", host2, "2001:db8::1");
  database.host("ls10", "no mac", "10.0.0.2");
  database.host("ls10", "01:00:5e:00:00:01", "10.0.0.2");
  database.bind("leaf1", "t0", 4095, "ls10");
  database.logicalSwitch("big", 16777216);
  everythingComes();
  EXPECT_EQ(vni(5010)["macVtepTable"].size(), 1U);
  EXPECT_EQ(vlans(), json::parse(R"({"10": 5010})"));
  EXPECT_EQ(problems(ProblemKind::locatorNotIpv4), 1U);
  EXPECT_EQ(problems(ProblemKind::locatorUnusable), 1U);
  EXPECT_EQ(problems(ProblemKind::badMac), 2U);
  EXPECT_EQ(problems(ProblemKind::vlanOutOfRange), 1U);
  EXPECT_EQ(problems(ProblemKind::vniOutOfRange), 1U);
  EXPECT_EQ(problemText(ProblemKind::locatorNotIpv4),
            "the address \"2001:db8::1\" is not an IPv4 address at which a tunnel can end");
  EXPECT_EQ(
      problemText(ProblemKind::locatorUnusable),
      "02:00:00:00:00:02 in logical switch \"ls10\": the locator's address \"2001:db8::1\" cannot be used");
  EXPECT_EQ(problemText(ProblemKind::badMac), "\"no mac\" is not the MAC of a host");
  EXPECT_EQ(problemText(ProblemKind::vlanOutOfRange), "port \"t0\", VLAN 4095: out of range 0 to 4094");
  EXPECT_EQ(problemText(ProblemKind::vniOutOfRange),
            "tunnel key 16777216 of \"big\" is out of range 1 to 16777215");
}

TEST_F(MapperTest, WhatAControllerWroteIsShownInALine) {
  database.host("ls10", "two\nlines \xc3\xa9" + std::string(500, 'x'), "10.0.0.2");
  database.mode("ls10", "both");
  everythingComes();
  EXPECT_EQ(problemText(ProblemKind::badMac),
            "\"two?lines ??" + std::string(88, 'x') + "...\" is not the MAC of a host");
  EXPECT_EQ(problemText(ProblemKind::badReplicationMode),
            "replication mode \"both\" of \"ls10\" is not known; service_node is assumed");
}

TEST_F(MapperTest, AProblemThatIsMendedIsForgotten) {
  const auto row = database.host("ls10", host2, "2001:db8::1");
  const auto bad = database.host("ls10", "no mac", "10.0.0.2");
  everythingComes();
  database.moveHost(row, "10.0.0.3");
  database.row("Ucast_Macs_Remote", bad)["MAC"] = host1;
  changesCome();
  EXPECT_EQ(vtepOf(5010, host2), "10.0.0.3");
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(problems(ProblemKind::locatorUnusable), 0U);
  EXPECT_EQ(problems(ProblemKind::badMac), 0U);
}

TEST_F(MapperTest, AnOlderRowThatCanBeUsedComesBeforeANewerThatCannot) {
  database.host("ls10", host1, "10.0.0.2");
  database.host("ls10", host1, "2001:db8::1");
  everythingComes();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
}

TEST_F(MapperTest, OfASetWithAnIpv6LocatorTheRestIsUsed) {
  database.flood("ls10", "unknown-dst", {"10.0.0.2", "2001:db8::1"});
  everythingComes();
  EXPECT_EQ(vni(5010)["macVtepFloodListTable"]["00:00:00:00:00:00"], json::parse(R"({"10.0.0.2": true})"));
  EXPECT_EQ(problems(ProblemKind::locatorUnusable), 1U);
}

TEST_F(MapperTest, ARowThatNamesWhatIsNotThereWaitsForIt) {
  database.host("ls10", host1, "10.0.0.2");
  everythingComes();
  const auto locator = database.rows("Physical_Locator").begin()->first;
  const json columns = database.row("Physical_Locator", locator);
  database.remove(locator);
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "none");
  EXPECT_EQ(problems(ProblemKind::referenceMissing), 1U);
  database.row("Physical_Locator", locator) = columns;
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(problems(ProblemKind::referenceMissing), 0U);
}

TEST_F(MapperTest, TheLowestTunnelAddressCounts) {
  database.physicalSwitch("leaf1", {"10.0.0.9", "10.0.0.8", "2001:db8::8"});
  everythingComes();
  EXPECT_EQ(at("/vtiStatus/Vxlan1/localVtepAddr"), "10.0.0.8");
  EXPECT_EQ(problems(ProblemKind::severalTunnelIps), 1U);
  EXPECT_EQ(problems(ProblemKind::tunnelIpNotIpv4), 1U);
  database.physicalSwitch("leaf1", {});
  changesCome();
  EXPECT_EQ(at("/vtiStatus/Vxlan1/localVtepAddr"), json());
}

TEST_F(MapperTest, ASwitchThatIsNotThereIsNamed) {
  database.removePhysicalSwitch("leaf1");
  everythingComes();
  EXPECT_EQ(problemText(ProblemKind::switchMissing), "no physical switch is named \"leaf1\"");
  EXPECT_EQ(vlans(), json::object());
}

TEST(MapperOptionsTest, ARangeOfVlansOutsideOfAllIsRefused) {
  MapperOptions options = Mapping::options();
  options.topology.untaggedLast = 4095;
  EXPECT_THROW(Mapper{options}, std::invalid_argument);
}

// --- explain

TEST_F(MapperTest, ExplainTellsTheRowsBehindAMacAndWhatWasDecided) {
  database.host("ls10", host1, "10.0.0.2");
  database.host("ls10", host1, "10.0.0.3");
  everythingComes();
  const json told = mapper.explain(0x020000000001, std::nullopt, 10);
  ASSERT_EQ(told["logicalSwitches"].size(), 1U);
  const json& here = told["logicalSwitches"][0];
  EXPECT_EQ(here["logicalSwitch"], "ls10");
  EXPECT_EQ(here["vni"], 5010);
  EXPECT_EQ(here["vlan"], 10);
  EXPECT_EQ(here["unicast"]["decision"], "published");
  EXPECT_EQ(here["unicast"]["published"], json::parse(R"({"vtepIp": "10.0.0.3", "moveCount": 0})"));
  ASSERT_EQ(here["unicast"]["rows"].size(), 2U);
  EXPECT_EQ(here["unicast"]["rows"][0]["decision"], "counts");
  EXPECT_EQ(here["unicast"]["rows"][1]["decision"], "duplicate-mac");
}

TEST_F(MapperTest, ExplainTellsWhyAHostIsNotPublished) {
  database.logicalSwitch("ls20");
  database.host("ls20", host1, "10.0.0.2");
  everythingComes();
  const json told = mapper.explain(0x020000000001, std::nullopt, std::nullopt);
  ASSERT_EQ(told["logicalSwitches"].size(), 1U);
  EXPECT_EQ(told["logicalSwitches"][0]["vniDecision"], "not published: the logical switch has no tunnel key");
  EXPECT_EQ(told["logicalSwitches"][0]["unicast"]["decision"], "not published: its VNI is not");
}

TEST_F(MapperTest, ExplainOfAnUnknownMacInAKnownVniSaysThatItHasNoRow) {
  everythingComes();
  const json told = mapper.explain(0x020000000001, 5010, std::nullopt);
  ASSERT_EQ(told["logicalSwitches"].size(), 1U);
  EXPECT_EQ(told["logicalSwitches"][0]["unicast"]["decision"], "no row in Ucast_Macs_Remote");
}

}  // namespace Agent::Vtep::Testing
