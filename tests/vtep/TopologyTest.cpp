#include "agent/vtep/Topology.h"

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

// A row store that follows a fake database, and the topology of its switch leaf1.
class TopologyTest : public testing::Test, private RowSink {
 protected:
  TopologyTest() : topology(Topology::Options{"leaf1", 4000, 4094}) {
    database.physicalSwitch("leaf1", {"10.0.0.1"});
  }

  void derive(bool converging = false) {
    const std::string text = database.changes();
    UpdateWalk walk(hardwareVtep(), text);
    while (walk.step(1000, *this)) {
    }
    topology.derive(rows, converging);
  }
  Topology::Decision decisionOn(const std::string& name) const {
    const Slot slot = rows.logicalSwitches().find(*Uuid::parse(database.find("Logical_Switch", name)));
    for (const Topology::Decision& decision : topology.decisions()) {
      if (decision.logicalSwitch == slot) {
        return decision;
      }
    }
    return {};
  }
  std::uint32_t vniOnVlan(std::uint16_t vlan) const {
    const auto found = topology.vlans().find(vlan);
    return found == topology.vlans().end() ? 0 : found->second.vni;
  }
  std::size_t problems(ProblemKind kind) const {
    return topology.problems().counts()[static_cast<std::size_t>(kind)];
  }

  FakeDatabase database;
  RowStore rows;
  Topology topology;

 private:
  void row(const RowEvent& event) override { rows.apply(event); }
};

}  // namespace

TEST_F(TopologyTest, AKeyOutOfRangeGivesNoVniAndTheEndsOfTheRangeDo) {
  database.logicalSwitch("zero", 0);
  database.logicalSwitch("first", 1);
  database.logicalSwitch("last", 16777215);
  database.logicalSwitch("beyond", 16777216);
  derive();
  EXPECT_EQ(decisionOn("zero").vni, 0U);
  EXPECT_EQ(decisionOn("first").vni, 1U);
  EXPECT_TRUE(decisionOn("first").publishable);
  EXPECT_EQ(decisionOn("last").vni, 16777215U);
  EXPECT_EQ(decisionOn("beyond").vni, 0U);
  EXPECT_EQ(problems(ProblemKind::vniOutOfRange), 2U);
}

TEST_F(TopologyTest, VlansOutOfRangeAreProblems) {
  database.logicalSwitch("ls1", 5001);
  database.logicalSwitch("ls2", 5002);
  database.bind("leaf1", "t0", 4094, "ls1");
  database.bind("leaf1", "t0", 4095, "ls2");
  database.bind("leaf1", "t0", -1, "ls2");
  derive();
  EXPECT_EQ(vniOnVlan(4094), 5001U);
  EXPECT_EQ(decisionOn("ls2").vlan, 0U);
  EXPECT_EQ(problems(ProblemKind::vlanOutOfRange), 2U);
}

TEST_F(TopologyTest, OneThatIsBoundComesBeforeOneThatIsNotAndThenTheFirstByName) {
  for (const char* const name : {"b", "a", "c"}) {
    database.logicalSwitch(name, 5001);
  }
  derive();
  EXPECT_EQ(decisionOn("a").vni, 5001U);
  EXPECT_EQ(decisionOn("b").vni, 0U);
  EXPECT_FALSE(decisionOn("b").publishable);
  EXPECT_EQ(problems(ProblemKind::vniWithTwoVlans), 2U);
  database.bind("leaf1", "t0", 10, "c");
  derive();
  EXPECT_EQ(decisionOn("c").vni, 5001U);
  EXPECT_EQ(decisionOn("a").vni, 0U);
}

TEST_F(TopologyTest, WhileConvergingOneThatHasTheKeyComesBeforeOneThatHadIt) {
  database.logicalSwitch("a", 5001);
  database.logicalSwitch("b", 5002);
  derive();
  database.key("a", std::nullopt);
  database.key("b", 5001);
  derive(true);
  EXPECT_EQ(decisionOn("a").vni, 0U);
  EXPECT_EQ(decisionOn("b").vni, 5001U);
}

TEST_F(TopologyTest, AKeyThatIsGoneIsHeldWhileConvergingAlone) {
  database.logicalSwitch("a", 5001);
  derive();
  database.key("a", std::nullopt);
  derive(true);
  EXPECT_EQ(decisionOn("a").vni, 5001U);
  EXPECT_FALSE(decisionOn("a").publishable);
  derive(false);
  EXPECT_EQ(decisionOn("a").vni, 0U);
  derive(true);
  EXPECT_EQ(decisionOn("a").vni, 0U) << "what was let go does not come back";
}

TEST_F(TopologyTest, VlansOfALogicalSwitchThatIsGoneStayWhileConverging) {
  database.logicalSwitch("a", 5001);
  database.logicalSwitch("b", 5002);
  database.bind("leaf1", "t0", 10, "a");
  database.bind("leaf1", "t0", 20, "b");
  derive();
  database.removeLogicalSwitch("a");
  database.unbind("t0", 20);
  derive(true);
  EXPECT_EQ(vniOnVlan(10), 5001U);
  EXPECT_EQ(vniOnVlan(20), 0U) << "an operator who unbinds means it";
  derive(false);
  EXPECT_EQ(vniOnVlan(10), 0U);
}

TEST_F(TopologyTest, AHeldVlanGivesWayToAnotherLogicalSwitch) {
  database.logicalSwitch("a", 5001);
  database.logicalSwitch("b", 5002);
  database.bind("leaf1", "t0", 10, "a");
  derive();
  database.removeLogicalSwitch("a");
  database.bind("leaf1", "t0", 10, "b");
  derive(true);
  EXPECT_EQ(vniOnVlan(10), 5002U);
}

TEST_F(TopologyTest, AHeldVniIsNotOnTwoVlans) {
  database.logicalSwitch("a", 5001);
  database.bind("leaf1", "t0", 10, "a");
  derive();
  database.removeLogicalSwitch("a");
  database.logicalSwitch("b", 5001);
  database.bind("leaf1", "t0", 20, "b");
  derive(true);
  EXPECT_EQ(vniOnVlan(20), 5001U);
  EXPECT_EQ(vniOnVlan(10), 0U);
}

TEST_F(TopologyTest, VlansAndAddressStayWhileConvergingThoughTheSwitchIsGone) {
  database.logicalSwitch("a", 5001);
  database.bind("leaf1", "t0", 10, "a");
  derive();
  database.removePhysicalSwitch("leaf1");
  derive(true);
  EXPECT_EQ(vniOnVlan(10), 5001U);
  EXPECT_EQ(topology.localVtep(), 0x0a000001U);
  EXPECT_EQ(problems(ProblemKind::switchMissing), 1U);
  derive(false);
  EXPECT_EQ(vniOnVlan(10), 0U);
  EXPECT_EQ(topology.localVtep(), 0U);
}

TEST_F(TopologyTest, OfSeveralSwitchesOfOneNameTheLowestUuidCounts) {
  for (const char* const id :
       {"ffffffff-0000-4000-8000-000000000001", "00000000-0000-4000-8000-000000000001"}) {
    database.row("Physical_Switch", id) = {{"name", "leaf1"},
                                           {"ports", nlohmann::json::array({"set", nlohmann::json::array()})},
                                           {"tunnel_ips", id[0] == 'f' ? "10.0.0.8" : "10.0.0.9"}};
    derive();
  }
  EXPECT_EQ(topology.localVtep(), 0x0a000009U);
}

TEST_F(TopologyTest, APortThatIsNotThereIsAProblem) {
  database.logicalSwitch("a", 5001);
  database.bind("leaf1", "t0", 10, "a");
  database.remove(database.find("Physical_Port", "t0"));
  derive();
  EXPECT_EQ(problems(ProblemKind::referenceMissing), 1U);
  EXPECT_EQ(vniOnVlan(10), 0U);
}

TEST_F(TopologyTest, AVlanThatAPortBindsIsTakenFromOneOfTheRange) {
  database.logicalSwitch("a", 5001);
  database.bind("leaf1", "t0", 0, "a");
  derive();
  const std::uint16_t given = decisionOn("a").vlan;
  EXPECT_GE(given, 4000);
  database.logicalSwitch("b", 5002);
  database.bind("leaf1", "t1", given, "b");
  derive();
  EXPECT_EQ(vniOnVlan(given), 5002U);
  EXPECT_NE(decisionOn("a").vlan, given);
  EXPECT_GE(decisionOn("a").vlan, 4000);
}

TEST_F(TopologyTest, ProblemsAreCountedThoughNotAllAreKeptInWords) {
  database.logicalSwitch("a", 5001);
  for (int vlan = 5000; vlan < 7000; ++vlan) {
    database.bind("leaf1", "t0", vlan, "a");
  }
  derive();
  EXPECT_EQ(problems(ProblemKind::vlanOutOfRange), 2000U);
  EXPECT_EQ(topology.problems().kept().size(), ProblemList::mostKept);
}

}  // namespace Agent::Vtep::Testing
