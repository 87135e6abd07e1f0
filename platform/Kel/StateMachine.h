// The parts that state machines are made of.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include "Kel/Entity.h"
#include "Kel/Export.h"
#include "Kel/Machine.h"
#include "Kel/Ptr.h"

namespace Kel {

// A named member of a state machine that generic code can reach.
class KEL_API Part {
 public:
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;

  const char* name() const noexcept { return name_; }
  // Whether the children that it holds are owned, and printed, by another part as well.
  virtual bool alias() const noexcept { return false; }

  // Calls back with the printed key (empty for a single value), the printed value, and the child machine that
  // it is, or null.
  using Each =
      std::function<void(const std::string& key, const std::string& value, const StateMachine* child)>;
  virtual void each(const Each& call) const = 0;

 protected:
  Part(StateMachine& machine, const char* name) noexcept;
  virtual ~Part() = default;

  StateMachine& machine() const noexcept { return machine_; }
  bool machineActive() const noexcept { return machine_.active_; }

  // For parts that hold reactors by their base, so that a machine's reactor classes must be complete only
  // where they are bound.
  static void bind(Reactor& reactor, Ptr<const Entity> notifier) { reactor.bind(std::move(notifier)); }

 private:
  friend class StateMachine;
  virtual void activeIs(bool) {}
  virtual void zombieIs(bool) {}

  StateMachine& machine_;
  const char* name_;
  Part* next_ = nullptr;
};

// A scalar of the machine's own.
template <class T>
class Own final : public Part {
 public:
  Own(StateMachine& machine, const char* name, T value = T{})
      : Part(machine, name), value_(std::move(value)) {}

  operator const T&() const noexcept { return value_; }
  const T& get() const noexcept { return value_; }
  Own& operator=(T value) {
    value_ = std::move(value);
    return *this;
  }
  void each(const Each& call) const override { call("", printed(value_), nullptr); }

 private:
  T value_;
};

// An entity, or none, that the machine holds without following it.
template <class E>
class Held final : public Part {
 public:
  Held(StateMachine& machine, const char* name, Ptr<E> entity = nullptr)
      : Part(machine, name), entity_(std::move(entity)) {}

  const Ptr<E>& get() const noexcept { return entity_; }
  E* operator->() const noexcept { return entity_.get(); }
  explicit operator bool() const noexcept { return static_cast<bool>(entity_); }
  Held& operator=(Ptr<E> entity) {
    entity_ = std::move(entity);
    return *this;
  }
  void each(const Each& call) const override { call("", printed(entity_), nullptr); }

 private:
  Ptr<E> entity_;
};

// Whether a reactor that is bound in a live machine counts as a change (its handlers run once for all that it
// follows), or stays silent until its entity changes.
enum class Arrival { CountsAsChange, Silent };

// An entity, or none, that the machine follows through a reactor of class R, which exists exactly while there
// is an entity. `E` is const for an input that is only read. R may be declared in the machine's class and
// defined where the machine's operations are: `is` and `reactor` need it complete.
template <class E, class R, Arrival arrival = Arrival::CountsAsChange>
class Input final : public Part {
 public:
  using Followed = E;

  Input(StateMachine& machine, const char* name) : Part(machine, name) {}
  ~Input() override { del(); }

  const Ptr<E>& get() const noexcept { return entity_; }
  E* operator->() const noexcept { return entity_.get(); }
  explicit operator bool() const noexcept { return static_cast<bool>(entity_); }
  // The reactor, null while there is no entity.
  R* reactor() const noexcept { return static_cast<R*>(reactor_.get()); }

  // Binds the reactor to this entity, making it if needed; null drops it. In a live machine this counts as a
  // change of all that the reactor follows.
  void is(const Ptr<E>& entity) {
    if (!entity) {
      del();
      return;
    }
    entity_ = entity;
    if (!reactor_) {
      reactor_ = make<R>(static_cast<typename R::Owner&>(machine()));
      reactor_->zombieIs(machine().zombie());
      reactor_->hasNotificationActiveIs(machineActive());
    }
    const Ptr<Reactor> reactor = reactor_;
    if constexpr (arrival == Arrival::Silent) {
      const bool active = reactor->hasNotificationActive();
      reactor->hasNotificationActiveIs(false);
      bind(*reactor, entity);
      reactor->hasNotificationActiveIs(active);
    } else {
      bind(*reactor, entity);
    }
  }
  void del() {
    if (reactor_) {
      reactor_->zombieIs(true);
      bind(*reactor_, nullptr);
      reactor_ = nullptr;
    }
    entity_ = nullptr;
  }
  void each(const Each& call) const override { call("", printed(entity_), nullptr); }

 private:
  void activeIs(bool active) override {
    if (reactor_) {
      reactor_->hasNotificationActiveIs(active);
    }
  }
  void zombieIs(bool zombie) override {
    if (reactor_) {
      reactor_->zombieIs(zombie);
    }
  }

  Ptr<E> entity_;
  Ptr<Reactor> reactor_;
};

// One reactor of class R for each key. R is constructed with its owner, and with the key if it takes one;
// `is` and the look-up need it complete.
template <class K, class R, Arrival arrival = Arrival::CountsAsChange>
class Reactors : public Part {
 public:
  Reactors(StateMachine& machine, const char* name) : Part(machine, name) {}
  ~Reactors() override { delAll(); }

  std::size_t size() const noexcept { return table_.size(); }
  R* operator()(const K& key) const {
    const Ptr<Reactor>* reactor = table_.find(key);
    return reactor == nullptr ? nullptr : static_cast<R*>(reactor->get());
  }

  // Makes the reactor of a new key and binds it; one that is bound to another entity is rebound, not
  // replaced.
  template <class Reaction = R>
  void is(const K& key, const Ptr<const typename Reaction::Followed>& entity) {
    if (const Ptr<Reactor>* present = table_.find(key)) {
      const Ptr<Reactor> reactor = *present;
      bind(*reactor, entity);
      return;
    }
    const Ptr<Reactor> reactor = newReactor(key);
    table_.emplace(key, reactor);
    reactor->zombieIs(machine().zombie());
    if constexpr (arrival == Arrival::Silent) {
      bind(*reactor, entity);
      reactor->hasNotificationActiveIs(machineActive());
    } else {
      reactor->hasNotificationActiveIs(machineActive());
      bind(*reactor, entity);
    }
  }
  // Drops the reactor of a key; an absent key is no error.
  void del(const K& key) {
    if (const Ptr<Reactor>* present = table_.find(key)) {
      const Ptr<Reactor> reactor = *present;
      table_.erase(key);
      reactor->zombieIs(true);
      bind(*reactor, nullptr);
    }
  }
  void delAll() {
    for (auto&& pair : table_) {
      del(K(pair.key));
    }
  }
  // Makes this collection have the keys of the followed one: what is missing is made, then what is stale is
  // dropped.
  template <class Collection>
  void reconcile(const Collection& collection) {
    for (auto&& pair : collection) {
      is(pair.key, pair.value);
    }
    for (auto&& pair : table_) {
      if (!collection.contains(pair.key)) {
        del(K(pair.key));
      }
    }
  }
  void each(const Each& call) const override {
    for (auto&& pair : table_) {
      call(printed(pair.key), "followed", nullptr);
    }
  }

 private:
  Ptr<Reactor> newReactor(const K& key) {
    auto& owner = static_cast<typename R::Owner&>(machine());
    if constexpr (std::is_constructible_v<R, typename R::Owner&, const K&>) {
      return make<R>(owner, key);
    } else {
      return make<R>(owner);
    }
  }
  void activeIs(bool active) override {
    for (auto&& pair : table_) {
      pair.value->hasNotificationActiveIs(active);
    }
  }
  void zombieIs(bool zombie) override {
    for (auto&& pair : table_) {
      pair.value->zombieIs(zombie);
    }
  }

  OrderedTable<K, Ptr<Reactor>> table_;
};

// A followed collection: one reactor of class R for each entity in a collection C of the entity that `In`, an
// input of the same machine that is declared before it, follows. The input's reactor hands its callbacks on:
// `handle(key)` for a key, `handle()` for the collection as a whole.
template <class In, class C, const C& (std::remove_const_t<typename In::Followed>::*collection)() const,
          class R, Arrival arrival = Arrival::CountsAsChange>
class Followed final : public Reactors<typename C::Key, R, arrival> {
 public:
  using Key = typename C::Key;

  Followed(StateMachine& machine, const char* name, In& input)
      : Reactors<Key, R, arrival>(machine, name), input_(input) {}

  // Follows the collection of another entity from now on; null drops the input and every reactor.
  void inputIs(const Ptr<typename In::Followed>& entity) {
    input_.is(entity);
    if (!entity) {
      this->delAll();
    }
  }
  // Makes, rebinds or drops the reactor of a key, as the collection has it now.
  void handle(const Key& key) {
    const auto* present = input_ ? (input_.get().get()->*collection)().find(key) : nullptr;
    if (present != nullptr && *present) {
      this->is(key, *present);
    } else {
      this->del(key);
    }
  }
  // The same for every key. Without an input nothing happens.
  void handle() {
    if (input_) {
      this->reconcile((input_.get().get()->*collection)());
    }
  }

 private:
  In& input_;
};

// Makes a machine that is live: constructed, then activated, as a handler, so that everything its
// construction caused has been delivered when this returns.
template <class Sm, class... Args>
Ptr<Sm> live(Args&&... args) {
  return ActivityLoop::instance().asHandler([&] {
    Ptr<Sm> machine = make<Sm>(std::forward<Args>(args)...);
    machine->hasNotificationActiveIs(true);
    return machine;
  });
}

}  // namespace Kel
