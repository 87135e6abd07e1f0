#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "agent/vtep/Addresses.h"
#include "agent/vtep/SlotMap.h"

namespace Agent::Vtep {

// The decisions of the mapper on rows, and which of them are published. The row store keeps these beside the
// rows that they are about, so that they are found at once, and does not look into them.

// The place of a MAC among those of its logical switch that are to be published.
struct PendingLink {
  bool queued = false;
  Slot next = noSlot, previous = noSlot;
};

// On a MAC of a logical switch. It is published if `publishedIn` is the generation of its logical switch.
struct HostDecision {
  PendingLink pending;
  std::uint32_t vni = 0;  // under which the MAC was seen last
  Ipv4 vtep = 0;          // 0: none
  std::uint32_t moves = 0;
  std::uint32_t publishedIn = 0;
  Ipv4 publishedVtep = 0;
  std::uint32_t publishedMoves = 0;
};

// On where flooded frames of a MAC go.
struct FloodDecision {
  PendingLink pending;
  std::vector<Ipv4> addresses;  // ascending; empty: no row can be used
  std::uint32_t publishedIn = 0;
  bool publishedMultipath = false;
  std::vector<Ipv4> published;
  bool heldBack = false;  // addresses that left stay published until convergence ends
};

// On a logical switch.
struct SwitchDecision {
  std::uint32_t vni = 0;   // that it stands for; 0: none
  std::uint16_t vlan = 0;  // that it is bound to here; 0: none
  bool publishable = false;
  bool published = false;
  bool lostHosts = false;  // since the session came back
  bool queued = false;
  std::size_t decided = 0;  // hosts with a VTEP and floods with an address
  std::size_t publishedHosts = 0;
  std::uint32_t generation = 1;  // of the published entry; what was published in an older one is not there
  Slot firstPendingHost = noSlot;
  Slot firstPendingFlood = noSlot;
};

}  // namespace Agent::Vtep
