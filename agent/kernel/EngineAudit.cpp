#include <algorithm>
#include <cerrno>

#include "agent/kernel/Engine.h"

// The comparison with the kernel: devices, nexthops and rows are dumped, in this order because each names the
// one before, then everything that is known is compared with what the dump showed.
namespace Agent::Kernel {

namespace {

const Key dump{Key::Kind::dump, 0, 0};
constexpr std::size_t comparedAtOnce = 4096;
// At most one part in this many of the time goes into comparisons: into those for a reason, and into routine
// ones. The kernel's dump of a table takes time with the square of its length.
constexpr int shareWithReason = 10;
constexpr int shareOfRoutine = 40;

}  // namespace

void Engine::audit() {
  switch (phase_) {
    case Phase::idle:
      if (!state_.auditWanted && state_.now < auditNext_) {
        return;
      }
      if (state_.now < auditNotBefore_) {
        return;
      }
      state_.auditWanted = false;
      state_.dumping = true;
      ++state_.dump;
      state_.nexthops.dumpIs(state_.dump);
      state_.links.dumpBegins();
      auditBegan_ = state_.now;
      auditDoubts_ = state_.doubts;
      phase_ = Phase::links;
      askDump(Dump::What::links);
      break;
    case Phase::links:
      askDump(Dump::What::links);
      break;
    case Phase::nexthops:
      askDump(Dump::What::nexthops);
      break;
    case Phase::rows:
      if (asked_) {
        break;
      }
      blind_.clear();
      for (auto& [vlan, domain] : state_.domains) {
        if (!domain.read()) {
          blind_.push_back({vlan, domain.device, domain.bridge});
        }
      }
      askDump(Dump::What::rows);
      break;
    case Phase::comparing:
      compare();
      break;
  }
}

void Engine::askDump(Dump::What what) {
  if (asked_ || state_.failures.pausing(dump, state_.now)) {
    return;
  }
  asked_ = true;
  batch_.add(dump, Dump{what});
}

void Engine::dumpEnd(bool whole) {
  require(asked_, "a dump that ends was asked for");
  asked_ = false;
  state_.failures.cleared(dump);
  if (!whole) {
    return;
  }
  switch (phase_) {
    case Phase::links:
      for (const IfIndex gone : state_.links.unseen(state_.dump)) {
        devices_.linkDel(gone);
      }
      state_.links.dumpEnds();
      for (auto& [vlan, domain] : state_.domains) {
        state_.queue(domain);
      }
      phase_ = Phase::nexthops;
      break;
    case Phase::nexthops:
      (void)state_.nexthops.dumped();  // The dump of rows that follows tells what went with it.
      phase_ = Phase::rows;
      break;
    default:
      require(phase_ == Phase::rows, "there are three dumps");
      phase_ = Phase::comparing;
      compareAt_.emplace(0, Mac{});
      state_.dumping = false;
      break;
  }
}

void Engine::dumpFailed(int error, std::string_view text) {
  require(asked_, "a dump that fails was asked for");
  if (phase_ == Phase::nexthops && (error == EOPNOTSUPP || error == EINVAL)) {
    if (state_.nexthops.supported()) {
      state_.nexthops.unsupported(
          "the kernel has no nexthop objects (" + std::string(text) +
          "): rows lead to addresses, and of a set of type any only its first VTEP is used");
    }
    dumpEnd(true);
    return;
  }
  asked_ = false;
  state_.failures.failed(dump, state_.now, std::string(text));
}

std::size_t Engine::compare(Domain& domain, std::size_t most) {
  Mac from = compareAt_->second;
  if (from.zero()) {
    for (auto at = domain.floods.begin(); at != domain.floods.end();) {
      Mac mac = (at++)->first;
      floods_.dumped(domain, mac);
    }
  }
  std::size_t done = 0;
  auto at = domain.hosts.lower_bound(from);
  while (at != domain.hosts.end() && done < most) {
    Mac mac = (at++)->first;
    hosts_.dumped(domain, mac);
    ++done;
  }
  if (at == domain.hosts.end()) {
    compareAt_.emplace(static_cast<Vlan>(domain.vlan + 1), Mac{});
  } else {
    compareAt_.emplace(domain.vlan, at->first);
  }
  return done;
}

void Engine::compare() {
  std::size_t left = comparedAtOnce;
  while (left > 0) {
    auto domain = state_.domains.lower_bound(compareAt_->first);
    if (domain == state_.domains.end()) {
      compareDone();
      return;
    }
    if (domain->first != compareAt_->first) {
      compareAt_.emplace(domain->first, Mac{});
    }
    left -= std::min(left, 1 + compare(domain->second, left));
  }
}

void Engine::compareDone() {
  for (const Blind& blind : blind_) {
    Domain& domain = *state_.find(blind.vlan);
    domain.blind = domain.blind && domain.device != blind.device;
    domain.bridgeBlind = domain.bridgeBlind && domain.bridge != blind.bridge;
    domainChanged(domain);
  }
  blind_.clear();
  compareAt_.reset();
  state_.adopting = false;
  resolved_ = auditDoubts_;
  phase_ = Phase::idle;
  ++state_.counters.audits;
  Time took = state_.now - auditBegan_;
  auditNext_ = state_.now + std::max(state_.options.auditEvery, shareOfRoutine * took);
  auditNotBefore_ = state_.now + shareWithReason * took;
}

}  // namespace Agent::Kernel
