// What the machines refuse, and what ends the program: every error and assertion text that can be reached.
#include "Scenario.h"

namespace {

using namespace scenario;
using testing::StartsWith;

// The text of the range error of a mutator that is given a null.
std::string nullText(const std::string& cls, const std::string& name) {
  return "null _" + name + " parameter to mutator for " + cls + "::" + name + " not allowed\"";
}

// The text of the name-in-use error.
std::string reinstantiation(const std::string& name, const void* wanted, const void* present) {
  std::ostringstream text;
  text << "Reinstantiating the pointer interface where constructor parameter attribute " << name
       << " has a different value of " << wanted << " than the current value of " << present
       << " not allowed";
  return text.str();
}

class ErrorsTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    givenVni(10010);
    start();
  }
  Ptr<Vxlan::RmxPerVniFdbStatusSmBase> machine() { return client->rmxPerVniFdbStatusSm(vni(10010)); }
};

// A null is refused by every mutator of a collection, with the name of the attribute.
TEST_F(ErrorsTest, NullIsRefusedByTheMutatorsOfTheMachines) {
  const std::string top = "Vxlan::VxlanControllerMacAddrSmBase";
  EXPECT_EQ(refusal([&] { client->vtiStatusIs(nullptr); }), nullText(top, "vtiStatus"));
  EXPECT_EQ(refusal([&] { client->rmxPerVniFdbStatusSmIs(nullptr); }), nullText(top, "rmxPerVniFdbStatusSm"));
  EXPECT_EQ(refusal([&] { client->vlanVniMapSmIs(nullptr); }), nullText(top, "vlanVniMapSm"));
  const std::string perVni = "Vxlan::RmxPerVniFdbStatusSmBase";
  EXPECT_EQ(refusal([&] { machine()->vtiStatusIs(nullptr); }), nullText(perVni, "vtiStatus"));
  EXPECT_EQ(refusal([&] { machine()->macVtepFloodListTableSmIs(nullptr); }),
            nullText(perVni, "macVtepFloodListTableSm"));
}

// A tracker cannot be made again with another owner or another map.
TEST_F(ErrorsTest, ATrackerIsNotMadeAnewWithOtherParameters) {
  const Ptr<const Vxlan::VlanVniMap> present = map("Vxlan1");
  const Ptr<const Vxlan::VlanVniMap> other = Kel::make<Vxlan::VlanVniMap>();
  const auto tracker = client->vlanVniMapSm(vti("Vxlan1"));
  EXPECT_EQ(client->vlanVniMapSmShadowIs(vti("Vxlan1"), client.get(), present), tracker);
  EXPECT_EQ(refusal([&] { client->vlanVniMapSmShadowIs(vti("Vxlan1"), client.get(), other); }),
            reinstantiation("_vlanVniMap", other.get(), present.get()));
  Vxlan::VxlanControllerMacAddrSmBase* const nobody = nullptr;
  EXPECT_THAT(refusal([&] { client->vlanVniMapSmShadowIs(vti("Vxlan1"), nobody, present); }),
              StartsWith("Reinstantiating the pointer interface where constructor parameter attribute "
                         "_vxlanControllerMacAddrSm has a different value of 0 than "));
  EXPECT_EQ(client->vlanVniMapSm(vti("Vxlan1")), tracker) << "what is there is kept";
}

// A per-VNI machine cannot be made again with any other parameter.
TEST_F(ErrorsTest, APerVniMachineIsNotMadeAnewWithOtherParameters) {
  struct Parameters {
    Ptr<const VxlanController::VniFdbStatusV2> status;
    Ptr<const Vxlan::VtiStatusDir> dir;
    Ptr<Vxlan::VxlanHwStatusDir> hardware;
    Vxlan::VxlanControllerMacAddrSmBase* owner;
    Ptr<L2Rib::SourceDirEntry> sde;
  };
  const Parameters same{vniStatus(10010), handles.vtiStatusDir, handles.vxlanHwStatusDir, client.get(),
                        handles.rmxSde};
  const auto again = [&](const Parameters& with) {
    return client->vccPerVniFdbStatusSmShadowIs(vni(10010), with.status, with.dir, with.hardware, with.owner,
                                                with.sde);
  };
  EXPECT_EQ(again(same), machine());
  Parameters other = same;
  other.status = Kel::make<VxlanController::VniFdbStatusV2>();
  EXPECT_EQ(refusal([&] { again(other); }),
            reinstantiation("_rmxVniFdbStatusV2", other.status.get(), same.status.get()));
  other = same;
  other.dir = Kel::make<Vxlan::VtiStatusDir>();
  EXPECT_EQ(refusal([&] { again(other); }),
            reinstantiation("_vtiStatusDir", other.dir.get(), same.dir.get()));
  other = same;
  other.hardware = nullptr;
  EXPECT_EQ(refusal([&] { again(other); }),
            reinstantiation("_vxlanHwStatusDir", nullptr, same.hardware.get()));
  other = same;
  other.owner = nullptr;
  EXPECT_EQ(refusal([&] { again(other); }),
            reinstantiation("_vxlanControllerMacAddrSm", nullptr, same.owner));
  other = same;
  other.sde = nullptr;
  EXPECT_EQ(refusal([&] { again(other); }), reinstantiation("_rmxSde", nullptr, same.sde.get()));
  EXPECT_EQ(machines(), "10010 ") << "what is there is kept";
}

// The MLAG machine cannot be made again; the attribute is named, no matter which parameter differs.
TEST_F(ErrorsTest, TheMlagMachineIsNotMadeAnewWithOtherParameters) {
  mlagIs(Mlag::MlagState::Active);
  const Ptr<const Mlag::VxlanStatus> status = handles.mlagVxlanStatus;
  const Ptr<const Mlag::VxlanStatus> noStatus;
  const Ptr<const Vxlan::VlanVniMaps> maps = handles.vlanVniMaps;
  const Ptr<const Vxlan::VlanVniMaps> noMaps;
  const Ptr<Vxlan::VxlanHwStatusDir> noHardware;
  const auto present = client->rmxMlagBumStatusSm();
  EXPECT_EQ(client->rmxMlagBumStatusSmShadowIs(status, handles.vxlanHwStatusDir, maps), present);
  EXPECT_EQ(refusal([&] { client->rmxMlagBumStatusSmShadowIs(noStatus, handles.vxlanHwStatusDir, maps); }),
            reinstantiation("_rmxMlagBumStatusSm", nullptr, status.get()));
  EXPECT_EQ(refusal([&] { client->rmxMlagBumStatusSmShadowIs(status, noHardware, maps); }),
            reinstantiation("_rmxMlagBumStatusSm", nullptr, handles.vxlanHwStatusDir.get()));
  EXPECT_EQ(refusal([&] { client->rmxMlagBumStatusSmShadowIs(status, handles.vxlanHwStatusDir, noMaps); }),
            reinstantiation("_rmxMlagBumStatusSm", nullptr, maps.get()));
}

// There is one controller state: a second one is refused, under another name and in the place of the first.
TEST_F(ErrorsTest, ASecondControllerStateIsRefused) {
  controllerConverges(true);
  const auto present = client->rmxStateSm()->rmxState();
  const auto second = Kel::make<VxlanController::RmxStateV2>();
  EXPECT_EQ(refusal([&] { handles.rmxStateBaseDir->entityPtrIs(Name("second"), second); }),
            reinstantiation("_rmxState", second.get(), present.get()));
  EXPECT_EQ(client->rmxStateSm()->rmxState(), present);
  EXPECT_EQ(refusal([&] { client->rmxStateSmIs(present, nullptr); }),
            reinstantiation("_rmxStateClientView", nullptr, handles.rmxStateClientView.get()));
  EXPECT_TRUE(handles.rmxStateClientView->convergenceInProgress());
}

// After an error the machines go on: the error left through the one who caused it.
TEST_F(ErrorsTest, AfterAnErrorTheMachinesGoOn) {
  EXPECT_NE(refusal([&] {
              handles.controllerStatusBaseDir->entityPtrIs(Name("none"),
                                                           Kel::make<VxlanController::VniFdbStatusV2>());
            }),
            "nothing");
  publish(10010, 1);
  EXPECT_EQ(exported(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
}

using ErrorsDeathTest = ErrorsTest;

// Without an MLAG status the client cannot be.
TEST_F(ErrorsDeathTest, WithoutAnMlagStatusTheClientCannotBe) {
  stop();
  handles.mlagStatus = nullptr;
  EXPECT_DEATH(start(), "assertion failed: mlagStatus");
}

// Nor may it be taken away while the modes can change.
TEST_F(ErrorsDeathTest, TheMlagStatusMayNotBeTakenAway) {
  client->mlagStatusDel();
  EXPECT_DEATH(vtiStatus("Vxlan1")->datapathLearningIs(true), "assertion failed: mlagStatus");
}

// The base has no convergence status to report to.
TEST_F(ErrorsDeathTest, TheBaseMayNotReportDeletions) {
  const auto base = Vxlan::vxlanControllerMacAddrSmBaseFactory(
      handles.vtiStatusDir, handles.controllerStatusBaseDir, handles.rmxStateClientView,
      handles.vxlanHwStatusDir, handles.mlagStatus, handles.mlagVxlanStatus);
  EXPECT_DEATH(base->setUnicastDeferredDeletionInProgress(true),
               "VxlanControllerMacAddrSmBase.*setUnicastDeferredDeletionInProgress.*assertion failed: false");
  EXPECT_DEATH(base->setBumDeferredDeletionInProgress(false),
               "VxlanControllerMacAddrSmBase.*setBumDeferredDeletionInProgress.*assertion failed: false");
  base->handleInitialized();
  EXPECT_DEATH(base->handleConvergenceInProgress(), "assertion failed: false");
}

// An entry that is marked already when the controller withdraws its host means that the marks are not right.
TEST_F(ErrorsDeathTest, AWithdrawnHostMayNotBeMarkedAlready) {
  publish(10010, 1);
  client->deferDeleteReceivedTableEntry(key(1, 10));
  EXPECT_DEATH(withdraw(10010, 1),
               "assertion failed: !receivedHostTable->receivedEntry\\( key \\).markedForDel\\(\\)");
}

// An entry that is marked but not counted means the same.
TEST_F(ErrorsDeathTest, AMarkedEntryMustBeCounted) {
  publish(10010, 1);
  Vxlan::ReceivedEntry entry = client->hostTable()->receivedEntry(key(1, 10));
  entry.markedForDel = true;
  client->hostTable()->receivedEntryIs(entry);
  EXPECT_DEATH(publish(10010, 1, {.moves = 2}), "assertion failed: markedForDelCount\\(\\)");
  EXPECT_DEATH(client->deleteReceivedTableEntry(key(1, 10)), "assertion failed: markedForDelCount\\(\\)");
}

// An entry that was marked and is removed past the client means that the job looks for it in vain.
TEST_F(ErrorsDeathTest, AMarkedEntryMayNotBeRemovedPastTheClient) {
  publish(10010, 1);
  client->deferDeleteReceivedTableEntry(key(1, 10));
  client->hostTable()->receivedEntryDel(key(1, 10));
  EXPECT_DEATH(client->processUnicastDeferredDeletes(), "assertion failed: iter");
}

// A flood list machine of the base class may not act, nor may a per-VNI machine of the base class.
TEST_F(ErrorsDeathTest, TheBasesOfTheFloodMachinesMayNotAct) {
  class PlainVni final : public Vxlan::RmxPerVniFdbStatusSmBase {
   public:
    using RmxPerVniFdbStatusSmBase::RmxPerVniFdbStatusSmBase;
  };
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  Vxlan::VxlanControllerMacAddrSmBase* const owner = client.get();
  const auto plain = Kel::make<PlainVni>(vni(10010), vniStatus(10010), handles.vtiStatusDir,
                                         handles.vxlanHwStatusDir, owner);
  plain->handleMacVtepMultiPathTable(mac(1));
  plain->createMacVtepFloodListTableSm(mac(1));
  plain->deleteMacVtepFloodListTableSm(mac(1));
  plain->handleInitialized();
  EXPECT_DEATH(plain->handleMacVtepMultiPathTable(mac(1)), "assertion failed: false");

  Vxlan::RmxPerVniFdbStatusSmBase* const perVni = machine().get();
  const auto list = Kel::make<VxlanController::MacVtepFloodListV2>();
  const auto flood = Kel::make<Vxlan::MacVtepFloodListTableSmBase>(mac(1), list, perVni);
  EXPECT_DEATH(flood->handleInitialized(), "assertion failed: false");
  EXPECT_DEATH(flood->handleVtepIpFloodList(ip("10.0.0.9")), "assertion failed: false");
  EXPECT_DEATH(flood->cleanup(), "assertion failed: false");
  bumReplicationMode(Vxlan::BumReplicationMode::None);
  flood->handleInitialized();
  flood->handleVtepIpFloodList(ip("10.0.0.9"));
  flood->handleVtepIpFloodList();
  flood->cleanup();
  EXPECT_FALSE(flood->initialized());
}

}  // namespace
