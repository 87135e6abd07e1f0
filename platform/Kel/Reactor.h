// Reactors: objects that are called back when an attribute of an entity changes.
#pragma once

#include <cstdint>

#include "Kel/Activity.h"
#include "Kel/Export.h"
#include "Kel/Ptr.h"

namespace Kel {

class Entity;
class Part;
class StateMachine;

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
  void hasNotificationActiveIs(bool active) noexcept { active_ = active; }
  bool hasNotificationActive() const noexcept { return active_; }

  // Marks the reactor as being deleted: no callback reaches it any more.
  void zombieIs(bool zombie) noexcept { zombie_ = zombie; }
  bool zombie() const noexcept { return zombie_; }

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
  bool listens(std::uint32_t binding) const noexcept { return binding == binding_ && active_ && !zombie_; }

  std::uint32_t binding_ = 0;  // counts the bindings, so that what an earlier one queued is known
  bool active_ = false;
  bool zombie_ = false;
  StateMachine* machine_ = nullptr;
  Ptr<const Entity> notifier_;
};

// The reactor of a state machine `Owner` that follows an entity of type `E`. The machine's reactor class
// derives from it, is named `Kel` plus the followed attribute, and overrides the callbacks it wants.
template <class E, class Machine>
class Reacts : public E::Reactor {
 public:
  using Followed = E;
  using Owner = Machine;

  explicit Reacts(Owner& owner) noexcept : owner_(owner) { this->attach(owner); }

  // Rebinds to another entity or to none.
  void notifierIs(const Ptr<const E>& notifier) { this->bind(notifier); }
  const E* notifier() const noexcept { return static_cast<const E*>(this->bound()); }

 protected:
  Owner& owner() const noexcept { return owner_; }

 private:
  Owner& owner_;
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
