// Reactors: objects that are called back when an attribute of an entity changes.
#pragma once

#include <cstdint>

#include "Kel/Activity.h"
#include "Kel/Export.h"
#include "Kel/Machine.h"
#include "Kel/Ptr.h"

namespace Kel {

class Entity;
class Part;

// A notifiee: bound to at most one entity, its notifier, and belonging to one state machine. Each entity type
// has a nested class `Reactor` derived from this one, with a virtual callback for each attribute; the reactor
// of a state machine derives from that (see Reacts) and forwards each callback to a handler of its owner.
//
// Activity and zombie state are tested when a notification is delivered, not when it is queued; what was
// queued by an earlier binding is dropped.
class KEL_API Reactor : public Referenced {
 public:
  virtual ~Reactor();

  // Switches the delivery of callbacks on or off. Reactors are made inactive. Setting the current value is a
  // no-op.
  void hasNotificationActiveIs(bool active) noexcept { is(activeBit, active); }
  bool hasNotificationActive() const noexcept { return (state_ & activeBit) != 0; }

  // Marks the reactor as being deleted: no callback reaches it any more.
  void zombieIs(bool zombie) noexcept { is(zombieBit, zombie); }
  bool zombie() const noexcept { return (state_ & zombieBit) != 0; }

  // The state machine that owns it, null for a reactor that stands alone.
  StateMachine* machine() const noexcept { return machine_; }

  // Which of its bindings is the present one; a notification carries the number of the binding it was queued
  // for.
  std::uint32_t binding() const noexcept { return binding_; }

  // Queues a change of every attribute that the notifier has, as if the reactor had just been bound while
  // active.
  void countAsBound();

 protected:
  Reactor() = default;

  // Gives the reactor to the state machine that owns it.
  void attach(StateMachine& machine) noexcept { machine_ = &machine; }

  // Binds to another entity, or to none; later callbacks come from the new one. On an active reactor this
  // counts as a change of every attribute that it follows.
  void bind(Ptr<const Entity> notifier);
  const Entity* bound() const noexcept { return notifier_.get(); }

 private:
  friend class ActivityLoop;
  friend class Entity;
  friend class Part;
  template <auto>
  friend struct Callback;

  static constexpr std::uint8_t activeBit = 1;
  static constexpr std::uint8_t zombieBit = 2;
  void is(std::uint8_t bit, bool set) noexcept {
    state_ = static_cast<std::uint8_t>(set ? state_ | bit : state_ & ~bit);
  }
  // Active and no zombie.
  bool listens() const noexcept { return state_ == activeBit; }
  bool listens(std::uint32_t binding) const noexcept { return binding == binding_ && listens(); }

  std::uint32_t binding_ = 0;  // counts the bindings, so that what an earlier one queued is known
  std::uint8_t state_ = 0;
  StateMachine* machine_ = nullptr;
  // Its place among those that follow the notifier, in the order of their binding.
  Reactor* next_ = nullptr;
  Reactor* previous_ = nullptr;
  Ptr<const Entity> notifier_;
};

template <class Call>
void ActivityLoop::direct(Reactor& reactor, const Call& call) {
  {
    const Depth depth(*this);
    if (reactor.listens()) {
      const Ptr<Reactor> self(&reactor);                 // it outlives its own callback,
      const Ptr<StateMachine> owner(reactor.machine());  // and so does the machine that it belongs to
      ++delivered_;
      call();
    }
    while (pending_ != 0) {
      deliverOne();
    }
  }
  if (written_) {
    endTurn();
  }
}

// The reactor of a state machine `Owner` that follows an entity of type `E`. The machine's reactor class
// derives from it, is named `Kel` plus the followed attribute, and overrides the callbacks it wants.
template <class E, class Machine>
class Reacts : public E::Reactor {
 public:
  using Followed = E;
  using Owner = Machine;

  explicit Reacts(Owner& owner) noexcept { this->attach(owner); }

  // Rebinds to another entity or to none.
  void notifierIs(const Ptr<const E>& notifier) { this->bind(notifier); }
  const E* notifier() const noexcept { return static_cast<const E*>(this->bound()); }

 protected:
  Owner& owner() const noexcept { return static_cast<Owner&>(*this->machine()); }
};

// A reactor that stands alone, for programs that are no state machine: override the callbacks, then bind it.
// It is active from the start, so that binding counts as a change. A pending notification keeps it alive and
// reaches it: bind it to none before you destroy anything that it refers to.
template <class E>
class Follows : public E::Reactor {
 public:
  using Followed = E;

  Follows() noexcept { this->hasNotificationActiveIs(true); }
  void notifierIs(const Ptr<const E>& notifier) { this->bind(notifier); }
  const E* notifier() const noexcept { return static_cast<const E*>(this->bound()); }
};

}  // namespace Kel
