// Each line of the trace begins with the signature of the operation that says it: what a step says, its
// operation says. Each test lets something come, change and go, and reads every line of the operations that
// are about it.
#include <map>

#include "Scenario.h"

namespace {

using namespace scenario;
using testing::ElementsAre;

// Signatures, whole.
const std::string hostTable = "void Vxlan::RmxPerVniFdbStatusSmBase::handleRmxHostTable(Qnet::EthAddr)";
const std::string floodInit = "virtual void Vxlan::VccMacVtepFloodListTableSm::handleInitialized()";
const std::string floodOne =
    "virtual void Vxlan::VccMacVtepFloodListTableSm::handleVtepIpFloodList(Qnet::IpAddr)";
const std::string floodWhole = "void Vxlan::MacVtepFloodListTableSmBase::handleVtepIpFloodList()";
const std::string floodCleanup = "virtual void Vxlan::VccMacVtepFloodListTableSm::cleanup()";
const std::string multiPath =
    "virtual void Vxlan::VccPerVniFdbStatusSm::handleMacVtepMultiPathTable(Qnet::EthAddr)";
const std::string vniDir =
    "virtual void Vxlan::VxlanControllerMacAddrSmBase::handleControllerVniBaseDir(Kel::Name)";
const std::string clientMode = "virtual void Vxlan::VxlanControllerClientSm::updateControllerClientMode()";
const std::string bumJob = "virtual void Vxlan::VxlanControllerClientSm::processBumDeferredDeletes()";
const std::string sweep = "void Vxlan::RmxMlagBumStatusSmBase::markAndSweep(Bridging::VlanId)";
const std::string mapUpdate =
    "void Vxlan::VtiVlanVniMapSmBase::rmxProcessVniVlanMapUpdateComplete(Bridging::VlanId, Qnet::IntfId)";
const std::string stateEntry = "void Vxlan::VxlanControllerClientSm::handleRmxStateBaseDir(Kel::Name)";

class TraceOperationsTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    givenVni(10010);
    bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    controllerConverges(false);
    start();
    turnsUntilIdle();
    traceFromNow();
  }
  // What the operation has said since the trace began, without its signature and the blank; then the trace
  // begins again.
  std::vector<std::string> said(const std::string& operation) {
    std::vector<std::string> texts;
    for (const std::string& line : lines) {
      if (line.starts_with(operation + ' ')) {
        texts.push_back(line.substr(operation.size() + 1));
      }
    }
    return texts;
  }
};

TEST_F(TraceOperationsTest, AHostComesChangesAndGoes) {
  publish(10010, 1);
  EXPECT_THAT(said(hostTable),
              ElementsAre("macAddr: 02:00:00:00:00:01 datapathLearningMode 0", "vniId: 10010vlanId: 10",
                          "Adding remote host entry for mac: 02:00:00:00:00:01 vlan: 10 vtepIp: 10.0.0.9 "
                          "moveCount: 1"));
  controllerConverges(true);
  withdraw(10010, 1);
  traceFromNow();
  publish(10010, 1, {.moves = 2});
  EXPECT_THAT(said(hostTable),
              ElementsAre("macAddr: 02:00:00:00:00:01 datapathLearningMode 0", "vniId: 10010vlanId: 10",
                          "Adding remote host entry for mac: 02:00:00:00:00:01 vlan: 10 vtepIp: 10.0.0.9 "
                          "moveCount: 2",
                          "Re-add, entry was marked for delete", " new marked for deletion count 0"));
  traceFromNow();
  publish(10010, 1, {.vtep = "10.0.0.1"});
  EXPECT_THAT(said(hostTable),
              ElementsAre("macAddr: 02:00:00:00:00:01 datapathLearningMode 0", "vniId: 10010vlanId: 10",
                          "Ignoring since it's a local entry, received vtepIp: 10.0.0.1",
                          " delete stale macVtepPair 02:00:00:00:00:01 vlan 10"));
  traceFromNow();
  withdraw(10010, 1);
  EXPECT_THAT(said(hostTable),
              ElementsAre("macAddr: 02:00:00:00:00:01 datapathLearningMode 0", "vniId: 10010vlanId: 10",
                          "Evaluating delete of remote host entry for mac: 02:00:00:00:00:01 vlan: 10"));
}

TEST_F(TraceOperationsTest, AFloodListComesChangesAndGoes) {
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  EXPECT_THAT(said(floodInit),
              ElementsAre(" init? 1", " vni: 10010 vlan: 10", "listType: sendToAll vtepAddr len 2"));
  const auto list = vniStatus(10010)->macVtepFloodListTable(mac(1));
  traceFromNow();
  list->vtepIpFloodListIs(ip("10.0.0.4"), true);
  EXPECT_THAT(said(floodOne),
              ElementsAre(" init? 1", " vni: 10010 vlan: 10", " adding 10.0.0.4 to remoteVtepAddr"));
  EXPECT_THAT(said(floodInit), ElementsAre());
  traceFromNow();
  list->vtepIpFloodListDelAll();
  EXPECT_THAT(said(floodWhole), ElementsAre(" init? 1"));
  EXPECT_THAT(said(floodOne), testing::Contains(" removing 10.0.0.4 from flood set"));
  traceFromNow();
  withdrawFloodList(10010, 1);
  EXPECT_THAT(said(floodCleanup),
              ElementsAre(" init? 1", " vni: 10010 vlan: 10", " deleting 02:00:00:00:00:01 from vlan 10"));
}

// The ways out of the gate are the operation's words, too.
TEST_F(TraceOperationsTest, AFloodListThatIsHeldBack) {
  publishMultiPath(10010, 1, {"10.0.0.9"});
  traceFromNow();
  publishFloodList(10010, 1, {"10.0.0.2"});
  EXPECT_THAT(said(floodInit),
              ElementsAre(" init? 1", " mac 02:00:00:00:00:01 found in macVtepMultiPathTable"));
  traceFromNow();
  withdrawFloodList(10010, 1);
  EXPECT_THAT(said(floodCleanup),
              ElementsAre(" init? 1", " mac 02:00:00:00:00:01 found in macVtepMultiPathTable"));
  givenMap("Vxlan0");
  traceFromNow();
  publishFloodList(10010, 2, {"10.0.0.2"});
  EXPECT_THAT(said(floodInit), ElementsAre(" init? 1", " no vlan-vni map found for vni: 10010"));
}

TEST_F(TraceOperationsTest, AMultiPathEntryComesChangesAndGoes) {
  publishMultiPath(10010, 1, {"10.0.0.8", "10.0.0.9"});
  EXPECT_THAT(said(multiPath),
              ElementsAre(" init? 1", " vni: 10010 vlan: 10", "(2) listType: sendToAny vtepAddr len 2"));
  publishFloodList(10010, 1, {"10.0.0.2"});
  traceFromNow();
  publishMultiPath(10010, 1, {"10.0.0.8"});
  EXPECT_THAT(said(multiPath),
              ElementsAre(" init? 1", " vni: 10010 vlan: 10", "(2) listType: sendToAny vtepAddr len 1"));
  traceFromNow();
  withdrawMultiPath(10010, 1);
  EXPECT_THAT(said(multiPath),
              ElementsAre(" init? 1", " vni: 10010 vlan: 10", " deleting 02:00:00:00:00:01 from vlanFloodSet",
                          " mac 02:00:00:00:00:01 found in macVtepFloodListTable"));
}

TEST_F(TraceOperationsTest, AVniComesAndGoes) {
  mapVlan("Vxlan1", 20, 10020);
  traceFromNow();
  announceVni(10020);
  EXPECT_THAT(said(vniDir), ElementsAre(" name 10020", "10020 entry subdir added, but not instantiated "));
  traceFromNow();
  givenVni(10020);
  EXPECT_THAT(said(vniDir), ElementsAre(" name 10020", "10020 entry subdir added ",
                                        "vniId: 10020 localmap: 20", " vni-vlan map found for vni 10020"));
  traceFromNow();
  withdrawVni(10020);
  EXPECT_THAT(said(vniDir), ElementsAre(" name 10020", " entry subdir deleted for 10020",
                                        " Deleting the corresponding SM"));
}

TEST_F(TraceOperationsTest, AMappingComesAndGoes) {
  mapVlan("Vxlan1", 20, 10020);
  EXPECT_THAT(said(mapUpdate), ElementsAre("vlan: 20", "Create rmxPerVniFdbStatusSm for 10020"));
  traceFromNow();
  unmapVlan("Vxlan1", 10);
  EXPECT_THAT(said(mapUpdate), ElementsAre("vlan: 10", "vlan-vni map has been deleted ",
                                           "Deleting rmxPerVniFdbStatusSm for vni 10010"));
}

TEST_F(TraceOperationsTest, LearningThatIsSwitchedOn) {
  vtiStatus("Vxlan1")->datapathLearningIs(true);
  EXPECT_THAT(said(clientMode), ElementsAre(" init? 1 datapathLearning is 1 vxlanControllerClientMode is 1",
                                            " Deleting remote MACs learnt from RMX"));
}

TEST_F(TraceOperationsTest, TheControllersStateComesAndGoes) {
  controllerStateGoes();
  EXPECT_THAT(said(stateEntry),
              ElementsAre("handleRmxStateBaseDir init 1", "handleRmxStateBaseDir entry subdir deleted for "));
  traceFromNow();
  handles.rmxStateBaseDir->entryIs(Name("controller"));
  EXPECT_THAT(said(stateEntry),
              ElementsAre("handleRmxStateBaseDir init 1",
                          "handleRmxStateBaseDir entry subdir added, but not instantiated "));
  traceFromNow();
  handles.rmxStateBaseDir->entityPtrIs(Name("controller"), Kel::make<VxlanController::RmxStateV2>());
  EXPECT_THAT(said(stateEntry),
              ElementsAre("handleRmxStateBaseDir init 1", "handleRmxStateBaseDir entry subdir added "));
}

TEST_F(TraceOperationsTest, ThePacedDeletionOfFloodSets) {
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  publishFloodList(10010, 2, {"10.0.0.2"});
  controllerConverges(true);
  withdrawVni(10010);
  publishFloodList(10010, 1, {"10.0.0.3"});
  controllerConverges(false);
  traceFromNow();
  client->processBumDeferredDeletes();
  EXPECT_THAT(
      said(bumJob),
      ElementsAre(" init: 1 convergence in progress: 0 vlan flood list count: 1 bum replication mode: 3",
                  " no bookmark. start fresh", " iter vlan 10", " startKey vlan 10",
                  " flood dest count mismatch 2 > 1", " deleting vlan 10 mac 02:00:00:00:00:02 flood set",
                  " reached end, resume from first entry",
                  " flood list deferred delete complete. Deleted 2"));
}

TEST_F(TraceOperationsTest, ASweepOfThePeersLists) {
  mlagIs(Mlag::MlagState::Active);
  peerBumReplicationMode(Vxlan::BumReplicationMode::Controller);
  peerLists(1, 10, {"10.0.0.2"});
  const auto local = handles.vxlanHwStatusDir->bumStatus();
  local->bumVtepListIs(key(1, 10))->remoteVtepAddrIs(ip("10.0.0.3"), true);
  local->bumVtepListIs(key(2, 10));
  traceFromNow();
  client->rmxMlagBumStatusSm()->markAndSweep(vlan(10));
  EXPECT_THAT(said(sweep), ElementsAre("markAndSweep vlan=10", "Sweeping 10.0.0.3 from 02:00:00:00:00:01:10",
                                       "Sweeping 02:00:00:00:00:02:10"));
}

}  // namespace
