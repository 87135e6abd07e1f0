// A switch of an MLAG pair, as the tests of the mirror see it.
#pragma once

#include "Scenario.h"

namespace scenario {

// The client's MLAG state is active; VLAN 10 is mapped. Neither switch has reported its BUM status.
class MlagScenario : public Scenario {
 protected:
  void SetUp() override {
    givenVti("Vxlan1");
    mapVlan("Vxlan1", 10, 10010);
    handles.mlagStatus->mlagStateIs(Mlag::MlagState::Active);
  }
  static Ptr<Vxlan::BumStatus> status() {
    auto fresh = Kel::make<Vxlan::BumStatus>();
    fresh->bumReplicationModeIs(Vxlan::BumReplicationMode::Controller);
    return fresh;
  }
  static Ptr<Vxlan::BumVtepList> list(Texts vteps) {
    auto fresh = Kel::make<Vxlan::BumVtepList>();
    for (const std::string_view vtep : vteps) {
      fresh->remoteVtepAddrIs(ip(vtep), true);
    }
    return fresh;
  }
  // Both switches have reported, this one with no list of its own.
  void givenBothInControllerMode() {
    bumReplicationMode(Vxlan::BumReplicationMode::Controller);
    peerBumReplicationMode(Vxlan::BumReplicationMode::Controller);
  }
  Ptr<Vxlan::BumStatus> own() { return handles.vxlanHwStatusDir->bumStatus(); }
  Ptr<Vxlan::BumStatus> peer() { return handles.mlagVxlanStatus->bumStatus(); }
  Ptr<Vxlan::BumVtepList> peerList() { return peer()->bumVtepList(key(1, 10)); }
  Ptr<Vxlan::RmxMlagBumStatusSmBase> machine() { return client->rmxMlagBumStatusSm(); }
  Ptr<Vxlan::BumVtepListSm> listMachine() { return machine()->bumVtepListSm(key(1, 10)); }
  // The addresses of the switch's own list for (MAC 1, VLAN 10).
  std::vector<std::string> mirrored() {
    std::vector<std::string> texts;
    if (const auto found = own() ? own()->bumVtepList(key(1, 10)) : nullptr) {
      for (auto&& address : found->remoteVtepAddr()) {
        texts.push_back(address.key.text());
      }
    }
    return texts;
  }
};

}  // namespace scenario
