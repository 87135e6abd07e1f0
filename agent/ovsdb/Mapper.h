#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/ovsdb/Convergence.h"
#include "agent/ovsdb/MoveHistory.h"
#include "agent/ovsdb/RowStore.h"
#include "agent/ovsdb/Session.h"
#include "agent/ovsdb/Topology.h"

namespace Agent::Ovsdb {

// How the rows are mapped.
struct MapperOptions {
  Topology::Options topology;
  std::string vti = "Vxlan1";       // the tunnel interface that the physical switch stands for
  std::string stateName = "ovsdb";  // of the entry under controller.state
  Convergence::Options convergence;
  bool convergeAtStart = true;           // converging until the first rows are there and it is quiet
  std::size_t rememberedMacs = 262'144;  // that left, for their count of moves
};

// Maps the rows of the database to the agent's input document: an ordered stream of merge patches.
//
// Work is done in parts, so that no call takes long: row() takes rows in; after endUpdate(), settle() decides
// what they mean until it returns false; then next() gives the patches, so many hosts at a time. Between
// beginUpdate() and the end of settling no patches come, so that none shows half a transaction. What changes
// again before its patch was taken is one patch.
//
// The patches come in this order: the VTI, the replication mode and the beginning of convergence; VNIs that
// are withdrawn; the VLAN-VNI map; the VNIs with their hosts and floods; the end of convergence when all of
// that is out.
//
// A VNI's entry is withdrawn (null) when nobody stands for it any more, when convergence begins by flag or
// leave, and at a session's return if one of its hosts is gone. It is instantiated when its logical switch
// has a tunnel key; while converging, not before it has a row. While converging, addresses that leave a
// flood destination stay until the end.
class Mapper final : public UpdateTaker {
 public:
  // Raises std::invalid_argument when the range of VLANs is not within 1 to 4094.
  explicit Mapper(MapperOptions options);

  // --- the database's side
  void beginUpdate(bool whole, double now) override;
  void row(const RowEvent& event) override;
  void endUpdate(double now) override;
  void sessionLost(double now) override;
  // Works on what came, about `steps` rows; returns whether more is left.
  bool settle(std::size_t steps, double now);
  bool settling() const { return phase_ != Phase::idle; }

  // --- the agent's side
  // The next patch, with at most `hosts` hosts, flood addresses or VLANs (one VNI's floods may be more);
  // nothing when there is none now.
  std::optional<nlohmann::json> next(std::size_t hosts);
  // Whether next() may have a patch.
  bool pending() const;
  void tick(double now);
  // When tick() has something to do; plus infinity if never.
  double nextWakeup() const;

  // --- what it tells
  const RowStore& rows() const { return rows_; }
  const Topology& topology() const { return topology_; }
  const Convergence& convergence() const { return convergence_; }
  void convergenceOptionsAre(Convergence::Options options) { convergence_.optionsAre(options); }
  std::size_t duplicates() const;
  // Hosts that are published now.
  std::size_t publishedHosts() const { return publishedHosts_; }
  ProblemCounts problemCounts() const;
  // What is left out and why, at most `most` of it.
  std::vector<Problem> problems(std::size_t most) const;
  // The rows behind a MAC and what was decided, for the logical switches of `vni`, of `vlan`, or for all.
  nlohmann::json explain(Mac mac, std::optional<std::uint32_t> vni, std::optional<std::uint16_t> vlan) const;

 private:
  enum class Phase : std::uint8_t { idle, sweep, topology, locators, switches, hosts, floods, finish };
  using LogicalSwitch = RowStore::LogicalSwitch;
  using Host = RowStore::Host;
  using Flood = RowStore::Flood;

  // settling
  void settlePart(std::size_t& steps, double now);
  void settleTopology(double now);
  void watchController(double now);
  void decide(const Topology::Decision& decision);
  void walkLocators(std::size_t& steps);
  void walkSwitches(std::size_t& steps);
  void settleHosts(std::size_t& steps);
  void settleFloods(std::size_t& steps);
  void finish();
  void settleHost(Slot slot);
  void walk(Slot logicalSwitch);

  // publishing
  void withdraw(Slot logicalSwitch);
  void withdrawAll();
  void enqueue(Slot logicalSwitch);
  bool isPublished(const Host& host) const;
  bool floodDiffers(const LogicalSwitch& logicalSwitch, const Flood& flood,
                    const std::optional<std::vector<Ipv4>>& decided) const;
  void patchFlood(LogicalSwitch& logicalSwitch, Flood& flood, const std::vector<Ipv4>& decided,
                  nlohmann::json& addresses);
  std::optional<nlohmann::json> frontPatch();
  std::optional<nlohmann::json> withdrawalPatch(std::size_t hosts);
  std::optional<nlohmann::json> vlanPatch(std::size_t most);
  std::optional<nlohmann::json> fdbPatch(std::size_t hosts);
  std::optional<nlohmann::json> endPatch();
  void publish(Slot logicalSwitch, nlohmann::json& fdb, std::size_t& room);
  bool mayInstantiate(Slot slot);
  void publishFlood(Slot slot, Mac mac, nlohmann::json& entry, std::size_t& room);
  void publishHost(Slot host, LogicalSwitch& logicalSwitch, nlohmann::json& entry);
  void dequeue(Slot logicalSwitch);
  void retire(Slot host);
  nlohmann::json explainIn(Slot logicalSwitch, Mac mac) const;
  nlohmann::json explainUnicast(Slot logicalSwitch, Mac mac) const;
  nlohmann::json explainFlood(Slot logicalSwitch, Mac mac) const;

  MapperOptions options_;
  RowStore rows_;
  Topology topology_;
  Convergence convergence_;
  MoveHistory moves_;

  // the update under way
  bool updateOpen_ = false;
  bool whole_ = false;
  bool updateChanged_ = false;
  bool awaitingSession_ = true;  // no update yet, or none since the session was lost
  bool everUpdated_ = false;
  bool returned_ = false;  // this update is the first since the session was lost
  Phase phase_ = Phase::idle;
  std::size_t keysBefore_ = 0;
  bool flagBefore_ = false;
  std::deque<Slot> toWalk_;
  Slot walkHost_ = noSlot;
  Slot walkUcast_ = noSlot;
  bool walkBegun_ = false;

  // what is published
  bool frontPublished_ = false;
  bool vlansDirty_ = false;
  bool flagPublished_ = false;
  Ipv4 vtepPublished_ = 0;
  std::map<std::uint16_t, std::uint32_t> vlansPublished_;
  std::map<std::uint32_t, std::size_t> withdrawals_;  // VNI to how many hosts it had
  std::deque<Slot> queue_;                            // logical switches with something to publish
  std::size_t publishedHosts_ = 0;
};

}  // namespace Agent::Ovsdb
