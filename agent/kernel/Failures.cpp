#include "agent/kernel/Failures.h"

#include <algorithm>

namespace Agent::Kernel {

void Failures::schedule(const Key& key, Failure& failure, Time next) {
  schedule_.erase({failure.next, key});
  failure.next = next;
  schedule_.emplace(next, key);
}

void Failures::failed(const Key& key, Time now, std::string why) {
  Failure& failure = failures_[key];
  Time pause = retryFirst_;
  for (unsigned n = 0; n < failure.attempts && pause < retryMost_; ++n) {
    pause *= 2;
  }
  ++failure.attempts;
  failure.why = std::move(why);
  schedule(key, failure, now + std::min(pause, retryMost_));
}

void Failures::waits(const Key& key, Time now, Time pause, std::string why) {
  Failure& failure = failures_[key];
  failure.why = std::move(why);
  schedule(key, failure, now + pause);
}

void Failures::cleared(const Key& key) {
  if (failures_.empty()) {
    return;
  }
  auto at = failures_.find(key);
  if (at == failures_.end()) {
    return;
  }
  schedule_.erase({at->second.next, key});
  failures_.erase(at);
}

const Failures::Failure* Failures::find(const Key& key) const {
  auto at = failures_.find(key);
  return at == failures_.end() ? nullptr : &at->second;
}

bool Failures::pausing(const Key& key, Time now) const {
  const Failure* failure = failures_.empty() ? nullptr : find(key);
  return failure != nullptr && failure->next > now;
}

std::vector<Key> Failures::due(Time now, std::size_t most) {
  std::vector<Key> keys;
  while (!schedule_.empty() && schedule_.begin()->first <= now && keys.size() < most) {
    keys.push_back(schedule_.begin()->second);
    schedule_.erase(schedule_.begin());
  }
  return keys;
}

std::optional<Time> Failures::next() const {
  if (schedule_.empty()) {
    return std::nullopt;
  }
  return schedule_.begin()->first;
}

}  // namespace Agent::Kernel
