// The children of a state machine, and the shadow that owns them by their concrete class.
#pragma once

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

#include "Kel/StateMachine.h"

namespace Kel {

// The value of a constructor parameter as the name-in-use error prints it and equality is judged by.
template <class T>
const void* rawValue(const Ptr<T>& pointer) noexcept {
  return pointer.get();
}
template <class T>
const void* rawValue(T* pointer) noexcept {
  return pointer;
}

// The values of several.
template <class... Args>
std::array<const void*, sizeof...(Args)> rawValues(const Args&... args) noexcept {
  return {rawValue(args)...};
}

// The names of a machine's constructor parameters (without the key that its owner keeps it under), in the
// order in which it takes them. A machine class that has a shadow declares
//
//     static constexpr Kel::Parameters<2> parameterNames{"_rmxState", "_rmxStateClientView"};
//     auto parameters() const { return Kel::rawValues(rmxState(), rmxStateClientView()); }   // the present
//     ones
template <std::size_t n>
using Parameters = std::array<const char*, n>;

// Raises the name-in-use error for the first parameter that differs.
template <class Sm, class... Args>
void requireSameParameters(const Sm& present, const Args&... args) {
  const std::array<const void*, sizeof...(Args)> wanted{rawValue(args)...};
  const std::array<const void*, sizeof...(Args)> current = present.parameters();
  for (std::size_t at = 0; at < wanted.size(); ++at) {
    if (wanted[at] != current[at]) {
      throwReinstantiation(Sm::parameterNames[at], wanted[at], current[at]);
    }
  }
}

// Whether another part owns and prints the same children.
enum class Owns { Yes, Alias };

// One child machine, or none. It is marked as a zombie before it is dropped, and one that a zombie takes is a
// zombie from then on.
template <class Sm>
class Child final : public Part {
 public:
  Child(StateMachine& machine, const char* name, Owns owns = Owns::Yes) : Part(machine, name), owns_(owns) {}
  ~Child() override { del(); }

  const Ptr<Sm>& get() const noexcept { return child_; }
  Sm* operator->() const noexcept { return child_.get(); }
  explicit operator bool() const noexcept { return static_cast<bool>(child_); }

  // Takes a machine that exists; another one that was held before is dropped.
  void is(const Ptr<Sm>& machine) {
    if (child_ != machine) {
      del();
      child_ = machine;
      zombieAtBirth(child_);
    }
  }
  // The shadow mutator: the present child if its constructor parameters equal these, else the name-in-use
  // error; a new one, stored and activated, if there is none.
  template <class... Args>
  Ptr<Sm> shadowIs(const Args&... args) {
    if (child_) {
      requireSameParameters(*child_, args...);
      return child_;
    }
    return ActivityLoop::instance().asHandler([&] {
      Ptr<Sm> fresh = make<Sm>(args...);
      is(fresh);
      fresh->hasNotificationActiveIs(true);
      return fresh;
    });
  }
  void del() {
    if (child_) {
      child_->kelDoZombieReactors(true);
      const Ptr<Sm> dying = std::exchange(child_, nullptr);
    }
  }

  bool alias() const noexcept override { return owns_ == Owns::Alias; }
  void each(const Each& call) const override {
    if (child_) {
      call("", child_->fwkType().name, child_.get());
    }
  }

 private:
  void activeIs(bool active) override {
    if (child_) {
      child_->hasNotificationActiveIs(active);
    }
  }
  void zombieIs(bool zombie) override {
    if (child_) {
      child_->kelDoZombieReactors(zombie);
    }
  }

  void zombieAtBirth(const Ptr<Sm>& fresh) {
    if (fresh && machine().zombie()) {
      fresh->kelDoZombieReactors(true);
    }
  }

  Ptr<Sm> child_;
  Owns owns_;
};

// Child machines by key. Each is marked as a zombie before it is dropped, and one that a zombie takes is a
// zombie from then on.
template <template <class, class> class Storage, class K, class Sm>
class Children final : public Part {
 public:
  using Iterator = typename Storage<K, Ptr<Sm>>::Iterator;

  Children(StateMachine& machine, const char* name, Owns owns = Owns::Yes)
      : Part(machine, name), owns_(owns) {}
  ~Children() override { delAll(); }

  std::size_t size() const noexcept { return table_.size(); }
  bool contains(const K& key) const { return table_.contains(key); }
  // The child of this key, or none.
  Ptr<Sm> operator()(const K& key) const {
    const Ptr<Sm>* child = table_.find(key);
    return child == nullptr ? Ptr<Sm>() : *child;
  }
  Iterator begin() const { return table_.begin(); }
  std::default_sentinel_t end() const { return {}; }
  // Where a walk stands at this key; false when there is no such child.
  Iterator at(const K& key) const { return table_.at(key); }
  std::vector<K> keys() const {
    std::vector<K> all;
    all.reserve(table_.size());
    for (auto&& pair : table_) {
      all.push_back(pair.key);
    }
    return all;
  }

  // Enters a machine that exists; another one under the key is dropped. It must not be null: the owner's
  // mutator refuses that with its own text.
  void is(const K& key, const Ptr<Sm>& machine) {
    const auto [at, added] = table_.emplace(key, machine);
    if (!added && at->value != machine) {
      const Ptr<Sm> dying = std::exchange(at->value, machine);
      dying->kelDoZombieReactors(true);
    }
    if (this->machine().zombie()) {
      machine->kelDoZombieReactors(true);
    }
  }
  // The shadow mutator: the present child of the key if its constructor parameters equal these, else the
  // name-in-use error; a new one, constructed from the key and these, stored and activated, if there is none.
  template <class... Args>
  Ptr<Sm> shadowIs(const K& key, const Args&... args) {
    if (const Ptr<Sm>* present = table_.find(key)) {
      requireSameParameters(**present, args...);
      return *present;
    }
    return ActivityLoop::instance().asHandler([&] {
      Ptr<Sm> machine = make<Sm>(key, args...);
      is(key, machine);
      machine->hasNotificationActiveIs(true);
      return machine;
    });
  }
  // Drops the child of a key; an absent key is no error.
  void del(const K& key) {
    if (const Ptr<Sm>* present = table_.find(key)) {
      const Ptr<Sm> dying = *present;
      dying->kelDoZombieReactors(true);
      table_.erase(K(key));
    }
  }
  void delAll() {
    for (const K& key : keys()) {
      del(key);
    }
  }

  bool alias() const noexcept override { return owns_ == Owns::Alias; }
  void each(const Each& call) const override {
    for (auto&& pair : table_) {
      call(printed(pair.key), pair.value->fwkType().name, pair.value.get());
    }
  }

 private:
  void activeIs(bool active) override {
    for (const K& key : keys()) {
      if (const Ptr<Sm> child = (*this)(key)) {
        child->hasNotificationActiveIs(active);
      }
    }
  }
  void zombieIs(bool zombie) override {
    for (auto&& pair : table_) {
      pair.value->kelDoZombieReactors(zombie);
    }
  }

  Storage<K, Ptr<Sm>> table_;
  Owns owns_;
};

}  // namespace Kel
