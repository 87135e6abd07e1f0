// The trackers of the VLAN-VNI maps.
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
  for (auto&& machine : owner().rmxPerVniFdbStatusSm()) {
    const VniExt mapped = machine.key;
    if (!vlanForVni(mapped)) {
      VCC_LINE(traceOrdinary, "Deleting rmxPerVniFdbStatusSm ", "for vni ", mapped);
      owner().deleteRmxPerVniFdbStatusSm(mapped);
    }
  }
}

VtiVlanVniMapSm::VtiVlanVniMapSm(const Qnet::IntfId& vtiIntfId,
                                 VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm,
                                 VlanVniMapRef vlanVniMap)
    : VtiVlanVniMapSmBase(vtiIntfId, vxlanControllerMacAddrSm) {
  vlanVniMap_.is(vlanVniMap);
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
