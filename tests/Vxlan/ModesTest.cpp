// The client mode and the learning mode: from the VTIs to what the switch forwards.
#include "Scenario.h"

namespace {

using namespace scenario;

class ModesTest : public Scenario {
 protected:
  // One VLAN, one VNI and two hosts; the VTIs are the test's.
  void givenTwoHosts() {
    mapVlan("Vxlan1", 10, 10010);
    publish(10010, 1, {.vtep = "10.0.0.9"});
    publish(10010, 2, {.vtep = "10.0.0.8", .moves = 7});
  }
  const std::string twoHosts =
      "02:00:00:00:00:01:10 Vxlan1 10.0.0.9 moves 1\n"
      "02:00:00:00:00:02:10 Vxlan1 10.0.0.8 moves 7\n";
};

// A switch without any VTI is no client, and learning counts as on.
TEST_F(ModesTest, WithoutAVtiTheSwitchIsNoClientAndLearns) {
  start();
  turnsUntilIdle();
  EXPECT_EQ(state(), "client off, learning on\n");
}

// One VTI that asks for it makes the switch a client, whatever the others say.
TEST_F(ModesTest, OneAskingVtiOfTwoSuffices) {
  givenVti("Vxlan1", {.client = false});
  givenVti("Vxlan2", {.client = true});
  start();
  EXPECT_TRUE(client->vxlanControllerClientMode());
}

// One VTI that does not learn turns learning off for the switch.
TEST_F(ModesTest, OneNonLearningVtiOfTwoSuffices) {
  givenVti("Vxlan1", {.client = false, .learning = true});
  givenVti("Vxlan2", {.client = false, .learning = false});
  start();
  turnsUntilIdle();
  EXPECT_EQ(state(), "client off, learning off\n");
}

// What the controller published before the client was built is there when the factory returns.
TEST_F(ModesTest, WhatIsThereBeforeTheFactoryIsThereWhenItReturns) {
  givenVti("Vxlan1");
  givenTwoHosts();
  start();
  EXPECT_EQ(received(), twoHosts);
  EXPECT_EQ(exported(), twoHosts);
}

}  // namespace
