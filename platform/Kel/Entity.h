// Entities: records with typed attributes and keyed collections, that call their reactors when these change.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kel/Activity.h"
#include "Kel/Error.h"
#include "Kel/Export.h"
#include "Kel/Name.h"
#include "Kel/OrderedTable.h"
#include "Kel/Overrides.h"
#include "Kel/Ptr.h"
#include "Kel/Reactor.h"
#include "Kel/Table.h"

namespace Kel {

class Attributes;

// A reference-counted record of the state database. A concrete entity declares a nested `Reactor` with one
// virtual callback for each attribute, its attributes as members (Attribute, Collection, Notification), the
// accessors `x()` and mutators `xIs(value)` around them, and lists them in `attributes`:
//
//     class VtiStatus final : public Kel::Entity {
//      public:
//       struct Reactor : Kel::Reactor {
//         virtual void onControllerClientMode() {}
//       };
//       bool controllerClientMode() const { return controllerClientMode_; }
//       void controllerClientModeIs(bool mode) { controllerClientMode_ = mode; }
//       const char* typeName() const override { return "Vxlan::VtiStatus"; }
//       void attributes(Kel::Attributes& list) const override {
//         list("controllerClientMode", controllerClientMode_);
//       }
//
//      private:
//       Kel::Attribute<bool, &Reactor::onControllerClientMode> controllerClientMode_{*this, false};
//     };
//
// A change notifies the reactors that are bound when it is made, in the order of their binding.
class KEL_API Entity : public Referenced {
 public:
  virtual ~Entity();

  virtual const char* typeName() const = 0;

  // Lists the attributes by name, for generic tools and for the binding of reactors.
  virtual void attributes(Attributes& list) const = 0;

  // The entity that holds it in one of its attributes; null for a root and for one that nobody holds. Kept by
  // the attributes themselves.
  const Entity* parent() const noexcept { return parent_; }
  void parentIs(const Entity* parent) const noexcept { parent_ = parent; }

  // How many reactors are bound to it.
  std::size_t reactors() const noexcept { return followers_; }

 protected:
  Entity() = default;

 private:
  friend class Reactor;
  template <auto>
  friend struct Callback;

  void add(Reactor& reactor) const noexcept;
  void remove(Reactor& reactor) const noexcept;

  mutable std::uint32_t followers_ = 0;
  mutable Reactor* first_ = nullptr;  // the chain of those that are bound, in the order of their binding
  mutable Reactor* last_ = nullptr;
  mutable const Entity* parent_ = nullptr;
};

// The way from a changed attribute to one virtual callback of the reactors, chosen at compile time by its
// member pointer. In a loop where nothing is queued and no handler runs, the only follower of an entity is
// called without a stop in the queue, which would deliver just that. A reactor whose class leaves the
// callback as it is hears nothing by it, and gets no place in the queue.
template <auto callback>
struct Callback;

template <class R, void (R::*callback)()>
struct Callback<callback> {
  static void deliver(Reactor& reactor, QueuedKey) { (static_cast<R&>(reactor).*callback)(); }
  static void queue(Reactor& reactor, std::uint32_t binding) {
    if (overrides<callback>(static_cast<const R&>(reactor))) {
      ActivityLoop::instance().enqueue(Ptr<Reactor>(&reactor), binding, &deliver, QueuedKey());
    } else if (reactor.listens()) {
      ActivityLoop::instance().passOver();
    }
  }
  static void notify(const Entity& entity) {
    Reactor* const first = entity.first_;
    if (first == nullptr) {
      return;
    }
    ActivityLoop& loop = ActivityLoop::instance();
    if (first->next_ == nullptr && loop.quiet()) {
      loop.direct(*first, [first] { (static_cast<R&>(*first).*callback)(); });
      return;
    }
    for (Reactor* reactor = first; reactor != nullptr; reactor = reactor->next_) {
      queue(*reactor, reactor->binding());
    }
    loop.settle();
  }
  // Calls at once, as a handler, those reactors that listen now.
  static void immediate(const Entity& entity) {
    std::vector<std::pair<Ptr<Reactor>, std::uint32_t>> bound;
    bound.reserve(entity.reactors());
    for (Reactor* reactor = entity.first_; reactor != nullptr; reactor = reactor->next_) {
      bound.emplace_back(Ptr<Reactor>(reactor), reactor->binding());
    }
    for (const auto& [reactor, binding] : bound) {
      ActivityLoop::instance().now(*reactor, binding, &deliver);
    }
  }
  static void immediate(Reactor& reactor) {
    ActivityLoop::instance().now(reactor, reactor.binding(), &deliver);
  }
};

template <class K, class R, void (R::*callback)(K)>
struct Callback<callback> {
  static void deliver(Reactor& reactor, QueuedKey key) { (static_cast<R&>(reactor).*callback)(key.as<K>()); }
  static void queue(Reactor& reactor, std::uint32_t binding, const K& key) {
    if (overrides<callback>(static_cast<const R&>(reactor))) {
      ActivityLoop::instance().enqueue(Ptr<Reactor>(&reactor), binding, &deliver, QueuedKey(key));
    } else if (reactor.listens()) {
      ActivityLoop::instance().passOver();
    }
  }
  static void notify(const Entity& entity, const K& key) {
    Reactor* const first = entity.first_;
    if (first == nullptr) {
      return;
    }
    ActivityLoop& loop = ActivityLoop::instance();
    if (first->next_ == nullptr && loop.quiet()) {
      loop.direct(*first, [first, &key] { (static_cast<R&>(*first).*callback)(key); });
      return;
    }
    for (Reactor* reactor = first; reactor != nullptr; reactor = reactor->next_) {
      queue(*reactor, reactor->binding(), key);
    }
    loop.settle();
  }
};

// The interface of every attribute for generic code.
class KEL_API AttributeBase {
 public:
  AttributeBase(const AttributeBase&) = delete;
  AttributeBase& operator=(const AttributeBase&) = delete;

  // Reports the whole attribute to one reactor as changed: queues its callbacks, or calls at once where
  // `calledAtOnce`.
  virtual void countAsChanged(Reactor& reactor) const = 0;
  virtual bool calledAtOnce() const { return false; }
  // How many values it has: one, or the size of the collection; none for a notification.
  virtual std::size_t values() const = 0;
  // Calls back with the printed key (empty for a scalar), the printed value, and the entity that the value
  // is, or null.
  using EachValue =
      std::function<void(const std::string& key, const std::string& value, const Entity* entity)>;
  virtual void each(const EachValue& callback) const = 0;

 protected:
  explicit AttributeBase(const Entity& entity) noexcept : owner_(entity) {}
  ~AttributeBase() = default;
  const Entity& owner() const noexcept { return owner_; }

 private:
  const Entity& owner_;
};

// The list that an entity makes of its attributes; the caller decides what to do with each.
class Attributes {
 public:
  explicit Attributes(std::function<void(const char*, const AttributeBase&)> each) : each_(std::move(each)) {}
  void operator()(const char* name, const AttributeBase& attribute) { each_(name, attribute); }

 private:
  std::function<void(const char*, const AttributeBase&)> each_;
};

// The printed form of a value: its own << where it has one, its number for an enumeration.
template <class T>
std::string printed(const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::is_enum_v<T>) {
    return std::to_string(static_cast<long long>(value));
  } else if constexpr (std::is_arithmetic_v<T>) {
    return std::to_string(value);
  } else {
    std::ostringstream text;
    text << value;
    return text.str();
  }
}
template <class T>
std::string printed(const Ptr<T>& value) {
  return value ? value->typeName() : "none";
}

template <class T>
const Entity* entityOf(const T& value) {
  if constexpr (requires { static_cast<const Entity*>(value.get()); }) {
    return value.get();
  } else {
    return nullptr;
  }
}

// Records in an entity that is entered into an attribute of `parent` who holds it, and clears that in one
// that is taken out, unless another entity took it meanwhile.
template <class T>
void held(const T& value, const Entity& parent) {
  if (const Entity* entity = entityOf(value)) {
    entity->parentIs(&parent);
  }
}
template <class T>
void released(const T& value, const Entity& parent) {
  if (const Entity* entity = entityOf(value)) {
    if (entity->parent() == &parent) {
      entity->parentIs(nullptr);
    }
  }
}

// A scalar attribute. Writing an equal value notifies nobody.
template <class T, auto callback>
class Attribute final : public AttributeBase {
 public:
  explicit Attribute(const Entity& entity, T value = T{}) : AttributeBase(entity), value_(std::move(value)) {
    held(value_, owner());
  }
  ~Attribute() { released(value_, owner()); }

  operator const T&() const noexcept { return value_; }
  const T& get() const noexcept { return value_; }
  Attribute& operator=(T value) {
    if (!(value == value_)) {
      released(value_, owner());
      value_ = std::move(value);
      held(value_, owner());
      Callback<callback>::notify(owner());
    }
    return *this;
  }

  void countAsChanged(Reactor& reactor) const override {
    Callback<callback>::queue(reactor, reactor.binding());
  }
  std::size_t values() const override { return 1; }
  void each(const EachValue& call) const override { call("", printed(value_), entityOf(value_)); }

 private:
  T value_;
};

namespace detail {
extern KEL_API std::uint64_t collectionVersions;
}

// How the whole-collection callback of a collection is called: at once, or in its turn like any other.
enum class Whole { Immediate, Queued };

// A keyed collection in a Table or an OrderedTable. Setting an equal value and deleting an absent key notify
// nobody; deleting all gives the whole-collection callback and one keyed callback for each key removed.
template <template <class, class> class Storage, class K, class V, auto onKey, auto onWhole = nullptr,
          Whole form = Whole::Immediate>
class Collection final : public AttributeBase {
  static constexpr bool holdsEntities = requires(const V& value) { static_cast<const Entity*>(value.get()); };
  static constexpr bool keyed = requires(const Entity& entity, const K& key) {
    Callback<onKey>::notify(entity, key);
  };
  static constexpr bool hasWhole = !std::is_null_pointer_v<decltype(onWhole)>;

 public:
  using Key = K;
  using Iterator = typename Storage<K, V>::Iterator;

  explicit Collection(const Entity& entity) : AttributeBase(entity) {}
  ~Collection() {
    if constexpr (holdsEntities) {
      for (auto&& pair : table_) {
        released(pair.value, owner());
      }
    }
  }

  std::size_t size() const noexcept { return table_.size(); }
  bool empty() const noexcept { return table_.empty(); }
  // Which state of keys and values this is: what was derived from the collection at one version holds until
  // the next. Drawn from a counter of the process: no two states of any collections have the same, but for 0,
  // which every collection has that never changed.
  std::uint64_t version() const noexcept { return version_; }
  bool contains(const K& key) const { return table_.contains(key); }
  // The value under the key, or null.
  const V* find(const K& key) const { return table_.find(key); }
  // The value under the key, or a default value.
  V get(const K& key) const {
    const V* value = table_.find(key);
    return value == nullptr ? V{} : *value;
  }
  Iterator begin() const { return table_.begin(); }
  std::default_sentinel_t end() const { return {}; }
  // Where a walk resumed at this key goes on; false when the key is gone.
  Iterator at(const K& key) const { return table_.at(key); }

  // Inserts or replaces.
  void is(const K& key, const V& value) {
    const K copy = key;  // the key may live in the value that is replaced
    const auto entered = table_.enter(copy, value);
    V& here = table_.valueIn(entered.slot);
    if (!entered.added) {
      if (here == value) {
        return;
      }
      released(here, owner());
      here = value;
    }
    held(here, owner());
    notifyKey(copy);
  }
  // Removes; an absent key is no error. Returns whether it was there.
  bool del(const K& key) {
    const K copy = key;  // the key may live in the element that goes
    if (!erase(copy)) {
      return false;
    }
    notifyKey(copy);
    return true;
  }
  void delAll() {
    if (table_.empty()) {
      return;
    }
    ActivityLoop::instance().asHandler([&] {
      std::vector<K> keys;
      keys.reserve(table_.size());
      for (auto&& pair : table_) {
        keys.push_back(pair.key);
      }
      for (const K& key : keys) {
        erase(key);
      }
      if constexpr (hasWhole && form == Whole::Queued) {
        Callback<onWhole>::notify(owner());
      }
      for (const K& key : keys) {
        notifyKey(key);
      }
      // Last, so that what it throws leaves nothing unqueued, yet heard first, because it does not wait.
      if constexpr (hasWhole && form == Whole::Immediate) {
        Callback<onWhole>::immediate(owner());
      }
    });
  }

  bool calledAtOnce() const override { return hasWhole && form == Whole::Immediate; }
  void countAsChanged(Reactor& reactor) const override {
    if constexpr (hasWhole && form == Whole::Immediate) {
      Callback<onWhole>::immediate(reactor);
    } else if constexpr (!keyed) {
      Callback<onKey>::queue(reactor, reactor.binding());
    } else {
      for (auto&& pair : table_) {
        Callback<onKey>::queue(reactor, reactor.binding(), pair.key);
      }
    }
  }
  std::size_t values() const override { return table_.size(); }
  void each(const EachValue& call) const override {
    for (auto&& pair : table_) {
      call(printed(pair.key), printed(pair.value), entityOf(pair.value));
    }
  }

  // The table itself, for what its storage offers beyond a plain collection.
  const Storage<K, V>& table() const noexcept { return table_; }

 private:
  void notifyKey(const K& key) {
    version_ = ++detail::collectionVersions;
    if constexpr (keyed) {
      Callback<onKey>::notify(owner(), key);
    } else {
      Callback<onKey>::notify(owner());
    }
  }
  bool erase(const K& key) {
    if constexpr (holdsEntities) {
      if (const V* value = table_.find(key)) {
        released(*value, owner());
      }
    }
    version_ = ++detail::collectionVersions;
    return table_.erase(key);
  }

  Storage<K, V> table_;
  std::uint64_t version_ = 0;
};

// An attribute without a value: each `signal` calls, also twice in a row with the same key. Binding a reactor
// is no signal. `onWhole` is called by `signalWhole`, at once.
template <class K, auto onKey, auto onWhole = nullptr>
class Notification final : public AttributeBase {
 public:
  explicit Notification(const Entity& entity) : AttributeBase(entity) {}

  void signal(const K& key) const { Callback<onKey>::notify(owner(), key); }
  void signalWhole() const { Callback<onWhole>::immediate(owner()); }

  bool calledAtOnce() const override { return !std::is_null_pointer_v<decltype(onWhole)>; }
  void countAsChanged(Reactor& reactor) const override {
    if constexpr (!std::is_null_pointer_v<decltype(onWhole)>) {
      Callback<onWhole>::immediate(reactor);
    }
  }
  std::size_t values() const override { return 0; }
  void each(const EachValue&) const override {}
};

}  // namespace Kel
