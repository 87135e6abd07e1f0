// Every attribute has its accessor: what a machine was built from and what it owns is read back under the
// name of the attribute.
#include "Scenario.h"

namespace {

using namespace scenario;

class AccessorsTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    peerBumReplicationMode(Vxlan::BumReplicationMode::Controller);
    publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
    peerLists(1, 10, {"10.0.0.2"});
    mlagIs(Mlag::MlagState::Active);
    controllerConverges(false);
    start();
  }
};

TEST_F(AccessorsTest, TheClientsInputsOutputsAndShadows) {
  EXPECT_EQ(client->rmxStateBaseDir(), handles.rmxStateBaseDir);
  EXPECT_EQ(client->vlanVniMaps(), handles.vlanVniMaps);
  EXPECT_EQ(client->rmxSde(), handles.rmxSde);
  EXPECT_EQ(client->l2RibRmxInput(), handles.l2RibRmxInput);
  EXPECT_EQ(client->rmxConvergenceStatus(), handles.rmxConvergenceStatus);
  EXPECT_EQ(client->vlanVniMapSmShadow().size(), 1U);
  EXPECT_EQ(client->vlanVniMapSmShadow(vti("Vxlan1")), client->vlanVniMapSm(vti("Vxlan1")));
  EXPECT_FALSE(client->vlanVniMapSmShadow(vti("Vxlan2")));
  EXPECT_EQ(client->vccPerVniFdbStatusSmShadow().size(), 1U);
  EXPECT_EQ(client->vccPerVniFdbStatusSmShadow(vni(10010)), client->rmxPerVniFdbStatusSm(vni(10010)));
  EXPECT_FALSE(client->vccPerVniFdbStatusSmShadow(vni(10020)));
  ASSERT_TRUE(client->rmxMlagBumStatusSmShadow());
  EXPECT_EQ(client->rmxMlagBumStatusSmShadow(), client->rmxMlagBumStatusSm());
}

TEST_F(AccessorsTest, TheInputsOfTheOtherMachines) {
  const auto exporter = client->receivedHostTableToL2RibHostInputSm();
  EXPECT_EQ(exporter->receivedHostTable(), client->hostTable());
  EXPECT_EQ(exporter->l2RibRmxInput(), handles.l2RibRmxInput);
  const auto mlag = client->rmxMlagBumStatusSmShadow();
  EXPECT_EQ(mlag->mlagVxlanStatus(), handles.mlagVxlanStatus);
  EXPECT_EQ(mlag->vxlanHwStatusDir(), handles.vxlanHwStatusDir);
  EXPECT_EQ(mlag->vlanVniMaps(), handles.vlanVniMaps);
  EXPECT_EQ(client->rmxStateSm()->rmxStateClientView(), handles.rmxStateClientView);
  const auto wrapper = Vxlan::rmxStateSmWrapperFactory(handles.vtiStatusDir, handles.rmxStateBaseDir,
                                                       handles.rmxStateClientView);
  EXPECT_EQ(wrapper->vtiStatusDir(), handles.vtiStatusDir);
  EXPECT_EQ(wrapper->rmxStateBaseDir(), handles.rmxStateBaseDir);
  EXPECT_EQ(wrapper->rmxStateClientView(), handles.rmxStateClientView);
}

// Each child says who owns it.
TEST_F(AccessorsTest, TheWayBackToTheOwner) {
  const auto machine = client->vccPerVniFdbStatusSmShadow(vni(10010));
  EXPECT_EQ(machine->vxlanControllerMacAddrSm(), client.get());
  EXPECT_EQ(client->vlanVniMapSmShadow(vti("Vxlan1"))->vxlanControllerMacAddrSm(), client.get());
  EXPECT_EQ(machine->rmxSde(), handles.rmxSde);
  EXPECT_EQ(machine->vccMacVtepFloodListTableSm().size(), 1U);
  const auto list = machine->vccMacVtepFloodListTableSm(mac(1));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->rmxPerVniFdbStatusSm(), machine.get());
  EXPECT_EQ(list->rmxSde(), handles.rmxSde);
  EXPECT_EQ(list->macVtepFloodListTable()->vtepIpFloodLists(), 2U);
  const auto mlag = client->rmxMlagBumStatusSm();
  const auto peer = mlag->bumVtepListSm(key(1, 10));
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->rmxMlagBumStatusSm(), mlag.get());
}

// A per-VNI machine that is not initialized does nothing until it is again.
TEST_F(AccessorsTest, TheFlagOfAPerVniMachineIsWritten) {
  const auto machine = client->rmxPerVniFdbStatusSm(vni(10010));
  machine->initializedIs(false);
  EXPECT_FALSE(machine->initialized());
  publish(10010, 1);
  EXPECT_EQ(received(), "");
  machine->handleInitialized();
  EXPECT_TRUE(machine->initialized());
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
}

// A job always has a clock: null is refused, and the one that is there goes on.
TEST_F(AccessorsTest, ANullClockIsRefused) {
  const auto text = [](const std::string& name) {
    return "null _" + name + " parameter to mutator for Vxlan::VxlanControllerMacAddrSmBase::" + name +
           " not allowed\"";
  };
  const auto unicast = client->unicastDeferredDeleteClock();
  const auto bum = client->bumDeferredDeleteClock();
  EXPECT_EQ(refusal([&] { client->unicastDeferredDeleteClockIs(nullptr); }),
            text("unicastDeferredDeleteClock"));
  EXPECT_EQ(refusal([&] { client->bumDeferredDeleteClockIs(nullptr); }), text("bumDeferredDeleteClock"));
  EXPECT_EQ(client->unicastDeferredDeleteClock(), unicast);
  EXPECT_EQ(client->bumDeferredDeleteClock(), bum);
  publish(10010, 1);
  controllerConverges(true);
  withdraw(10010, 1);
  controllerConverges(false);
  turnsUntilIdle();
  EXPECT_EQ(received(), "");
}

}  // namespace
