// The road of a host remembers what all hosts have in common: the VTIs, their maps and statuses, the VLAN of
// the VNI, the text of the interface. Whatever of it changes holds for the very next host.
#include "Scenario.h"

namespace {

using namespace scenario;

class RoadTest : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    start();
    publish(10010, 1);
  }
  // What is received for a MAC of VNI 10010 that is published now, behind 10.0.0.9 or another VTEP.
  std::string next(std::uint64_t macNumber, std::string_view vtep = "10.0.0.9") {
    const std::string before = received();
    publish(10010, macNumber, {.vtep = vtep});
    EXPECT_EQ(exported(), received());
    std::string found;
    std::istringstream after(received());
    for (std::string line; std::getline(after, line);) {
      found += before.find(line + '\n') == std::string::npos ? line + '\n' : "";
    }
    return found;
  }
  Ptr<Vxlan::VlanVniMap> otherMap(std::uint32_t vlanNumber) {
    const auto other = Kel::make<Vxlan::VlanVniMap>();
    other->mappingIs(vlan(vlanNumber), vni(10010));
    return other;
  }
};

TEST_F(RoadTest, AnotherVlanOfTheVni) {
  Kel::ActivityLoop::instance().asHandler([&] {
    unmapVlan("Vxlan1", 10);
    mapVlan("Vxlan1", 20, 10010);
  });
  EXPECT_EQ(next(2), "02:00:00:00:00:02:20 Vxlan1 10.0.0.9 moves 1\n");
}

TEST_F(RoadTest, AnotherMapOfTheVti) {
  mapGoes("Vxlan1");
  handles.vlanVniMaps->vlanVniMapIs(vti("Vxlan1"), otherMap(30));
  EXPECT_EQ(next(2), "02:00:00:00:00:02:30 Vxlan1 10.0.0.9 moves 1\n");
}

TEST_F(RoadTest, OtherMapsOfTheClient) {
  const auto others = Kel::make<Vxlan::VlanVniMaps>();
  givenVti("Vxlan2");
  others->vlanVniMapIs(vti("Vxlan2"), otherMap(30));
  client->vlanVniMapsIs(others);
  EXPECT_EQ(next(2), "02:00:00:00:00:02:30 Vxlan2 10.0.0.9 moves 1\n");
  client->vlanVniMapsDel();
  EXPECT_EQ(next(3), "");
}

TEST_F(RoadTest, AVtiBeforeAndOneBehind) {
  for (const char* const name : {"Vxlan2", "Vxlan0"}) {
    givenVti(name);
    mapVlan(name, 20, 10010);
  }
  EXPECT_EQ(next(2),
            "02:00:00:00:00:02:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:02:20 Vxlan2 10.0.0.9 moves 1\n");
  mapGoes("Vxlan0");
  unmapVlan("Vxlan2", 20);
  mapVlan("Vxlan2", 30, 10010);
  EXPECT_EQ(next(3),
            "02:00:00:00:00:03:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:03:30 Vxlan2 10.0.0.9 moves 1\n");
}

TEST_F(RoadTest, AnOwnAddressThatChanges) {
  vtiStatus("Vxlan1")->localVtepAddrIs(ip("10.0.0.9"));
  EXPECT_EQ(next(2), "");
  EXPECT_EQ(next(3, "10.0.0.1"), "02:00:00:00:00:03:10 Vxlan1 10.0.0.1 moves 1\n");
}

TEST_F(RoadTest, AnotherStatusOfTheVti) {
  givenVti("Vxlan1", {.local = "10.0.0.9"});
  EXPECT_EQ(next(2), "");
  EXPECT_EQ(next(3, "10.0.0.1"), "02:00:00:00:00:03:10 Vxlan1 10.0.0.1 moves 1\n");
}

TEST_F(RoadTest, OtherStatusesOfTheClient) {
  const auto others = Kel::make<Vxlan::VtiStatusDir>();
  const auto status = Kel::make<Vxlan::VtiStatus>(vti("Vxlan1"));
  status->controllerClientModeIs(true);
  status->localVtepAddrIs(ip("10.0.0.9"));
  others->vtiStatusIs(status);
  client->vtiStatusDirIs(others);
  EXPECT_EQ(next(2), "");
  EXPECT_EQ(next(3, "10.0.0.1"), "02:00:00:00:00:03:10 Vxlan1 10.0.0.1 moves 1\n");
}

// A question about a VTI that has no map is answered from its status, and one about a VTI without status with
// no.
TEST_F(RoadTest, TheOwnAddressOfAVtiWithoutAMap) {
  givenVti("Vxlan7", {.local = "10.0.0.7"});
  EXPECT_TRUE(client->isVtepIpMine(vni(10010), ip("10.0.0.7"), vti("Vxlan7")));
  EXPECT_FALSE(client->isVtepIpMine(vni(10010), ip("10.0.0.7"), vti("Vxlan8")));
  givenMap("Vxlan8");
  EXPECT_FALSE(client->isVtepIpMine(vni(10010), ip("10.0.0.7"), vti("Vxlan8")));
}

TEST_F(RoadTest, AnotherTableOfTheMachine) {
  const auto other = Kel::make<VxlanController::VniFdbStatusV2>();
  const auto machine = client->vccPerVniFdbStatusSmShadow(vni(10010));
  machine->rmxVniFdbStatusV2Is(other);
  publish(10010, 2);
  other->macVtepTableIs({mac(3), ip("10.0.0.8"), 4});
  EXPECT_EQ(received(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:03:10 Vxlan1 10.0.0.8 moves 4\n");
  machine->rmxVniFdbStatusV2Del();
  machine->handleRmxHostTable(mac(3));
  EXPECT_EQ(client->hostTable()->receivedEntrys(), 2U);
}

TEST_F(RoadTest, AMachineThatIsNotInitialized) {
  const auto machine = client->vccPerVniFdbStatusSmShadow(vni(10010));
  machine->initializedIs(false);
  EXPECT_EQ(next(2), "");
  machine->initializedIs(true);
  EXPECT_EQ(next(3), "02:00:00:00:00:03:10 Vxlan1 10.0.0.9 moves 1\n");
}

// Hosts of several VTIs in turn: each is exported with its own interface, and with nothing of another's.
TEST_F(RoadTest, EachHostIsExportedWithItsOwnInterface) {
  for (const auto& [number, name] :
       {std::pair(1U, "Vxlan1"), std::pair(2U, "aLongInterfaceName"), std::pair(3U, "V")}) {
    Vxlan::ReceivedEntry entry;
    entry.key = key(number, 40);
    entry.intf = vti(name);
    entry.vtepIp = ip("10.0.0.5");
    client->hostTable()->receivedEntryIs(entry);
  }
  EXPECT_EQ(exported(),
            "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
            "02:00:00:00:00:01:40 Vxlan1 10.0.0.5 moves 0\n"
            "02:00:00:00:00:02:40 aLongInterfaceName 10.0.0.5 moves 0\n"
            "02:00:00:00:00:03:40 V 10.0.0.5 moves 0\n");
}

}  // namespace
