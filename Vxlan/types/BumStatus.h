// How a switch replicates BUM traffic: broadcast, unknown unicast and multicast.
#pragma once

#include "Kel/Entity.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Qnet.h"
#include "Vxlan/types/Vni.h"

namespace Vxlan {

// The BUM replication mode: who decides where BUM traffic goes. Any other value that the hardware reports is
// kept and counts as not the controller.
enum class BumReplicationMode : std::uint32_t { None = 0, Controller = 3 };

// How the addresses of a BUM VTEP list are to be used; carried, not looked at.
enum class BumVtepIpListType : std::uint32_t { None = 0 };

// The VTEPs to which BUM traffic of one (MAC, VLAN) is replicated. An address counts as present if its value
// is true.
class KEL_API BumVtepList final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onRemoteVtepAddr(Qnet::IpAddr) {}
    virtual void onRemoteVtepAddrkelImmediate() {}
    virtual void onBumVtepIpListType() {}
  };
  using Addresses = Kel::Collection<Kel::OrderedTable, Qnet::IpAddr, bool, &Reactor::onRemoteVtepAddr,
                                    &Reactor::onRemoteVtepAddrkelImmediate>;

  // Whether the address is present: entered with the value true.
  bool remoteVtepAddr(Qnet::IpAddr address) const { return remoteVtepAddr_.get(address); }
  const Addresses& remoteVtepAddr() const { return remoteVtepAddr_; }
  void remoteVtepAddrIs(Qnet::IpAddr address, bool present) { remoteVtepAddr_.is(address, present); }
  void remoteVtepAddrDel(Qnet::IpAddr address) { remoteVtepAddr_.del(address); }
  void remoteVtepAddrDelAll() { remoteVtepAddr_.delAll(); }
  BumVtepIpListType bumVtepIpListType() const { return bumVtepIpListType_; }
  void bumVtepIpListTypeIs(BumVtepIpListType type) { bumVtepIpListType_ = type; }

  const char* typeName() const override { return "Vxlan::BumVtepList"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  Addresses remoteVtepAddr_{*this};
  Kel::Attribute<BumVtepIpListType, &Reactor::onBumVtepIpListType> bumVtepIpListType_{*this};
};

// The BUM status of a switch: its replication mode and its BUM VTEP lists.
class KEL_API BumStatus final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onBumReplicationMode() {}
    virtual void onBumVtepList(MacVlanPair) {}
    virtual void onBumVtepListkelImmediate() {}
  };
  using Lists = Kel::Collection<Kel::OrderedTable, MacVlanPair, Kel::Ptr<BumVtepList>,
                                &Reactor::onBumVtepList, &Reactor::onBumVtepListkelImmediate>;

  BumReplicationMode bumReplicationMode() const { return bumReplicationMode_; }
  void bumReplicationModeIs(BumReplicationMode mode) { bumReplicationMode_ = mode; }
  // The list of this key, or none.
  Kel::Ptr<BumVtepList> bumVtepList(const MacVlanPair& key) const { return bumVtepList_.get(key); }
  const Lists& bumVtepList() const { return bumVtepList_; }
  // The list of this key, made if there is none.
  Kel::Ptr<BumVtepList> bumVtepListIs(const MacVlanPair& key);
  // Enters a list that exists.
  void bumVtepListIs(const MacVlanPair& key, Kel::Ptr<BumVtepList> list);
  void bumVtepListDel(const MacVlanPair& key) { bumVtepList_.del(key); }
  void bumVtepListDelAll() { bumVtepList_.delAll(); }

  const char* typeName() const override { return "Vxlan::BumStatus"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  Kel::Attribute<BumReplicationMode, &Reactor::onBumReplicationMode> bumReplicationMode_{*this};
  Lists bumVtepList_{*this};
};

// The VXLAN status of this switch's hardware.
class KEL_API VxlanHwStatusDir final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onBumStatus() {}
  };

  // The hardware's BUM status; none until the hardware reports one.
  const Kel::Ptr<BumStatus>& bumStatus() const { return bumStatus_; }
  void bumStatusIs(Kel::Ptr<BumStatus> status) { bumStatus_ = std::move(status); }

  const char* typeName() const override { return "Vxlan::VxlanHwStatusDir"; }
  void attributes(Kel::Attributes& list) const override { list("bumStatus", bumStatus_); }

 private:
  Kel::Attribute<Kel::Ptr<BumStatus>, &Reactor::onBumStatus> bumStatus_{*this};
};

}  // namespace Vxlan
