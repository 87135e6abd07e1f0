// The status of the switch's MLAG side.
#pragma once

#include "Kel/Entity.h"
#include "Vxlan/types/BumStatus.h"
#include "Vxlan/types/Qnet.h"

namespace Mlag {

// The state of the MLAG pair. Any other value is kept.
enum class MlagState : std::uint32_t { Disabled = 0, Active = 4 };

// The status of MLAG on this switch.
class KEL_API Status final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onMlagState() {}
  };

  MlagState mlagState() const { return mlagState_; }
  void mlagStateIs(MlagState state) { mlagState_ = state; }

  const char* typeName() const override { return "Mlag::Status"; }
  void attributes(Kel::Attributes& list) const override { list("mlagState", mlagState_); }

 private:
  Kel::Attribute<MlagState, &Reactor::onMlagState> mlagState_{*this};
};

// The VXLAN state that the MLAG peer publishes: VTEP addresses by type, of which every one counts as this
// switch's own as well, and the peer's BUM status.
class KEL_API VxlanStatus final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onVtepAddr(Kel::Name) {}
    virtual void onBumStatus() {}
  };
  using Addresses = Kel::Collection<Kel::OrderedTable, Kel::Name, Qnet::IpAddr, &Reactor::onVtepAddr>;

  // The address of a type; 0.0.0.0 if there is none.
  Qnet::IpAddr vtepAddr(const Kel::Name& type) const { return vtepAddr_.get(type); }
  const Addresses& vtepAddr() const { return vtepAddr_; }
  void vtepAddrIs(const Kel::Name& type, Qnet::IpAddr address) { vtepAddr_.is(type, address); }
  void vtepAddrDel(const Kel::Name& type) { vtepAddr_.del(type); }
  void vtepAddrDelAll() { vtepAddr_.delAll(); }
  // The peer's BUM status; none until the peer reports one.
  const Kel::Ptr<Vxlan::BumStatus>& bumStatus() const { return bumStatus_; }
  void bumStatusIs(Kel::Ptr<Vxlan::BumStatus> status) { bumStatus_ = std::move(status); }

  const char* typeName() const override { return "Mlag::VxlanStatus"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  Addresses vtepAddr_{*this};
  Kel::Attribute<Kel::Ptr<Vxlan::BumStatus>, &Reactor::onBumStatus> bumStatus_{*this};
};

}  // namespace Mlag
