#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/ovsdb/Addresses.h"
#include "agent/ovsdb/Problems.h"
#include "agent/ovsdb/Schema.h"
#include "agent/ovsdb/SlotMap.h"
#include "agent/ovsdb/Uuid.h"

namespace Agent::Ovsdb {

// The rows of the database, linked as they name each other, and what changed in them.
//
// Rows may come in any order: a row that is named before it came is a placeholder that does not exist yet.
// What a change touches is noted, to be worked on later and in parts: MACs (dirtyMacs), flood destinations
// (dirtyFloods, allFloodsDirty), locators (touchedLocators), and everything that has to do with switches,
// ports and tunnel keys (topologyChanged). Whoever takes a note clears it.
//
// Invariants:
//   1. A MAC's rows are chained from the newest to the oldest; `newest` of a MAC without rows is noSlot.
//   2. A row's links are those of the values it holds now: it is unlinked before a value changes.
//   3. A placeholder lives as long as a row names it.
class RowStore {
 public:
  // A row of Ucast_Macs_Remote.
  struct Ucast {
    Mac mac = 0;
    Slot logicalSwitch = noSlot;
    Slot locator = noSlot;
    Slot host = noSlot;  // noSlot while the MAC is bad
    Slot newer = noSlot, older = noSlot;
    Slot sameLocatorNext = noSlot, sameLocatorPrevious = noSlot;
    std::uint32_t epoch = 0;
    ProblemKind problem = ProblemKind::none;
  };
  struct HostKey {
    Slot logicalSwitch = noSlot;
    Mac mac = 0;
    friend bool operator==(const HostKey&, const HostKey&) = default;
  };
  struct HostKeyHash {
    std::size_t operator()(const HostKey& key) const noexcept {
      return (std::uint64_t{key.logicalSwitch} << 48 ^ key.logicalSwitch) * 0x9e3779b97f4a7c15ULL ^ key.mac;
    }
  };
  // A MAC of a logical switch: its rows, and what the mapper made of them.
  struct Host {
    Slot newest = noSlot;
    Slot next = noSlot, previous = noSlot;  // of the same logical switch
    bool dirty = false;                     // in dirtyMacs
    // Written by the mapper alone:
    bool queued = false;            // among its logical switch's pending hosts
    std::uint32_t vni = 0;          // under which the MAC was seen last
    Ipv4 vtep = 0;                  // decided; 0: none
    std::uint32_t moves = 0;        // decided
    std::uint32_t publishedIn = 0;  // generation of its logical switch; an older one: not published
    Ipv4 publishedVtep = 0;
    std::uint32_t publishedMoves = 0;
  };
  // Where flooded frames of a MAC go: its rows in Mcast_Macs_Remote, the oldest first.
  struct Flood {
    std::vector<Uuid> rows;
    // Written by the mapper alone:
    std::uint32_t publishedIn = 0;
    bool publishedMultipath = false;
    std::vector<Ipv4> published;
    bool heldBack = false;  // addresses that left stay published until convergence ends
  };
  struct LogicalSwitch {
    bool exists = false;
    std::uint32_t epoch = 0;
    std::uint32_t users = 0;  // rows that name it
    std::string name;
    std::string mode;  // as it stands in the row
    std::optional<std::int64_t> key;
    bool keyCleared = false;  // since the last look at the topology
    Slot firstHost = noSlot;
    std::size_t hosts = 0;
    std::map<Mac, Flood> floods;
    // Written by the mapper alone:
    std::uint32_t heldKey = 0;  // the last valid one
    std::uint32_t vni = 0;      // that it stands for; 0: none
    std::uint16_t vlan = 0;     // that it is bound to here; 0: none
    bool publishable = false;
    bool published = false;
    bool lostHosts = false;  // since the session came back
    bool queued = false;
    bool walking = false;
    std::size_t publishedHosts = 0;
    std::uint32_t generation = 1;  // of the published entry
    std::vector<Slot> pendingHosts;
    std::set<Mac> pendingFloods;
  };
  struct Locator {
    bool exists = false;
    std::uint32_t epoch = 0;
    std::uint32_t users = 0;   // rows that name it
    std::uint32_t inSets = 0;  // of them, locator sets
    bool touched = false;      // in touchedLocators
    Ipv4 address = 0;          // 0: none that can be used
    std::string text;
    Slot firstUcast = noSlot;
  };
  struct LocatorSet {
    bool exists = false;
    std::uint32_t epoch = 0;
    std::vector<Slot> locators;
    std::set<Uuid> rows;  // of Mcast_Macs_Remote that name it
  };
  struct Mcast {
    std::uint32_t epoch = 0;
    std::string text;
    std::optional<Mac> mac;
    Slot logicalSwitch = noSlot;
    Uuid set;
    ProblemKind problem = ProblemKind::none;
  };
  struct Port {
    std::uint32_t epoch = 0;
    std::string name;
    std::map<std::int64_t, Uuid> bindings;
  };
  struct PhysicalSwitch {
    std::uint32_t epoch = 0;
    std::string name;
    std::set<Uuid> ports;
    std::set<std::string> tunnelIps;
  };
  struct Global {
    std::uint32_t epoch = 0;
    std::map<std::string, std::string> otherConfig;
  };

  // Takes a row's change in. Returns whether it changed anything.
  bool apply(const RowEvent& event);
  // The rows that are applied from now on are all there are.
  void beginWhole() { ++epoch_; }
  // Removes rows that did not come since beginWhole(), looking at about `rows` of them; returns whether more
  // are to be looked at. Call it until false.
  bool sweep(std::size_t rows);

  // Decides which VTEP a MAC is behind: that of the newest row that can be used, 0 if there is none. Notes
  // the problems of the rows it looks at.
  Ipv4 resolve(Slot host);
  // Decides where a MAC's flooded frames go: the addresses of the newest row that can be used, ascending;
  // none if there is no such row.
  std::optional<std::vector<Ipv4>> resolveFlood(Slot logicalSwitch, Mac mac);
  void markDirty(Slot host);
  // The touched locator has been worked on.
  void settleLocator(Slot locator);
  // Drops a MAC without rows.
  void drop(Slot host);
  // Drops the logical switches that are gone and that nothing has to do with any more.
  void dropUnused();

  std::size_t rows(Table table) const { return counts_[static_cast<std::size_t>(table)]; }
  // Problems of single rows: how many of each kind, and at most `most` of them in words.
  const ProblemCounts& problemCounts() const { return problemCounts_; }
  std::vector<Problem> problems(std::size_t most) const;

  // The tables. Who is not the mapper only reads.
  SlotMap<Uuid, Ucast> ucasts;
  SlotMap<HostKey, Host, HostKeyHash> hosts;
  SlotMap<Uuid, LogicalSwitch> logicalSwitches;
  SlotMap<Uuid, Locator> locators;
  std::map<Uuid, LocatorSet> locatorSets;
  std::map<Uuid, Mcast> mcasts;
  std::map<Uuid, Port> ports;
  std::map<Uuid, PhysicalSwitch> physicalSwitches;
  std::map<Uuid, Global> globals;

  // The notes.
  std::vector<Slot> dirtyMacs;
  std::set<std::pair<Slot, Mac>> dirtyFloods;
  bool allFloodsDirty = false;
  std::vector<Slot> touchedLocators;
  std::vector<Slot> comeAndGone;  // logical switches that began or ceased to exist; some may be dropped
  bool topologyChanged = false;

 private:
  bool applyGlobal(const RowEvent& event);
  bool applyPhysicalSwitch(const RowEvent& event);
  bool applyPort(const RowEvent& event);
  bool applyLogicalSwitch(const RowEvent& event);
  bool applyLocator(const RowEvent& event);
  bool applyLocatorSet(const RowEvent& event);
  bool applyUcast(const RowEvent& event);
  bool applyMcast(const RowEvent& event);

  void linkUcast(Slot row);
  void unlinkUcast(Slot row);
  void linkHost(Slot host);
  void removeUcast(Slot row);
  void removeMcast(const Uuid& uuid);
  void linkMcast(const Uuid& uuid);
  void unlinkMcast(const Uuid& uuid);
  void removeLogicalSwitch(Slot slot);
  void removeLocator(Slot slot);
  void removeLocatorSet(const Uuid& uuid);
  void touchLocator(Slot slot);
  void touchSet(const LocatorSet& set);
  void releaseLocator(Slot slot);
  void dropSetIfUnused(const Uuid& uuid);
  void count(Table table, int by);
  void problemIs(Slot row, ProblemKind kind);
  void problemIs(const Uuid& row, Mcast& mcast, ProblemKind kind);
  void moveCount(ProblemKind from, ProblemKind to);
  ProblemKind objectionTo(const Ucast& row) const;
  ProblemKind objectionTo(const Mcast& row, std::vector<Ipv4>& addresses) const;
  std::string describe(const Ucast& row) const;
  template <typename Map, typename Remove>
  bool sweepMap(Map& map, Remove remove);

  std::uint32_t epoch_ = 1;
  std::set<Slot> gone_;  // logical switches that do not exist and may be dropped when they are unused
  Slot sweepUcast_ = 0;
  std::array<std::size_t, tableCount> counts_{};
  ProblemCounts problemCounts_{};
  std::set<Uuid> badUcasts_, badMcasts_, badLocators_;
  std::map<Uuid, std::string> badMacs_;  // the texts that are not MACs
};

}  // namespace Agent::Ovsdb
