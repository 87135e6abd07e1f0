#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/vtep/Addresses.h"
#include "agent/vtep/BoundedText.h"
#include "agent/vtep/Decisions.h"
#include "agent/vtep/MacTable.h"
#include "agent/vtep/NamedRows.h"
#include "agent/vtep/Problems.h"
#include "agent/vtep/Schema.h"
#include "agent/vtep/SlotMap.h"
#include "agent/vtep/Steps.h"
#include "service/ovsdb/Uuid.h"

namespace Agent::Vtep {

// The rows of the database, linked as they name each other, and what changed in them.
//
// apply() takes rows in. What a change touches is noted and worked on later, in turns that look at a bounded
// number of items: sweep() after a whole update, then spread(), which carries a change of a locator, a
// locator set or a logical switch to the MACs that hang on it, then resolveHost() and resolveFlood(), which
// look for the row that counts of each MAC. No row may be applied until all of that is done.
//
// Only the store changes its tables. Beside the rows it keeps what the mapper decided on them.
class RowStore {
 public:
  struct Locator {
    Ipv4 address = 0;  // 0: none that can be used
    BoundedText text;
    bool touched = false;
    Chain rows;           // of Ucast_Macs_Remote that name it
    std::set<Slot> sets;  // that have it
  };
  struct LocatorSet {
    std::vector<NamedRows<Locator>::Reference> locators;
    bool touched = false;
    Chain rows;  // of Mcast_Macs_Remote that name it
  };
  struct LogicalSwitch {
    BoundedText name;
    BoundedText mode;  // as it stands in the row
    std::optional<std::int64_t> key;
    bool touched = false;
    Chain hosts;
    Chain floods;
    SwitchDecision decision;

    // Frames are flooded to each destination, not to any one of them.
    bool isSourceNode() const { return mode.kept() == "source_node"; }
  };
  struct Port {
    std::uint32_t epoch = 0;
    BoundedText name;
    std::map<std::int64_t, Ovsdb::Uuid> bindings;
  };
  struct PhysicalSwitch {
    std::uint32_t epoch = 0;
    BoundedText name;
    std::set<Ovsdb::Uuid> ports;
    std::set<BoundedText> tunnelIps;
  };
  struct Global {
    std::uint32_t epoch = 0;
    std::optional<BoundedText> converging;  // of its other_config
  };
  using Switches = NamedRows<LogicalSwitch>;
  using SwitchReference = Switches::Reference;
  using Hosts = MacTable<LogicalSwitch, Locator, HostDecision>;
  using Floods = MacTable<LogicalSwitch, LocatorSet, FloodDecision>;

  RowStore();
  RowStore(const RowStore&) = delete;
  RowStore& operator=(const RowStore&) = delete;

  // Takes a row's change in. Returns whether it changed anything. A change that the protocol does not allow
  // raises ProtocolError and changes nothing.
  bool apply(const Ovsdb::RowEvent& event);
  // The rows that are applied from now on are all there are.
  void beginWhole();
  // Removes rows that did not come since beginWhole(); returns whether more are to be looked at.
  bool sweep(Steps& steps);
  // Marks the MACs as dirty that hang on what was touched; returns whether more is left.
  bool spread(Steps& steps);
  // Forgets what no row names any more; returns whether more is left.
  bool collect(Steps& steps);

  // Decides on the next dirty MAC. `taken` is called with the MAC's slot and the VTEP that it is behind, that
  // of the newest row that can be used, 0 if there is none. Returns whether more are dirty.
  template <typename Taken>
  bool resolveHost(Steps& steps, Taken taken) {
    const Slot slot = hosts_.firstDirty();
    if (slot != noSlot && resolveFirstHost(steps)) {
      taken(slot, resolvedVtep_);
    }
    return hosts_.firstDirty() != noSlot;
  }
  // The same for where flooded frames of a MAC go: the addresses of the newest row that has some, ascending.
  template <typename Taken>
  bool resolveFlood(Steps& steps, Taken taken) {
    const Slot slot = floods_.firstDirty();
    if (slot != noSlot && resolveFirstFlood(steps)) {
      taken(slot, std::move(resolvedAddresses_));
    }
    return floods_.firstDirty() != noSlot;
  }

  // All MACs of a logical switch are to be decided on.
  void touchSwitch(Slot logicalSwitch);
  void markFloodDirty(Slot flood) { floods_.markDirty(flood); }
  // Drops a MAC if it has no rows and is not dirty; what was decided on it is gone.
  void dropHost(Slot host) { hosts_.drop(host); }
  void dropFlood(Slot flood) { floods_.drop(flood); }
  // Keeps a logical switch, or its placeholder, as long as the reference lives.
  SwitchReference hold(Slot logicalSwitch) { return logicalSwitches_.refer(logicalSwitch); }

  // The decisions of the mapper.
  SwitchDecision& decisionOn(Slot logicalSwitch) { return logicalSwitches_.edit(logicalSwitch).decision; }
  HostDecision& decisionOnHost(Slot host) { return hosts_.decision(host); }
  FloodDecision& decisionOnFlood(Slot flood) { return floods_.decision(flood); }

  // Whether a row changed that has to do with switches, ports and tunnel keys, since the last call.
  bool takeTopologyChanged() { return std::exchange(topologyChanged_, false); }
  // Whether a logical switch that is there lost its tunnel key, since the last call.
  bool takeKeysCleared() { return !std::exchange(keysCleared_, {}).empty(); }
  // Logical switches that have a tunnel key.
  std::size_t keys() const { return keys_; }

  const Switches& logicalSwitches() const { return logicalSwitches_; }
  const NamedRows<Locator>& locators() const { return locators_; }
  const NamedRows<LocatorSet>& locatorSets() const { return locatorSets_; }
  const Hosts& hosts() const { return hosts_; }
  const Floods& floods() const { return floods_; }
  const SlotMap<Ovsdb::Uuid, Port>& ports() const { return ports_; }
  const SlotMap<Ovsdb::Uuid, PhysicalSwitch>& physicalSwitches() const { return physicalSwitches_; }
  const SlotMap<Ovsdb::Uuid, Global>& globals() const { return globals_; }
  const std::set<Ovsdb::Uuid>& badLocators() const { return badLocators_; }

  std::size_t rows(Table table) const;
  // Problems of single rows: how many of each kind.
  ProblemCounts problemCounts() const;

 private:
  bool applyGlobal(const Ovsdb::RowEvent& event);
  bool applyPhysicalSwitch(const Ovsdb::RowEvent& event);
  bool applyPort(const Ovsdb::RowEvent& event);
  bool applyLogicalSwitch(const Ovsdb::RowEvent& event);
  bool applyLocator(const Ovsdb::RowEvent& event);
  bool applyLocatorSet(const Ovsdb::RowEvent& event);
  template <typename MacRows, typename Targets>
  bool applyMac(MacRows& table, Targets& targets, const Ovsdb::RowEvent& event,
                const typename MacRows::MacValue& mac);

  void removeLogicalSwitch(Slot slot);
  void keyIs(Slot slot, std::optional<std::int64_t> key);
  void removeLocator(Slot slot);
  void addressIs(Slot slot, const BoundedText& text);
  void removeLocatorSet(Slot slot);
  void membersAre(Slot set, const std::set<Ovsdb::Uuid>& members);
  void touchLocator(Slot slot);
  void touchSet(Slot slot);

  // The position of a walk over the links of a changed row; it goes on in a later turn.
  struct Cursor {
    bool begun = false;
    Slot at = noSlot;
    Slot second = noSlot;
  };
  bool spreadLocators(Steps& steps);
  bool spreadSets(Steps& steps);
  bool spreadSwitches(Steps& steps);
  bool resolveFirstHost(Steps& steps);
  bool resolveFirstFlood(Steps& steps);
  template <typename MacRows>
  bool sweepMacs(MacRows& table, Steps& steps);
  template <typename Row, typename Remove>
  bool sweepNamed(NamedRows<Row>& table, Steps& steps, Remove remove);
  template <typename Row>
  bool sweepPlain(SlotMap<Ovsdb::Uuid, Row>& table, Steps& steps);

  // Tables whose rows hold references come behind those that they refer to.
  Switches logicalSwitches_;
  NamedRows<Locator> locators_;
  NamedRows<LocatorSet> locatorSets_;
  Hosts hosts_;
  Floods floods_;
  SlotMap<Ovsdb::Uuid, Port> ports_;
  SlotMap<Ovsdb::Uuid, PhysicalSwitch> physicalSwitches_;
  SlotMap<Ovsdb::Uuid, Global> globals_;

  std::vector<NamedRows<Locator>::Reference> touchedLocators_;
  std::vector<NamedRows<LocatorSet>::Reference> touchedSets_;
  std::vector<SwitchReference> touchedSwitches_;
  Cursor cursor_;
  bool topologyChanged_ = false;
  std::size_t keys_ = 0;
  std::set<Slot> keysCleared_;
  std::set<Ovsdb::Uuid> badLocators_;

  std::uint32_t epoch_ = 1;
  std::size_t sweepTable_ = 0;
  Slot sweepAt_ = 0;
  Ipv4 resolvedVtep_ = 0;
  std::vector<Ipv4> resolvedAddresses_;
};

}  // namespace Agent::Vtep
