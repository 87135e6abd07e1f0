// The entries of the received host table: what they say, and what makes a host one of the switch's own.
#include "Scenario.h"

namespace {

using namespace scenario;

class EntriesTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1", {.local = "10.0.0.1", .gateway = "10.0.1.1"});
    mapVlan("Vxlan1", 10, 10010);
  }
  std::uint32_t marked() { return client->hostTable()->markedForDelCount(); }
};

// An entry carries what the controller published, the VTI, the constant 10, and the time of the write.
TEST_F(EntriesTest, AnEntrySaysWhatThePublishedHostSays) {
  start();
  secondsPass(7.5);
  publish(10010, 1, {.vtep = "10.9.8.7", .moves = 42, .attr = 3});
  const Vxlan::ReceivedEntry entry = client->hostTable()->receivedEntry(key(1, 10));
  EXPECT_EQ(entry.key, key(1, 10));
  EXPECT_EQ(entry.intf, vti("Vxlan1"));
  EXPECT_EQ(static_cast<unsigned>(entry.entryType), 10U);
  EXPECT_EQ(entry.vtepIp, ip("10.9.8.7"));
  EXPECT_EQ(entry.moveCount, 42U);
  EXPECT_EQ(entry.lastUpdateTime, 107.5);
  EXPECT_EQ(static_cast<unsigned>(entry.hostAttr), 3U);
  EXPECT_FALSE(entry.markedForDel);
}

// A host that moves is rewritten with its new VTEP, count and time.
TEST_F(EntriesTest, AHostThatMovesIsRewritten) {
  publish(10010, 1);
  start();
  secondsPass(1);
  publish(10010, 1, {.vtep = "10.0.0.8", .moves = 2});
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.8 moves 2\n");
  EXPECT_EQ(client->hostTable()->receivedEntry(key(1, 10)).lastUpdateTime, 101.0);
}

// A host that is withdrawn goes at once while the controller does not converge.
TEST_F(EntriesTest, AWithdrawnHostGoesAtOnce) {
  publish(10010, 1);
  publish(10010, 2);
  start();
  withdraw(10010, 1);
  EXPECT_EQ(received(), "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1\n");
}

// All hosts of a VNI that are withdrawn at once go at once.
TEST_F(EntriesTest, AllHostsOfAVniAreWithdrawnAtOnce) {
  publish(10010, 1);
  publish(10010, 2);
  start();
  vniStatus(10010)->macVtepTableDelAll();
  EXPECT_EQ(received(), "");
}

// A value that equals the default counts as a withdrawal, although its key is there.
TEST_F(EntriesTest, AValueEqualToTheDefaultCountsAsAWithdrawal) {
  start();
  const auto status = vniStatus(10010);
  status->macVtepTableIs({Qnet::EthAddr(), ip("10.0.0.9"), 1, VxlanController::HostAttr::Dynamic});
  EXPECT_EQ(received(), "00:00:00:00:00:00:10 Vxlan1 10.0.0.9 moves 1\n");
  status->macVtepTableIs(VxlanController::MacVtepV2());
  EXPECT_TRUE(status->macVtepTable().contains(Qnet::EthAddr()));
  EXPECT_EQ(received(), "");
}

// Each of the four fields makes a difference to the default: one that differs is a host.
TEST_F(EntriesTest, AnyFieldThatDiffersFromTheDefaultMakesAHost) {
  start();
  const auto status = vniStatus(10010);
  const VxlanController::MacVtepV2 nothing;
  auto host = nothing;
  host.vtepIp = ip("10.0.0.9");
  status->macVtepTableIs(host);
  EXPECT_NE(received(), "") << "the VTEP";
  status->macVtepTableIs(nothing);
  EXPECT_EQ(received(), "");
  host = nothing;
  host.moveCount = 1;
  status->macVtepTableIs(host);
  EXPECT_NE(received(), "") << "the count of moves";
  status->macVtepTableIs(nothing);
  host = nothing;
  host.hostAttr = VxlanController::HostAttr::None;
  status->macVtepTableIs(host);
  EXPECT_NE(received(), "") << "the attribute";
  status->macVtepTableIs({mac(1), Qnet::IpAddr(), 0, VxlanController::HostAttr::Dynamic});
  EXPECT_TRUE(client->hostTable()->receivedEntry().contains(key(1, 10))) << "the MAC";
}

// With two VTIs of which only one maps the VNI there is exactly one entry, whichever comes first.
TEST_F(EntriesTest, OfTwoVtisOnlyTheOneThatMapsTheVniGetsAnEntry) {
  givenVti("Vxlan0");
  givenMap("Vxlan0");
  givenVti("Vxlan2");
  givenMap("Vxlan2");
  start();
  traceFromNow();
  publish(10010, 1);
  EXPECT_EQ(tracedLines("Returning as no valid vlan-vni map found"), 2U);
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n");
  withdraw(10010, 1);
  EXPECT_EQ(received(), "");
}

// A MAC behind the VTI's own address is never added.
TEST_F(EntriesTest, AHostBehindTheLocalAddressIsNeverAdded) {
  start();
  traceFromNow();
  publish(10010, 1, {.vtep = "10.0.0.1"});
  EXPECT_EQ(received(), "");
  EXPECT_EQ(tracedLines("Ignoring since it's a local entry, received vtepIp: 10.0.0.1"), 1U);
  EXPECT_EQ(tracedLines(" delete stale macVtepPair "), 0U);
}

// Neither is one behind the virtual gateway's address.
TEST_F(EntriesTest, AHostBehindTheGatewayAddressIsNeverAdded) {
  start();
  publish(10010, 1, {.vtep = "10.0.1.1"});
  EXPECT_EQ(received(), "");
}

// Nor one behind any address of the MLAG pair, whatever its type.
TEST_F(EntriesTest, AHostBehindAnyAddressOfTheMlagPairIsNeverAdded) {
  mlagAddress("shared", "10.0.2.1");
  mlagAddress("peer", "10.0.2.2");
  start();
  publish(10010, 1, {.vtep = "10.0.2.1"});
  publish(10010, 2, {.vtep = "10.0.2.2"});
  publish(10010, 3, {.vtep = "10.0.2.3"});
  EXPECT_EQ(received(), "02:00:00:00:00:03:10 Vxlan1 10.0.2.3 moves 1\n");
}

// An address is the switch's own for the VTI that has it; another VTI has its own addresses.
TEST_F(EntriesTest, EachVtiHasItsOwnAddresses) {
  givenVti("Vxlan2", {.local = "10.0.0.2", .gateway = "10.0.1.2"});
  mapVlan("Vxlan2", 20, 10010);
  start();
  publish(10010, 1, {.vtep = "10.0.0.1"});
  EXPECT_EQ(received(), "02:00:00:00:00:01:20 Vxlan2 10.0.0.1 moves 1\n");
  EXPECT_TRUE(client->isVtepIpMine(vni(10010), ip("10.0.0.1"), vti("Vxlan1")));
  EXPECT_FALSE(client->isVtepIpMine(vni(10010), ip("10.0.0.1"), vti("Vxlan2")));
}

// A VTI without a status has no address of its own, not even the pair's.
TEST_F(EntriesTest, AVtiWithoutAStatusHasNoAddress) {
  mlagAddress("shared", "10.0.2.1");
  mapVlan("Vxlan7", 70, 10010);
  start();
  publish(10010, 1, {.vtep = "10.0.2.1"});
  EXPECT_EQ(received(), "02:00:00:00:00:01:70 Vxlan7 10.0.2.1 moves 1\n");
}

// The VNI does not influence whether an address is the switch's own.
TEST_F(EntriesTest, TheVniDoesNotMatterToTheOwnAddress) {
  start();
  for (const std::uint32_t number : {0U, 10010U, 4294967294U}) {
    EXPECT_TRUE(client->isVtepIpMine(vni(number), ip("10.0.0.1"), vti("Vxlan1")));
    EXPECT_FALSE(client->isVtepIpMine(vni(number), ip("10.0.0.9"), vti("Vxlan1")));
  }
}

// A host that moves behind one of the switch's own addresses goes at once, also while the controller
// converges.
TEST_F(EntriesTest, AStaleEntryOfAnOwnHostGoesAtOnceAlsoWhileConverging) {
  publish(10010, 1);
  controllerConverges(true);
  start();
  publish(10010, 1, {.vtep = "10.0.0.1", .moves = 2});
  EXPECT_EQ(received(), "");
  EXPECT_EQ(exported(), "");
  EXPECT_EQ(marked(), 0U);
}

// So does one that was marked: the count falls with it.
TEST_F(EntriesTest, AMarkedEntryOfAnOwnHostGoesAndIsNotCountedAnyMore) {
  publish(10010, 1);
  controllerConverges(true);
  start();
  withdraw(10010, 1);
  EXPECT_EQ(marked(), 1U);
  publish(10010, 1, {.vtep = "10.0.0.1"});
  EXPECT_EQ(received(), "");
  EXPECT_EQ(marked(), 0U);
}

// A change of the virtual gateway address evaluates every host again, both ways.
TEST_F(EntriesTest, AChangedGatewayAddressReEvaluatesEveryHostBothWays) {
  publish(10010, 1, {.vtep = "10.0.1.1"});
  publish(10010, 2, {.vtep = "10.0.1.2"});
  start();
  EXPECT_EQ(received(), "02:00:00:00:00:02:10 Vxlan1 10.0.1.2 moves 1\n");
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.2"));
  EXPECT_EQ(received(), "02:00:00:00:00:01:10 Vxlan1 10.0.1.1 moves 1\n");
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.1"));
  EXPECT_EQ(received(), "02:00:00:00:00:02:10 Vxlan1 10.0.1.2 moves 1\n");
}

// The gateway address of a VTI that came after the machine is followed as well, and not after it has gone.
TEST_F(EntriesTest, TheGatewayAddressOfALaterVtiIsFollowedWhileItIsThere) {
  start();
  publish(10010, 1, {.vtep = "10.0.1.9"});
  const auto old = vtiStatus("Vxlan1");
  vtiGoes("Vxlan1");
  givenVti("Vxlan1");
  vtiStatus("Vxlan1")->dgwVtepAddrIs(ip("10.0.1.9"));
  EXPECT_EQ(received(), "");
  traceFromNow();
  old->dgwVtepAddrIs(ip("10.0.1.7"));
  EXPECT_EQ(tracedLines("handleDgwVtepAddr"), 0U);
}

// A full pass never deletes: an entry whose host the controller does not have stays until something deletes
// it.
TEST_F(EntriesTest, AFullPassNeverDeletes) {
  publish(10010, 1);
  start();
  Vxlan::ReceivedEntry left;
  left.key = key(9, 10);
  left.intf = vti("Vxlan1");
  client->hostTable()->receivedEntryIs(left);
  client->rmxPerVniFdbStatusSm(vni(10010))->handleRmxHostTable();
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:09:10 Vxlan1 0.0.0.0 moves 0\n");
}

// A withdrawal while the controller converges marks, in every VLAN that has the host.
TEST_F(EntriesTest, AHostWithdrawnWhileConvergingIsMarkedInEveryVlan) {
  givenVti("Vxlan2");
  mapVlan("Vxlan2", 20, 10010);
  publish(10010, 1);
  controllerConverges(true);
  start();
  secondsPass(5);
  withdraw(10010, 1);
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1 marked\n"
            "02:00:00:00:00:01:20 Vxlan2 10.0.0.9 moves 1 marked\n");
  EXPECT_EQ(exported(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:01:20 Vxlan2 10.0.0.9 moves 1\n");
  EXPECT_EQ(marked(), 2U);
  EXPECT_EQ(client->hostTable()->receivedEntry(key(1, 10)).lastUpdateTime, 100.0) << "marking keeps the time";
}

// A marked host that the controller publishes again is rewritten unmarked, and the count falls by exactly
// one.
TEST_F(EntriesTest, AMarkedHostThatIsPublishedAgainIsUnmarked) {
  publish(10010, 1);
  publish(10010, 2);
  controllerConverges(true);
  start();
  withdraw(10010, 1);
  withdraw(10010, 2);
  traceFromNow();
  publish(10010, 1, {.moves = 2});
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 2\n"
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1 marked\n");
  EXPECT_EQ(marked(), 1U);
  EXPECT_EQ(tracedLines("Re-add, entry was marked for delete"), 1U);
}

// An entry is written before its mark is counted, whichever way the mark goes; one that goes is uncounted
// first.
TEST_F(EntriesTest, AnEntryIsWrittenBeforeItsMarkIsCounted) {
  struct Changes final : Kel::Follows<Vxlan::ReceivedHostTable> {
    void onReceivedEntry(Bridging::MacVlanPair) override { heard.emplace_back("entry"); }
    void onMarkedForDelCount() override { heard.emplace_back("count"); }
    std::vector<std::string> heard;
  };
  publish(10010, 1);
  controllerConverges(true);
  start();
  const auto changes = Kel::make<Changes>();
  changes->notifierIs(client->hostTable());
  changes->heard.clear();
  withdraw(10010, 1);
  EXPECT_THAT(changes->heard, testing::ElementsAre("entry", "count")) << "marked";
  changes->heard.clear();
  publish(10010, 1);
  EXPECT_THAT(changes->heard, testing::ElementsAre("entry", "count")) << "published again";
  withdraw(10010, 1);
  changes->heard.clear();
  client->deleteReceivedTableEntry(key(1, 10));
  EXPECT_THAT(changes->heard, testing::ElementsAre("count", "entry")) << "deleted";
  changes->notifierIs(nullptr);
}

// A withdrawal is passed on although the table has no such entry: at once, or to be marked.
TEST_F(EntriesTest, AWithdrawalIsPassedOnAlsoWithoutAnEntry) {
  start();
  publish(10010, 1, {.vtep = "10.0.0.1"});
  publish(10010, 2, {.vtep = "10.0.0.1"});
  controllerConverges(true);
  traceFromNow();
  withdraw(10010, 1);
  EXPECT_EQ(tracedLines("deferDeleteReceivedTableEntry(const Bridging::MacVlanPair&)"), 1U);
  EXPECT_EQ(tracedLines(" deleting "), 0U);
  controllerConverges(false);
  turnsUntilIdle();
  traceFromNow();
  withdraw(10010, 2);
  EXPECT_EQ(tracedLines("deleteReceivedTableEntry(const Bridging::MacVlanPair&)  deleting"), 1U);
}

// Deleting a key that is not there, withdrawing a host that was never added: nothing happens.
TEST_F(EntriesTest, DeletingWhatIsNotThereIsHarmless) {
  start();
  publish(10010, 1, {.vtep = "10.0.0.1"});
  withdraw(10010, 1);
  client->deleteReceivedTableEntry(key(1, 10));
  client->deferDeleteReceivedTableEntry(key(1, 10));
  client->deleteRemoteMacFromController(vlan(10), false);
  EXPECT_EQ(received(), "");
  EXPECT_EQ(marked(), 0U);
}

}  // namespace
