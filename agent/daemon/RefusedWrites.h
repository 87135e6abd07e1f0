// The hosts that the table in shared memory refused.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "Vxlan/types/HostInput.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// Keeps every write that the host table refuses, whatever the reason, and tries it again until the table
// takes it or nobody wants it any more. A try is a slice of the loop's bulk work. The first comes a second
// after the refusal; where not one host goes in the pause doubles, up to ten seconds. A host that leaves the
// table makes room, and so brings the pause back to a second. Each try begins behind the host that was
// refused last, so that none stands in the way of the others.
class RefusedWrites {
 public:
  // How much is tried at once, and how long the pauses between tries are.
  struct Pace {
    std::size_t atOnce = 256;
    std::chrono::nanoseconds first = std::chrono::seconds(1);
    std::chrono::nanoseconds longest = std::chrono::seconds(10);
  };
  // Whether a host is still to be written.
  using Wanted = std::function<bool(const Bridging::MacVlanPair&)>;

  // From now on `hosts` raises nothing for a refused write. `loop` outlives this.
  RefusedWrites(Service::EventLoop& loop, Kel::Ptr<L2Rib::HostInput> hosts, Wanted wanted)
      : RefusedWrites(loop, std::move(hosts), std::move(wanted), Pace()) {}
  RefusedWrites(Service::EventLoop& loop, Kel::Ptr<L2Rib::HostInput> hosts, Wanted wanted, const Pace& pace);
  ~RefusedWrites();
  RefusedWrites(const RefusedWrites&) = delete;
  RefusedWrites& operator=(const RefusedWrites&) = delete;

  // How many hosts wait, and whether this one does.
  std::size_t waiting() const { return waiting_.size(); }
  bool waits(const Bridging::MacVlanPair& key) const { return waiting_.contains(key); }
  // Why the table refused the last of them, and whether that was its limit of records.
  const std::string& why() const { return why_; }
  bool full() const { return full_; }
  // The problem that the hosts that wait are: its kind, "table-full" or "table-memory", and how many wait and
  // why.
  const char* kind() const { return full_ ? "table-full" : "table-memory"; }
  std::string text() const;
  // Writes that were refused since the start, tries included.
  std::uint64_t refused() const { return refused_; }
  // Forgets all that wait.
  void clear();

 private:
  void onRefused(const L2Rib::Host& host, const Memtab::Error& why);
  void onDone(const Bridging::MacVlanPair& key, bool removed);
  void arm();
  void begin();
  bool slice();
  bool tryNext();

  Service::EventLoop& loop_;
  Kel::Ptr<L2Rib::HostInput> hosts_;
  Wanted wanted_;
  Pace pace_;
  std::map<Bridging::MacVlanPair, L2Rib::Host> waiting_;
  Bridging::MacVlanPair last_;  // that was tried
  std::string why_;
  bool full_ = false;
  std::uint64_t refused_ = 0;
  std::chrono::nanoseconds pause_;
  bool wentIn_ = false;  // one or more, in the present try
  Service::EventLoop::TimerId timer_ = Service::EventLoop::TimerId::none;
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
};

}  // namespace Agent
