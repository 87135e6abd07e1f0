// The published state of the controller, and the switch's view of it.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>

#include "Kel/Entity.h"
#include "Vxlan/types/Qnet.h"

namespace VxlanController {

// An attribute that travels with a host; carried unchanged. Any one-byte value is kept.
enum class HostAttr : std::uint8_t { None = 0, Dynamic = 16 };

// A remote host: the VTEP behind which a MAC lives. An entry that equals the default counts as absent.
struct MacVtepV2 {
  Qnet::EthAddr macAddr;
  Qnet::IpAddr vtepIp;
  std::uint32_t moveCount = 0;  // how often the controller has seen the MAC move
  HostAttr hostAttr = HostAttr::Dynamic;

  constexpr bool operator==(const MacVtepV2&) const = default;
};

// The VTEPs of which any one may receive the flooded traffic of a MAC. An entry without a VTEP counts as
// absent.
struct MacVtepMultiPathV2 {
  Qnet::EthAddr macAddr;
  std::map<Qnet::IpAddr, bool> vtepIpList;

  std::size_t vtepIpLists() const noexcept { return vtepIpList.size(); }
  bool operator==(const MacVtepMultiPathV2&) const = default;
};

// The VTEPs to which flooded traffic of a MAC is sent, every one of them. An address counts as published if
// its value is true.
class KEL_API MacVtepFloodListV2 final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onVtepIpFloodList(Qnet::IpAddr) {}
    virtual void onVtepIpFloodList() {}
  };

 private:
  static constexpr void (Reactor::*onKey)(Qnet::IpAddr) = &Reactor::onVtepIpFloodList;
  static constexpr void (Reactor::*onWhole)() = &Reactor::onVtepIpFloodList;

 public:
  using Addresses =
      Kel::Collection<Kel::OrderedTable, Qnet::IpAddr, bool, onKey, onWhole, Kel::Whole::Queued>;

  // Whether the address is a key with the value true.
  bool vtepIpFloodList(Qnet::IpAddr vtep) const { return vtepIpFloodList_.get(vtep); }
  const Addresses& vtepIpFloodList() const { return vtepIpFloodList_; }
  std::size_t vtepIpFloodLists() const { return vtepIpFloodList_.size(); }
  void vtepIpFloodListIs(Qnet::IpAddr vtep, bool flood) { vtepIpFloodList_.is(vtep, flood); }
  void vtepIpFloodListDel(Qnet::IpAddr vtep) { vtepIpFloodList_.del(vtep); }
  void vtepIpFloodListDelAll() { vtepIpFloodList_.delAll(); }

  const char* typeName() const override { return "VxlanController::MacVtepFloodListV2"; }
  void attributes(Kel::Attributes& list) const override { list("vtepIpFloodList", vtepIpFloodList_); }

 private:
  Addresses vtepIpFloodList_{*this};
};

// The forwarding database of one VNI as the controller publishes it.
class KEL_API VniFdbStatusV2 final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onMacVtepTable(Qnet::EthAddr) {}
    virtual void onMacVtepTablekelImmediate() {}
    virtual void onMacVtepFloodListTable(Qnet::EthAddr) {}
    virtual void onMacVtepFloodListTable() {}
    virtual void onMacVtepMultiPathTable(Qnet::EthAddr) {}
    virtual void onMacVtepMultiPathTable() {}
  };

 private:
  using OnKey = void (Reactor::*)(Qnet::EthAddr);
  using OnWhole = void (Reactor::*)();

 public:
  using Hosts = Kel::Collection<Kel::Table, Qnet::EthAddr, MacVtepV2, &Reactor::onMacVtepTable,
                                &Reactor::onMacVtepTablekelImmediate>;
  using FloodLists =
      Kel::Collection<Kel::OrderedTable, Qnet::EthAddr, Kel::Ptr<MacVtepFloodListV2>,
                      static_cast<OnKey>(&Reactor::onMacVtepFloodListTable),
                      static_cast<OnWhole>(&Reactor::onMacVtepFloodListTable), Kel::Whole::Queued>;
  using MultiPaths =
      Kel::Collection<Kel::OrderedTable, Qnet::EthAddr, MacVtepMultiPathV2,
                      static_cast<OnKey>(&Reactor::onMacVtepMultiPathTable),
                      static_cast<OnWhole>(&Reactor::onMacVtepMultiPathTable), Kel::Whole::Queued>;

  // Remote hosts. An absent MAC yields the default value.
  MacVtepV2 macVtepTable(const Qnet::EthAddr& mac) const { return macVtepTable_.get(mac); }
  const Hosts& macVtepTable() const { return macVtepTable_; }
  void macVtepTableIs(const MacVtepV2& host) { macVtepTable_.is(host.macAddr, host); }
  void macVtepTableDel(const Qnet::EthAddr& mac) { macVtepTable_.del(mac); }
  void macVtepTableDelAll() { macVtepTable_.delAll(); }

  // Flood lists; none for an absent MAC.
  Kel::Ptr<MacVtepFloodListV2> macVtepFloodListTable(const Qnet::EthAddr& mac) const {
    return macVtepFloodListTable_.get(mac);
  }
  const FloodLists& macVtepFloodListTable() const { return macVtepFloodListTable_; }
  void macVtepFloodListTableIs(const Qnet::EthAddr& mac, Kel::Ptr<MacVtepFloodListV2> list);
  void macVtepFloodListTableDel(const Qnet::EthAddr& mac) { macVtepFloodListTable_.del(mac); }
  void macVtepFloodListTableDelAll() { macVtepFloodListTable_.delAll(); }

  // Multipath entries; an absent MAC yields an entry of that MAC without a VTEP.
  MacVtepMultiPathV2 macVtepMultiPathTable(const Qnet::EthAddr& mac) const;
  const MultiPaths& macVtepMultiPathTable() const { return macVtepMultiPathTable_; }
  // Whether the MAC has an entry with at least one VTEP.
  bool hasMultiPath(const Qnet::EthAddr& mac) const;
  void macVtepMultiPathTableIs(const MacVtepMultiPathV2& entry) {
    macVtepMultiPathTable_.is(entry.macAddr, entry);
  }
  void macVtepMultiPathTableDel(const Qnet::EthAddr& mac) { macVtepMultiPathTable_.del(mac); }
  void macVtepMultiPathTableDelAll() { macVtepMultiPathTable_.delAll(); }

  const char* typeName() const override { return "VxlanController::VniFdbStatusV2"; }
  void attributes(Kel::Attributes& list) const override;

 private:
  Hosts macVtepTable_{*this};
  FloodLists macVtepFloodListTable_{*this};
  MultiPaths macVtepMultiPathTable_{*this};
};

// The controller's own state.
class KEL_API RmxStateV2 final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onConvergenceInProgress() {}
  };

  // Whether the controller is still collecting the state of the switches after a start or a failover.
  bool convergenceInProgress() const { return convergenceInProgress_; }
  void convergenceInProgressIs(bool inProgress) { convergenceInProgress_ = inProgress; }

  const char* typeName() const override { return "VxlanController::RmxStateV2"; }
  void attributes(Kel::Attributes& list) const override {
    list("convergenceInProgress", convergenceInProgress_);
  }

 private:
  Kel::Attribute<bool, &Reactor::onConvergenceInProgress> convergenceInProgress_{*this, false};
};

// The switch's view of the controller's state, for readers on the switch and for the controller to
// read back.
class KEL_API RmxStateClientViewV2 final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onConvergenceInProgress() {}
  };

  bool convergenceInProgress() const { return convergenceInProgress_; }
  void convergenceInProgressIs(bool inProgress) { convergenceInProgress_ = inProgress; }

  const char* typeName() const override { return "VxlanController::RmxStateClientViewV2"; }
  void attributes(Kel::Attributes& list) const override {
    list("convergenceInProgress", convergenceInProgress_);
  }

 private:
  Kel::Attribute<bool, &Reactor::onConvergenceInProgress> convergenceInProgress_{*this, false};
};

KEL_API std::ostream& operator<<(std::ostream& stream, const MacVtepV2& host);
KEL_API std::ostream& operator<<(std::ostream& stream, const MacVtepMultiPathV2& entry);

}  // namespace VxlanController

template <>
struct std::hash<VxlanController::MacVtepV2> {
  std::size_t operator()(const VxlanController::MacVtepV2& host) const noexcept {
    return std::hash<Qnet::EthAddr>{}(host.macAddr) * 31 + std::size_t{host.vtepIp.value()} * 17 +
           host.moveCount;
  }
};
