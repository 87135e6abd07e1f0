// The flood sets of the layer-2 RIB: where flooded traffic goes, by VLAN and MAC.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "Kel/Entity.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Qnet.h"

namespace L2Rib {

// Whether every destination receives a copy, or any one of them.
enum class FloodSetType : std::uint32_t { None = 0, SendToAll = 1, SendToAny = 2 };

// The identity of a destination; all ones for one that is known by its data alone.
class DestId {
 public:
  static constexpr std::uint64_t anonymous = UINT64_MAX;

  constexpr DestId() = default;
  constexpr explicit DestId(std::uint64_t value) : value_(value) {}
  constexpr std::uint64_t value() const noexcept { return value_; }
  constexpr auto operator<=>(const DestId&) const = default;

 private:
  std::uint64_t value_ = anonymous;
};

// The data of a VXLAN destination: the VTEP.
class DestDataVxlan {
 public:
  constexpr DestDataVxlan() = default;
  constexpr explicit DestDataVxlan(const Qnet::IpGenAddr& vtepAddr) : vtepAddr_(vtepAddr) {}
  constexpr const Qnet::IpGenAddr& vtepAddr() const noexcept { return vtepAddr_; }
  constexpr auto operator<=>(const DestDataVxlan&) const = default;

 private:
  Qnet::IpGenAddr vtepAddr_;
};

// A destination of flooded traffic.
class Dest {
 public:
  constexpr Dest() = default;
  constexpr Dest(DestId id, const DestDataVxlan& vxlan) : id_(id), vxlan_(vxlan) {}
  // The destination that stands for a VTEP.
  static constexpr Dest ofVtep(Qnet::IpAddr vtep) {
    return {DestId(DestId::anonymous), DestDataVxlan(Qnet::IpGenAddr(vtep))};
  }

  constexpr const DestId& id() const noexcept { return id_; }
  constexpr const DestDataVxlan& vxlan() const noexcept { return vxlan_; }
  constexpr auto operator<=>(const Dest&) const = default;

 private:
  DestId id_;
  DestDataVxlan vxlan_;
};

// The flood set of one MAC in one VLAN.
class KEL_API FloodSet final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onFloodSetType() {}
    virtual void onDestSet() {}
  };
  using Dests = Kel::Collection<Kel::OrderedTable, Dest, bool, &Reactor::onDestSet>;

  FloodSetType floodSetType() const { return floodSetType_; }
  void floodSetTypeIs(FloodSetType type) { floodSetType_ = type; }
  const Dests& destSet() const { return destSet_; }
  std::size_t destSets() const { return destSet_.size(); }
  bool hasDest(const Dest& dest) const { return destSet_.contains(dest); }
  void destSetIs(const Dest& dest, bool value) { destSet_.is(dest, value); }
  void destSetDel(const Dest& dest) { destSet_.del(dest); }
  void destSetDelAll() { destSet_.delAll(); }

  const char* typeName() const override { return "L2Rib::FloodSet"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  Kel::Attribute<FloodSetType, &Reactor::onFloodSetType> floodSetType_{*this};
  Dests destSet_{*this};
};

// The flood sets of one VLAN, by MAC.
class KEL_API VlanFloodSet final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onFloodSet(Qnet::EthAddr) {}
  };
  using FloodSets =
      Kel::Collection<Kel::OrderedTable, Qnet::EthAddr, Kel::Ptr<FloodSet>, &Reactor::onFloodSet>;

  // The flood set of the MAC, or none.
  Kel::Ptr<FloodSet> floodSet(const Qnet::EthAddr& mac) const { return floodSet_.get(mac); }
  const FloodSets& floodSet() const { return floodSet_; }
  std::size_t floodSets() const { return floodSet_.size(); }
  // The flood set of the MAC, made if there is none.
  Kel::Ptr<FloodSet> floodSetIs(const Qnet::EthAddr& mac);
  void floodSetDel(const Qnet::EthAddr& mac) { floodSet_.del(mac); }
  void floodSetDelAll() { floodSet_.delAll(); }

  const char* typeName() const override { return "L2Rib::VlanFloodSet"; }
  void attributes(Kel::Attributes& list) const override { list("floodSet", floodSet_); }

 private:
  FloodSets floodSet_{*this};
};

// One source of flood sets, such as the controller: its flood sets by VLAN.
class KEL_API SourceDirEntry final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onVlanFloodSet(Bridging::VlanId) {}
    virtual void onVlanFloodSetkelImmediate() {}
  };
  using VlanFloodSets = Kel::Collection<Kel::OrderedTable, Bridging::VlanId, Kel::Ptr<VlanFloodSet>,
                                        &Reactor::onVlanFloodSet, &Reactor::onVlanFloodSetkelImmediate>;

  // The flood sets of the VLAN, or none.
  Kel::Ptr<VlanFloodSet> vlanFloodSet(Bridging::VlanId vlan) const { return vlanFloodSet_.get(vlan); }
  const VlanFloodSets& vlanFloodSet() const { return vlanFloodSet_; }
  std::size_t vlanFloodSets() const { return vlanFloodSet_.size(); }
  // The flood sets of the VLAN, made if there are none.
  Kel::Ptr<VlanFloodSet> vlanFloodSetIs(Bridging::VlanId vlan);
  void vlanFloodSetDel(Bridging::VlanId vlan) { vlanFloodSet_.del(vlan); }
  void vlanFloodSetDelAll() { vlanFloodSet_.delAll(); }

  const char* typeName() const override { return "L2Rib::SourceDirEntry"; }
  void attributes(Kel::Attributes& list) const override { list("vlanFloodSet", vlanFloodSet_); }

 private:
  VlanFloodSets vlanFloodSet_{*this};
};

KEL_API std::ostream& operator<<(std::ostream& stream, const Dest& dest);

}  // namespace L2Rib
