// The VLAN-to-VNI maps of the VTIs.
#pragma once

#include "Kel/Entity.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Qnet.h"
#include "Vxlan/types/Recent.h"
#include "Vxlan/types/Vni.h"

namespace Vxlan {

// The map of one VTI, in both directions. A writer enters and removes whole mappings, which changes both
// directions and then signals `notifyingVlan`: the update of that VLAN is complete. On one VTI a VLAN has one
// VNI and a VNI one VLAN.
class KEL_API VlanVniMap final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onVlanToVsp(Bridging::VlanId) {}
    virtual void onVniToVlan(VniExt) {}
    // The update of this VLAN's, or VNI's, entry is complete.
    virtual void onNotifyingVlan(Bridging::VlanId) {}
    virtual void onNotifyingVni(VniExt) {}
    // The map as a whole was updated; called at once.
    virtual void onNotifyingVlankelImmediate() {}
  };
  using VlanToVsp =
      Kel::Collection<Kel::OrderedTable, Bridging::VlanId, VniSourcePair, &Reactor::onVlanToVsp>;
  using VniToVlan = Kel::Collection<Kel::Table, VniExt, Bridging::VlanId, &Reactor::onVniToVlan>;

  // The VNI of the VLAN and the source of the mapping; the empty pair if it is not mapped.
  VniSourcePair vlanToVsp(Bridging::VlanId vlan) const { return vlanToVsp_.get(vlan); }
  const VlanToVsp& vlanToVsp() const { return vlanToVsp_; }
  // The VLAN that is mapped to the VNI, or none.
  Bridging::VlanIdOrNone vniToVlan(VniExt vni) const;
  const VniToVlan& vniToVlan() const { return vniToVlan_; }
  // The VNIs that lost their VLAN, in the order in which they did, some of them mapped again since.
  using LostVnis = Recent<VniExt, 256>;
  const LostVnis& lostVnis() const { return lostVnis_; }

  // Maps the VLAN to the VNI, in both directions, and signals the VLAN.
  void mappingIs(Bridging::VlanId vlan, VniSourcePair vsp);
  void mappingIs(Bridging::VlanId vlan, VniExt vni) {
    mappingIs(vlan, {VniExtOrNone(vni.value()), VniSource::Configuration});
  }
  // Takes the VLAN out of both directions and signals it; one that is not mapped is no error and signals
  // nothing.
  void mappingDel(Bridging::VlanId vlan);
  // Signals once more that an entry, or the map as a whole, has been updated.
  void notifyingVlanIs(Bridging::VlanId vlan) { notifyingVlan_.signal(vlan); }
  void notifyingVniIs(VniExt vni) { notifyingVni_.signal(vni); }
  void notifyingVlanIs() { notifyingVlan_.signalWhole(); }

  const char* typeName() const override { return "Vxlan::VlanVniMap"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  void unlinkVni(Bridging::VlanId vlan);

  VlanToVsp vlanToVsp_{*this};
  VniToVlan vniToVlan_{*this};
  LostVnis lostVnis_;
  Kel::Notification<Bridging::VlanId, &Reactor::onNotifyingVlan, &Reactor::onNotifyingVlankelImmediate>
      notifyingVlan_{*this};
  Kel::Notification<VniExt, &Reactor::onNotifyingVni> notifyingVni_{*this};
};

// The maps of all VTIs, by the name of the VTI.
class KEL_API VlanVniMaps final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onVlanVniMap(Qnet::IntfId) {}
    virtual void onVlanVniMapkelImmediate() {}
  };
  using Maps = Kel::Collection<Kel::OrderedTable, Qnet::IntfId, Kel::Ptr<VlanVniMap>, &Reactor::onVlanVniMap,
                               &Reactor::onVlanVniMapkelImmediate>;

  // The map of a VTI, or none.
  Kel::Ptr<VlanVniMap> vlanVniMap(const Qnet::IntfId& vti) const { return vlanVniMap_.get(vti); }
  const Maps& vlanVniMap() const { return vlanVniMap_; }
  void vlanVniMapIs(const Qnet::IntfId& vti, Kel::Ptr<VlanVniMap> map);
  void vlanVniMapDel(const Qnet::IntfId& vti) { vlanVniMap_.del(vti); }
  void vlanVniMapDelAll() { vlanVniMap_.delAll(); }

  const char* typeName() const override { return "Vxlan::VlanVniMaps"; }
  void attributes(Kel::Attributes& list) const override { list("vlanVniMap", vlanVniMap_); }

 private:
  Maps vlanVniMap_{*this};
};

}  // namespace Vxlan
