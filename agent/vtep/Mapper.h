#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/vtep/Convergence.h"
#include "agent/vtep/MoveHistory.h"
#include "agent/vtep/Publisher.h"
#include "agent/vtep/RowStore.h"
#include "agent/vtep/Topology.h"
#include "service/ovsdb/Session.h"

namespace Agent::Vtep {

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
// again before its patch was taken is one patch. The order of the patches is that of the Publisher.
//
// A VNI's entry is withdrawn (null) when nobody stands for it any more, when convergence begins by flag or
// leave, and at a session's return if one of its hosts is gone. It is instantiated when its logical switch
// has a tunnel key; while converging, not before it has a row. While converging, addresses that leave a
// flood destination stay until the end.
class Mapper final : public Ovsdb::UpdateSink {
 public:
  // Raises std::invalid_argument when the range of VLANs is not within 1 to 4094, or the name of the switch
  // is longer than BoundedText keeps.
  explicit Mapper(MapperOptions options);

  // --- the database's side
  // A part of the rows that comes on top of an update that did not end raises ProtocolError.
  void beginUpdate(bool whole, double now) override;
  void row(const Ovsdb::RowEvent& event) override;
  void endUpdate(double now) override;
  void sessionLost(double now) override;
  // Works on what came: looks at `steps` items (rows, links, MACs; the locators of a set at once, and all
  // logical switches and bindings at once when one of them changed); returns whether more is left.
  bool settle(std::size_t steps, double now);
  bool settling() const { return phase_ != Phase::idle; }

  // --- the agent's side
  // The next patch; see Publisher. Nothing while an update is under way.
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
  std::size_t publishedHosts() const { return publisher_.hosts(); }
  ProblemCounts problemCounts() const;
  // The rows that are left out and why, at most `most` of them.
  std::vector<Problem> problems(std::size_t most) const;
  // The rows behind a MAC and what was decided, for the logical switches of `vni`, of `vlan`, or for all.
  nlohmann::json explain(Mac mac, std::optional<std::uint32_t> vni, std::optional<std::uint16_t> vlan) const;
  // How many items the last settle() or next() looked at.
  std::size_t lastSpent() const { return lastSpent_; }

 private:
  enum class Phase : std::uint8_t { idle, sweep, release, topology, spread, hosts, floods, finish };

  void settlePart(Steps& steps, double now);
  void settleTopology(double now);
  void watchController(double now);
  void decide(const Topology::Decision& decision);
  void hostResolved(Slot slot, Ipv4 vtep);
  void floodResolved(Slot slot, std::vector<Ipv4> addresses);
  void withdrawWhatLostHosts();

  MapperOptions options_;
  RowStore rows_;
  Topology topology_;
  Convergence convergence_;
  MoveHistory moves_;
  Publisher publisher_;

  // the update under way
  bool updateOpen_ = false;
  bool whole_ = false;
  bool updateChanged_ = false;
  bool awaitingSession_ = true;  // no update yet, or none since the session was lost
  bool everUpdated_ = false;
  bool returned_ = false;          // this update is the first since the session was lost
  bool convergenceEnded_ = false;  // just now
  Phase phase_ = Phase::idle;
  std::size_t keysBefore_ = 0;
  bool flagBefore_ = false;
  std::vector<RowStore::SwitchReference>
      lostHosts_;  // published ones that lost hosts since the session was lost
  std::size_t lastSpent_ = 0;
};

}  // namespace Agent::Vtep
