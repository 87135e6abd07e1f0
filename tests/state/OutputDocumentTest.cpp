// The output document, whole and in parts.
#include "Scene.h"
#include "agent/state/OutputDocument.h"

namespace {

using nlohmann::json;

class OutputDocumentTest : public TestState::Scene {
 protected:
  void givenHosts() {
    ASSERT_EQ(patch(R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": true}},
      "hardware": {"bumStatus": {"bumReplicationMode": 3}}, "vlanVniMap": {"Vxlan1": {"10": 1, "20": 2}},
      "controller": {"fdb": {
        "1": {"macVtepTable": {"02:00:00:00:00:01": {"vtepIp": "10.0.0.2"}, "02:00:00:00:00:02": {"vtepIp": "10.0.0.3"}},
              "macVtepFloodListTable": {"00:00:00:00:00:00": {"10.0.0.10": true, "10.0.0.9": true}}},
        "2": {"macVtepTable": {"02:00:00:00:00:01": {"vtepIp": "10.0.0.4"}}}}}})"),
              "");
  }
  Agent::OutputDocument document{world, ""};
};

TEST_F(OutputDocumentTest, OfNothingHasItsFirstTwoLevels) {
  Kel::ActivityLoop::instance().runUntilIdle();
  EXPECT_EQ(document.whole(), json::parse(R"({
    "client": {"vxlanControllerClientMode": false, "datapathLearningMode": true, "perVni": [], "trackers": [],
               "mlagBumStatus": false},
    "receivedHosts": {}, "markedForDelCount": 0, "l2Rib": {"hosts": {}, "floodSets": {}},
    "hardware": {"bumReplicationMode": 0, "bumVtepList": {}}, "clientView": {"convergenceInProgress": false},
    "convergenceStatus": {"unicastDeferredDeletionInProgress": false, "bumDeferredDeletionInProgress": false}})"));
}

TEST_F(OutputDocumentTest, AHostHasItsMembers) {
  givenHosts();
  const json host =
      json::parse(R"({"intf": "Vxlan1", "entryType": 10, "vtepIp": "10.0.0.2", "moveCount": 0, "hostAttr": 16,
                                    "lastUpdateTime": 0.0})");
  EXPECT_EQ(document.at("/l2Rib/hosts/10/02:00:00:00:00:01"), host);
  json received = host;
  received["markedForDel"] = false;
  EXPECT_EQ(document.at("/receivedHosts/10/02:00:00:00:00:01"), received);
}

TEST_F(OutputDocumentTest, AddressesAscendByValue) {
  givenHosts();
  EXPECT_EQ(document.at("/l2Rib/floodSets"),
            json::parse(
                R"({"10": {"00:00:00:00:00:00": {"floodSetType": 1, "dests": ["10.0.0.9", "10.0.0.10"]}}})"));
}

TEST_F(OutputDocumentTest, APointerLeadsToItsPart) {
  givenHosts();
  const json whole = document.whole();
  for (const char* pointer : {"", "/client", "/client/perVni", "/l2Rib/hosts/10", "/receivedHosts/20",
                              "/markedForDelCount", "/hardware/bumReplicationMode", "/convergenceStatus"}) {
    EXPECT_EQ(document.at(pointer), whole.at(json::json_pointer(pointer))) << pointer;
  }
  for (const char* nowhere : {"/nothing", "/client/perVni/7", "/l2Rib/hosts/30", "/markedForDelCount/x"}) {
    EXPECT_EQ(document.at(nowhere), json()) << nowhere;
  }
  EXPECT_THROW(document.at("client"), json::exception);
}

TEST_F(OutputDocumentTest, IsPrintedAsFarAsItIsCompared) {
  givenHosts();
  const json whole = document.whole();
  const auto shaped = [&](const char* expected) { return document.shapedLike(json::parse(expected)); };
  EXPECT_EQ(
      shaped(R"({"l2Rib": {"hosts": {"10": {"02:00:00:00:00:02": {}, "02:00:00:00:00:09": null}}}})"),
      json({{"l2Rib",
             {{"floodSets", json::object()},
              {"hosts",
               {{"10", {{"02:00:00:00:00:02", whole["l2Rib"]["hosts"]["10"]["02:00:00:00:00:02"]}}}}}}}}));
  // A VLAN that has hosts is there, whichever are asked for; one that has none is not.
  EXPECT_EQ(shaped(R"({"receivedHosts": {"20": {}, "30": {}, "x": {}}})"),
            json::parse(R"({"receivedHosts": {"20": {}}})"));
  EXPECT_EQ(shaped(R"({"receivedHosts": {"20": null}})").at("receivedHosts").at("20"),
            whole["receivedHosts"]["20"]);
  EXPECT_EQ(shaped(R"({"client": 7, "nothing": 7})"), json({{"client", whole["client"]}}));
}

TEST_F(OutputDocumentTest, WithoutAClientHasNothingReceived) {
  givenHosts();
  world.clientDel();
  EXPECT_EQ(document.at("/receivedHosts"), json::object());
  EXPECT_EQ(document.at("/client/vxlanControllerClientMode"), false);
  EXPECT_EQ(document.at("/l2Rib/hosts").size(), 2U) << "what is forwarded stays";
}

}  // namespace
