#include "agent/daemon/RefusedWrites.h"

#include <algorithm>
#include <utility>

#include "Kel/Activity.h"

namespace Agent {

RefusedWrites::RefusedWrites(Service::EventLoop& loop, Kel::Ptr<L2Rib::HostInput> hosts, Wanted wanted,
                             const Pace& pace)
    : loop_(loop), hosts_(std::move(hosts)), wanted_(std::move(wanted)), pace_(pace), pause_(pace.first) {
  hosts_->refusalsAre({[this](const L2Rib::Host& host, const Memtab::Error& why) { onRefused(host, why); },
                       [this](const Bridging::MacVlanPair& key, bool removed) { onDone(key, removed); }});
}

RefusedWrites::~RefusedWrites() {
  hosts_->refusalsAre({});
  clear();
}

std::string RefusedWrites::text() const {
  return std::to_string(waiting()) + (waiting() == 1 ? " host waits" : " hosts wait") +
         " for a place in the table, which is tried again: " + why_;
}

void RefusedWrites::clear() {
  waiting_.clear();
  loop_.cancel(std::exchange(timer_, Service::EventLoop::TimerId::none));
  loop_.dropWork(std::exchange(work_, Service::EventLoop::WorkId::none));
  pause_ = pace_.first;
}

void RefusedWrites::onRefused(const L2Rib::Host& host, const Memtab::Error& why) {
  waiting_.insert_or_assign(host.key, host);
  why_ = why.what();
  full_ = dynamic_cast<const Memtab::Full*>(&why) != nullptr;
  ++refused_;
  if (work_ == Service::EventLoop::WorkId::none && timer_ == Service::EventLoop::TimerId::none) {
    arm();
  }
}

void RefusedWrites::onDone(const Bridging::MacVlanPair& key, bool removed) {
  if (waiting_.empty()) {
    return;
  }
  waiting_.erase(key);
  const bool sooner = removed && timer_ != Service::EventLoop::TimerId::none && pause_ > pace_.first;
  if (sooner) {
    loop_.cancel(timer_);
    pause_ = pace_.first;
    arm();
  }
}

void RefusedWrites::arm() {
  timer_ = loop_.after(pause_, [this] { begin(); });
}

void RefusedWrites::begin() {
  timer_ = Service::EventLoop::TimerId::none;
  wentIn_ = false;
  work_ = loop_.addWork([this] { return slice(); });
}

// Part of a try; its hosts are published together.
bool RefusedWrites::slice() {
  bool taken = true;
  Kel::ActivityLoop::instance().asHandler([&] {
    for (std::size_t count = 0; taken && count < pace_.atOnce && !waiting_.empty(); ++count) {
      taken = tryNext();
    }
  });
  if (taken && !waiting_.empty()) {
    return true;
  }
  work_ = Service::EventLoop::WorkId::none;
  pause_ = taken || wentIn_ ? pace_.first : std::min(2 * pause_, pace_.longest);
  if (!waiting_.empty()) {
    arm();
  }
  return false;
}

// Tries the host behind the last one; false when the table refuses it again.
bool RefusedWrites::tryNext() {
  auto next = waiting_.upper_bound(last_);
  next = next == waiting_.end() ? waiting_.begin() : next;
  last_ = next->first;
  if (!wanted_(last_)) {
    waiting_.erase(next);
    return true;
  }
  const L2Rib::Host host = next->second;
  hosts_->hostIs(host);
  const bool taken = !waiting_.contains(last_);
  wentIn_ = wentIn_ || taken;
  return taken;
}

}  // namespace Agent
