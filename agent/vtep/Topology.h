#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/vtep/RowStore.h"

namespace Agent::Vtep {

inline constexpr std::int64_t leastVni = 1, mostVni = 16777215;
inline constexpr std::int64_t leastVlan = 1, mostVlan = 4094;

// This switch's view of physical switch, ports and logical switches: which VLAN stands for which VNI, and
// where its own tunnels end.
//
// A VNI belongs to one logical switch: of several with the same tunnel key to one that is bound here before
// one that is not, to one that has the key before one that had it, then to the first by name. A logical
// switch has one VLAN here: the lowest that its ports bind; bound untagged alone, one of a range: the one
// that it has, or else one that its name leads to, so that a restart finds the same. A VLAN belongs to one
// logical switch: the first by name.
class Topology {
 public:
  struct Options {
    std::string switchName;              // of the row in Physical_Switch
    std::uint16_t untaggedFirst = 4000;  // the VLANs for logical switches that are bound untagged, inclusive
    std::uint16_t untaggedLast = mostVlan;
  };
  struct Vlan {
    std::uint32_t vni = 0;
    Ovsdb::Uuid logicalSwitch;
    friend bool operator==(const Vlan&, const Vlan&) = default;
  };
  // The result for a logical switch.
  struct Decision {
    Slot logicalSwitch = noSlot;
    std::uint32_t vni = 0;     // 0: none
    std::uint16_t vlan = 0;    // 0: none
    bool publishable = false;  // whether its tunnel key is there, not only remembered
  };

  explicit Topology(Options options) : options_(std::move(options)), switchName_(options_.switchName) {}

  // Looks at all the rows. While `converging`, a logical switch that lost its tunnel key stands for the one
  // it had last, and VLANs whose logical switch is gone, or all if the physical switch is gone, stay.
  void derive(const RowStore& rows, bool converging);

  const std::vector<Decision>& decisions() const { return decisions_; }
  const std::map<std::uint16_t, Vlan>& vlans() const { return vlans_; }
  Ipv4 localVtep() const { return localVtep_; }  // 0: none
  const ProblemList& problems() const { return problems_; }

 private:
  struct Bound {
    std::set<std::uint16_t> tagged;
    bool untagged = false;
  };
  using VlanMap = std::map<std::uint16_t, Vlan>;

  const RowStore::PhysicalSwitch* ownSwitch(const RowStore& rows, Ovsdb::Uuid& uuid) const;
  void deriveTunnelIp(const RowStore::PhysicalSwitch& own, const Ovsdb::Uuid& uuid);
  void readBindings(const RowStore& rows, const RowStore::PhysicalSwitch& own);
  std::uint32_t heldKey(const RowStore& rows, Slot slot, bool converging) const;
  void decideVnis(const RowStore& rows, bool converging);
  void settleOwner(const RowStore& rows, std::map<std::uint32_t, std::size_t>& owners);
  void decideVlans(const RowStore& rows);
  void decideTagged(const RowStore& rows, Decision& decision, const Bound& bound);
  void decideUntagged(const RowStore& rows, const std::vector<Decision*>& decisions);
  void holdVlans(const RowStore& rows, const VlanMap& old, bool switchMissing);
  void object(ProblemKind kind, Table table, const Ovsdb::Uuid& row, std::string text) {
    problems_.add(kind, table, row, std::move(text));
  }

  Options options_;
  BoundedText switchName_;
  std::vector<Decision> decisions_;
  VlanMap vlans_;
  Ipv4 localVtep_ = 0;
  ProblemList problems_;
  std::map<Slot, Bound> bound_;
  std::set<std::uint16_t> tagged_;                 // every VLAN that a port binds
  std::map<Ovsdb::Uuid, std::uint32_t> held_;      // the last valid tunnel key, by logical switch
  std::map<Ovsdb::Uuid, std::uint16_t> assigned_;  // of the range, by logical switch
};

}  // namespace Agent::Vtep
