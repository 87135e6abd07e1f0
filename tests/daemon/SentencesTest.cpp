// The words in which `explain` tells what the database and the kernel account for.
#include "agent/daemon/Sentences.h"

#include <gtest/gtest.h>

namespace Agent {
namespace {

using nlohmann::json;

json givenSwitch(const json& unicast) {
  return {{"logicalSwitch", "ls10"},
          {"vni", 5010},
          {"vlan", 10},
          {"published", true},
          {"unicast", unicast},
          {"flood", nullptr},
          {"vniDecision", "published"},
          {"vlanDecision", "bound here"}};
}

json givenRow(const char* id, const json& address, const char* decision) {
  return {{"row", id}, {"locator", "0"}, {"dstIp", address}, {"decision", decision}};
}

json givenAccount(const json& switches, bool followed = true) {
  return {{"databaseFollowed", followed}, {"logicalSwitches", switches}};
}

TEST(DatabaseTold, NamesTheRowThatCountsAndWhyOthersDoNot) {
  const json here = givenSwitch({{"rows",
                                  {givenRow("aaaaaaaa-0000", "10.0.0.3", "counts"),
                                   givenRow("bbbbbbbb-0000", "10.0.0.2", "duplicate-mac")}},
                                 {"decision", "published"}});
  const Told told = databaseTold(givenAccount(json::array({here})));
  EXPECT_EQ(told.ok, true);
  EXPECT_EQ(told.detail,
            "ls10 (VNI 5010, VLAN 10): row aaaaaaaa behind 10.0.0.3 counts, row bbbbbbbb behind 10.0.0.2: "
            "duplicate-mac; "
            "published");
}

TEST(DatabaseTold, SaysWhyNothingIsPublished) {
  json here = givenSwitch({{"rows", json::array()}, {"decision", "no row in Ucast_Macs_Remote"}});
  here["vni"] = nullptr;
  here["vlan"] = nullptr;
  here["published"] = false;
  here["vniDecision"] = "not published: the logical switch has no tunnel key";
  here["vlanDecision"] = "not mapped: no VNI";
  const Told told = databaseTold(givenAccount(json::array({here})));
  EXPECT_EQ(told.ok, false);
  EXPECT_EQ(told.detail,
            "ls10 (VNI none, VLAN none): no row in Ucast_Macs_Remote; the VNI is not published: the logical "
            "switch has no tunnel key; the VLAN is not mapped: no VNI");
}

TEST(DatabaseTold, TellsWhereAMacIsFloodedTo) {
  json here = givenSwitch({{"rows", json::array()}, {"decision", "no row in Ucast_Macs_Remote"}});
  here["flood"] = {{"replicationMode", "source_node"},
                   {"rows", json::array()},
                   {"published", {"10.0.0.2", "10.0.0.3"}},
                   {"heldBack", false}};
  EXPECT_EQ(databaseTold(givenAccount(json::array({here}))).ok, true);
  EXPECT_EQ(
      databaseTold(givenAccount(json::array({here}))).detail,
      "ls10 (VNI 5010, VLAN 10): no row in Ucast_Macs_Remote; flooded (source_node) to 10.0.0.2, 10.0.0.3");
  here["flood"]["replicationMode"] = "service_node";
  here["flood"]["heldBack"] = true;
  EXPECT_EQ(databaseTold(givenAccount(json::array({here}))).detail,
            "ls10 (VNI 5010, VLAN 10): no row in Ucast_Macs_Remote; flooded (service_node) to any one of "
            "10.0.0.2, 10.0.0.3, a change is held back");
}

TEST(DatabaseTold, AnUnknownMacIsMissingOnlyWhileTheDatabaseIsFollowed) {
  EXPECT_EQ(databaseTold(givenAccount(json::array())).ok, false);
  EXPECT_EQ(databaseTold(givenAccount(json::array())).detail, "no row of this MAC");
  EXPECT_EQ(databaseTold(givenAccount(json::array(), false)).ok, nullptr);
  EXPECT_EQ(databaseTold(givenAccount(json::array(), false)).detail,
            "as last read, the session is not there: no row of this MAC");
}

json givenKernel() {
  return json::parse(
      R"({"vlan": 10, "mac": "02:00:00:00:00:01", "mapped": true, "differs": false, "vni": 5010,
    "wanted": {"kind": "vtep", "vteps": ["10.0.0.2"]},
    "acknowledged": {"device": {"device": "vx5010", "row": "ours", "vteps": ["10.0.0.2"], "nexthop": 7},
                     "bridge": {"bridge": "vxb10", "row": "ours", "port": "vx5010"}},
    "kernel": {"device": {"there": true, "marked": true, "nexthop": 7},
               "bridge": {"there": true, "marked": true, "port": "vx5010"}}})");
}

TEST(KernelTold, TellsWantedAcknowledgedAndReadBack) {
  const Told told = kernelTold(givenKernel());
  EXPECT_EQ(told.ok, true);
  EXPECT_EQ(
      told.detail,
      "wanted: VTEP 10.0.0.2; vx5010: ours acknowledged, read back a row by nexthop group 7; vxb10: ours "
      "acknowledged, read back a row on port vx5010");
}

TEST(KernelTold, TellsADifferenceAndItsProblem) {
  json account = givenKernel();
  account["differs"] = true;
  account["acknowledged"]["device"]["row"] = "none";
  account["kernel"]["device"] = {{"there", false}, {"answer", "No such file or directory"}};
  account["kernel"]["bridge"]["marked"] = false;
  account["problem"] = "no room";
  const Told told = kernelTold(account);
  EXPECT_EQ(told.ok, false);
  EXPECT_EQ(told.detail,
            "wanted: VTEP 10.0.0.2; vx5010: nothing acknowledged, read back no row (No such file or "
            "directory); vxb10: "
            "ours acknowledged, read back a row on port vx5010, not ours; no room");
}

TEST(KernelTold, WhatIsNotWantedIsNeitherWellNorIll) {
  json account = givenKernel();
  account["wanted"] = json::object();
  EXPECT_EQ(kernelTold(account).ok, nullptr);
  account["differs"] = true;
  EXPECT_EQ(kernelTold(account).ok, false);
  account["mapped"] = false;
  EXPECT_EQ(kernelTold(account).detail, "the VLAN has no bridge and no VXLAN device");
}

TEST(KernelTold, TellsFloodingToAllAndToAnyOne) {
  json account = givenKernel();
  account["wanted"] = {{"kind", "all"}, {"vteps", {"10.0.0.2", "10.0.0.3"}}};
  EXPECT_EQ(kernelTold(account).detail.substr(0, 36), "wanted: each of 10.0.0.2, 10.0.0.3; ");
  account["wanted"]["kind"] = "any";
  EXPECT_EQ(kernelTold(account).detail.substr(0, 42), "wanted: any one of 10.0.0.2, 10.0.0.3; vx5");
}

}  // namespace
}  // namespace Agent
