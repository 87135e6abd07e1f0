// Names that a peer chose: how much of them is kept and shown, and how.
#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

const std::string longName = "ls\n\x1b[2J" + std::string(900'000, 'x');

class NamesTest : public testing::Test, public Mapping {
 protected:
  NamesTest() { database.physicalSwitch("leaf1", {"10.0.0.1"}); }

  std::string allProblems() const {
    std::string all;
    for (const Problem& problem : mapper.problems(1000)) {
      all += problem.text + "\n";
    }
    return all;
  }
};

}  // namespace

TEST_F(NamesTest, LongNamesAndControlCharactersDoNotReachProblems) {
  database.logicalSwitch(longName, 5001, longName);
  database.logicalSwitch(longName + "2", 5001);
  database.bind("leaf1", "t0", 10, longName);
  database.bind("leaf1", "t0", 20, longName);
  database.bind("leaf1", longName, 4095, longName);
  database.host(longName, "02:00:00:00:00:01", "10.0.0.2");
  database.host(longName, "02:00:00:00:00:01", longName);
  database.host(longName, longName, "10.0.0.2");
  database.flood(longName, longName, {"10.0.0.2"});
  database.physicalSwitch("leaf1", {"10.0.0.1", longName});
  everythingComes();
  const std::string all = allProblems();
  EXPECT_NE(all.find("ls??[2Jx"), std::string::npos);
  EXPECT_NE(all.find("xxx...\""), std::string::npos);
  EXPECT_GE(mapper.problems(1000).size(), 8U);
  EXPECT_LT(all.size(), 1000 * mapper.problems(1000).size());
  EXPECT_EQ(all.find('\x1b'), std::string::npos);
}

TEST_F(NamesTest, ExplainShowsABoundedPartOfThem) {
  database.logicalSwitch(longName, 5001, longName);
  database.host(longName, "02:00:00:00:00:01", longName);
  database.flood(longName, "02:00:00:00:00:01", {"10.0.0.2"});
  everythingComes();
  const std::string told = mapper.explain(0x020000000001, 5001, std::nullopt).dump();
  EXPECT_LT(told.size(), 3000U);
  EXPECT_NE(told.find("ls??[2Jx"), std::string::npos);
}

TEST_F(NamesTest, ANameThatOnlyBeginsAsTheConfiguredOneIsNotIt) {
  MapperOptions options = Mapping::options();
  options.topology.switchName = std::string(255, 's');
  Mapping mapping(options);
  mapping.database.physicalSwitch(std::string(255, 's') + "x", {"10.0.0.8"});
  mapping.everythingComes();
  EXPECT_EQ(mapping.at("/vtiStatus/Vxlan1/localVtepAddr"), json());
  mapping.database.physicalSwitch(std::string(255, 's'), {"10.0.0.9"});
  mapping.changesCome();
  EXPECT_EQ(mapping.at("/vtiStatus/Vxlan1/localVtepAddr"), "10.0.0.9");
}

TEST_F(NamesTest, AConfiguredNameThatIsLongerThanWhatIsKeptIsRefused) {
  MapperOptions options = Mapping::options();
  options.topology.switchName = std::string(256, 's');
  EXPECT_THROW(Mapper{options}, std::invalid_argument);
}

TEST_F(NamesTest, ATunnelAddressThatLeavesIsFoundByItsWholeText) {
  const std::string begin(300, 'a');
  database.physicalSwitch("leaf1", {begin + "1", begin + "2"});
  everythingComes();
  EXPECT_EQ(problems(ProblemKind::tunnelIpNotIpv4), 2U);
  database.physicalSwitch("leaf1", {begin + "2"});
  changesCome();
  EXPECT_EQ(problems(ProblemKind::tunnelIpNotIpv4), 1U);
  database.physicalSwitch("leaf1", {});
  changesCome();
  EXPECT_EQ(problems(ProblemKind::tunnelIpNotIpv4), 0U);
}

TEST_F(NamesTest, OtherKeysBesideTheFlagAreNotFollowed) {
  everythingComes();
  database.converging("true");
  changesCome();
  EXPECT_TRUE(converging());
  const auto global = database.rows("Global").begin()->first;
  database.row("Global", global)["other_config"] = json::parse(R"(["map", [["other", "true"]]])");
  changesCome();
  timePasses(2.1);
  EXPECT_FALSE(converging());
  database.row("Global", global)["other_config"] = json::parse(R"(["map", [["converging", "no"]]])");
  changesCome();
  database.row("Global", global)["other_config"] = json::parse(R"(["map", [["converging", "true"]]])");
  changesCome();
  EXPECT_TRUE(converging());
}

TEST_F(NamesTest, TheFlagThatIsGoneFromAWholeUpdateIsGone) {
  database.converging("true");
  everythingComes();
  database.converging("");
  sessionIsLost();
  everythingComes();
  timePasses(2.1);
  EXPECT_FALSE(converging());
}

TEST_F(NamesTest, TheFlagThatStandsDoesNotBeginAgainWithEveryChange) {
  everythingComes();
  database.converging("true");
  changesCome();
  const std::uint64_t cycles = mapper.convergence().cycles();
  database.logicalSwitch("ls1", 5001);
  changesCome();
  EXPECT_EQ(mapper.convergence().cycles(), cycles);
}

}  // namespace Agent::Vtep::Testing
