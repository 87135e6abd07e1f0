// The observed state: what the kernel has acknowledged or reported.
#pragma once

#include <map>
#include <set>
#include <utility>

#include "agent/kernel/Counts.h"
#include "agent/kernel/Desired.h"
#include "agent/kernel/Links.h"
#include "agent/kernel/Messages.h"
#include "agent/kernel/Nexthops.h"
#include "agent/kernel/Work.h"

namespace Agent::Kernel {

// The owner of a kernel FDB entry.
enum class Owner : std::uint8_t {
  none,     // There is no entry.
  ours,     // Of this or an earlier run of ours.
  foreign,  // Somebody else's: never touched.
  learned   // The kernel learned it from traffic; gives way to ours.
};

// Where an FDB entry of the device's table leads.
struct Target {
  Ip4 dst;
  NexthopId nexthop = 0;

  bool operator==(const Target&) const = default;
};

// A unicast address in a VLAN: its entry in the device's table and its entry in the bridge's table.
struct Host {
  Nexthops::Group* group = nullptr;  // Where its entries are to lead; null when there are to be none.
  Target actual;
  Owner owner = Owner::none;
  Owner portOwner = Owner::none;
  IfIndex port = 0;
  std::uint32_t deviceLife = 0;  // The incarnation of the device that `actual` is about.
  std::uint32_t bridgeLife = 0;  // The incarnation of the bridge that `port` is about.
  std::uint32_t seen = 0;        // The last dump that the device's entry was seen in or changed during.
  std::uint32_t portSeen = 0;
  Pending pending;
  bool adopted = false;      // From a previous run; not yet confirmed by the controller.
  bool seenLocally = false;  // At a local port; left there for a while.
  bool moved = false;        // The controller has said something new since the VLAN's device changed.
  HostCounts::State counted = 0;
};

// A group address in a VLAN: the default destination (all-zero) or a multicast address.
struct Flood {
  struct Destination {
    Owner owner = Owner::ours;
    std::uint32_t seen = 0;
    bool adopted = false;  // From a previous run; not yet confirmed by the controller.
  };
  std::map<Ip4, Destination> actual;
  std::set<Ip4> gone;     // Removed since the running dump began: if the dump shows them, it is outdated.
  NexthopId nexthop = 0;  // The entry leads to this group instead of `actual`.
  Owner nexthopOwner = Owner::none;
  Nexthops::Group* group = nullptr;
  std::set<Ip4> held;  // VTEPs whose nexthop object shows that a destination is ours.
  std::uint32_t deviceLife = 0;
  std::uint32_t seen = 0;
  Pending pending;
  bool adopted = false;
  FloodCounts::State counted = 0;
};

// A VLAN with its bridge, its VXLAN device and its addresses.
struct BridgeDomain {
  BridgeDomain(Vlan number, const DesiredVlan& wanted) : vlan(number), desired(wanted) {}
  BridgeDomain(const BridgeDomain&) = delete;
  BridgeDomain& operator=(const BridgeDomain&) = delete;

  const Vlan vlan;
  const DesiredVlan& desired;
  IfIndex bridge = 0;
  IfIndex device = 0;
  std::uint32_t deviceLife = 1;
  std::uint32_t bridgeLife = 1;
  bool deviceUnread =
      false;  // The device may have entries that no dump has shown yet: nothing is programmed.
  bool bridgeUnread = false;  // The same of the bridge.
  bool complete = false;      // Its devices have been as desired: a difference is somebody else's doing.
  Strife strife;              // About its devices.
  std::map<Mac, Host> hosts;
  std::map<Mac, Flood> floods;
  HostCounts hostCounts;
  FloodCounts floodCounts;
  // The flood entries of ours in devices that it had before, by device.
  std::map<IfIndex, std::set<std::pair<Mac, Ip4>>> leftBehind;
  std::set<IfIndex> enslaved;  // Ports that are in the bridge because we want it.

  bool mapped() const { return desired.mapping.has_value(); }
  // Whether all entries in its tables are known.
  bool read() const { return !deviceUnread && !bridgeUnread; }
  bool ready() const { return mapped() && device != 0 && bridge != 0 && read(); }
  // It has another device, or none: what was known of the entries in the previous one is void.
  void deviceReplaced(IfIndex by) {
    device = by;
    ++deviceLife;
    hostCounts.deviceReplaced();
    floodCounts.deviceReplaced();
  }
  void bridgeReplaced(IfIndex by) {
    bridge = by;
    ++bridgeLife;
    hostCounts.bridgeReplaced();
  }
};

// The observed state: devices and FDB entries, and how well they are known. (Nexthop objects: Nexthops.)
class Observed {
 public:
  explicit Observed(const Options& options) : links(options.owner, options.birthGroup) {}
  Observed(const Observed&) = delete;
  Observed& operator=(const Observed&) = delete;

  // The VLAN's domain, made if there is none; `desired` outlives it.
  BridgeDomain& domain(Vlan vlan, const DesiredVlan& desired) {
    return domains.try_emplace(vlan, vlan, desired).first->second;
  }
  BridgeDomain* find(Vlan vlan) {
    const auto at = domains.find(vlan);
    return at == domains.end() ? nullptr : &at->second;
  }
  const BridgeDomain* find(Vlan vlan) const {
    const auto at = domains.find(vlan);
    return at == domains.end() ? nullptr : &at->second;
  }
  // The domain whose table the entry is in; null if it is none of ours.
  BridgeDomain* domainOf(const FdbEntry& entry) {
    const auto& owners = entry.table == Table::device ? deviceOf : bridgeOf;
    const auto at = owners.find(entry.table == Table::device ? entry.device : entry.bridge);
    return at == owners.end() ? nullptr : find(at->second);
  }
  // The domain's enslaved ports, devices left behind or renumbering name this device.
  void mention(IfIndex device, Vlan vlan) { mentions[device].insert(vlan); }

  Links links;
  std::map<Vlan, BridgeDomain> domains;
  std::map<IfIndex, Vlan> deviceOf;  // The domain whose device, or whose bridge, it is.
  std::map<IfIndex, Vlan> bridgeOf;
  std::map<IfIndex, std::set<Vlan>> mentions;  // Until the device goes.
  std::uint32_t dump = 0;                      // The number of the dump of entries that began last.
  bool dumping = false;                        // A dump of entries is under way, or being compared.
  bool adopting = true;                        // Until the first dump is complete.
  // How often reports were lost, or entries went without a report: the observed state is in doubt until a
  // comparison that began later is over.
  std::uint32_t doubts = 0;
};

}  // namespace Agent::Kernel
