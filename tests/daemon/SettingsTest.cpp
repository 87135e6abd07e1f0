#include "agent/daemon/Settings.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace {

using namespace Agent;
using testing::ElementsAre;
using testing::Pair;

std::string refusal(const std::function<void()>& act) {
  try {
    act();
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "none";
}

RunOptions withSwitch() {
  RunOptions options;
  options.ovsdb = {"tcp:10.0.0.1:6640", "unix:/run/db.sock"};
  options.switchName = "leaf1";
  return options;
}

TEST(SettingsTest, PortsAreSortedByVlan) {
  RunOptions options;
  options.ports = {"10:eth1", "20:eth2", "10:eth3"};
  EXPECT_THAT(portsOf(options),
              ElementsAre(Pair(10, ElementsAre("eth1", "eth3")), Pair(20, ElementsAre("eth2"))));
  for (const char* const bad : {"eth1", "10", "10:", ":eth1", "4096:eth1", "x:eth1"}) {
    options.ports = {bad};
    EXPECT_EQ(refusal([&] { portsOf(options); }),
              "--port: \"" + std::string(bad) + "\" is not VLAN:INTERFACE");
  }
}

TEST(SettingsTest, TheDatabaseIsThatOfTheSwitch) {
  RunOptions options = withSwitch();
  options.untaggedVlans = "100-200";
  options.maxMessage = 2;
  options.convergeQuiet = 3;
  options.convergeMax = 30;
  const Vtep::Adapter::Options database = databaseOf(options);
  EXPECT_EQ(database.session.remotes.size(), 2U);
  EXPECT_EQ(database.session.largestFirst, std::size_t{2} << 20U);
  EXPECT_EQ(database.mapper.topology.switchName, "leaf1");
  EXPECT_EQ(database.mapper.topology.untaggedFirst, 100);
  EXPECT_EQ(database.mapper.topology.untaggedLast, 200);
  EXPECT_EQ(database.mapper.convergence.quiet, 3);
  EXPECT_EQ(database.mapper.convergence.most, 30);
}

TEST(SettingsTest, WhatCannotBeIsNamed) {
  RunOptions options = withSwitch();
  for (const char* const bad : {"200-100", "a-b", "100-5000", ""}) {
    options.untaggedVlans = bad;
    EXPECT_EQ(refusal([&] { databaseOf(options); }),
              "--untagged-vlans: \"" + std::string(bad) + "\" is not a range of VLANs such as 4000-4094");
  }
  options = withSwitch();
  options.switchName = "";
  EXPECT_EQ(refusal([&] { databaseOf(options); }),
            "--ovsdb needs --switch, the name of this switch in the database");
  options.socketGroup = "no such group";
  EXPECT_EQ(refusal([&] { accessOf(options); }), "--socket-group: there is no group \"no such group\"");
  options.tableOwner = "no such user";
  EXPECT_EQ(refusal([&] { hostTableOf(options); }), "--table-owner: there is no user \"no such user\"");
}

TEST(SettingsTest, OthersReadWhereTheyMay) {
  RunOptions options;
  EXPECT_FALSE(accessOf(options).othersRead);
  EXPECT_EQ(accessOf(options).owner, ::geteuid());
  EXPECT_FALSE(accessOf(options).group);
  options.socketReadAll = true;
  options.socketGroup = "root";
  EXPECT_TRUE(accessOf(options).othersRead);
  EXPECT_EQ(accessOf(options).group, gid_t{0});
}

}  // namespace
