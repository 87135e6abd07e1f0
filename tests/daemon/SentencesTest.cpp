// The words in which `explain` tells what the database and the kernel account for.
#include "agent/daemon/KernelDocuments.h"
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

Kernel::FullExplanation givenKernel() {
  return {.vlan = 10,
          .mac = {0x020000000001ULL},
          .known = {.mapped = true,
                    .vni = 5010,
                    .bridge = "vxb10",
                    .device = "vx5010",
                    .desired = Kernel::Explanation::Kind::vtep,
                    .desiredVteps = {{0x0a000002U}},
                    .deviceOwner = Kernel::Owner::ours,
                    .deviceVteps = {{0x0a000002U}},
                    .deviceNexthop = 7,
                    .portOwner = Kernel::Owner::ours,
                    .port = "vx5010"},
          .device = Kernel::ReadBack{.there = true, .marked = true, .nexthop = 7},
          .bridge = Kernel::ReadBack{.there = true, .marked = true, .port = "vx5010"}};
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
  Kernel::FullExplanation explanation = givenKernel();
  explanation.known.differs = true;
  explanation.known.deviceOwner = Kernel::Owner::none;
  explanation.known.problem = "no room";
  explanation.device = Kernel::ReadBack{.answer = "No such file or directory"};
  explanation.bridge->marked = false;
  const Told told = kernelTold(explanation);
  EXPECT_EQ(told.ok, false);
  EXPECT_EQ(told.detail,
            "wanted: VTEP 10.0.0.2; vx5010: nothing acknowledged, read back no row (No such file or "
            "directory); vxb10: "
            "ours acknowledged, read back a row on port vx5010, not ours; no room");
}

TEST(KernelTold, TellsWhoseAnEntryIsWhereThereIsNoDevice) {
  Kernel::FullExplanation explanation = givenKernel();
  explanation.known.device = "";
  explanation.known.deviceOwner = Kernel::Owner::foreign;
  explanation.known.portOwner = Kernel::Owner::learned;
  explanation.device.reset();
  explanation.bridge->dst = {0x0a000003U};
  EXPECT_EQ(
      kernelTold(explanation).detail,
      "wanted: VTEP 10.0.0.2; device not there: foreign acknowledged; vxb10: learned acknowledged, read "
      "back a row to 10.0.0.3 on port vx5010");
}

TEST(KernelTold, WhatIsNotWantedIsNeitherWellNorIll) {
  Kernel::FullExplanation explanation = givenKernel();
  explanation.known.desired = Kernel::Explanation::Kind::none;
  EXPECT_EQ(kernelTold(explanation).ok, nullptr);
  explanation.known.differs = true;
  EXPECT_EQ(kernelTold(explanation).ok, false);
  explanation.known.mapped = false;
  EXPECT_EQ(kernelTold(explanation).detail, "the VLAN has no bridge and no VXLAN device");
}

TEST(KernelTold, TellsFloodingToAllAndToAnyOne) {
  Kernel::FullExplanation explanation = givenKernel();
  explanation.known.desired = Kernel::Explanation::Kind::all;
  explanation.known.desiredVteps = {{0x0a000002U}, {0x0a000003U}};
  EXPECT_EQ(kernelTold(explanation).detail.substr(0, 36), "wanted: each of 10.0.0.2, 10.0.0.3; ");
  explanation.known.desired = Kernel::Explanation::Kind::any;
  EXPECT_EQ(kernelTold(explanation).detail.substr(0, 42), "wanted: any one of 10.0.0.2, 10.0.0.3; vx5");
}

// The documents that programs read have kept their members.
TEST(KernelDocuments, AnAccountHasWhatIsDesiredAcknowledgedAndReadBack) {
  EXPECT_EQ(kernelAccount(givenKernel()),
            json::parse(
                R"({"vlan": 10, "mac": "02:00:00:00:00:01", "mapped": true, "differs": false, "vni": 5010,
    "wanted": {"kind": "vtep", "vteps": ["10.0.0.2"]},
    "acknowledged": {"device": {"device": "vx5010", "row": "ours", "vteps": ["10.0.0.2"], "nexthop": 7},
                     "bridge": {"bridge": "vxb10", "row": "ours", "port": "vx5010"}},
    "kernel": {"device": {"there": true, "marked": true, "nexthop": 7},
               "bridge": {"there": true, "marked": true, "port": "vx5010"}}})"));
  EXPECT_EQ(
      kernelAccount({.vlan = 10,
                     .mac = {},
                     .known = {.problem = "no room"},
                     .bridge = Kernel::ReadBack{.answer = "none"}}),
      json::parse(R"({"vlan": 10, "mac": "00:00:00:00:00:00", "mapped": false, "differs": false, "wanted": {},
    "acknowledged": {"device": {"device": "", "row": "none", "vteps": []}, "bridge": {"bridge": "", "row": "none", "port": ""}},
    "kernel": {"bridge": {"there": false, "answer": "none"}}, "problem": "no room"})"));
}

TEST(KernelDocuments, DifferencesAreLeftOpenWhileAnythingIsUnknown) {
  Kernel::AdapterStatus status;
  status.tallies = {{"hosts", 3, 2, 1, 0}, {"floods", 3, 2, 1, 3}};
  status.counters.audits = 4;
  status.problems = 5;
  json document = kernelDocument(status);
  EXPECT_EQ(document.at("kinds").at("hosts"),
            json::parse(R"({"wanted": 3, "there": 2, "differing": 1, "unknown": 0, "compared": null})"));
  EXPECT_EQ(document.at("kinds").at("floods"),
            json::parse(R"({"wanted": 3, "there": 2, "differing": null, "unknown": 3, "compared": null})"));
  EXPECT_EQ(document.at("counters").at("audits"), 4);
  EXPECT_EQ(document.at("problems"), 5);
  status.compared = std::chrono::system_clock::time_point(std::chrono::seconds(1));
  EXPECT_EQ(kernelDocument(status).at("kinds").at("hosts").at("compared"), "1970-01-01T00:00:01Z");
}

}  // namespace
}  // namespace Agent
