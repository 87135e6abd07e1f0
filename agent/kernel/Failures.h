#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/kernel/Messages.h"

namespace Agent::Kernel {

// The requests that the kernel has refused, why, and when they are tried again: after a pause that doubles
// from retryFirst up to retryMost. Sans-io: time comes in as arguments.
class Failures {
 public:
  struct Failure {
    std::string why;
    unsigned attempts = 0;
    Time next{};
  };

  Failures(Time retryFirst, Time retryMost) : retryFirst_(retryFirst), retryMost_(retryMost) {}

  // Notes that `key` failed at `now`; it is due again after its pause.
  void failed(const Key& key, Time now, std::string why);
  // Notes that `key` has to wait for `pause`, whatever it failed before.
  void waits(const Key& key, Time now, Time pause, std::string why);
  // Forgets the failure: it went well, or there is nothing left to do.
  void cleared(const Key& key);
  const Failure* find(const Key& key) const;
  // Whether `key` failed and its pause is not over.
  bool pausing(const Key& key, Time now) const;
  // Takes the keys whose pause is over, at most `most`. They stay listed until cleared.
  std::vector<Key> due(Time now, std::size_t most);
  std::optional<Time> next() const;
  const std::map<Key, Failure>& all() const { return failures_; }

 private:
  void schedule(const Key& key, Failure& failure, Time next);

  Time retryFirst_;
  Time retryMost_;
  std::map<Key, Failure> failures_;
  std::set<std::pair<Time, Key>> schedule_;
};

}  // namespace Agent::Kernel
