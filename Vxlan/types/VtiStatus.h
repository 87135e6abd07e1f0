// The status of the VXLAN tunnel interfaces (VTIs).
#pragma once

#include "Kel/Entity.h"
#include "Vxlan/types/Qnet.h"

namespace Vxlan {

// One VXLAN tunnel interface: whether it asks to be a controller client, whether its data path learns remote
// MACs, and its addresses as a VTEP.
class KEL_API VtiStatus final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onControllerClientMode() {}
    virtual void onDatapathLearning() {}
    virtual void onLocalVtepAddr() {}
    virtual void onDgwVtepAddr() {}
  };

  explicit VtiStatus(Qnet::IntfId intfId) : intfId_(intfId) {}

  // The name of the VTI.
  const Qnet::IntfId& intfId() const { return intfId_; }
  // Whether the VTI takes its forwarding state from the controller.
  bool controllerClientMode() const { return controllerClientMode_; }
  void controllerClientModeIs(bool mode) { controllerClientMode_ = mode; }
  // Whether the VTI learns remote MACs in the data path.
  bool datapathLearning() const { return datapathLearning_; }
  void datapathLearningIs(bool learning) { datapathLearning_ = learning; }
  // The VTEP address of the VTI's own, the source of what it sends.
  Qnet::IpAddr localVtepAddr() const { return localVtepAddr_; }
  void localVtepAddrIs(Qnet::IpAddr address) { localVtepAddr_ = address; }
  // The VTEP address of the virtual gateway, shared with other switches.
  Qnet::IpAddr dgwVtepAddr() const { return dgwVtepAddr_; }
  void dgwVtepAddrIs(Qnet::IpAddr address) { dgwVtepAddr_ = address; }

  const char* typeName() const override { return "Vxlan::VtiStatus"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  Qnet::IntfId intfId_;
  Kel::Attribute<bool, &Reactor::onControllerClientMode> controllerClientMode_{*this, false};
  Kel::Attribute<bool, &Reactor::onDatapathLearning> datapathLearning_{*this, false};
  Kel::Attribute<Qnet::IpAddr, &Reactor::onLocalVtepAddr> localVtepAddr_{*this};
  Kel::Attribute<Qnet::IpAddr, &Reactor::onDgwVtepAddr> dgwVtepAddr_{*this};
};

// All VTIs, by name.
class KEL_API VtiStatusDir final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onVtiStatus(Qnet::IntfId) {}
    virtual void onVtiStatuskelImmediate() {}
  };
  using VtiStatuses = Kel::Collection<Kel::OrderedTable, Qnet::IntfId, Kel::Ptr<VtiStatus>,
                                      &Reactor::onVtiStatus, &Reactor::onVtiStatuskelImmediate>;

  // The status of a VTI, or none.
  Kel::Ptr<VtiStatus> vtiStatus(const Qnet::IntfId& vti) const { return vtiStatus_.get(vti); }
  const VtiStatuses& vtiStatus() const { return vtiStatus_; }
  // Enters the status under the name of its VTI.
  void vtiStatusIs(Kel::Ptr<VtiStatus> status);
  void vtiStatusDel(const Qnet::IntfId& vti) { vtiStatus_.del(vti); }
  void vtiStatusDelAll() { vtiStatus_.delAll(); }

  const char* typeName() const override { return "Vxlan::VtiStatusDir"; }
  void attributes(Kel::Attributes& list) const override { list("vtiStatus", vtiStatus_); }

 private:
  VtiStatuses vtiStatus_{*this};
};

}  // namespace Vxlan
