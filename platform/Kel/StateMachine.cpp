#include "Kel/StateMachine.h"

namespace Kel {

StateMachine::~StateMachine() = default;

void StateMachine::hasNotificationActiveIs(bool active) {
  if (active_ == active) {
    return;
  }
  active_ = active;
  for (Part* part = first_; part != nullptr; part = part->next_) {
    part->activeIs(active);
  }
}

void StateMachine::kelDoZombieReactors(bool zombie) {
  if (zombie_ == zombie) {
    return;
  }
  zombie_ = zombie;
  for (Part* part = first_; part != nullptr; part = part->next_) {
    part->zombieIs(zombie);
  }
}

void StateMachine::eachPart(const std::function<void(const Part&)>& call) const {
  for (const Part* part = first_; part != nullptr; part = part->next_) {
    call(*part);
  }
}

Part::Part(StateMachine& machine, const char* name) noexcept : machine_(machine), name_(name) {
  (machine.last_ == nullptr ? machine.first_ : machine.last_->next_) = this;
  machine.last_ = this;
}

}  // namespace Kel
