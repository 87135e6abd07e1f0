// The work queues, retries and counters.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>

#include "agent/kernel/Contention.h"
#include "agent/kernel/Failures.h"
#include "agent/kernel/Messages.h"
#include "agent/kernel/Options.h"

namespace Agent::Kernel {

// The counts of work done and reports received, from the start on.
struct Counters {
  std::uint64_t requests = 0;
  std::uint64_t acknowledged = 0;
  std::uint64_t refused = 0;
  std::uint64_t notifications = 0;
  std::uint64_t overruns = 0;
  std::uint64_t audits = 0;
  std::uint64_t repairs = 0;  // FDB entries, nexthops and devices that a dump or report showed to be changed.
  std::uint64_t steps = 0;    // Domains and devices looked at because of reports.
};

// The work on one address.
struct Pending {
  Strife strife;
  bool queued = false;
};

// The work to be done: VLANs and addresses to reconcile, devices of ours that may be unused, refused requests
// and their pauses. To reconcile is to compare desired and observed state and to request the difference, so
// queueing something twice costs time and changes nothing.
class Work {
 public:
  explicit Work(const Options& options)
      : failures(options.retryFirst, options.retryMost), contention(options, failures) {}
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

  // Queues the VLAN's devices.
  void queueDevices(Vlan vlan);
  // Queues all addresses of the VLAN, a few at a time.
  void queueAddresses(Vlan vlan);
  // Queues everything of the VLAN.
  void queueAll(Vlan vlan) {
    queueDevices(vlan);
    queueAddresses(vlan);
  }
  // Queues an address, if it is not queued yet.
  void queue(Vlan vlan, Mac mac, Pending& pending);

  std::size_t devicesQueued() const { return devices_.size(); }
  Vlan takeDevices();
  std::size_t addressesQueued() const { return addresses_.size(); }
  // The key is of the kind host or flood.
  Key takeAddress();
  // How far the queueing of all addresses of a VLAN has come.
  struct Scan {
    Vlan vlan = 0;
    Mac from{};
  };
  bool scanning() const { return !scans_.empty(); }
  Scan scan() const;
  void scanGoesOn(Mac from);
  void scanDone();
  // Whether no address of the VLAN is queued.
  bool addressesDone(Vlan vlan) const;

  Failures failures;
  Contention contention;
  std::set<IfIndex> suspects;  // Devices of ours, among them all that nothing wants.
  std::set<IfIndex> released;  // Devices of mappings that were withdrawn in this run.
  bool auditWanted = true;
  Time now{};
  Counters counters;

 private:
  struct Queued {
    bool devices = false;
    std::optional<Mac> scanFrom;
    std::size_t addresses = 0;
  };

  std::map<Vlan, Queued> queued_;
  std::deque<Vlan> devices_;
  std::deque<Vlan> scans_;
  std::deque<Key> addresses_;
};

}  // namespace Agent::Kernel
