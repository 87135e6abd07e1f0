// What the controller wants of the data plane.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

#include "agent/kernel/Mappings.h"
#include "agent/kernel/Types.h"

namespace Agent::Kernel {

enum class FloodType : std::uint8_t { all = 1, any = 2 };

// Where packets to an address go that is behind several VTEPs.
struct FloodSet {
  FloodType type = FloodType::all;
  std::vector<Ip4> vteps;  // Sorted, without duplicates, not empty.

  bool operator==(const FloodSet&) const = default;
};

// What is wanted of one VLAN.
struct DesiredVlan {
  std::optional<Mapping> mapping;
  std::map<Mac, Ip4> hosts;
  std::map<Mac, FloodSet> floods;  // Flood lists, also those of unicast addresses.

  // These VTEPs without the switch's own address: what leaves for it comes back into the bridge.
  std::vector<Ip4> remote(std::vector<Ip4> vteps) const {
    if (mapping) {
      std::erase(vteps, mapping->local);
    }
    return vteps;
  }
  // The flood list of the address; null if none.
  const FloodSet* flood(Mac mac) const {
    const auto at = floods.find(mac);
    return at == floods.end() ? nullptr : &at->second;
  }
};

// The desired state: mappings, hosts and flood lists, as the agent says them. The Engine alone changes it;
// all others of this room read it.
class Desired {
 public:
  // What is wanted of the VLAN. The record stays where it is, also while nothing is wanted.
  DesiredVlan& vlan(Vlan vlan) { return vlans_[vlan]; }
  const DesiredVlan& vlan(Vlan vlan) const { return vlans_[vlan]; }
  const std::map<Vlan, DesiredVlan>& vlans() const { return vlans_; }

  Mappings mappings;  // DesiredVlan::mapping follows it.
  // All that is wanted has been said since the start: what an earlier run left beyond it is stale.
  bool initialSyncComplete = false;

 private:
  mutable std::map<Vlan, DesiredVlan> vlans_;  // A missing record is as good as an empty one.
};

}  // namespace Agent::Kernel
