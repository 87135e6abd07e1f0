#include "agent/vtep/Mapper.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

#include "agent/vtep/Explain.h"
#include "agent/vtep/RowProblems.h"
#include "service/loop/Fatal.h"

namespace Agent::Vtep {

Mapper::Mapper(MapperOptions options)
    : options_(std::move(options)),
      topology_(options_.topology),
      convergence_(options_.convergence),
      moves_(options_.rememberedMacs),
      publisher_(rows_, topology_, convergence_, options_.vti, options_.stateName) {
  if (options_.topology.untaggedFirst < leastVlan || options_.topology.untaggedLast > mostVlan ||
      options_.topology.untaggedFirst > options_.topology.untaggedLast) {
    throw std::invalid_argument("the range of VLANs for untagged ports is not within 1 to 4094");
  }
  if (options_.topology.switchName.size() > BoundedText::mostKept) {
    throw std::invalid_argument("the name of the physical switch is longer than " +
                                std::to_string(BoundedText::mostKept) + " bytes");
  }
  if (options_.convergeAtStart) {
    convergence_.await();
  }
}

// --- taking rows in

void Mapper::beginUpdate(bool whole, double /*now*/) {
  Service::require(!settling(), "an update begins before the last one has settled");
  if (updateOpen_ && !whole) {
    throw Ovsdb::ProtocolError("a part of the rows comes on top of an update that did not end");
  }
  updateOpen_ = true;
  whole_ = whole;
  updateChanged_ = false;
  if (whole) {
    rows_.beginWhole();
  }
}

void Mapper::row(const Ovsdb::RowEvent& event) {
  updateChanged_ |= rows_.apply(event);
}

void Mapper::endUpdate(double now) {
  updateOpen_ = false;
  returned_ = std::exchange(awaitingSession_, false);
  if (updateChanged_ || whole_) {
    convergence_.changed(now);
  }
  phase_ = whole_ ? Phase::sweep : Phase::topology;
}

void Mapper::sessionLost(double now) {
  awaitingSession_ = true;
  convergence_.conditionIs(Convergence::Cause::session, true, now);
}

// --- settling

bool Mapper::settle(std::size_t most, double now) {
  Steps steps(most);
  while (steps.left() && settling()) {
    settlePart(steps, now);
  }
  lastSpent_ = steps.spent();
  return settling();
}

void Mapper::settlePart(Steps& steps, double now) {
  const auto host = [this](Slot slot, Ipv4 vtep) { hostResolved(slot, vtep); };
  const auto flood = [this](Slot slot, std::vector<Ipv4> addresses) {
    floodResolved(slot, std::move(addresses));
  };
  switch (phase_) {
    case Phase::idle:
      return;
    case Phase::sweep:
      phase_ = rows_.sweep(steps) ? Phase::sweep : Phase::topology;
      return;
    case Phase::release:
      phase_ = publisher_.releaseHeldBack(steps) ? Phase::release : Phase::topology;
      return;
    case Phase::topology:
      settleTopology(now);
      phase_ = Phase::spread;
      return;
    case Phase::spread:
      phase_ = rows_.spread(steps) ? Phase::spread : Phase::hosts;
      return;
    case Phase::hosts:
      phase_ = rows_.resolveHost(steps, host) ? Phase::hosts : Phase::floods;
      return;
    case Phase::floods:
      phase_ = rows_.resolveFlood(steps, flood) ? Phase::floods : Phase::finish;
      return;
    case Phase::finish:
      if (std::exchange(returned_, false) && !lostHosts_.empty()) {
        withdrawWhatLostHosts();
        phase_ = Phase::spread;
      } else {
        phase_ = rows_.collect(steps) ? Phase::finish : Phase::idle;
      }
      return;
  }
}

// The rows on the controller itself come first: they decide whether tunnel keys are held.
void Mapper::settleTopology(double now) {
  if (returned_) {
    convergence_.conditionIs(Convergence::Cause::session, false, now);
    if (everUpdated_ || options_.convergeAtStart) {
      convergence_.begin(Convergence::Cause::session, now);
    }
    everUpdated_ = true;
  }
  const bool ended = std::exchange(convergenceEnded_, false);
  const bool changed = rows_.takeTopologyChanged();
  if (changed) {
    watchController(now);
  }
  if (changed || ended || returned_) {
    topology_.derive(rows_, convergence_.inProgress());
    publisher_.vlansDecided();
    for (const Topology::Decision& decision : topology_.decisions()) {
      decide(decision);
    }
  }
}

void Mapper::watchController(double now) {
  bool flag = false;
  const auto& globals = rows_.globals();
  for (Slot slot = 0; slot < globals.slots(); ++slot) {
    flag |= globals.live(slot) && globals[slot].converging == BoundedText("true");
  }
  const std::size_t keys = rows_.keys();
  const bool leaves = rows_.takeKeysCleared() && keysBefore_ > 0 && keys == 0;
  const bool converges = flag && !flagBefore_;
  convergence_.conditionIs(Convergence::Cause::flag, flag, now);
  if (leaves || keys > 0) {
    convergence_.conditionIs(Convergence::Cause::leave, leaves, now);
  }
  keysBefore_ = keys;
  flagBefore_ = flag;
  if (leaves || converges) {
    convergence_.begin(leaves ? Convergence::Cause::leave : Convergence::Cause::flag, now);
    publisher_.withdrawAll();
  }
}

void Mapper::decide(const Topology::Decision& decision) {
  const Slot slot = decision.logicalSwitch;
  SwitchDecision& row = rows_.decisionOn(slot);
  const bool another = row.vni != decision.vni;
  if (row.published && (another || !decision.publishable)) {
    publisher_.withdraw(slot);
  }
  if (another || row.publishable != decision.publishable) {
    rows_.touchSwitch(slot);
  }
  row.vni = decision.vni;
  row.vlan = decision.vlan;
  row.publishable = decision.publishable;
  if (row.publishable && !row.published) {
    publisher_.enqueue(slot);
  }
}

// Counts the moves of a MAC, and has it published if that is not what is published.
void Mapper::hostResolved(Slot slot, Ipv4 vtep) {
  const MacKey key = rows_.hosts().key(slot);
  SwitchDecision& row = rows_.decisionOn(key.logicalSwitch);
  HostDecision& host = rows_.decisionOnHost(slot);
  if (host.vni != 0 && (host.vni != row.vni || vtep == 0)) {
    moves_.left(host.vni, key.mac);
  }
  const bool here = row.vni != 0 && vtep != 0;
  host.vni = here ? row.vni : 0;
  host.moves = here ? moves_.seen(row.vni, key.mac, vtep) : host.moves;
  row.decided += vtep != 0 ? 1U : 0U;
  row.decided -= host.vtep != 0 ? 1U : 0U;
  host.vtep = vtep;
  const bool lost = returned_ && host.publishedIn == row.generation && vtep == 0;
  if (lost && !std::exchange(row.lostHosts, true)) {
    lostHosts_.push_back(rows_.hold(key.logicalSwitch));
  }
  publisher_.hostDecided(slot);
}

void Mapper::floodResolved(Slot slot, std::vector<Ipv4> addresses) {
  SwitchDecision& row = rows_.decisionOn(rows_.floods().key(slot).logicalSwitch);
  FloodDecision& flood = rows_.decisionOnFlood(slot);
  row.decided += addresses.empty() ? 0U : 1U;
  row.decided -= flood.addresses.empty() ? 0U : 1U;
  flood.addresses = std::move(addresses);
  publisher_.floodDecided(slot);
}

// A VNI that lost hosts while the session was away is withdrawn and decided on once more, so that the client
// keeps what is missing marked.
void Mapper::withdrawWhatLostHosts() {
  for (const RowStore::SwitchReference& reference : std::exchange(lostHosts_, {})) {
    const Slot slot = reference.slot();
    SwitchDecision& row = rows_.decisionOn(slot);
    row.lostHosts = false;
    if (row.published) {
      publisher_.withdraw(slot);
    }
  }
}

// --- publishing

std::optional<nlohmann::json> Mapper::next(std::size_t hosts) {
  if (updateOpen_ || settling()) {
    return std::nullopt;
  }
  std::optional<nlohmann::json> patch = publisher_.next(hosts);
  lastSpent_ = publisher_.lastSpent();
  return patch;
}

bool Mapper::pending() const {
  return !updateOpen_ && !settling() && publisher_.pending();
}

// --- time

// Held deletions are published at the end of convergence, and VNIs without a row are instantiated.
void Mapper::tick(double now) {
  if (!updateOpen_ && !settling() && convergence_.tick(now)) {
    convergenceEnded_ = true;
    phase_ = Phase::release;
  }
}

double Mapper::nextWakeup() const {
  return updateOpen_ || settling() ? std::numeric_limits<double>::infinity() : convergence_.nextWakeup();
}

// --- what it tells

std::size_t Mapper::duplicates() const {
  return rows_.problemCounts()[static_cast<std::size_t>(ProblemKind::duplicateMac)];
}

ProblemCounts Mapper::problemCounts() const {
  ProblemCounts counts = rows_.problemCounts();
  for (std::size_t kind = 0; kind < problemKinds; ++kind) {
    counts[kind] += topology_.problems().counts()[kind];
  }
  return counts;
}

std::vector<Problem> Mapper::problems(std::size_t most) const {
  const std::vector<Problem>& ofTopology = topology_.problems().kept();
  const std::size_t first = std::min(ofTopology.size(), most);
  std::vector<Problem> list(ofTopology.begin(), ofTopology.begin() + static_cast<std::ptrdiff_t>(first));
  std::vector<Problem> ofRows = problemsOf(rows_, most - list.size());
  std::move(ofRows.begin(), ofRows.end(), std::back_inserter(list));
  return list;
}

nlohmann::json Mapper::explain(Mac mac, std::optional<std::uint32_t> vni,
                               std::optional<std::uint16_t> vlan) const {
  return {{"mac", macText(mac)},
          {"convergenceInProgress", convergence_.inProgress()},
          {"databaseFollowed", !awaitingSession_},
          {"logicalSwitches", explainRows(rows_, convergence_.inProgress(), mac, vni, vlan)}};
}

}  // namespace Agent::Vtep
