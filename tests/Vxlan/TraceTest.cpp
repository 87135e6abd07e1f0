// What the trace says of the road of a host: each line begins with the signature of its handler and a blank.
#include "Kel/TraceHelper.h"
#include "Scenario.h"

namespace {

using namespace scenario;

class TraceTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    givenVni(10010);
    controllerConverges(false);
    start();
    turnsUntilIdle();
    traceFromNow();
  }
  // Each of these is in some line of the trace; then the trace begins again.
  void expectTraced(const std::vector<const char*>& texts) {
    for (const char* text : texts) {
      EXPECT_GE(tracedLines(text), 1U) << '"' << text << "\" is not in\n" << joined();
    }
    traceFromNow();
  }
  std::string joined() const {
    std::string all;
    for (const std::string& line : lines) {
      all += line + '\n';
    }
    return all;
  }
};

TEST_F(TraceTest, APublishedHost) {
  publish(10010, 1);
  expectTraced({"handleRmxHostTable(Qnet::EthAddr) macAddr: 02:00:00:00:00:01 datapathLearningMode 0",
                "vniId: 10010vlanId: 10", "local vtepIp: 10.0.0.1 local dgw vtepIp: 10.0.1.1",
                "Adding remote host entry for mac: 02:00:00:00:00:01 vlan: 10 vtepIp: 10.0.0.9 moveCount: 1",
                "handleReceivedHostEntry(Bridging::MacVlanPair)  key 02:00:00:00:00:01 vlan 10"});
}

TEST_F(TraceTest, AnotherGatewayAddress) {
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.2"));
  expectTraced({"void Vxlan::RmxPerVniFdbStatusSmBase::handleDgwVtepAddr() vni: 10010",
                "void Vxlan::RmxPerVniFdbStatusSmBase::handleRmxHostTable()  datapathLearningMode 0"});
}

TEST_F(TraceTest, AWithdrawnHost) {
  publish(10010, 1);
  traceFromNow();
  withdraw(10010, 1);
  expectTraced(
      {"Evaluating delete of remote host entry for mac: 02:00:00:00:00:01 vlan: 10",
       "deleteReceivedTableEntry(const Bridging::MacVlanPair&)  deleting 02:00:00:00:00:01 vlan 10"});
}

// The controller's state, its echo, and what the echo sets off.
TEST_F(TraceTest, AConvergence) {
  controllerConverges(true);
  expectTraced(
      {"RmxStateSm::handleConvergenceInProgress() handleConvergenceInProgress init 1",
       "RmxStateSm::handleConvergenceInProgress() handleConvergenceInProgress init 1 convergence state 1",
       "VxlanControllerMacAddrSmBase::handleConvergenceInProgress() handleConvergenceInProgress init 1"});
  controllerStateGoes();
  expectTraced(
      {"VxlanControllerClientSm::handleRmxStateBaseDir(Kel::Name) handleRmxStateBaseDir init 1",
       "VxlanControllerClientSm::handleRmxStateBaseDir(Kel::Name) handleRmxStateBaseDir entry subdir deleted "
       "for ",
       "RmxStateSm::cleanup() cleanup convergence window 1"});
  controllerConverges(true);
  expectTraced(
      {"VxlanControllerClientSm::handleRmxStateBaseDir(Kel::Name) handleRmxStateBaseDir entry subdir "
       "added "});
  client->handleRmxStateBaseDir();
  expectTraced({"VxlanControllerClientSm::handleRmxStateBaseDir() handleRmxStateBaseDir init 1"});
}

TEST_F(TraceTest, AHostThatIsMarkedAndComesBack) {
  publish(10010, 1);
  controllerConverges(true);
  expectTraced({"handleConvergenceInProgress init 1 convergence state 1"});
  withdraw(10010, 1);
  expectTraced({"deferDeleteReceivedTableEntry(const Bridging::MacVlanPair&)  key 02:00:00:00:00:01 vlan 10",
                "defer delete of 02:00:00:00:00:01 vlan 10 old vtep: 10.0.0.9",
                "new marked for deletion count 1"});
  publish(10010, 1);
  expectTraced({"Re-add, entry was marked for delete", " new marked for deletion count 0"});
}

TEST_F(TraceTest, AMarkedHostThatIsDeleted) {
  publish(10010, 1);
  publish(10010, 2);
  client->deferDeleteReceivedTableEntry(key(1, 10));
  client->deferDeleteReceivedTableEntry(key(2, 10));
  traceFromNow();
  client->deleteReceivedTableEntry(key(1, 10));
  expectTraced({"deleteReceivedTableEntry(const Bridging::MacVlanPair&)  new marked for deletion count 1"});
}

TEST_F(TraceTest, AnOwnHost) {
  mlagAddress("shared", "10.0.2.1");
  publish(10010, 1);
  traceFromNow();
  publish(10010, 1, {.vtep = "10.0.2.1"});
  expectTraced({"vtepIp: 10.0.2.1", "Ignoring since it's a local entry, received vtepIp: 10.0.2.1",
                " delete stale macVtepPair 02:00:00:00:00:01 vlan 10"});
}

TEST_F(TraceTest, AVniThatIsPublishedAndWithdrawn) {
  mapVlan("Vxlan1", 20, 10020);
  expectTraced({"handleVlanVniMapUpdate vlanId 20",
                "void Vxlan::VtiVlanVniMapSmBase::rmxProcessVniVlanMapUpdateComplete(Bridging::VlanId, "
                "Qnet::IntfId) vlan: 20",
                "Create rmxPerVniFdbStatusSm for 10020", " Scanning VniStatus for vni 10020",
                "creating vniStatusSm", " entry subdir deleted for 10020"});
  givenVni(10020);
  expectTraced({"10020 entry subdir added ", "vniId: 10020 localmap: 20", " vni-vlan map found for vni 10020",
                "createRmxPerVniFdbStatusSm 10020"});
  publish(10020, 1);
  withdrawVni(10020);
  expectTraced(
      {" entry subdir deleted for 10020", " Deleting the corresponding SM",
       " Delete remote mac entries for vni 10020", "deleteRemoteMacFromController vlanId 20 deferDel 0",
       "void Vxlan::VxlanControllerMacAddrSmBase::deleteRemoteMacFromController(Bridging::VlanId, bool)  "
       "Deleting: Mac: 02:00:00:00:00:01 Vlan: 20 deferDel 0",
       "deleteRmxPerVniFdbStatusSm 10020"});
}

TEST_F(TraceTest, AVlanThatLosesItsVni) {
  unmapVlan("Vxlan1", 10);
  expectTraced({"handleVlanVniMapUpdate vlanId 10", "vlan-vni map has been deleted ",
                "Deleting rmxPerVniFdbStatusSm for vni 10010"});
}

TEST_F(TraceTest, TheModes) {
  vtiStatus("Vxlan1")->datapathLearningIs(true);
  expectTraced({"handleDatapathLearningMode()  init? 1 datapathLearningMode is 0",
                "updateControllerClientMode()  init? 1 datapathLearning is 1 vxlanControllerClientMode is 1",
                " Deleting remote MACs learnt from RMX"});
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  expectTraced({"handleControllerClientMode()  init? 1 vxlanControllerClientMode is 1",
                "handleRmxStateBaseDir entry subdir deleted for ", "cleanup() cleanup convergence window 0"});
  mlagIs(Mlag::MlagState::Active);
  expectTraced({"handleMlagState()  4", "VxlanControllerClientSm::deleteRmxMlagBumStatusSm()"});
  vtiStatus("Vxlan1")->controllerClientModeIs(true);
  expectTraced({"VxlanControllerClientSm::createRmxMlagBumStatusSm()"});
}

TEST_F(TraceTest, ThePacedDeletion) {
  for (std::uint64_t number = 1; number <= 4; ++number) {
    publish(10010, number);
  }
  controllerConverges(true);
  vniStatus(10010)->macVtepTableDelAll();
  client->maxProcessTimeIs(1);
  time.tickPerReadIs(0.25);
  traceFromNow();
  controllerConverges(false);
  expectTraced({"handleConvergenceInProgress schedule deferred deletes"});
  turn();
  expectTraced({"processUnicastDeferredDeletes()  init 1 convergence state 0 marked for del count 4",
                " no bookmark. start fresh", " initial count 4", " reschedule, resume later from ",
                " Remaining count 1"});
  turn();
  expectTraced({" starting at bookmark ", " initial count 1", " unicast mac deferred delete complete."});
}

// Two VLANs whose flood sets the controller does not publish again, and one that it does.
TEST_F(TraceTest, ThePacedDeletionOfFloodSets) {
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  for (const std::uint32_t number : {20U, 30U}) {
    mapVlan("Vxlan1", number, 10000 + number);
  }
  publishFloodList(10010, 1, {"10.0.0.7", "10.0.0.8", "10.0.0.9"});
  publishFloodList(10020, 1, {"10.0.0.9"});
  publishFloodList(10020, 2, {"10.0.0.9"});
  publishFloodList(10030, 1, {"10.0.0.9"});
  controllerConverges(true);
  for (const std::uint32_t number : {10010U, 10020U}) {
    withdrawVni(number);
  }
  publishFloodList(10010, 1, {"10.0.0.9"});
  withdrawVni(10030);
  givenVni(10030);
  client->maxProcessTimeIs(1);
  time.tickPerReadIs(2);
  traceFromNow();
  client->processBumDeferredDeletes();
  expectTraced({" called but nothing to do - nexo rebooted again?"});
  controllerConverges(false);
  traceFromNow();
  turn();
  expectTraced(
      {"virtual void Vxlan::VxlanControllerClientSm::processBumDeferredDeletes()  init: 1 convergence in "
       "progress: 0 vlan flood list count: 3 bum replication mode: 3",
       " no bookmark. start fresh", " iter vlan 10", " startKey vlan 10", " flood dest count mismatch 3 > 1",
       " reschedule, resume later from vlan 20 Deleted count 1"});
  turn();
  expectTraced({" starting at bookmark vlan 20", " iter vlan 20", " startKey vlan 20",
                " reschedule, resume later from vlan 30 Deleted count 2"});
  time.tickPerReadIs(0);
  turn();
  expectTraced({" starting at bookmark vlan 30", " deleting vlan 30 mac 02:00:00:00:00:01 flood set",
                " reached end, resume from first entry", " iter vlan 10",
                " flood list deferred delete complete. Deleted 1"});
  bumReplicationMode(Vxlan::BumReplicationMode::None);
  expectTraced({"handleBumReplicationMode()  Replication Mode is not rmx ",
                "VxlanControllerClientSm::deleteBumVtepListTable()"});
  client->processBumDeferredDeletes();
  expectTraced({" no bumDeferredDeletion "});
  client->deleteBumVtepListTable(vlan(10));
  expectTraced({"VxlanControllerClientSm::deleteBumVtepListTable(Bridging::VlanId)  vlanId 10"});
}

// Handlers trace at the ordinary level, 8, and at no other.
TEST_F(TraceTest, TheOrdinaryLevelIsEight) {
  Kel::traceLevelsIs("VxlanController=0-7,9");
  publish(10010, 1);
  withdraw(10010, 1);
  EXPECT_EQ(joined(), "");
  Kel::traceLevelsIs("VxlanController=8");
  publish(10010, 1);
  EXPECT_NE(joined(), "");
}

TEST_F(TraceTest, AClientThatIsBuilt) {
  restart();
  expectTraced({"handleInitialized()  Init? 0",
                "ReceivedHostTableToL2RibHostInputSm::handleInitialized()  Init? 0",
                "RmxPerVniFdbStatusSmBase::handleInitialized()  init? 0",
                " deleting L2Rib input entries that are not in received host table",
                " updating L2Rib input based on existing entries in received host table",
                "virtual void Vxlan::VtiVlanVniMapSm::handleInitialized()  Init ? 0"});
  givenMap("Vxlan2");
  expectTraced({"void Vxlan::VxlanControllerClientSm::handleVlanVniMapVti(Qnet::IntfId)  intf: Vxlan2"});
}

}  // namespace
