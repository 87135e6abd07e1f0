#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/vtep/Convergence.h"
#include "agent/vtep/RowStore.h"
#include "agent/vtep/Topology.h"

namespace Agent::Vtep {

// Makes merge patches of what was decided on the rows, as far as that is not what is published already.
//
// The patches come in this order: the VTI, the replication mode and the beginning of convergence; VNIs that
// are withdrawn; the VLAN-VNI map; the VNIs with their hosts and floods; the end of convergence when all of
// that is out.
//
// Invariants:
//   1. A MAC is pending exactly if its logical switch may be published and what was decided on it is not what
//      is published; so its logical switch is in the queue.
//   2. A logical switch that is published or in the queue is held in the row store.
class Publisher {
 public:
  // `vti` is the tunnel interface, `stateName` the entry below controller.state. All must outlive this.
  Publisher(RowStore& rows, const Topology& topology, const Convergence& convergence, std::string vti,
            std::string stateName);

  // --- what is decided
  // The entry of the logical switch is withdrawn; its MACs are to be decided on once more.
  void withdraw(Slot logicalSwitch);
  void withdrawAll();
  // The logical switch may have something to publish.
  void enqueue(Slot logicalSwitch);
  void hostDecided(Slot host);
  void floodDecided(Slot flood);
  void vlansDecided();
  // Convergence is over: floods of which something was held back are to be decided on once more. Returns
  // whether more are left.
  bool releaseHeldBack(Steps& steps);

  // --- what is to be published
  // The next patch, with at most `hosts` hosts, flood addresses or VLANs (one flood may have more addresses);
  // nothing when there is none now.
  std::optional<nlohmann::json> next(std::size_t hosts);
  // Whether next() may have a patch.
  bool pending() const;
  // Hosts that are published now.
  std::size_t hosts() const { return publishedHosts_; }
  // How many items the last next() looked at.
  std::size_t lastSpent() const { return lastSpent_; }

 private:
  std::optional<nlohmann::json> frontPatch();
  std::optional<nlohmann::json> withdrawalPatch(std::size_t hosts);
  std::optional<nlohmann::json> vlanPatch(Steps& steps);
  std::optional<nlohmann::json> fdbPatch(Steps& steps);
  std::optional<nlohmann::json> endPatch();

  void publish(Slot logicalSwitch, nlohmann::json& fdb, Steps& steps);
  void publishHost(Slot host, SwitchDecision& logicalSwitch, nlohmann::json& entry);
  void publishFlood(Slot flood, const SwitchDecision& logicalSwitch, bool multipath, nlohmann::json& entry,
                    Steps& steps);
  void patchFlood(FloodDecision& flood, std::uint32_t generation, nlohmann::json& addresses, SlotId id);
  void holdBack(FloodDecision& flood, SlotId id);
  void dequeue();
  void retireHost(Slot host);
  void retireFlood(Slot flood);

  RowStore& rows_;
  const Topology& topology_;
  const Convergence& convergence_;
  std::string vti_;
  std::string stateName_;

  bool frontPublished_ = false;
  bool flagPublished_ = false;
  Ipv4 vtepPublished_ = 0;
  std::map<std::uint16_t, std::uint32_t> vlansPublished_;
  // what of it is to change: VLANs whose VNI goes, and those that get one
  std::map<std::uint16_t, std::uint32_t> vlansGone_, vlansCome_;
  std::map<std::uint32_t, std::size_t> withdrawals_;  // VNI to how many hosts it had
  std::map<Slot, RowStore::SwitchReference> published_;
  std::deque<RowStore::SwitchReference> queue_;  // logical switches with something to publish
  std::vector<SlotId> heldBack_;                 // floods
  std::size_t publishedHosts_ = 0;
  std::size_t lastSpent_ = 0;
};

}  // namespace Agent::Vtep
