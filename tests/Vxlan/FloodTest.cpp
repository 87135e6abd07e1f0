// The machines of flood lists and multipath entries: what they are made of, when they write, and what they
// say.
#include "Kel/TraceHelper.h"
#include "Scenario.h"

namespace {

using namespace scenario;

class FloodTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    controllerConverges(false);
    givenVni(10010);
    start();
    turnsUntilIdle();
  }
  // The machine of VNI 10010, and that of a flood list in it.
  Ptr<Vxlan::VccPerVniFdbStatusSm> machine() {
    return client->vccPerVniFdbStatusSmShadowIs(vni(10010), vniStatus(10010), handles.vtiStatusDir,
                                                handles.vxlanHwStatusDir, client.get(), handles.rmxSde);
  }
  Ptr<Vxlan::VccMacVtepFloodListTableSm> listMachine(std::uint64_t macNumber) {
    return machine()->vccMacVtepFloodListTableSm(mac(macNumber));
  }
  Ptr<VxlanController::MacVtepFloodListV2> list(std::uint64_t macNumber) {
    return vniStatus(10010)->macVtepFloodListTable(mac(macNumber));
  }
  Ptr<L2Rib::FloodSet> floodSet(std::uint32_t vlanNumber, std::uint64_t macNumber) {
    return handles.rmxSde->vlanFloodSet(vlan(vlanNumber))->floodSet(mac(macNumber));
  }
  // A second VTI, which comes after or before the first and has a map, but not of the VNI.
  void givenVtiWithoutTheVni(std::string_view name) {
    givenVti(name);
    givenMap(name);
  }
};

// A destination is known by its VTEP alone: an identity of all ones, the value true.
TEST_F(FloodTest, ADestinationIsItsVtep) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  publishMultiPath(10010, 2, {"10.0.0.3"});
  for (const auto& [number, vtep] : {std::pair<std::uint64_t, const char*>{1, "10.0.0.2"}, {2, "10.0.0.3"}}) {
    ASSERT_EQ(floodSet(10, number)->destSets(), 1U);
    const auto& dest = *floodSet(10, number)->destSet().begin();
    EXPECT_EQ(dest.key.id().value(), UINT64_MAX);
    EXPECT_EQ(dest.key.vxlan().vtepAddr(), Qnet::IpGenAddr(ip(vtep)));
    EXPECT_TRUE(dest.value);
  }
  EXPECT_EQ(static_cast<unsigned>(floodSet(10, 1)->floodSetType()), 1U);
  EXPECT_EQ(static_cast<unsigned>(floodSet(10, 2)->floodSetType()), 2U);
}

// A list machine is initialized by a whole evaluation: not while another mode replicates, not while a
// multipath entry hides its list, and not by one that ends at a VTI without the VNI.
TEST_F(FloodTest, AListMachineIsInitializedByAWholeEvaluation) {
  bumReplicationMode(Vxlan::BumReplicationMode::None);
  publishFloodList(10010, 1, {"10.0.0.2"});
  ASSERT_TRUE(listMachine(1));
  EXPECT_FALSE(listMachine(1)->initialized()) << "another mode";
  publishMultiPath(10010, 1, {"10.0.0.9"});
  bumReplicationMode(Vxlan::BumReplicationMode::Controller);
  EXPECT_FALSE(listMachine(1)->initialized()) << "hidden";
  givenVtiWithoutTheVni("Vxlan2");
  withdrawMultiPath(10010, 1);
  EXPECT_FALSE(listMachine(1)->initialized()) << "ended early";
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all 10.0.0.2\n");
  mapVlan("Vxlan2", 20, 10010);
  EXPECT_TRUE(listMachine(1)->initialized());
}

// The cleanup that precedes a list machine's end takes the flag back, unless it ends early.
TEST_F(FloodTest, ACleanupTakesTheFlagBack) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  publishFloodList(10010, 2, {"10.0.0.2"});
  const auto first = listMachine(1);
  const auto second = listMachine(2);
  withdrawFloodList(10010, 1);
  EXPECT_FALSE(first->initialized());
  givenVtiWithoutTheVni("Vxlan2");
  withdrawFloodList(10010, 2);
  EXPECT_TRUE(second->initialized());
  EXPECT_EQ(floods(), "") << "the VLANs before were cleaned";
}

// The first VTI without the VNI ends every operation: VLANs before it are written, those behind it are not.
TEST_F(FloodTest, AVtiWithoutTheVniEndsEveryOperation) {
  mapVlan("Vxlan2", 20, 10010);
  publishFloodList(10010, 1, {"10.0.0.2"});
  publishMultiPath(10010, 2, {"10.0.0.8"});
  const std::string both =
      "10 02:00:00:00:00:01 all 10.0.0.2\n"
      "10 02:00:00:00:00:02 any 10.0.0.8\n"
      "20 02:00:00:00:00:01 all 10.0.0.2\n"
      "20 02:00:00:00:00:02 any 10.0.0.8\n";
  ASSERT_EQ(floods(), both);
  givenVtiWithoutTheVni("Vxlan0");
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  publishMultiPath(10010, 2, {"10.0.0.8", "10.0.0.9"});
  publishFloodList(10010, 3, {"10.0.0.2"});
  withdrawMultiPath(10010, 2);
  withdrawFloodList(10010, 1);
  EXPECT_EQ(floods(), both) << "the first VTI has no VLAN";
  mapGoes("Vxlan0");
  givenVtiWithoutTheVni("Vxlan11");  // between the two
  publishMultiPath(10010, 2, {"10.0.0.7"});
  list(3)->vtepIpFloodListIs(ip("10.0.0.4"), true);
  EXPECT_EQ(floods(),
            "10 02:00:00:00:00:01 all 10.0.0.2\n"
            "10 02:00:00:00:00:02 any 10.0.0.7\n"
            "10 02:00:00:00:00:03 all 10.0.0.4\n"
            "20 02:00:00:00:00:01 all 10.0.0.2\n"
            "20 02:00:00:00:00:02 any 10.0.0.8\n");
  withdrawMultiPath(10010, 2);
  EXPECT_EQ(floods(),
            "10 02:00:00:00:00:01 all 10.0.0.2\n"
            "10 02:00:00:00:00:03 all 10.0.0.4\n"
            "20 02:00:00:00:00:01 all 10.0.0.2\n"
            "20 02:00:00:00:00:02 any 10.0.0.8\n");
}

// Both collections hold the same machines, from the list's coming to its going.
TEST_F(FloodTest, BothCollectionsHoldTheSameMachines) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  ASSERT_TRUE(listMachine(1));
  EXPECT_EQ(machine()->macVtepFloodListTableSm(mac(1)), listMachine(1));
  EXPECT_EQ(listMachine(1)->macAddr(), mac(1));
  EXPECT_EQ(listMachine(1)->macVtepFloodListTable(), list(1));
  withdrawFloodList(10010, 1);
  EXPECT_FALSE(listMachine(1));
  EXPECT_FALSE(machine()->macVtepFloodListTableSm(mac(1)));
}

// Asked for again with the same list, the machine is the same; the list is evaluated again.
TEST_F(FloodTest, AListThatIsEvaluatedAnewKeepsItsMachine) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  const auto before = listMachine(1);
  handles.rmxSde->vlanFloodSetDelAll();
  machine()->handleMacVtepFloodListTable();
  EXPECT_EQ(listMachine(1), before);
  EXPECT_EQ(machine()->vccMacVtepFloodListTableSmIs(mac(1), list(1), machine().get(), handles.rmxSde),
            before);
  EXPECT_THAT(
      refusal([&] { machine()->vccMacVtepFloodListTableSmIs(mac(1), list(1), machine().get(), nullptr); }),
      testing::StartsWith("Reinstantiating the pointer interface where constructor parameter attribute "
                          "_rmxSde has a different value of 0 than the current value of "));
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all 10.0.0.2\n");
}

// Another list under the same MAC gets a machine in the place of the old one, in both collections. The flood
// set is not cleaned up in between: it is taken over, and while the controller converges it only grows.
TEST_F(FloodTest, AListThatIsReplacedGetsAMachineInPlaceOfTheOldOne) {
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  controllerConverges(true);
  const auto oldList = list(1);
  const auto oldMachine = listMachine(1);
  const auto set = floodSet(10, 1);
  const auto fresh = Kel::make<VxlanController::MacVtepFloodListV2>();
  fresh->vtepIpFloodListIs(ip("10.0.0.4"), true);
  std::ostringstream text;
  text << "Reinstantiating the pointer interface where constructor parameter attribute "
          "_macVtepFloodListTable has a different value of "
       << static_cast<const void*>(fresh.get()) << " than the current value of "
       << static_cast<const void*>(oldList.get()) << " not allowed";
  traceFromNow();
  Kel::traceLevelsIs("VxlanController=7");
  vniStatus(10010)->macVtepFloodListTableIs(mac(1), fresh);
  ASSERT_EQ(lines.size(), 1U) << "the only line of its level";
  EXPECT_THAT(lines.front(), testing::EndsWith(text.str()));

  EXPECT_NE(listMachine(1), oldMachine);
  EXPECT_EQ(listMachine(1)->macVtepFloodListTable(), fresh);
  EXPECT_EQ(machine()->macVtepFloodListTableSm(mac(1)), listMachine(1));
  EXPECT_EQ(floodSet(10, 1), set);
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all 10.0.0.2 10.0.0.3 10.0.0.4\n");
  oldList->vtepIpFloodListIs(ip("10.0.0.9"), true);
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all 10.0.0.2 10.0.0.3 10.0.0.4\n") << "the old list is not heard";
}

// Outside convergence the first evaluation of the new list prunes what the old one had.
TEST_F(FloodTest, AListThatIsReplacedOutsideConvergencePrunes) {
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  const auto fresh = Kel::make<VxlanController::MacVtepFloodListV2>();
  fresh->vtepIpFloodListIs(ip("10.0.0.3"), true);
  vniStatus(10010)->macVtepFloodListTableIs(mac(1), fresh);
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all 10.0.0.3\n");
}

// A pass over the controller's lists makes machines and drops none: that is the single change's.
TEST_F(FloodTest, APassOverTheListsDropsNoMachine) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  machine()->hasNotificationActiveIs(false);
  withdrawFloodList(10010, 1);
  publishFloodList(10010, 2, {"10.0.0.3"});
  machine()->handleMacVtepFloodListTable();
  EXPECT_TRUE(listMachine(1));
  EXPECT_TRUE(listMachine(2));
  machine()->handleMacVtepFloodListTable(mac(1));
  EXPECT_FALSE(listMachine(1));
  machine()->handleMacVtepFloodListTable(mac(7));
  EXPECT_EQ(machine()->macVtepFloodListTableSm().size(), 1U);
}

// The change of a list as a whole brings every address up to date, each by its value, if lists are written.
TEST_F(FloodTest, AListThatChangesAsAWholeIsBroughtUpToDate) {
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  listMachine(1)->hasNotificationActiveIs(false);
  list(1)->vtepIpFloodListIs(ip("10.0.0.2"), false);
  list(1)->vtepIpFloodListIs(ip("10.0.0.4"), true);
  floodSet(10, 1)->floodSetTypeIs(L2Rib::FloodSetType::SendToAny);
  listMachine(1)->handleVtepIpFloodList();
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all 10.0.0.3 10.0.0.4\n");
  list(1)->vtepIpFloodListIs(ip("10.0.0.5"), true);
  publishMultiPath(10010, 1, {"10.0.0.9"});
  listMachine(1)->handleVtepIpFloodList();
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 any 10.0.0.9\n") << "hidden";
}

// The tables and a list that are emptied at once are heard as a whole, too, and nothing of them stays.
TEST_F(FloodTest, WhatIsEmptiedAtOnceIsHeardAsAWhole) {
  publishFloodList(10010, 1, {"10.0.0.2"});
  publishMultiPath(10010, 2, {"10.0.0.3"});
  traceFromNow();
  list(1)->vtepIpFloodListDelAll();
  EXPECT_EQ(tracedLines("void Vxlan::MacVtepFloodListTableSmBase::handleVtepIpFloodList()  init? 1"), 1U);
  EXPECT_EQ(tracedLines("virtual void Vxlan::VccMacVtepFloodListTableSm::handleVtepIpFloodList(Qnet::IpAddr) "
                        " removing 10.0.0.2 from flood set"),
            1U)
      << "the whole, then the address";
  EXPECT_EQ(floods(), "10 02:00:00:00:00:01 all\n10 02:00:00:00:00:02 any 10.0.0.3\n");
  vniStatus(10010)->macVtepMultiPathTableDelAll();
  EXPECT_EQ(tracedLines("RmxPerVniFdbStatusSmBase::handleMacVtepMultiPathTable()  init? 1"), 1U);
  vniStatus(10010)->macVtepFloodListTableDelAll();
  EXPECT_EQ(tracedLines("RmxPerVniFdbStatusSmBase::handleMacVtepFloodListTable()  init? 1"), 1U);
  EXPECT_EQ(floods(), "");
}

// A machine that is not initialized does nothing, whatever changes; initialized, it evaluates hosts, then
// multipath entries, then flood lists.
TEST_F(FloodTest, AMachineThatIsNotInitializedDoesNothing) {
  class Plain final : public Vxlan::RmxPerVniFdbStatusSmBase {
   public:
    using RmxPerVniFdbStatusSmBase::RmxPerVniFdbStatusSmBase;
  };
  mapVlan("Vxlan1", 20, 10020);
  const auto status = Kel::make<VxlanController::VniFdbStatusV2>();
  const auto plain = Kel::live<Plain>(vni(10020), status, handles.vtiStatusDir, handles.vxlanHwStatusDir,
                                      static_cast<Vxlan::VxlanControllerMacAddrSmBase*>(client.get()));
  EXPECT_FALSE(plain->initialized());
  EXPECT_FALSE(plain->checkBumStatus());
  traceFromNow();
  status->macVtepTableIs({mac(1), ip("10.0.0.9"), 1, VxlanController::HostAttr::Dynamic});
  status->macVtepFloodListTableIs(mac(1), Kel::make<VxlanController::MacVtepFloodListV2>());
  status->macVtepMultiPathTableIs({mac(2), {}});
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.7"));
  plain->handleRmxHostTable();
  plain->handleMacVtepFloodListTable();
  EXPECT_EQ(received(), "");
  EXPECT_EQ(tracedLines("createMacVtepFloodListTableSm"), 0U);
  EXPECT_EQ(tracedLines("macAddr: 02:00:00:00:00:01"), 1U) << "each handler says that it was called";
  EXPECT_EQ(tracedLines("handleDgwVtepAddr() vni: 10020"), 1U);
  traceFromNow();
  bumReplicationMode(Vxlan::BumReplicationMode::None);  // what would be written there is the derived class's
  plain->handleInitialized();
  EXPECT_EQ(received(), "02:00:00:00:00:01:20 Vxlan1 10.0.0.9 moves 1\n");
  std::vector<std::string> order;
  for (const std::string& line : lines) {
    for (const char* handler : {"handleRmxHostTable()", "handleMacVtepMultiPathTable()",
                                "handleMacVtepFloodListTable()", "createMacVtepFloodListTableSm"}) {
      if (line.find(std::string("RmxPerVniFdbStatusSmBase::") + handler) != std::string::npos) {
        order.emplace_back(handler);
      }
    }
  }
  EXPECT_THAT(order, testing::ElementsAre("handleRmxHostTable()", "handleMacVtepMultiPathTable()",
                                          "handleMacVtepFloodListTable()", "createMacVtepFloodListTableSm"));
}

// What is said on the way of a list and an entry.
TEST_F(FloodTest, TheTraceOfAFloodListAndAMultiPathEntry) {
  const auto expectTraced = [this](std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
      EXPECT_GE(tracedLines(text), 1U) << '"' << text << "\" is not in\n" << testing::PrintToString(lines);
    }
    for (const std::string& line : lines) {
      EXPECT_EQ(line.find("lambda"), std::string::npos) << "a line begins with the signature of a handler";
    }
    traceFromNow();
  };
  traceFromNow();
  publishFloodList(10010, 1, {"10.0.0.2", "10.0.0.3"});
  expectTraced({"RmxPerVniFdbStatusSmBase::handleMacVtepFloodListTable(Qnet::EthAddr)  mac 02:00:00:00:00:01",
                "VccPerVniFdbStatusSm::createMacVtepFloodListTableSm(Qnet::EthAddr)  mac 02:00:00:00:00:01",
                " init? 1", " vni: 10010 vlan: 10", "listType: sendToAll vtepAddr len 2"});
  list(1)->vtepIpFloodListIs(ip("10.0.0.4"), true);
  expectTraced(
      {"virtual void Vxlan::VccMacVtepFloodListTableSm::handleVtepIpFloodList(Qnet::IpAddr)  adding "
       "10.0.0.4 to remoteVtepAddr"});
  list(1)->vtepIpFloodListDel(ip("10.0.0.4"));
  expectTraced(
      {"virtual void Vxlan::VccMacVtepFloodListTableSm::handleVtepIpFloodList(Qnet::IpAddr)  removing "
       "10.0.0.4 from flood set"});
  publishMultiPath(10010, 1, {"10.0.0.8", "10.0.0.9", "10.0.0.7"});
  expectTraced(
      {"virtual void Vxlan::VccPerVniFdbStatusSm::handleMacVtepMultiPathTable(Qnet::EthAddr)  init? 1",
       ") listType: sendToAny vtepAddr len 3"});
  list(1)->vtepIpFloodListDel(ip("10.0.0.3"));
  expectTraced({" mac 02:00:00:00:00:01 found in macVtepMultiPathTable"});
  withdrawMultiPath(10010, 1);
  expectTraced({" deleting 02:00:00:00:00:01 from vlanFloodSet",
                " mac 02:00:00:00:00:01 found in macVtepFloodListTable",
                "listType: sendToAll vtepAddr len 1"});
  withdrawFloodList(10010, 1);
  expectTraced(
      {"virtual void Vxlan::VccMacVtepFloodListTableSm::cleanup()  deleting 02:00:00:00:00:01 from "
       "vlan 10",
       "VccPerVniFdbStatusSm::deleteMacVtepFloodListTableSm(Qnet::EthAddr)  mac 02:00:00:00:00:01"});
  givenVtiWithoutTheVni("Vxlan0");
  traceFromNow();
  publishFloodList(10010, 1, {"10.0.0.2"});
  expectTraced({" no vlan-vni map found for vni: 10010"});
  bumReplicationMode(static_cast<Vxlan::BumReplicationMode>(2));
  traceFromNow();
  publishFloodList(10010, 2, {"10.0.0.2"});
  expectTraced({"checkBumStatus() const  Replication Mode is not rmx 2"});
}

}  // namespace
