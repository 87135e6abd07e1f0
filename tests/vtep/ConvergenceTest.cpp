#include <gmock/gmock.h>

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr const char* host1 = "02:00:00:00:00:01";
constexpr const char* host2 = "02:00:00:00:00:02";
constexpr const char* unknown = "00:00:00:00:00:00";

// Two VNIs with a host and a flood list each, published and quiet.
class ConvergenceTest : public testing::Test, public Mapping {
 protected:
  ConvergenceTest() {
    database.physicalSwitch("leaf1", {"10.0.0.1"});
    for (const auto& [name, vni, vlan] : {std::tuple{"ls10", 5010, 10}, std::tuple{"ls20", 5020, 20}}) {
      database.logicalSwitch(name, vni, "source_node");
      database.bind("leaf1", "t0", vlan, name);
    }
    first = database.host("ls10", host1, "10.0.0.2");
    second = database.host("ls20", host2, "10.0.0.3");
    flood = database.flood("ls10", "unknown-dst", {"10.0.0.2", "10.0.0.3"});
    everythingComes();
    patches.clear();
  }

  // The place of the first patch that says so; the number of patches if none does.
  std::size_t placeOf(const std::string& pointer, const json& value) const {
    for (std::size_t at = 0; at < patches.size(); ++at) {
      const json::json_pointer place(pointer);
      if (patches[at].contains(place) && patches[at].at(place) == value) {
        return at;
      }
    }
    return patches.size();
  }
  std::size_t beginning() const { return placeOf("/controller/state/ovsdb/convergenceInProgress", true); }
  std::size_t end() const { return placeOf("/controller/state/ovsdb/convergenceInProgress", false); }
  std::size_t withdrawal(int vni) const { return placeOf("/controller/fdb/" + std::to_string(vni), nullptr); }

  FakeDatabase::Id first, second, flood;
};

}  // namespace

// --- the flag

TEST_F(ConvergenceTest, TheFlagWithdrawsEachVniAfterTheBeginningAndInstantiatesItFromItsRows) {
  const json before = document;
  database.converging("true");
  changesCome();
  EXPECT_TRUE(converging());
  EXPECT_LT(beginning(), withdrawal(5010));
  EXPECT_LT(withdrawal(5010),
            placeOf("/controller/fdb/5010/macVtepTable/" + std::string{host1} + "/vtepIp", "10.0.0.2"));
  EXPECT_LT(withdrawal(5020), patches.size());
  EXPECT_EQ(at("/controller/fdb"), before["controller"]["fdb"]);
  EXPECT_EQ(mapper.convergence().cause(), Convergence::Cause::flag);
}

TEST_F(ConvergenceTest, ItEndsWhenTheFlagIsGoneAndItHasBeenQuiet) {
  database.converging("true");
  changesCome();
  timePasses(50);
  EXPECT_TRUE(converging()) << "the flag stands";
  database.converging("");
  changesCome();
  timePasses(1.9);
  EXPECT_TRUE(converging());
  database.host("ls10", "02:00:00:00:00:05", "10.0.0.5");
  changesCome();
  timePasses(1.9);
  EXPECT_TRUE(converging()) << "a row came";
  timePasses(0.2);
  EXPECT_FALSE(converging());
}

TEST_F(ConvergenceTest, ItEndsAtTheLatestAfterTheLongestTimeAndTheFlagMustComeAnew) {
  database.converging("true");
  changesCome();
  timePasses(119);
  EXPECT_TRUE(converging());
  timePasses(1);
  EXPECT_FALSE(converging());
  database.host("ls10", "02:00:00:00:00:05", "10.0.0.5");
  changesCome();
  EXPECT_FALSE(converging());
  database.converging("false");
  changesCome();
  database.converging("true");
  changesCome();
  EXPECT_TRUE(converging());
}

TEST_F(ConvergenceTest, TheEndComesAfterAllThatWasPending) {
  database.converging("true");
  changesCome();
  database.converging("");
  changesCome();
  for (int i = 0; i < 9; ++i) {
    database.host("ls10", "02:00:00:00:01:0" + std::to_string(i), "10.0.0.2");
  }
  changesComeUntaken();
  patches.clear();
  timePasses(3);
  EXPECT_EQ(end(), patches.size() - 1);
  EXPECT_EQ(vni(5010)["macVtepTable"].size(), 10U);
}

// --- a session that comes back

TEST_F(ConvergenceTest, ASessionThatIsLostChangesNothingUntilItComesBack) {
  const json before = document;
  sessionIsLost();
  timePasses(1000);
  EXPECT_EQ(document, before);
}

TEST_F(ConvergenceTest, ADatabaseThatKeptItsRowsIsNotWithdrawn) {
  const json before = document;
  sessionIsLost();
  everythingComes();
  EXPECT_TRUE(converging());
  EXPECT_EQ(patches.size(), 1U) << "the beginning of convergence alone";
  timePasses(2.1);
  EXPECT_FALSE(converging());
  EXPECT_EQ(document, before);
  EXPECT_EQ(patches.size(), 2U);
}

TEST_F(ConvergenceTest, RowsThatComeBackUnderOtherNamesAreTheSame) {
  sessionIsLost();
  database.renameRows();
  everythingComes();
  EXPECT_EQ(patches.size(), 1U);
  EXPECT_EQ(movesOf(5010, host1), 0);
}

TEST_F(ConvergenceTest, AVniThatLostHostsMeanwhileIsWithdrawnAndInstantiatedWithoutThem) {
  const auto third = database.host("ls10", "02:00:00:00:00:03", "10.0.0.3");
  changesCome();
  patches.clear();
  sessionIsLost();
  database.remove(third);
  database.host("ls20", "02:00:00:00:00:04", "10.0.0.3");
  everythingComes();
  EXPECT_LE(beginning(), withdrawal(5010));
  EXPECT_LT(withdrawal(5010), patches.size());
  EXPECT_EQ(withdrawal(5020), patches.size()) << "nothing of it is gone";
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(vtepOf(5010, "02:00:00:00:00:03"), "none");
  EXPECT_EQ(vtepOf(5020, "02:00:00:00:00:04"), "10.0.0.3");
}

TEST_F(ConvergenceTest, ADatabaseThatCameBackEmptyLeavesVlansAndAddressUntilTheEnd) {
  const json before = document;
  sessionIsLost();
  database.clear();
  everythingComes();
  EXPECT_TRUE(converging());
  EXPECT_EQ(vlans(), before["vlanVniMap"]["Vxlan1"]);
  EXPECT_EQ(at("/vtiStatus"), before["vtiStatus"]);
  EXPECT_EQ(at("/controller/fdb"), json::object());
  timePasses(2.1);
  EXPECT_FALSE(converging());
  EXPECT_EQ(vlans(), json::object());
  EXPECT_EQ(at("/vtiStatus/Vxlan1/localVtepAddr"), json());
}

TEST_F(ConvergenceTest, AVniWithoutARowIsInstantiatedWithItsFirstRowOrAtTheEnd) {
  sessionIsLost();
  database.remove(first);
  database.remove(second);
  database.remove(flood);
  everythingComes();
  EXPECT_EQ(vni(5010), json());
  EXPECT_EQ(vni(5020), json());
  timePasses(1);
  database.host("ls10", host1, "10.0.0.2");
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(vni(5020), json());
  timePasses(2.1);
  EXPECT_FALSE(converging());
  EXPECT_EQ(vni(5020), json::object());
}

TEST_F(ConvergenceTest, ADeltaAfterAReconnectConvergesAsWell) {
  sessionIsLost();
  database.host("ls10", "02:00:00:00:00:05", "10.0.0.5");
  changesCome();
  EXPECT_TRUE(converging());
  EXPECT_EQ(vtepOf(5010, "02:00:00:00:00:05"), "10.0.0.5");
  timePasses(2.1);
  EXPECT_FALSE(converging());
}

TEST_F(ConvergenceTest, FloodDestinationsThatLeaveWhileConvergingStayUntilTheEnd) {
  sessionIsLost();
  everythingComes();
  database.moveFlood(flood, {"10.0.0.3", "10.0.0.4"});
  changesCome();
  EXPECT_EQ(vni(5010)["macVtepFloodListTable"][unknown],
            json::parse(R"({"10.0.0.2": true, "10.0.0.3": true, "10.0.0.4": true})"));
  database.remove(flood);
  changesCome();
  EXPECT_EQ(vni(5010)["macVtepFloodListTable"][unknown].size(), 3U);
  timePasses(2.1);
  EXPECT_TRUE(vni(5010)["macVtepFloodListTable"].empty());
}

TEST_F(ConvergenceTest, ASessionLostWhileConvergingBeginsAnewWhenItIsBack) {
  sessionIsLost();
  everythingComes();
  timePasses(1);
  sessionIsLost();
  timePasses(60);
  EXPECT_TRUE(converging()) << "the session is away";
  everythingComes();
  timePasses(61);
  EXPECT_FALSE(converging());
}

// --- a controller that leaves

TEST_F(ConvergenceTest, AControllerThatLeavesKeepsTunnelKeysAndWithdrawsTheVnis) {
  const json before = document;
  database.key("ls10", std::nullopt);
  database.key("ls20", std::nullopt);
  changesCome();
  EXPECT_TRUE(converging());
  EXPECT_EQ(mapper.convergence().cause(), Convergence::Cause::leave);
  EXPECT_LE(beginning(), withdrawal(5010));
  EXPECT_EQ(at("/controller/fdb"), json::object());
  EXPECT_EQ(vlans(), before["vlanVniMap"]["Vxlan1"]) << "the last known tunnel keys hold";

  for (const auto& row : {first, second, flood}) {
    database.remove(row);
    changesCome();
  }
  EXPECT_EQ(at("/controller/fdb"), json::object());
  timePasses(30);
  EXPECT_TRUE(converging()) << "it has not come back";

  database.key("ls10", 5010);
  database.host("ls10", host1, "10.0.0.2");
  changesCome();
  EXPECT_EQ(vtepOf(5010, host1), "10.0.0.2");
  EXPECT_EQ(vni(5020), json());
  EXPECT_EQ(vlans(), before["vlanVniMap"]["Vxlan1"]);
  database.key("ls20", 5020);
  database.host("ls20", host2, "10.0.0.3");
  database.flood("ls10", "unknown-dst", {"10.0.0.2", "10.0.0.3"});
  changesCome();
  timePasses(2.1);
  EXPECT_FALSE(converging());
  EXPECT_EQ(document, before);
}

TEST_F(ConvergenceTest, AControllerThatDoesNotComeBackLosesItsVnisInTheEnd) {
  database.key("ls10", std::nullopt);
  database.key("ls20", std::nullopt);
  changesCome();
  timePasses(120.5);
  EXPECT_FALSE(converging());
  EXPECT_EQ(vlans(), json::object());
  EXPECT_EQ(at("/controller/fdb"), json::object());
}

TEST_F(ConvergenceTest, LogicalSwitchesThatAreRemovedAreNoLeave) {
  database.removeLogicalSwitch("ls10");
  database.removeLogicalSwitch("ls20");
  changesCome();
  EXPECT_FALSE(converging());
  EXPECT_EQ(vlans(), json::object());
}

TEST_F(ConvergenceTest, AKeyThatWasHeldOnceIsNotHeldAgain) {
  database.key("ls10", std::nullopt);
  database.key("ls20", std::nullopt);
  changesCome();
  timePasses(120.5);
  database.key("ls20", 5020);
  changesCome();
  sessionIsLost();
  everythingComes();
  EXPECT_TRUE(converging());
  EXPECT_EQ(vlans(), json::parse(R"({"20": 5020})"));
}

// --- the start

TEST(ConvergenceAtStart, ItConvergesUntilTheFirstRowsAreThereAndQuiet) {
  MapperOptions options = Mapping::options();
  options.convergeAtStart = true;
  Mapping mapping(options);
  mapping.patchesAreTaken();
  EXPECT_TRUE(mapping.converging());
  mapping.timePasses(1000);
  EXPECT_TRUE(mapping.converging()) << "the database was not there yet";
  mapping.database.logicalSwitch("ls10", 5010);
  mapping.database.host("ls10", host1, "10.0.0.2");
  mapping.everythingComes();
  EXPECT_EQ(mapping.vtepOf(5010, host1), "10.0.0.2");
  mapping.timePasses(2.1);
  EXPECT_FALSE(mapping.converging());
}

// --- the state machine by itself

TEST(ConvergenceTimes, TheNextWakeUpIsTheEarlierOfQuietAndMost) {
  Convergence convergence({.quiet = 2, .most = 10});
  EXPECT_EQ(convergence.nextWakeup(), std::numeric_limits<double>::infinity());
  convergence.begin(Convergence::Cause::flag, 100);
  convergence.conditionIs(Convergence::Cause::flag, true, 100);
  EXPECT_EQ(convergence.nextWakeup(), 110);
  convergence.conditionIs(Convergence::Cause::flag, false, 105);
  EXPECT_EQ(convergence.nextWakeup(), 107);
  convergence.changed(109);
  EXPECT_EQ(convergence.nextWakeup(), 110);
  EXPECT_FALSE(convergence.tick(109.9));
  EXPECT_TRUE(convergence.tick(110));
  EXPECT_FALSE(convergence.tick(111)) << "it ends once";
}

TEST(ConvergenceTimes, OtherTimesHoldForTheConvergenceThatIsInProgress) {
  Convergence convergence({.quiet = 1000, .most = 5000});
  convergence.begin(Convergence::Cause::session, 100);
  EXPECT_EQ(convergence.nextWakeup(), 1100);
  convergence.optionsAre({.quiet = 2, .most = 10});
  EXPECT_EQ(convergence.nextWakeup(), 102);
  convergence.changed(109);
  EXPECT_EQ(convergence.nextWakeup(), 110);
  EXPECT_TRUE(convergence.tick(110));
  convergence.optionsAre({.quiet = 3, .most = 20});
  EXPECT_EQ(convergence.nextWakeup(), std::numeric_limits<double>::infinity()) << "none is in progress";
}

}  // namespace Agent::Vtep::Testing
