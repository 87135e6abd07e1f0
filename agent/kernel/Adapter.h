#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/kernel/Engine.h"
#include "agent/kernel/NamespaceLock.h"
#include "agent/kernel/Socket.h"
#include "agent/kernel/Wire.h"

namespace Agent::Kernel {

// An FDB entry as the kernel shows it when it is asked.
struct ReadBack {
  bool there = false;
  std::string answer{};  // Without an entry: what the kernel says to that.
  bool marked = false;
  Ip4 dst{};
  NexthopId nexthop = 0;
  std::string port{};  // In the bridge's table: the name of the port.
};

// All that can be said of an address: what is desired, what the kernel has acknowledged or reported, and what
// it answers when it is asked again. Without a device, or a bridge, it is not asked.
struct FullExplanation {
  Vlan vlan = 0;
  Mac mac{};
  Explanation known{};
  std::optional<ReadBack> device{};
  std::optional<ReadBack> bridge{};
};

// How the data plane does.
struct AdapterStatus {
  std::vector<Tally> tallies;
  Counters counters;
  std::optional<std::chrono::system_clock::time_point> compared;  // When the last whole comparison ended.
  bool adopted = false;
  Time longestSlice{};
  std::size_t problems = 0;
};

// The Linux kernel as data plane: an Engine with two rtnetlink sockets, one for requests and their answers,
// one for the kernel's reports. It owns no thread and never blocks; the caller polls `fds` for reading, and
// calls `run` when one is readable, after it has said something new, at `nextWakeup`, and as long as `run`
// returns true.
class Adapter {
 public:
  // Raises LockError when another agent programs the namespace, SocketError when the sockets cannot be had;
  // what the kernel refuses later is a problem, not an error.
  explicit Adapter(const Options& options);

  // The desired state, as for Engine.
  void vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports);
  void vniDel(Vlan vlan, const std::string& vti);
  void hostIs(Vlan vlan, Mac mac, Ip4 vtep);
  void hostDel(Vlan vlan, Mac mac);
  void floodIs(Vlan vlan, Mac mac, FloodType type, std::vector<Ip4> vteps);
  void floodDel(Vlan vlan, Mac mac);
  void initialSyncComplete();

  // The file descriptors to poll for reading. They stay the same.
  std::vector<int> fds() const { return {requests_.fd(), reports_.fd()}; }
  // Takes what has arrived at the descriptors and works, for about `budget`; a batch that was begun is
  // finished. A part of a dump may take longer, so that it is the last thing. Returns whether there is more
  // to do at once.
  bool run(Time budget);
  // When `run` is next due by itself, on the steady clock; Time::max() for never.
  Time nextWakeup() const { return engine_.nextWakeup(); }
  // The time on the clock that nextWakeup is on.
  static Time now();

  AdapterStatus status() const;
  // At most `most` of them, and their number altogether. Problem::next is on the clock of `now`.
  std::pair<std::vector<Problem>, std::size_t> problems(std::size_t most) const;
  // Asks the kernel for the address's entries, and waits for the answers.
  FullExplanation explain(Vlan vlan, Mac mac);
  const Engine& engine() const { return engine_; }
  Time longestSlice() const { return longestSlice_; }

 private:
  bool drainReports();
  bool readAnswers();
  void send(const Batch& batch);
  void sendPending();
  void heard(const nlmsghdr& message);
  void answered(const nlmsghdr& message);
  void report(const nlmsghdr& message, bool dumped);
  ReadBack readBack(const FdbEntry& entry);

  NamespaceLock lock_;
  Engine engine_;
  Socket requests_;
  Socket reports_;
  std::size_t batchBytes_;
  Messages messages_;
  std::uint32_t sequence_ = 1;
  std::uint32_t batchBegin_ = 0;  // The sequence number of the batch's first request.
  std::size_t outstanding_ = 0;
  std::uint32_t dumpSequence_ = 0;  // Of the dump that is under way; 0 for none.
  bool dumpWhole_ = true;
  std::uint32_t askSequence_ = 0;  // Of the entry that is read back.
  std::vector<FdbEntry> asked_;
  std::string askError_;
  Time longestSlice_{};
  std::uint64_t audits_ = 0;  // As the engine counted them last; when there was a new one.
  std::optional<std::chrono::system_clock::time_point> compared_;
};

}  // namespace Agent::Kernel
