// The vocabulary of the framework's tests: a device that can be followed, listeners that write down what they
// hear and may do something about it.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Clock.h"
#include "Kel/Entity.h"
#include "Kel/StateMachine.h"

namespace scenario {

using Kel::Name;
using Kel::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;

// An entity with one attribute of each kind.
class Device final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onUp() {}
    virtual void onLoad() {}
    virtual void onPeer() {}
    virtual void onCounter(std::uint32_t) {}
    virtual void onPart(Name) {}
    virtual void onPartkelImmediate() {}
    virtual void onOrder(std::uint32_t) {}
    virtual void onOrders() {}
    virtual void onSetting() {}
    virtual void onPing(std::uint32_t) {}
    virtual void onAlarm(std::uint32_t) {}
    virtual void onAlarmkelImmediate() {}
  };

  // Scalars.
  bool up() const { return up_; }
  void upIs(bool up) { up_ = up; }
  int load() const { return load_; }
  void loadIs(int load) { load_ = load; }
  const Ptr<Device>& peer() const { return peer_; }
  void peerIs(const Ptr<Device>& peer) { peer_ = peer; }

  // A hashed collection of values, with a callback for each key alone.
  const auto& counters() const { return counter_; }
  void counterIs(std::uint32_t key, int value) { counter_.is(key, value); }
  void counterDel(std::uint32_t key) { counter_.del(key); }
  void counterDelAll() { counter_.delAll(); }

  // An ordered collection of entities, with an immediate callback for the whole.
  using Parts =
      Kel::Collection<Kel::OrderedTable, Name, Ptr<Device>, &Reactor::onPart, &Reactor::onPartkelImmediate>;
  const Parts& parts() const { return part_; }
  void partIs(const Name& name, const Ptr<Device>& part) {
    if (!part) {
      Kel::throwNullParameter("scenario::Device", "part");
    }
    part_.is(name, part);
  }
  void partDel(const Name& name) { part_.del(name); }
  void partDelAll() { part_.delAll(); }

  // A collection whose whole-collection callback waits its turn.
  const auto& orders() const { return order_; }
  void orderIs(std::uint32_t key, int value) { order_.is(key, value); }
  void orderDelAll() { order_.delAll(); }

  // A collection that is followed without keys.
  void settingIs(std::uint32_t key, int value) { setting_.is(key, value); }
  void settingDelAll() { setting_.delAll(); }

  // Attributes without a value.
  void ping(std::uint32_t key) { ping_.signal(key); }
  void alarm(std::uint32_t key) { alarm_.signal(key); }
  void alarmAll() { alarm_.signalWhole(); }

  const char* typeName() const override { return "scenario::Device"; }
  void attributes(Kel::Attributes& list) const override {
    list("up", up_);
    list("load", load_);
    list("peer", peer_);
    list("counter", counter_);
    list("part", part_);
    list("order", order_);
    list("setting", setting_);
    list("ping", ping_);
    list("alarm", alarm_);
  }

 private:
  Kel::Attribute<bool, &Reactor::onUp> up_{*this, false};
  Kel::Attribute<int, &Reactor::onLoad> load_{*this, 0};
  Kel::Attribute<Ptr<Device>, &Reactor::onPeer> peer_{*this};
  Kel::Collection<Kel::Table, std::uint32_t, int, &Reactor::onCounter> counter_{*this};
  Parts part_{*this};
  Kel::Collection<Kel::OrderedTable, std::uint32_t, int, &Reactor::onOrder, &Reactor::onOrders,
                  Kel::Whole::Queued>
      order_{*this};
  Kel::Collection<Kel::OrderedTable, std::uint32_t, int, &Reactor::onSetting> setting_{*this};
  Kel::Notification<std::uint32_t, &Reactor::onPing> ping_{*this};
  Kel::Notification<std::uint32_t, &Reactor::onAlarm, &Reactor::onAlarmkelImmediate> alarm_{*this};
};

// What was heard, in order: "who what", such as "A counter 7".
using Heard = std::vector<std::string>;

// Writes down what it hears, then does what it was told to do `when` that happens.
class Listener final : public Kel::Follows<Device> {
 public:
  Listener(std::string name, Heard& heard) : name_(std::move(name)), heard_(heard) {}

  // Lets it do this each time it hears that.
  void when(const std::string& what, std::function<void()> then) { then_[what] = std::move(then); }

  void onUp() override { hear("up"); }
  void onLoad() override { hear("load"); }
  void onPeer() override { hear("peer"); }
  void onCounter(std::uint32_t key) override { hear("counter " + std::to_string(key)); }
  void onPart(Name name) override { hear("part " + name.text()); }
  void onPartkelImmediate() override { hear("parts"); }
  void onOrder(std::uint32_t key) override { hear("order " + std::to_string(key)); }
  void onOrders() override { hear("orders"); }
  void onSetting() override { hear("setting"); }
  void onPing(std::uint32_t key) override { hear("ping " + std::to_string(key)); }
  void onAlarm(std::uint32_t key) override { hear("alarm " + std::to_string(key)); }
  void onAlarmkelImmediate() override { hear("alarms"); }

 private:
  void hear(const std::string& what) {
    heard_.push_back(name_ + ' ' + what);
    const auto at = then_.find(what);
    if (at != then_.end()) {
      const std::function<void()> then = at->second;
      then();
    }
  }

  std::string name_;
  Heard& heard_;
  std::map<std::string, std::function<void()>> then_;
};

// What a handler throws in these tests.
struct Broken : std::runtime_error {
  Broken() : std::runtime_error("broken") {}
};

// A device, listeners on it, and what they heard.
class KelTest : public testing::Test {
 protected:
  // A listener that was bound to the device silently.
  Ptr<Listener> listener(const std::string& name) {
    auto fresh = Kel::make<Listener>(name, heard);
    fresh->hasNotificationActiveIs(false);
    fresh->notifierIs(device);
    fresh->hasNotificationActiveIs(true);
    return fresh;
  }

  static Kel::ActivityLoop& loop() { return Kel::ActivityLoop::instance(); }
  // Runs this as a handler would run.
  template <class Function>
  static void inHandler(Function&& function) {
    loop().asHandler(std::forward<Function>(function));
  }
  // What was heard since the last time this was asked.
  Heard take() { return std::exchange(heard, {}); }

  Heard heard;
  Ptr<Device> device = Kel::make<Device>();
};

}  // namespace scenario
