#include "Kel/Activity.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Kel/Clock.h"
#include "Kel/Error.h"
#include "Kel/Reactor.h"
#include "Kel/StateMachine.h"
#include "Kel/System.h"

namespace Kel {

constinit ActivityLoop* ActivityLoop::theLoop = nullptr;

// Never destroyed: entities may outlive the statics of every other source.
void ActivityLoop::begin() {
  theLoop = new ActivityLoop;
}

ActivityLoop::Block* ActivityLoop::newBlock() {
  // The records are left as they are: each is written before it is read.
  return new Block;
}

// Puts a block behind the full one at the tail.
void ActivityLoop::extend() {
  Block* block = spare_ != nullptr ? std::exchange(spare_, nullptr) : newBlock();
  tail_->next = block;
  tail_ = block;
  tailAt_ = 0;
}

void ActivityLoop::deliverOne() {
  if (headAt_ == Block::records) {
    Block* done = std::exchange(head_, head_->next);
    done->next = nullptr;
    delete std::exchange(spare_, done);
    headAt_ = 0;
  }
  // Copied one by one: a block copy of what was written field by field just now would wait for the writes.
  const Record& record = head_->record()[headAt_++];
  const auto reactor = Ptr<Reactor>::adopt(record.reactor);  // it outlives its own callback,
  const Deliver deliver = record.deliver;
  const QueuedKey key = record.key;
  const std::uint32_t binding = record.binding;
  --pending_;
  if (pending_ == 0) {
    headAt_ = tailAt_ = 0;  // head_ and tail_ are the same block here
  }
  if (reactor->listens(binding)) {
    ++delivered_;
    const Ptr<StateMachine> owner(reactor->machine());  // and so does the machine that it belongs to
    deliver(*reactor, key);
  }
}

void ActivityLoop::now(Reactor& reactor, std::uint32_t binding, Deliver deliver) {
  if (!reactor.listens(binding)) {
    return;
  }
  asHandler([&] {
    const Ptr<Reactor> self(&reactor);
    const Ptr<StateMachine> owner(reactor.machine());
    ++delivered_;
    deliver(reactor, QueuedKey());
  });
}

void ActivityLoop::drain() {
  {
    const Depth depth(*this);
    while (pending_ != 0) {
      deliverOne();
    }
  }
  if (written_) {
    endTurn();
  }
}

void ActivityLoop::endTurn() {
  written_ = false;
  // A hook may add others, which could move the list.
  for (std::size_t at = 0; at < turnEnd_.size(); ++at) {  // NOLINT(modernize-loop-convert)
    const auto [hook, context] = turnEnd_[at];
    if (hook != nullptr) {
      hook(context);
    }
  }
}

void ActivityLoop::atTurnEnd(Hook hook, void* context) {
  const auto free = std::find(turnEnd_.begin(), turnEnd_.end(), std::pair<Hook, void*>());
  if (free != turnEnd_.end()) {
    *free = {hook, context};
  } else {
    turnEnd_.emplace_back(hook, context);
  }
}

// Leaves an empty entry, so that a hook may forget itself; the next one that is added takes it.
void ActivityLoop::forgetTurnEnd(void* context) {
  for (auto& entry : turnEnd_) {
    if (entry.second == context) {
      entry = {nullptr, nullptr};
    }
  }
}

void ActivityLoop::arm(Clock& clock, double due) {
  fatalUnless(!std::isnan(due), "a clock is armed for a time that is no number");
  park(clock);
  clock.timeMin_ = due;
  clock.arming_ = ++armings_;
  if (due < std::numeric_limits<double>::infinity()) {
    armed_.insert({due, clock.arming_, &clock});
  }
}

void ActivityLoop::park(Clock& clock) noexcept {
  armed_.erase({clock.timeMin_, clock.arming_, &clock});
  clock.timeMin_ = std::numeric_limits<double>::infinity();
}

bool ActivityLoop::turn() {
  fatalUnless(depth_ == 0, "a turn of the activity loop inside a handler");
  const bool hadPending = pending_ != 0;
  settle();
  const double now = System::loopTime();
  std::vector<std::pair<Ptr<Clock>, std::uint64_t>> due;
  for (const Armed& armed : armed_) {
    if (armed.due > now) {
      break;
    }
    due.emplace_back(Ptr<Clock>(armed.clock), armed.sequence);
  }
  bool fired = false;
  for (const auto& [clock, arming] : due) {
    // A clock that was parked or rearmed since the turn began waits for its own turn.
    if (clock->arming_ == arming && clock->timeMin_ <= now) {
      fired = true;
      ++clocksFired_;
      clock->fire();
    }
  }
  return hadPending || fired;
}

bool ActivityLoop::runUntilIdle(std::uint64_t bound) {
  for (std::uint64_t turns = 0; turns < bound && !idle(); ++turns) {
    turn();
  }
  return idle();
}

bool ActivityLoop::idle() const {
  return pending_ == 0 && nextWakeup() > System::loopTime();
}

double ActivityLoop::nextWakeup() const {
  return armed_.empty() ? std::numeric_limits<double>::infinity() : armed_.begin()->due;
}

}  // namespace Kel
