// Which VLAN has which VNI.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/kernel/Types.h"

namespace Agent::Kernel {

// The mapping of a VLAN.
struct Mapping {
  Vni vni = 0;
  std::string vti;  // The name of the tunnel interface, for the reader of the device's alias.
  Ip4 local;        // The address that packets are sent from.
  std::vector<std::string> ports;

  bool operator==(const Mapping&) const = default;
};

// The mapping of each VLAN, from the mappings of all tunnel interfaces (VTIs). Several VTIs may map the same
// VLAN to the same VNI: they share its device, which stays until the last of them gives it up. A VLAN has
// one VNI at a time and a VNI one VLAN: where VTIs contradict each other, the latest mapping holds, and the
// others wait until it is withdrawn.
//
// Invariants:
// 1. A mapping that holds contradicts no other that holds.
// 2. A mapping that does not hold contradicts a later one that holds, or holds by a later one of the same
//    VLAN and VNI.
class Mappings {
 public:
  // The VTI maps the VLAN; replaces its earlier mapping of the VLAN. Returns the VLANs whose mapping is
  // another than before, those that have lost theirs first.
  std::vector<Vlan> is(Vlan vlan, Mapping mapping);
  // The VTI maps the VLAN no longer.
  std::vector<Vlan> del(Vlan vlan, const std::string& vti);

  // The mapping that holds for the VLAN; null if none.
  const Mapping* find(Vlan vlan) const;
  // The VLAN that the VNI is mapped to.
  std::optional<Vlan> vlanOf(Vni vni) const;
  // The VLANs whose mapping names the port.
  const std::set<Vlan>& usersOf(const std::string& port) const;

 private:
  struct Claim {
    std::uint64_t age = 0;  // Later ones have higher numbers.
    Mapping mapping;
  };
  using ByVti = std::map<std::string, Claim>;

  std::set<Vlan> related(Vlan vlan, std::set<Vni> vnis) const;
  std::vector<Vlan> resolve(const std::set<Vlan>& vlans);
  void giveUp(Vlan vlan, Vni vni);
  void hold(Vlan vlan, const Mapping* mapping);

  std::map<Vlan, ByVti> claims_;
  std::map<Vni, std::map<Vlan, unsigned>> claimants_;  // How many VTIs map the VLAN to the VNI.
  std::map<Vlan, Mapping> held_;
  // These two follow held_.
  std::map<Vni, Vlan> vlanOf_;
  std::map<std::string, std::set<Vlan>> users_;
  std::uint64_t age_ = 0;
};

}  // namespace Agent::Kernel
