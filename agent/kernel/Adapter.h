#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/kernel/Engine.h"
#include "agent/kernel/NamespaceLock.h"
#include "agent/kernel/Socket.h"
#include "agent/kernel/Wire.h"

namespace Agent::Kernel {

// The Linux kernel as data plane: an Engine with two rtnetlink sockets, one for requests and their answers,
// one for the kernel's reports. It owns no thread and never blocks; the caller polls `fds` for reading, and
// calls `run` when one is readable, after it has said something new, at `nextWakeup`, and as long as `run`
// returns true.
class Adapter {
 public:
  // Raises LockError when another agent programs the namespace, SocketError when the sockets cannot be had;
  // what the kernel refuses later is a problem, not an error.
  explicit Adapter(const Options& options);

  // What is wanted, as for Engine.
  void vniIs(Vni vni, Vlan vlan, std::string vti, Ip4 local, std::vector<std::string> ports);
  void vniDel(Vni vni);
  void hostIs(Vlan vlan, Mac mac, Ip4 vtep);
  void hostDel(Vlan vlan, Mac mac);
  void floodIs(Vlan vlan, Mac mac, FloodType type, std::vector<Ip4> vteps);
  void floodDel(Vlan vlan, Mac mac);
  void settled();

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

  // {"kinds": {"hosts": {"wanted", "there", "differing", "unknown", "compared"}, ...}, "counters": {...},
  // "longestSliceNs", ...}
  nlohmann::json status() const;
  // [{"what", "why", "attempts", "retryInSeconds"}, ...], and {"what", "why"} for those beyond `most`.
  nlohmann::json problems(std::size_t most = 100) const;
  // What is wanted for the address, what the kernel has acknowledged or reported, and what it answers when
  // asked.
  nlohmann::json explain(Vlan vlan, Mac mac);
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
  nlohmann::json readBack(const Row& row);

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
  std::uint32_t askSequence_ = 0;  // Of the row that is read back.
  std::vector<Row> asked_;
  std::string askError_;
  Time longestSlice_{};
  std::uint64_t audits_ = 0;  // As the engine counted them last; when there was a new one.
  std::optional<std::chrono::system_clock::time_point> compared_;
};

}  // namespace Agent::Kernel
