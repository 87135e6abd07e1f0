// The comparison with the kernel.
#pragma once

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/kernel/DeviceReports.h"
#include "agent/kernel/Floods.h"
#include "agent/kernel/Hosts.h"

namespace Agent::Kernel {

// Compares everything with the kernel: at the start, when reports were lost, and every Options::auditEvery.
// Devices, nexthops and FDB entries are dumped, in this order because each names the one before; then all
// addresses are compared with what the dump showed, a few thousand at a time. What was acknowledged or
// reported during the dump counts more than what the dump shows.
class Audit {
 public:
  Audit(const Options& options, Observed& observed, Nexthops& nexthops, DeviceReports& reports, Hosts& hosts,
        Floods& floods, Work& work)
      : options_(options),
        observed_(observed),
        nexthops_(nexthops),
        reports_(reports),
        hosts_(hosts),
        floods_(floods),
        work_(work) {}

  // Begins an audit if one is due, and goes on with the one under way.
  void advance(Batch& out);
  // The dump is complete; `whole` is false when the tables changed so that it has to be repeated.
  void dumpEnd(bool whole);
  void dumpFailed(int error, std::string_view text);

  // Whether there is something to do at once.
  bool moreWork() const;
  // When an audit begins next; Time::max() while one is under way.
  Time next() const;
  // Whether all that is known of the kernel has been compared with it, and reported since.
  bool certain() const { return !observed_.adopting && observed_.doubts == resolved_; }

 private:
  enum class Phase : std::uint8_t { idle, links, nexthops, entries, comparing };
  // A domain whose entries this dump shows first, with its device and bridge.
  struct Unread {
    Vlan vlan = 0;
    IfIndex device = 0;
    IfIndex bridge = 0;
  };

  void begin(Batch& out);
  void ask(Dump::What what, Batch& out);
  void askEntries(Batch& out);
  void compare();
  std::size_t compare(BridgeDomain& domain, std::size_t most);
  void compared();

  const Options& options_;
  Observed& observed_;
  Nexthops& nexthops_;
  DeviceReports& reports_;
  Hosts& hosts_;
  Floods& floods_;
  Work& work_;
  Phase phase_ = Phase::idle;
  bool asked_ = false;  // The dump of this phase is under way.
  std::pair<Vlan, Mac> compareAt_;
  std::vector<Unread> unread_;
  std::uint32_t doubts_ = 0;    // Observed::doubts when the audit began,
  std::uint32_t resolved_ = 0;  // and when the last complete one did.
  Time began_{};
  Time next_{};
  Time notBefore_{};
};

}  // namespace Agent::Kernel
