#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/kernel/Contention.h"
#include "agent/kernel/Failures.h"
#include "agent/kernel/Links.h"
#include "agent/kernel/Messages.h"
#include "agent/kernel/Nexthops.h"
#include "agent/kernel/Options.h"

namespace Agent::Kernel {

// What a VLAN is mapped to.
struct Mapping {
  Vni vni = 0;
  std::string vti;  // The name of the tunnel interface, for the reader of the device's alias.
  Ip4 local;        // The address that packets are sent from.
  std::vector<std::string> ports;

  bool operator==(const Mapping&) const = default;
};

enum class FloodType : std::uint8_t { all = 1, any = 2 };

// Where packets to an address go that is behind several VTEPs.
struct FloodSet {
  FloodType type = FloodType::all;
  std::vector<Ip4> vteps;  // Sorted, without duplicates, not empty.

  bool operator==(const FloodSet&) const = default;
};

// Whose a row in the kernel is.
enum class Mark : std::uint8_t {
  none,     // There is no row.
  ours,     // Of this or an earlier run of ours.
  foreign,  // Somebody else's: never touched.
  learned   // The kernel learned it from traffic; gives way to ours.
};

// Where a row in the device's table leads.
struct Target {
  Ip4 dst;
  NexthopId nexthop = 0;

  bool operator==(const Target&) const = default;
};

// A unicast address in a VLAN: wanted by `group`, there by the two rows.
struct Host {
  Ip4 vtep;                          // As the controller says; none without a host entry.
  Nexthops::Group* group = nullptr;  // Where its row is to lead; null when there is to be none.
  Target there;
  Mark mark = Mark::none;
  Mark portMark = Mark::none;
  IfIndex port = 0;
  std::uint32_t deviceLife = 0;  // The incarnation of the device that `there` is about.
  std::uint32_t bridgeLife = 0;  // The incarnation of the bridge that `port` is about.
  std::uint32_t seen = 0;        // The last dump that the device's row was seen in or changed during.
  std::uint32_t portSeen = 0;
  Strife strife;
  bool queued = false;
  bool adopted = false;  // From before this run, and not spoken of since.
  bool yields = false;   // Seen at a local port; left there for a while.
  bool moved = false;    // The controller has said something new since the VLAN's device changed.
};

// A group address in a VLAN: the default destination (all-zero) or a multicast address.
struct Flood {
  struct Destination {
    Mark mark = Mark::ours;
    std::uint32_t seen = 0;
    bool adopted = false;  // From before this run, and not wanted since.
  };
  std::optional<FloodSet> wanted;
  std::map<Ip4, Destination> there;
  std::set<Ip4> gone;     // Removed since the dump that is under way began: what it still shows is old.
  NexthopId nexthop = 0;  // The row leads to this group instead of `there`.
  Mark nexthopMark = Mark::none;
  Nexthops::Group* group = nullptr;
  std::set<Ip4> held;  // VTEPs whose nexthop object tells that a destination is ours.
  std::uint32_t deviceLife = 0;
  std::uint32_t seen = 0;
  Strife strife;
  bool queued = false;
  bool adopted = false;
};

// A change of a VLAN's device, to that of its new VNI: until it is turned, the bridge's rows and the flood
// rows lead to the previous device; then to the new one, while the previous one still receives.
struct Turn {
  IfIndex previous = 0;
  Time next{};  // The time of the next step.
  bool turned = false;
  bool silenced = false;  // The previous device has no flood rows any more.
};

// A VLAN with its bridge, its VXLAN device and its addresses.
struct Domain {
  explicit Domain(Vlan number) : vlan(number) {}

  Vlan vlan;
  std::optional<Mapping> mapping;
  IfIndex bridge = 0;
  IfIndex device = 0;
  std::uint32_t deviceLife = 1;
  std::uint32_t bridgeLife = 1;
  bool blind = false;        // The device has rows that no dump has told yet: nothing is programmed.
  bool bridgeBlind = false;  // The same of the bridge.
  bool complete =
      false;      // Its devices have been as wanted: what is not so any more somebody else has changed.
  Strife strife;  // About its devices.
  bool queued = false;
  std::optional<Turn> turn;
  std::optional<Mac> walk;  // Hosts from here on are yet to be looked at again.
  bool walking = false;     // In the list of domains with a walk.
  std::size_t queuedRows = 0;
  std::map<Mac, Host> hosts;
  std::map<Mac, Flood> floods;
  std::map<Mac, FloodSet> sets;  // Flood sets of unicast addresses.
  // The flood rows of ours in devices that it had before, by device.
  std::map<IfIndex, std::set<std::pair<Mac, Ip4>>> left;
  std::set<IfIndex> enslaved;  // Ports that are in the bridge because we want it.

  // Whether all rows in its tables are known.
  bool read() const { return !blind && !bridgeBlind; }
  bool ready() const { return mapping && device != 0 && bridge != 0 && read(); }
  // These VTEPs without the switch's own address: what leaves for it comes back into the bridge.
  std::vector<Ip4> remote(std::vector<Ip4> vteps) const {
    if (mapping) {
      std::erase(vteps, mapping->local);
    }
    return vteps;
  }
  // Whether packets still leave by the device of the VNI that the VLAN had before.
  bool turning() const { return turn && !turn->turned; }
};

// What has been done and heard, from the start on.
struct Counters {
  std::uint64_t requests = 0;
  std::uint64_t acknowledged = 0;
  std::uint64_t refused = 0;
  std::uint64_t notifications = 0;
  std::uint64_t overruns = 0;
  std::uint64_t audits = 0;
  std::uint64_t repairs = 0;  // Rows, nexthops and devices that others changed and a dump or report showed.
};

// What the parts of the engine share.
struct State {
  explicit State(Options given)
      : options(std::move(given)),
        failures(options.retryFirst, options.retryMost),
        contention(options, failures),
        links(options.owner, options.birthGroup),
        nexthops(options, failures, contention) {}
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  Domain& domain(Vlan vlan) { return domains.try_emplace(vlan, vlan).first->second; }
  Domain* find(Vlan vlan) {
    auto at = domains.find(vlan);
    return at == domains.end() ? nullptr : &at->second;
  }
  const Domain* find(Vlan vlan) const {
    auto at = domains.find(vlan);
    return at == domains.end() ? nullptr : &at->second;
  }
  // Queues the domain for a look at its devices.
  void queue(Domain& domain) {
    if (domain.queued) {
      return;
    }
    domain.queued = true;
    domainQueue.push_back(domain.vlan);
  }
  // Queues all addresses of the domain, a few at a time.
  void walk(Domain& domain) {
    domain.walk = Mac{};
    if (domain.walking) {
      return;
    }
    domain.walking = true;
    walks.push_back(domain.vlan);
  }
  void queue(Domain& domain, Mac mac, bool& queued) {
    if (queued) {
      return;
    }
    queued = true;
    ++domain.queuedRows;
    rowQueue.push_back({mac.group() ? Key::Kind::flood : Key::Kind::host, domain.vlan, mac.bits});
  }

  // The domain's enslaved ports, devices left behind or change of VNI name this device.
  void mention(IfIndex device, Vlan vlan) { mentions[device].insert(vlan); }

  const Options options;
  Failures failures;
  Contention contention;
  Links links;
  Nexthops nexthops;
  std::map<Vlan, Domain> domains;
  std::map<IfIndex, Vlan> deviceOf;  // The domain whose device, or whose bridge, it is.
  std::map<IfIndex, Vlan> bridgeOf;
  std::map<Vni, Vlan> vlanOf;                       // The domain that is mapped to the VNI.
  std::map<std::string, std::set<Vlan>> portUsers;  // The domains whose mapping names the port.
  std::map<IfIndex, std::set<Vlan>> mentions;       // Until the device goes.
  std::set<IfIndex> suspects;                       // Devices of ours, among them all that nothing wants.
  std::deque<Vlan> domainQueue;
  std::deque<Vlan> walks;
  std::set<Vlan> turns;
  std::deque<Key> rowQueue;
  std::set<IfIndex> released;  // Devices of mappings that were withdrawn in this run.
  Counters counters;
  Time now{};
  std::uint32_t dump = 0;  // The number of the dump of rows that began last.
  bool dumping = false;    // A dump of rows is under way, or being compared.
  bool settled = false;
  bool adopting = true;  // Until the first dump is complete.
  bool auditWanted = true;
  // How often reports were lost, or rows went that nobody reports: what is known of the kernel is in doubt
  // until a comparison that began later is over.
  std::uint32_t doubts = 0;
  std::uint64_t steps = 0;  // Domains and devices looked at because of reports, from the start on.
};

}  // namespace Agent::Kernel
