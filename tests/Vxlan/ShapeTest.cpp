// The shape of the machines: the order of their virtual operations, their registered types, and how a live
// tree is switched off, printed and taken down.
#include <cstring>
#include <functional>
#include <type_traits>

#include "Kel/TypeRegistry.h"
#include "Scenario.h"

namespace {

using namespace scenario;
using Vxlan::RmxPerVniFdbStatusSmBase;
using Vxlan::VxlanControllerMacAddrSmBase;

// The number of the slot that a pointer to a virtual member names: in the Itanium C++ ABI such a pointer is
// the slot's byte offset in the table, plus one.
template <class Member>
std::size_t slotOf(Member member) {
  std::ptrdiff_t words[2];
  static_assert(sizeof member == sizeof words);
  std::memcpy(words, &member, sizeof words);
  EXPECT_EQ(words[0] % 2, 1) << "not virtual";
  return static_cast<std::size_t>(words[0] - 1) / sizeof(void*);
}

// Picks one of several operations of a name by its parameters.
template <class... Parameters, class Result, class Class>
constexpr auto with(Result (Class::*member)(Parameters...)) {
  return member;
}

// The one without parameters.
template <class Result, class Class>
constexpr auto bare(Result (Class::*member)()) {
  return member;
}

// Slots that follow each other without a gap.
std::vector<std::size_t> consecutive(std::size_t first, std::size_t count) {
  std::vector<std::size_t> slots;
  for (std::size_t slot = first; slot < first + count; ++slot) {
    slots.push_back(slot);
  }
  return slots;
}

// The operations of the top machine stand in their agreed order behind the framework's: a program that
// derives from it, or was built against it, finds them there.
TEST(ShapeTest, TheOperationsOfTheTopMachineStandInTheirOrder) {
  using Sm = VxlanControllerMacAddrSmBase;
  const std::size_t fwkType = slotOf(&Sm::fwkType);
  const std::vector<std::size_t> slots{
      slotOf(with<Bridging::VlanId>(&Sm::deleteBumVtepListTable)),
      slotOf(bare(&Sm::deleteBumVtepListTable)),
      slotOf(&Sm::updateControllerClientMode),
      slotOf(&Sm::handleControllerClientMode),
      slotOf(&Sm::handleDatapathLearningMode),
      slotOf(with<Kel::Name>(&Sm::handleControllerVniBaseDir)),
      slotOf(bare(&Sm::handleControllerVniBaseDir)),
      slotOf(&Sm::createRmxPerVniFdbStatusSm),
      slotOf(&Sm::deleteRmxPerVniFdbStatusSm),
      slotOf(&Sm::handleMlagState),
      slotOf(&Sm::createRmxMlagBumStatusSm),
      slotOf(&Sm::deleteRmxMlagBumStatusSm),
      slotOf(&Sm::processBumDeferredDeletes),
      slotOf(&Sm::handleBumReplicationMode),
      slotOf(&Sm::createVlanVniMapSm),
      slotOf(&Sm::deleteVlanVniMapSm),
      slotOf(with<Qnet::IntfId>(&Sm::handleActivatedVti)),
      slotOf(bare(&Sm::handleActivatedVti)),
      slotOf(&Sm::handleVtiUp),
      slotOf(&Sm::handleVtiDown),
      slotOf(&Sm::getHostTable),
      slotOf(&Sm::getVtiIterator),
      slotOf(&Sm::vlanForVni),
      slotOf(&Sm::vniForVlan),
      slotOf(&Sm::setBumDeferredDeletionInProgress),
      slotOf(&Sm::setUnicastDeferredDeletionInProgress),
      slotOf(&Sm::handleInitialized),
      slotOf(&Sm::vtiStatusDel),
      slotOf(&Sm::vtiStatusIs),
  };
  // Behind fwkType stand the destructor's two slots.
  EXPECT_EQ(slots, consecutive(fwkType + 3, slots.size()));
}

// So do the operations of a per-VNI machine.
TEST(ShapeTest, TheOperationsOfAPerVniMachineStandInTheirOrder) {
  using Sm = RmxPerVniFdbStatusSmBase;
  EXPECT_EQ(slotOf(&Sm::fwkType), slotOf(&Sm::hasNotificationActiveIs) + 1);
  const std::vector<std::size_t> slots{
      slotOf(with<Qnet::EthAddr>(&Sm::handleMacVtepMultiPathTable)),
      slotOf(&Sm::createMacVtepFloodListTableSm),
      slotOf(&Sm::deleteMacVtepFloodListTableSm),
      slotOf(with<Qnet::IntfId>(&Sm::vtiStatusDel)),
      slotOf(with<Vxlan::VtiStatusDir::VtiStatuses::Iterator>(&Sm::vtiStatusDel)),
      slotOf(&Sm::vtiStatusNotify),
      slotOf(&Sm::vtiStatusIs),
      slotOf(&Sm::kelDoZombieReactors),
      slotOf(&Sm::rmxVniFdbStatusV2Del),
      slotOf(&Sm::rmxVniFdbStatusV2Is),
      slotOf(&Sm::vtiStatusDirDel),
      slotOf(&Sm::vtiStatusDirIs),
      slotOf(&Sm::vxlanHwStatusDirDel),
      slotOf(&Sm::vxlanHwStatusDirIs),
  };
  EXPECT_EQ(slots, consecutive(slotOf(&Sm::fwkType) + 3, slots.size()));
}

// The same for the bases of the trackers and of the flood list machines.
TEST(ShapeTest, TheOperationsOfTheOtherBasesStandInTheirOrder) {
  using Tracker = Vxlan::VtiVlanVniMapSmBase;
  const std::vector<std::size_t> tracker{slotOf(&Tracker::vniForVlan), slotOf(&Tracker::vlanForVni),
                                         slotOf(&Tracker::handleInitialized),
                                         slotOf(&Tracker::kelDoZombieReactors)};
  EXPECT_EQ(tracker, consecutive(slotOf(&Tracker::fwkType) + 3, tracker.size()));
  using Flood = Vxlan::MacVtepFloodListTableSmBase;
  const std::vector<std::size_t> flood{slotOf(with<Qnet::IpAddr>(&Flood::handleVtepIpFloodList)),
                                       slotOf(&Flood::cleanup),
                                       slotOf(&Flood::handleInitialized),
                                       slotOf(&Flood::kelDoZombieReactors),
                                       slotOf(&Flood::macVtepFloodListTableDel),
                                       slotOf(&Flood::macVtepFloodListTableIs)};
  EXPECT_EQ(flood, consecutive(slotOf(&Flood::fwkType) + 3, flood.size()));
}

// What generic tools see of a top machine: its attributes, the base's before the client's.
TEST(ShapeTest, TheAttributesOfTheTopMachineStandInTheirOrder) {
  const auto mlagStatus = Kel::make<Mlag::Status>();
  const auto client = Vxlan::vxlanControllerClientSmFactory(
      nullptr, nullptr, nullptr, nullptr, mlagStatus, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  std::vector<std::string> names;
  client->eachPart([&](const Kel::Part& part) { names.emplace_back(part.name()); });
  EXPECT_THAT(
      names,
      testing::ElementsAre(
          "vtiStatusDir", "controllerStatusBaseDir", "rmxStateClientView", "rmxPerVniFdbStatusSm",
          "vxlanHwStatusDir", "mlagStatus", "mlagVxlanStatus", "rmxMlagBumStatusSm", "maxProcessTime",
          "unicastDeferredDeleteBookmark", "unicastDeferredDeleteClock", "bumDeferredDeleteBookmarkValid",
          "bumDeferredDeleteClock", "vlanVniMapSm", "vtiStatus", "vxlanControllerClientMode",
          "datapathLearningMode", "initialized", "kel_BumStatusIn", "rmxStateBaseDir", "vlanVniMaps",
          "rmxSde", "l2RibRmxInput", "rmxConvergenceStatus", "rmxStateSm", "vlanVniMapSmShadow",
          "vccPerVniFdbStatusSmShadow", "hostTable", "receivedHostTableToL2RibHostInputSm",
          "bumDeferredDeleteBookmark", "rmxMlagBumStatusSmShadow"));
}

// And for the base of the MLAG mirror.
TEST(ShapeTest, TheOperationsOfTheMlagMirrorStandInTheirOrder) {
  using Sm = Vxlan::RmxMlagBumStatusSmBase;
  const std::vector<std::size_t> slots{slotOf(&Sm::getVtiIterator), slotOf(&Sm::getVlanIterator),
                                       slotOf(&Sm::vniForVlan)};
  EXPECT_EQ(slots, consecutive(slotOf(&Sm::fwkType) + 3, slots.size()));
}

// Whether a class has the member itself, rather than from its base.
template <class Class, class Result, class Declarer, class... Parameters>
constexpr bool overrides(Result (Declarer::*)(Parameters...)) {
  return std::is_same_v<Class, Declarer>;
}

// The derived machines of a VNI override what they are agreed to.
TEST(ShapeTest, TheDerivedMachinesOverrideTheirOperations) {
  using Vcc = Vxlan::VccPerVniFdbStatusSm;
  static_assert(overrides<Vcc>(&Vcc::hasNotificationActiveIs));
  static_assert(overrides<Vcc>(with<Qnet::EthAddr>(&Vcc::handleMacVtepMultiPathTable)));
  static_assert(overrides<Vcc>(&Vcc::createMacVtepFloodListTableSm));
  static_assert(overrides<Vcc>(&Vcc::deleteMacVtepFloodListTableSm));
  static_assert(overrides<Vcc>(&Vcc::kelDoZombieReactors));
  static_assert(!overrides<Vcc>(&Vcc::rmxVniFdbStatusV2Is));
  using Flood = Vxlan::VccMacVtepFloodListTableSm;
  static_assert(overrides<Flood>(&Flood::hasNotificationActiveIs));
  static_assert(overrides<Flood>(with<Qnet::IpAddr>(&Flood::handleVtepIpFloodList)));
  static_assert(overrides<Flood>(&Flood::cleanup));
  static_assert(overrides<Flood>(&Flood::handleInitialized));
  static_assert(overrides<Flood>(&Flood::kelDoZombieReactors));
  static_assert(!overrides<Flood>(&Flood::macVtepFloodListTableIs));
}

// The library registers its fourteen machines, each derived one with its base.
TEST(ShapeTest, FourteenTypesAreRegistered) {
  std::string all;
  for (const Kel::TypeNode* type : Kel::typeNodes()) {
    all +=
        std::string(type->name) + (type->base == nullptr ? "" : std::string(" < ") + type->base->name) + '\n';
  }
  EXPECT_EQ(all,
            "Vxlan::BumVtepListSm\n"
            "Vxlan::MacVtepFloodListTableSmBase\n"
            "Vxlan::ReceivedHostTableToL2RibHostInputSm\n"
            "Vxlan::RmxMlagBumStatusSm < Vxlan::RmxMlagBumStatusSmBase\n"
            "Vxlan::RmxMlagBumStatusSmBase\n"
            "Vxlan::RmxPerVniFdbStatusSmBase\n"
            "Vxlan::RmxStateSm\n"
            "Vxlan::RmxStateSmWrapper\n"
            "Vxlan::VccMacVtepFloodListTableSm < Vxlan::MacVtepFloodListTableSmBase\n"
            "Vxlan::VccPerVniFdbStatusSm < Vxlan::RmxPerVniFdbStatusSmBase\n"
            "Vxlan::VtiVlanVniMapSm < Vxlan::VtiVlanVniMapSmBase\n"
            "Vxlan::VtiVlanVniMapSmBase\n"
            "Vxlan::VxlanControllerClientSm < Vxlan::VxlanControllerMacAddrSmBase\n"
            "Vxlan::VxlanControllerMacAddrSmBase\n");
}

class LifecycleTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    mlagIs(Mlag::MlagState::Active);
    bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    publish(10010, 1);
    publishFloodList(10010, 2, {"10.0.0.9"});
    controllerConverges(false);
    start();
    turnsUntilIdle();
  }
  const std::string host = "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n";
};

// Every machine of the tree knows its type.
TEST_F(LifecycleTest, EveryMachineKnowsItsType) {
  EXPECT_STREQ(client->fwkType().name, "Vxlan::VxlanControllerClientSm");
  const auto perVni = client->rmxPerVniFdbStatusSm(vni(10010));
  EXPECT_STREQ(perVni->fwkType().name, "Vxlan::VccPerVniFdbStatusSm");
  EXPECT_STREQ(perVni->macVtepFloodListTableSm(mac(2))->fwkType().name, "Vxlan::VccMacVtepFloodListTableSm");
  EXPECT_STREQ(client->vlanVniMapSm(vti("Vxlan1"))->fwkType().name, "Vxlan::VtiVlanVniMapSm");
  EXPECT_STREQ(client->rmxStateSm()->fwkType().name, "Vxlan::RmxStateSm");
  EXPECT_STREQ(client->rmxMlagBumStatusSm()->fwkType().name, "Vxlan::RmxMlagBumStatusSm");
}

// What a machine consists of, in the order of its declaration; pointers to owners are no attributes.
TEST_F(LifecycleTest, TheAttributesStandInTheirOrder) {
  const auto attributes = [](const Kel::StateMachine& machine) {
    std::string names;
    machine.eachPart([&](const Kel::Part& part) { names += std::string(part.name()) + ' '; });
    return names;
  };
  const auto perVni = client->rmxPerVniFdbStatusSm(vni(10010));
  EXPECT_EQ(
      attributes(*perVni),
      "vni rmxVniFdbStatusV2 vtiStatusDir vxlanHwStatusDir vtiStatus macVtepFloodListTableSm initialized "
      "rmxSde vccMacVtepFloodListTableSm ");
  EXPECT_EQ(attributes(*perVni->macVtepFloodListTableSm(mac(2))),
            "macAddr macVtepFloodListTable initialized rmxSde ");
  const auto mirror = client->rmxMlagBumStatusSm();
  EXPECT_EQ(attributes(*mirror),
            "mlagVxlanStatus vxlanHwStatusDir remoteBumStatus localBumStatus bumRepMode bumVtepListSm "
            "initialized vlanVniMaps vtiVlanVniMap ");
  peerLists(1, 10, {"10.0.0.9"});
  EXPECT_EQ(attributes(*mirror->bumVtepListSm(key(1, 10))),
            "macVlanPair bumVtepList vlanVniMapExists localBumVtepList initialized ");
  const auto exporter = Vxlan::receivedHostTableToL2RibHostInputSmFactory(nullptr, nullptr);
  EXPECT_EQ(attributes(*exporter), "receivedHostTable l2RibRmxInput initialized ");
}

// The tree is printed with the attributes of every machine once, although some machines are held twice.
TEST_F(LifecycleTest, TheTreeIsPrintedWithEveryMachineOnce) {
  std::ostringstream stream;
  Kel::printTree(stream, *client);
  const std::string tree = stream.str();
  for (const char* type :
       {"Vxlan::VccPerVniFdbStatusSm", "Vxlan::VccMacVtepFloodListTableSm", "Vxlan::VtiVlanVniMapSm",
        "Vxlan::RmxStateSm", "Vxlan::RmxMlagBumStatusSm", "Vxlan::ReceivedHostTableToL2RibHostInputSm"}) {
    const std::string heading = std::string(": ") + type + '\n';
    const std::size_t first = tree.find(heading);
    EXPECT_NE(first, std::string::npos) << type << " in\n" << tree;
    EXPECT_EQ(tree.find(heading, first + 1), std::string::npos) << type << " in\n" << tree;
  }
}

// Switched off, no machine of the tree hears anything; switched on again, they do.
TEST_F(LifecycleTest, SwitchedOffTheTreeHearsNothing) {
  client->hasNotificationActiveIs(false);
  const std::string before = state();
  publish(10010, 3);
  mapVlan("Vxlan1", 20, 10020);
  controllerConverges(true);
  bumReplicationMode(Vxlan::BumReplicationMode::None);
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  vniStatus(10010)->macVtepFloodListTable(mac(2))->vtepIpFloodListIs(ip("10.0.0.7"), true);
  client->unicastDeferredDeleteClock()->timeMinIs(time.peek());
  client->bumDeferredDeleteClock()->timeMinIs(time.peek());
  turnsUntilIdle();
  EXPECT_EQ(state(), before);
  client->hasNotificationActiveIs(true);
  publish(10010, 4);
  EXPECT_THAT(received(), testing::HasSubstr("02:00:00:00:00:04:10"));
}

// A tree that is marked as being deleted hears nothing either.
TEST_F(LifecycleTest, AZombieTreeHearsNothing) {
  client->kelDoZombieReactors(true);
  const std::string before = state();
  publish(10010, 3);
  controllerConverges(true);
  vtiStatus("Vxlan1")->controllerClientModeIs(false);
  EXPECT_EQ(state(), before);
}

// A machine whose entity goes is marked as being deleted, and nobody but this test holds it any more.
TEST_F(LifecycleTest, AMachineWhoseEntityGoesIsMarkedAndDropped) {
  peerLists(1, 10, {"10.0.0.2"});
  const auto expectGone = [](const auto& machine) {
    EXPECT_TRUE(machine->zombie()) << machine->fwkType().name;
    EXPECT_EQ(machine->references(), 1U) << machine->fwkType().name;
  };
  const auto perVni = client->rmxPerVniFdbStatusSm(vni(10010));
  const auto floodList = perVni->macVtepFloodListTableSm(mac(2));
  const auto tracker = client->vlanVniMapSm(vti("Vxlan1"));
  const auto echo = client->rmxStateSm();
  const auto mlag = client->rmxMlagBumStatusSm();
  const auto bumList = mlag->bumVtepListSm(key(1, 10));
  EXPECT_FALSE(perVni->zombie() || floodList->zombie() || tracker->zombie() || echo->zombie() ||
               mlag->zombie() || bumList->zombie());
  withdrawFloodList(10010, 2);
  expectGone(floodList);
  handles.mlagVxlanStatus->bumStatus()->bumVtepListDel(key(1, 10));
  expectGone(bumList);
  mlagIs(Mlag::MlagState::Disabled);
  expectGone(mlag);
  withdrawVni(10010);
  expectGone(perVni);
  controllerStateGoes();
  expectGone(echo);
  mapGoes("Vxlan1");
  expectGone(tracker);
}

// Each class that runs makes machines of its own that are live, with the children's pointers to their owners.
TEST_F(LifecycleTest, EveryClassMakesLiveMachines) {
  const auto expectLive = [](const auto& machine, std::string_view type) {
    EXPECT_EQ(machine->fwkType().name, type);
    EXPECT_TRUE(machine->hasNotificationActive()) << type;
    EXPECT_EQ(machine->references(), 1U) << type;
  };
  const Ptr<const VxlanController::VniFdbStatusV2> status = vniStatus(10010);
  const auto perVni = Vxlan::VccPerVniFdbStatusSm::VccPerVniFdbStatusSmIs(
      vni(10010), status, handles.vtiStatusDir, handles.vxlanHwStatusDir, client.get(), handles.rmxSde);
  expectLive(perVni, "Vxlan::VccPerVniFdbStatusSm");
  expectLive(Vxlan::VccMacVtepFloodListTableSm::VccMacVtepFloodListTableSmIs(
                 mac(2), status->macVtepFloodListTable(mac(2)), perVni.get(), handles.rmxSde),
             "Vxlan::VccMacVtepFloodListTableSm");
  expectLive(Vxlan::VtiVlanVniMapSm::VtiVlanVniMapSmIs(vti("Vxlan1"), client.get(), map("Vxlan1")),
             "Vxlan::VtiVlanVniMapSm");
  expectLive(Vxlan::RmxStateSm::RmxStateSmIs(client->rmxStateSm()->rmxState(), handles.rmxStateClientView),
             "Vxlan::RmxStateSm");
  const auto mlag = Vxlan::RmxMlagBumStatusSm::RmxMlagBumStatusSmIs(
      handles.mlagVxlanStatus, handles.vxlanHwStatusDir, handles.vlanVniMaps);
  expectLive(mlag, "Vxlan::RmxMlagBumStatusSm");
  expectLive(Vxlan::BumVtepListSm::BumVtepListSmIs(key(1, 10), Kel::make<Vxlan::BumVtepList>(), mlag.get()),
             "Vxlan::BumVtepListSm");
}

// Destroyed, the client leaves what it wrote where it is, and follows nothing any more.
TEST_F(LifecycleTest, DestroyedItFollowsNothing) {
  const std::string flooded = floods();
  const auto table = client->hostTable();
  stop();
  EXPECT_EQ(exported(), host);
  EXPECT_EQ(floods(), flooded);
  EXPECT_EQ(table->receivedEntrys(), 1U);
  const std::vector<std::pair<const char*, std::size_t>> reactors{
      {"vtiStatusDir", handles.vtiStatusDir->reactors()},
      {"vtiStatus", vtiStatus("Vxlan1")->reactors()},
      {"controllerStatusBaseDir", handles.controllerStatusBaseDir->reactors()},
      {"vniStatus", vniStatus(10010)->reactors()},
      {"floodList", vniStatus(10010)->macVtepFloodListTable(mac(2))->reactors()},
      {"rmxStateClientView", handles.rmxStateClientView->reactors()},
      {"vxlanHwStatusDir", handles.vxlanHwStatusDir->reactors()},
      {"bumStatus", handles.vxlanHwStatusDir->bumStatus()->reactors()},
      {"mlagStatus", handles.mlagStatus->reactors()},
      {"mlagVxlanStatus", handles.mlagVxlanStatus->reactors()},
      {"rmxStateBaseDir", handles.rmxStateBaseDir->reactors()},
      {"vlanVniMaps", handles.vlanVniMaps->reactors()},
      {"vlanVniMap", map("Vxlan1")->reactors()},
      {"hostTable", table->reactors()}};
  for (const auto& [name, count] : reactors) {
    EXPECT_EQ(count, 0U) << name;
  }
  EXPECT_EQ(Kel::ActivityLoop::instance().nextWakeup(), never) << "no clock of it is armed";
}

// Its inputs can be changed and dropped afterwards.
TEST_F(LifecycleTest, ItsInputsOutliveItUnharmed) {
  stop();
  publish(10010, 3);
  withdrawVni(10010);
  vtiGoes("Vxlan1");
  mapGoes("Vxlan1");
  EXPECT_EQ(exported(), host);
}

// It may be destroyed while the jobs are scheduled, and while one of them is suspended in the middle.
TEST_F(LifecycleTest, ItMayBeDestroyedInTheMiddleOfAJob) {
  for (std::uint64_t number = 10; number < 20; ++number) {
    publish(10010, number);
  }
  controllerConverges(true);
  withdrawVni(10010);
  client->maxProcessTimeIs(1);
  time.tickPerReadIs(0.25);
  controllerConverges(false);
  turn();
  EXPECT_GT(client->hostTable()->markedForDelCount(), 0U);
  stop();
  time.tickPerReadIs(0);
  turnsUntilIdle();
  EXPECT_EQ(Kel::ActivityLoop::instance().nextWakeup(), never);
}

// It may be destroyed from inside a callback that it caused itself; the rest of what was queued reaches
// nobody.
TEST_F(LifecycleTest, ItMayBeDestroyedFromInsideACallbackThatItCaused) {
  struct Destroyer final : Kel::Follows<L2Rib::HostInput> {
    void onHost(Bridging::MacVlanPair) override { then(); }
    std::function<void()> then;
  };
  const auto destroyer = Kel::make<Destroyer>();
  destroyer->notifierIs(handles.l2RibRmxInput);
  destroyer->then = [&] { stop(); };
  Kel::ActivityLoop::instance().asHandler([&] {
    publish(10010, 3);
    publish(10010, 4);
    controllerConverges(true);
    vtiStatus("Vxlan1")->controllerClientModeIs(false);
  });
  EXPECT_FALSE(client);
  EXPECT_FALSE(handles.rmxStateClientView->convergenceInProgress());
  destroyer->notifierIs(nullptr);
  start();
  EXPECT_EQ(machines(), "");
  EXPECT_EQ(exported(), "");
}

// It may be destroyed by a reactor that hears of the same change before the client does.
TEST_F(LifecycleTest, ItMayBeDestroyedWhileItsOwnCallbackIsQueued) {
  stop();
  struct Destroyer final : Kel::Follows<Vxlan::VtiStatus> {
    void onDgwVtepAddr() override { then(); }
    std::function<void()> then;
  };
  const auto destroyer = Kel::make<Destroyer>();
  destroyer->then = [] {};
  destroyer->notifierIs(vtiStatus("Vxlan1"));
  start();
  destroyer->then = [&] { stop(); };
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.7"));
  EXPECT_FALSE(client);
  EXPECT_EQ(exported(), host);
  destroyer->notifierIs(nullptr);
}

// Two clients one after the other over the same entities: the second finds what the first left and makes it
// right.
TEST_F(LifecycleTest, ASecondClientTakesOver) {
  stop();
  withdraw(10010, 1);
  publish(10010, 5);
  withdrawFloodList(10010, 2);
  start();
  turnsUntilIdle();
  EXPECT_EQ(exported(), "02:00:00:00:00:05:10 Vxlan1 10.0.0.9 moves 1\n");
  EXPECT_EQ(handles.rmxSde->vlanFloodSet(vlan(10))->floodSet(mac(2)), nullptr);
}

}  // namespace
