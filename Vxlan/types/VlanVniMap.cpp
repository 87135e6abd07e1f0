#include "Vxlan/types/VlanVniMap.h"

namespace Vxlan {

Bridging::VlanIdOrNone VlanVniMap::vniToVlan(VniExt vni) const {
  const Bridging::VlanId* vlan = vniToVlan_.find(vni);
  return vlan == nullptr ? Bridging::VlanIdOrNone() : Bridging::VlanIdOrNone(vlan->value());
}

void VlanVniMap::mappingIs(Bridging::VlanId vlan, VniSourcePair vsp) {
  Kel::ActivityLoop::instance().asHandler([&] {
    unlinkVni(vlan);
    vlanToVsp_.is(vlan, vsp);
    if (vsp.vni) {
      vniToVlan_.is(VniExt(vsp.vni), vlan);
    }
    notifyingVlan_.signal(vlan);
  });
}

void VlanVniMap::mappingDel(Bridging::VlanId vlan) {
  if (!vlanToVsp_.contains(vlan)) {
    return;
  }
  Kel::ActivityLoop::instance().asHandler([&] {
    unlinkVni(vlan);
    vlanToVsp_.del(vlan);
    notifyingVlan_.signal(vlan);
  });
}

void VlanVniMap::unlinkVni(Bridging::VlanId vlan) {
  const VniExtOrNone vni = vlanToVsp(vlan).vni;
  if (vni && vniToVlan(VniExt(vni)).value() == vlan.value()) {
    vniToVlan_.del(VniExt(vni));
    lostVnis_.add(VniExt(vni));
  }
}

void VlanVniMap::attributes(Kel::Attributes& list) const {
  list("vlanToVsp", vlanToVsp_);
  list("vniToVlan", vniToVlan_);
  list("notifyingVlan", notifyingVlan_);
  list("notifyingVni", notifyingVni_);
}

void VlanVniMaps::vlanVniMapIs(const Qnet::IntfId& vti, Kel::Ptr<VlanVniMap> map) {
  if (!map) {
    Kel::throwNullParameter("Vxlan::VlanVniMaps", "vlanVniMap");
  }
  vlanVniMap_.is(vti, std::move(map));
}

}  // namespace Vxlan
