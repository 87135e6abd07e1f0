// A client with its inputs, as the benchmarks drive it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Hosts.h"
#include "Vxlan/VxlanControllerSm.h"

namespace Road {

// A client with so many VNIs, counted from 0, all published, empty and mapped to a VLAN; vlansOfVti of them
// on each VTI.
class Switch {
 public:
  explicit Switch(std::uint32_t vnis) {
    mlag->mlagStateIs(Mlag::MlagState::Disabled);
    for (std::uint32_t vni = 0; vni < vnis; ++vni) {
      if (vni % vlansOfVti == 0) {
        addVti();
      }
      map.back()->mappingIs(Bridging::VlanId(vlanOf(vni)), Vxlan::VniExt(firstVni + vni));
      fdbs.push_back(Kel::make<VxlanController::VniFdbStatusV2>());
      dir->entityPtrIs(nameOf(vni), fdbs.back());
    }
    client = Vxlan::vxlanControllerClientSmFactory(vtis, dir, view, hw, mlag, mlagVxlan, state, maps, floods,
                                                   hosts, convergence);
  }
  ~Switch() { client = nullptr; }
  Switch(const Switch&) = delete;
  Switch& operator=(const Switch&) = delete;

  void publish(const std::vector<Update>& updates) {
    for (const Update& update : updates) {
      fdbs[update.vni]->macVtepTableIs({Qnet::EthAddr(update.mac), Qnet::IpAddr(update.vtep), update.moves});
    }
  }
  void withdraw(const std::vector<Update>& updates) {
    for (const Update& update : updates) {
      fdbs[update.vni]->macVtepTableDel(Qnet::EthAddr(update.mac));
    }
  }
  void unmap(std::uint32_t vni) { map[vni / vlansOfVti]->mappingDel(Bridging::VlanId(vlanOf(vni))); }
  void takeBack(std::uint32_t vni) { dir->entryDel(nameOf(vni)); }
  void converge(bool on) { view->convergenceInProgressIs(on); }

  static constexpr std::uint32_t firstVni = 10'000;
  Kel::Ptr<Vxlan::VtiStatusDir> vtis = Kel::make<Vxlan::VtiStatusDir>();
  Kel::Ptr<Kel::Dir> dir = Kel::make<Kel::Dir>();
  Kel::Ptr<Kel::Dir> state = Kel::make<Kel::Dir>();
  Kel::Ptr<VxlanController::RmxStateClientViewV2> view = Kel::make<VxlanController::RmxStateClientViewV2>();
  Kel::Ptr<Vxlan::VxlanHwStatusDir> hw = Kel::make<Vxlan::VxlanHwStatusDir>();
  Kel::Ptr<Mlag::Status> mlag = Kel::make<Mlag::Status>();
  Kel::Ptr<Mlag::VxlanStatus> mlagVxlan = Kel::make<Mlag::VxlanStatus>();
  Kel::Ptr<Vxlan::VlanVniMaps> maps = Kel::make<Vxlan::VlanVniMaps>();
  std::vector<Kel::Ptr<Vxlan::VlanVniMap>> map;  // by VTI
  Kel::Ptr<L2Rib::SourceDirEntry> floods = Kel::make<L2Rib::SourceDirEntry>();
  Kel::Ptr<L2Rib::HostInput> hosts = Kel::make<L2Rib::HostInput>(L2Rib::HostInput::Options{});
  Kel::Ptr<Vxlan::VxlanClientConvergenceStatus> convergence =
      Kel::make<Vxlan::VxlanClientConvergenceStatus>();
  std::vector<Kel::Ptr<VxlanController::VniFdbStatusV2>> fdbs;
  Kel::Ptr<Vxlan::VxlanControllerClientSm> client;

 private:
  static Kel::Name nameOf(std::uint32_t vni) { return Kel::Name(std::to_string(firstVni + vni)); }
  void addVti() {
    const Qnet::IntfId vti("Vxlan" + std::to_string(map.size() + 1));
    const auto status = Kel::make<Vxlan::VtiStatus>(vti);
    status->controllerClientModeIs(true);
    status->localVtepAddrIs(Qnet::IpAddr(ownVtep));
    vtis->vtiStatusIs(status);
    map.push_back(Kel::make<Vxlan::VlanVniMap>());
    maps->vlanVniMapIs(vti, map.back());
  }
};

}  // namespace Road
