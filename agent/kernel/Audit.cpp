#include "agent/kernel/Audit.h"

#include <algorithm>
#include <cerrno>
#include <string>

namespace Agent::Kernel {

namespace {

const Key dumpKey{Key::Kind::dump, 0, 0};
constexpr std::size_t comparedAtOnce = 4096;
// At most one part in this many of the time goes into audits: into those for a reason, and into routine ones.
// The kernel's dump of a table takes time with the square of its length.
constexpr int shareWithReason = 10;
constexpr int shareOfRoutine = 40;

}  // namespace

void Audit::advance(Batch& out) {
  switch (phase_) {
    case Phase::idle:
      if (work_.now >= next()) {
        begin(out);
      }
      break;
    case Phase::links:
      ask(Dump::What::links, out);
      break;
    case Phase::nexthops:
      ask(Dump::What::nexthops, out);
      break;
    case Phase::entries:
      askEntries(out);
      break;
    case Phase::comparing:
      compare();
      break;
  }
}

void Audit::begin(Batch& out) {
  work_.auditWanted = false;
  observed_.dumping = true;
  ++observed_.dump;
  nexthops_.dumpIs(observed_.dump);
  observed_.links.dumpBegins();
  began_ = work_.now;
  doubts_ = observed_.doubts;
  phase_ = Phase::links;
  ask(Dump::What::links, out);
}

void Audit::ask(Dump::What what, Batch& out) {
  if (asked_ || work_.failures.pausing(dumpKey, work_.now)) {
    return;
  }
  asked_ = true;
  out.add(dumpKey, Dump{what});
}

void Audit::askEntries(Batch& out) {
  if (asked_) {
    return;
  }
  unread_.clear();
  for (const auto& [vlan, domain] : observed_.domains) {
    if (!domain.read()) {
      unread_.push_back({vlan, domain.device, domain.bridge});
    }
  }
  ask(Dump::What::entries, out);
}

void Audit::dumpEnd(bool whole) {
  require(asked_, "a dump that ends was asked for");
  asked_ = false;
  work_.failures.cleared(dumpKey);
  if (!whole) {
    return;
  }
  switch (phase_) {
    case Phase::links:
      for (const IfIndex gone : observed_.links.unseen(observed_.dump)) {
        reports_.linkDel(gone);
      }
      observed_.links.dumpEnds();
      for (const auto& [vlan, domain] : observed_.domains) {
        work_.queueDevices(vlan);
      }
      phase_ = Phase::nexthops;
      break;
    case Phase::nexthops:
      nexthops_.dumped();  // The dump of entries that follows shows what went with it.
      phase_ = Phase::entries;
      break;
    default:
      require(phase_ == Phase::entries, "there are three dumps");
      phase_ = Phase::comparing;
      compareAt_ = {};
      observed_.dumping = false;
      break;
  }
}

void Audit::dumpFailed(int error, std::string_view text) {
  require(asked_, "a dump that fails was asked for");
  if (phase_ == Phase::nexthops && (error == EOPNOTSUPP || error == EINVAL)) {
    if (nexthops_.supported()) {
      nexthops_.unsupported(
          "the kernel has no nexthop objects (" + std::string(text) +
          "): rows lead to addresses, and of a set of type any only its first VTEP is used");
      hosts_.nexthopsLost();
      floods_.nexthopsLost();
    }
    dumpEnd(true);
    return;
  }
  asked_ = false;
  work_.failures.failed(dumpKey, work_.now, std::string(text));
}

std::size_t Audit::compare(BridgeDomain& domain, std::size_t most) {
  const Mac from = compareAt_.second;
  if (from.zero()) {
    for (auto at = domain.floods.begin(); at != domain.floods.end();) {
      const Mac mac = (at++)->first;
      floods_.dumped(domain, mac);
    }
  }
  std::size_t done = 0;
  auto at = domain.hosts.lower_bound(from);
  while (at != domain.hosts.end() && done < most) {
    const Mac mac = (at++)->first;
    hosts_.dumped(domain, mac);
    ++done;
  }
  compareAt_ = at == domain.hosts.end() ? std::pair(static_cast<Vlan>(domain.vlan + 1), Mac{})
                                        : std::pair(domain.vlan, at->first);
  return done;
}

void Audit::compare() {
  std::size_t left = comparedAtOnce;
  while (left > 0) {
    const auto domain = observed_.domains.lower_bound(compareAt_.first);
    if (domain == observed_.domains.end()) {
      compared();
      return;
    }
    if (domain->first != compareAt_.first) {
      compareAt_ = {domain->first, Mac{}};
    }
    left -= std::min(left, 1 + compare(domain->second, left));
  }
}

void Audit::compared() {
  for (const Unread& unread : unread_) {
    BridgeDomain& domain = *observed_.find(unread.vlan);
    domain.deviceUnread = domain.deviceUnread && domain.device != unread.device;
    domain.bridgeUnread = domain.bridgeUnread && domain.bridge != unread.bridge;
    work_.queueAll(domain.vlan);
  }
  unread_.clear();
  observed_.adopting = false;
  resolved_ = doubts_;
  phase_ = Phase::idle;
  ++work_.counters.audits;
  const Time took = work_.now - began_;
  next_ = work_.now + std::max(options_.auditEvery, shareOfRoutine * took);
  notBefore_ = work_.now + shareWithReason * took;
}

bool Audit::moreWork() const {
  return phase_ == Phase::comparing ||
         (phase_ != Phase::idle && !asked_ && work_.failures.find(dumpKey) == nullptr);
}

Time Audit::next() const {
  if (phase_ != Phase::idle) {
    return Time::max();
  }
  return work_.auditWanted ? notBefore_ : std::max(next_, notBefore_);
}

}  // namespace Agent::Kernel
