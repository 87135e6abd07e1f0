// Counts, problems and explanations.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "agent/kernel/Audit.h"
#include "agent/kernel/DeviceSweep.h"
#include "agent/kernel/Devices.h"
#include "agent/kernel/Floods.h"
#include "agent/kernel/Hosts.h"

namespace Agent::Kernel {

// How much of a kind is desired, actually there, and other than desired (missing, different, or ours and not
// wanted).
struct Tally {
  std::string kind;
  std::size_t desired = 0;
  std::size_t actual = 0;
  std::size_t differing = 0;  // Of those that are known.
  std::size_t unknown = 0;    // Desired, and not compared with the kernel since there was reason to doubt it.
};

// An object that is not as desired, and why.
struct Problem {
  std::string what;
  std::string why;
  unsigned attempts = 0;  // Refusals so far; 0 when it is not the kernel that refuses.
  Time next{};            // When it is tried again.
};

// The desired and the observed state of an address.
struct Explanation {
  enum class Kind : std::uint8_t { none, vtep, any, all };

  bool mapped = false;
  Vni vni = 0;
  std::string bridge{};
  std::string device{};
  IfIndex bridgeIndex = 0;
  IfIndex deviceIndex = 0;
  Kind desired = Kind::none;  // One VTEP, any one of several, or each of them.
  std::vector<Ip4> desiredVteps{};
  Owner deviceOwner = Owner::none;
  std::vector<Ip4> deviceVteps{};
  NexthopId deviceNexthop = 0;
  Owner portOwner = Owner::none;
  std::string port{};
  bool differs = false;
  std::string problem{};
};

// Counts and explains. The counts are kept up with each change, so that to read them takes time with the
// number of VLANs and not of hosts.
class Status {
 public:
  Status(const Observed& observed, const Nexthops& nexthops, const Devices& devices, const DeviceSweep& sweep,
         const Hosts& hosts, const Floods& floods, const Audit& audit, const Work& work)
      : observed_(observed),
        nexthops_(nexthops),
        devices_(devices),
        sweep_(sweep),
        hosts_(hosts),
        floods_(floods),
        audit_(audit),
        work_(work) {}

  std::vector<Tally> tallies() const;
  // At most `most` of them, and their number altogether.
  std::pair<std::vector<Problem>, std::size_t> problems(std::size_t most) const;
  Explanation explain(Vlan vlan, Mac mac) const;

 private:
  Tally tallyDevices() const;
  void doubt(Tally& tally) const;
  std::string what(const Key& key) const;
  void explainFlood(const BridgeDomain& domain, Mac mac, const Flood& flood, Explanation& out) const;
  void explainHost(const BridgeDomain& domain, const Host& host, Explanation& out) const;

  const Observed& observed_;
  const Nexthops& nexthops_;
  const Devices& devices_;
  const DeviceSweep& sweep_;
  const Hosts& hosts_;
  const Floods& floods_;
  const Audit& audit_;
  const Work& work_;
};

}  // namespace Agent::Kernel
