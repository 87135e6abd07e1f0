// The desired state: mappings, hosts and flood lists.
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

// The desired state of one VLAN.
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

// The controller's requirements for the data plane, as the agent passes them on. Only the Engine changes it;
// the other classes of this room read it.
class Desired {
 public:
  // The desired state of the VLAN. The record stays where it is, also while it is empty.
  DesiredVlan& vlan(Vlan vlan) { return vlans_[vlan]; }
  const DesiredVlan& vlan(Vlan vlan) const { return vlans_[vlan]; }
  const std::map<Vlan, DesiredVlan>& vlans() const { return vlans_; }

  Mappings mappings;  // DesiredVlan::mapping follows it.
  // Everything desired has arrived since the start: leftovers of an earlier run beyond it are stale.
  bool initialSyncComplete = false;

 private:
  mutable std::map<Vlan, DesiredVlan> vlans_;  // A missing record is as good as an empty one.
};

}  // namespace Agent::Kernel
