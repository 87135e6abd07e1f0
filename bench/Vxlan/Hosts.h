// The hosts that every form of the road is measured with.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace Road {

// What the controller says of one host in one step.
struct Update {
  std::uint64_t mac = 0;
  std::uint32_t vni = 0;  // counted from 0
  std::uint32_t vtep = 0;
  std::uint32_t moves = 0;
};

constexpr std::uint32_t ownVtep = 0x0a000001;

// How many VNIs a VTI has, and the VLAN of a VNI that is counted from 0.
constexpr std::uint32_t vlansOfVti = 4000;
constexpr std::uint32_t vlanOf(std::uint32_t vni) {
  return vni % vlansOfVti + 1;
}

// The MAC of a host: distinct for distinct hosts, in no useful order (a bijection of 32 bits).
constexpr std::uint64_t macOf(std::uint32_t host) {
  host = (host ^ host >> 16) * 0x85ebca6bU;
  host = (host ^ host >> 13) * 0xc2b2ae35U;
  return 0x020000000000ULL | (host ^ host >> 16);
}

// So many hosts, dealt round the VNIs: no two neighbours share a table, the worst case for caches.
inline std::vector<Update> hostsIn(std::uint32_t hosts, std::uint32_t vnis) {
  std::vector<Update> updates;
  updates.reserve(hosts);
  for (std::uint32_t host = 0; host < hosts; ++host) {
    updates.push_back({macOf(host), host % vnis, 0x0a000002 + host / 7 % 256, 0});
  }
  return updates;
}

// The same hosts in another order, so that what follows does not find its record where the last one was.
inline std::vector<Update> shuffled(std::vector<Update> updates) {
  std::shuffle(updates.begin(), updates.end(), std::mt19937_64(1));
  return updates;
}

// The same hosts, each behind another VTEP.
inline std::vector<Update> moved(std::vector<Update> updates) {
  for (Update& update : updates) {
    update.vtep ^= 1U << 16;
    ++update.moves;
  }
  return updates;
}

}  // namespace Road
