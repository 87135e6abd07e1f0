// What the trace says of the road of a host: each line begins with the signature of its handler and a blank.
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
  // Each of these is in some line of the trace; then it begins anew.
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

TEST_F(TraceTest, AWithdrawnHost) {
  publish(10010, 1);
  traceFromNow();
  withdraw(10010, 1);
  expectTraced(
      {"Evaluating delete of remote host entry for mac: 02:00:00:00:00:01 vlan: 10",
       "deleteReceivedTableEntry(const Bridging::MacVlanPair&)  deleting 02:00:00:00:00:01 vlan 10"});
}

TEST_F(TraceTest, AHostThatIsMarkedAndComesBack) {
  publish(10010, 1);
  controllerConverges(true);
  expectTraced({"handleConvergenceInProgress init 1 convergence state 1"});
  withdraw(10010, 1);
  expectTraced(
      {"defer delete of 02:00:00:00:00:01 vlan 10 old vtep: 10.0.0.9", "new marked for deletion count 1"});
  publish(10010, 1);
  expectTraced({"Re-add, entry was marked for delete", " new marked for deletion count 0"});
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
  expectTraced({"handleVlanVniMapUpdate vlanId 20", "vlan: 20", "Create rmxPerVniFdbStatusSm for 10020",
                " Scanning VniStatus for vni 10020", "creating vniStatusSm",
                " entry subdir deleted for 10020"});
  givenVni(10020);
  expectTraced({"10020 entry subdir added ", "vniId: 10020 localmap: 20", " vni-vlan map found for vni 10020",
                "createRmxPerVniFdbStatusSm 10020"});
  publish(10020, 1);
  withdrawVni(10020);
  expectTraced({" entry subdir deleted for 10020", " Deleting the corresponding SM",
                " Delete remote mac entries for vni 10020",
                "deleteRemoteMacFromController vlanId 20 deferDel 0",
                " Deleting: Mac: 02:00:00:00:00:01 Vlan: 20 deferDel 0", "deleteRmxPerVniFdbStatusSm 10020"});
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
                " entry subdir deleted for controller", "cleanup()  convergence window 0"});
  mlagIs(Mlag::MlagState::Active);
  expectTraced({"handleMlagState()  4"});
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

TEST_F(TraceTest, AClientThatIsBuilt) {
  restart();
  expectTraced({"handleInitialized()  Init? 0",
                " deleting L2Rib input entries that are not in received host table",
                " updating L2Rib input based on existing entries in received host table",
                "handleInitialized()  Init ? 0"});
  givenMap("Vxlan2");
  expectTraced({"handleVlanVniMapVti(Qnet::IntfId)  intf: Vxlan2"});
}

}  // namespace
