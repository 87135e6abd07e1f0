// The trackers of the VLAN-VNI maps.
#include <algorithm>
#include <vector>

#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode VtiVlanVniMapSmBase::type{"Vxlan::VtiVlanVniMapSmBase"};
const Kel::TypeNode VtiVlanVniMapSm::type{"Vxlan::VtiVlanVniMapSm", &VtiVlanVniMapSmBase::type};

namespace {
[[maybe_unused]] const bool registered =
    Kel::typeNodeIs(VtiVlanVniMapSmBase::type) && Kel::typeNodeIs(VtiVlanVniMapSm::type);
}  // namespace

VtiVlanVniMapSmBase::VtiVlanVniMapSmBase(const Qnet::IntfId& vtiIntfId,
                                         VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm)
    : vtiIntfId_(*this, "vtiIntfId", vtiIntfId), vxlanControllerMacAddrSm_(vxlanControllerMacAddrSm) {}

VtiVlanVniMapSmBase::~VtiVlanVniMapSmBase() = default;

VniExtOrNone VtiVlanVniMapSmBase::vniForVlan(Bridging::VlanId) const {
  return {};
}

Bridging::VlanIdOrNone VtiVlanVniMapSmBase::vlanForVni(VniExt) const {
  return {};
}

void VtiVlanVniMapSmBase::handleInitialized() {
  VCC_TRACE(traceOrdinary, " Init ? ", initialized());
}

void VtiVlanVniMapSmBase::rmxProcessVniVlanMapUpdateComplete(Bridging::VlanId vlan, Qnet::IntfId) {
  VCC_TRACE(traceOrdinary, "vlan: ", vlan);
  if (!owner().vxlanControllerClientMode()) {
    VCC_LINE(traceOrdinary, "Returning: controllerMode = ", owner().vxlanControllerClientMode());
    return;
  }
  const VniExtOrNone vni = vniForVlan(vlan);
  if (vni) {
    VCC_LINE(traceOrdinary, "Create rmxPerVniFdbStatusSm for ", vni);
    owner().vxlanControllerScanVniStatus(VniExt(vni));
    return;
  }
  VCC_LINE(traceOrdinary, "vlan-vni map has been deleted ");
  sweepUnmapped(__PRETTY_FUNCTION__);
}

// Deletes the machines of the VNIs that have no VLAN on this VTI.
void VtiVlanVniMapSmBase::sweepUnmapped(const char* operation) {
  const std::vector<VniExt> unmapped = unmappedVnis();
  swept_ = map_ != nullptr;
  for (const VniExt vni : unmapped) {
    VCC_LINE_OF(operation, traceOrdinary, "Deleting rmxPerVniFdbStatusSm ", "for vni ", vni);
    owner().deleteRmxPerVniFdbStatusSm(vni);
    if (owner().rmxPerVniFdbStatusSm().contains(vni)) {
      swept_ = false;  // an owner that only traces
    }
  }
  seenLost_ = map_ == nullptr ? 0 : map_->lostVnis().count();
  seenEntered_ = owner().enteredVnis_.count();
}

// The VNIs that have a machine and no VLAN on this VTI, in the order of the machines' walk.
std::vector<VniExt> VtiVlanVniMapSmBase::unmappedVnis() const {
  const auto& machines = owner().rmxPerVniFdbStatusSm();
  const auto& entered = owner().enteredVnis_;
  std::vector<VniExt> unmapped;
  if (!swept_ || !map_->lostVnis().knows(seenLost_) || !entered.knows(seenEntered_)) {
    for (auto&& machine : machines) {
      if (!vlanForVni(machine.key)) {
        unmapped.push_back(machine.key);
      }
    }
    return unmapped;
  }
  const auto consider = [&](const VniExt vni) {
    if (machines.contains(vni) && !vlanForVni(vni)) {
      unmapped.push_back(vni);
    }
  };
  for (std::uint64_t at = seenLost_; at < map_->lostVnis().count(); ++at) {
    consider(map_->lostVnis()[at]);
  }
  for (std::uint64_t at = seenEntered_; at < entered.count(); ++at) {
    consider(entered[at]);
  }
  std::sort(unmapped.begin(), unmapped.end(), [&](const VniExt& one, const VniExt& other) {
    return machines.at(one).slot() < machines.at(other).slot();
  });
  unmapped.erase(std::unique(unmapped.begin(), unmapped.end()), unmapped.end());
  return unmapped;
}

VtiVlanVniMapSm::VtiVlanVniMapSm(const Qnet::IntfId& vtiIntfId,
                                 VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm,
                                 VlanVniMapRef vlanVniMap)
    : VtiVlanVniMapSmBase(vtiIntfId, vxlanControllerMacAddrSm) {
  vlanVniMapIs(vlanVniMap);
  VtiVlanVniMapSm::handleInitialized();
}

Kel::Ptr<VtiVlanVniMapSm> VtiVlanVniMapSm::VtiVlanVniMapSmIs(
    const Qnet::IntfId& vtiIntfId, VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm,
    VlanVniMapRef vlanVniMap) {
  return Kel::live<VtiVlanVniMapSm>(vtiIntfId, vxlanControllerMacAddrSm, vlanVniMap);
}

VtiVlanVniMapSm::~VtiVlanVniMapSm() {
  kelDoZombieReactors(true);
}

VniExtOrNone VtiVlanVniMapSm::vniForVlan(Bridging::VlanId vlan) const {
  // An entry that equals the empty pair is as good as none.
  return vlanVniMap() ? vlanVniMap()->vlanToVsp(vlan).vni : VniExtOrNone();
}

Bridging::VlanIdOrNone VtiVlanVniMapSm::vlanForVni(VniExt vni) const {
  return vlanVniMap() ? vlanVniMap()->vniToVlan(vni) : Bridging::VlanIdOrNone();
}

void VtiVlanVniMapSm::handleInitialized() {
  VCC_TRACE(traceOrdinary, " Init ? ", initialized());
  if (!owner().initialized()) {
    return;  // the owner makes its trackers when it is
  }
  initializedIs(true);
  if (const Kel::Ptr<const VlanVniMap> map = vlanVniMap()) {
    for (auto&& mapping : map->vlanToVsp()) {
      handleVlanVniMapUpdate(mapping.key);
    }
  }
}

void VtiVlanVniMapSm::handleVlanVniMapUpdate(Bridging::VlanId vlan) {
  VCC_TRACE(traceOrdinary, "handleVlanVniMapUpdate", " vlanId ", vlan);
  if (!initialized()) {
    return;
  }
  if (!vniForVlan(vlan)) {
    owner().deleteRemoteMacFromController(vlan, false);
  }
  rmxProcessVniVlanMapUpdateComplete(vlan, vtiIntfId());
}

}  // namespace Vxlan
