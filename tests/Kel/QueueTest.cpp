// What takes a place in the queue of notifications, and what does not.
#include <gmock/gmock.h>

#include <string>

#include "Kel/Entity.h"
#include "Kel/Overrides.h"

namespace {

using Kel::ActivityLoop;
using Kel::Ptr;

class Lamp final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onLit() {}
    virtual void onColour() {}
    virtual void onShade(std::uint32_t) {}
    virtual void onShade() {}
  };

 private:
  static constexpr void (Reactor::*onShadeKey)(std::uint32_t) = &Reactor::onShade;
  static constexpr void (Reactor::*onShadeWhole)() = &Reactor::onShade;

 public:
  void litIs(bool lit) { lit_ = lit; }
  void colourIs(int colour) { colour_ = colour; }
  void shadeIs(std::uint32_t key, int shade) { shade_.is(key, shade); }
  void shadeDelAll() { shade_.delAll(); }
  const char* typeName() const override { return "Lamp"; }
  void attributes(Kel::Attributes& list) const override {
    list("lit", lit_);
    list("colour", colour_);
    list("shade", shade_);
  }

 private:
  Kel::Attribute<bool, &Reactor::onLit> lit_{*this, false};
  Kel::Attribute<int, &Reactor::onColour> colour_{*this, 0};
  Kel::Collection<Kel::Table, std::uint32_t, int, onShadeKey, onShadeWhole, Kel::Whole::Queued> shade_{*this};
};

struct Lit : Kel::Follows<Lamp> {
  void onLit() override { heard += "lit "; }
  std::string heard;
};
struct LitAndMore final : Lit {
  void onColour() override { heard += "colour "; }
};
// Overrides one of two callbacks of one name, and hides the other.
struct Shade final : Kel::Follows<Lamp> {
  using Lamp::Reactor::onShade;
  void onShade(std::uint32_t key) override { heard += "shade " + std::to_string(key) + ' '; }
  std::string heard;
};

// How many places in the queue the function takes, inside a handler.
template <class Function>
std::uint64_t queuedBy(Function function) {
  ActivityLoop& loop = ActivityLoop::instance();
  std::uint64_t queued = 0;
  loop.asHandler([&] {
    const std::uint64_t before = loop.pending();
    function();
    queued = loop.pending() - before;
  });
  return queued;
}

TEST(QueueTest, ACallbackThatTheReactorsClassLeavesAsItIsTakesNoPlace) {
  const auto lamp = Kel::make<Lamp>();
  const auto lit = Kel::make<Lit>();
  lit->notifierIs(lamp);
  lit->heard.clear();
  EXPECT_EQ(queuedBy([&] { lamp->colourIs(1); }), 0U);
  EXPECT_EQ(queuedBy([&] { lamp->shadeIs(1, 1); }), 0U);
  EXPECT_EQ(queuedBy([&] { lamp->shadeDelAll(); }), 0U);
  EXPECT_EQ(queuedBy([&] { lamp->litIs(true); }), 1U);
  EXPECT_EQ(lit->heard, "lit ");
}

// It counts as delivered to those that listen: programs tell by that count whether anything changed.
TEST(QueueTest, WhatTakesNoPlaceCountsAsDelivered) {
  const auto lamp = Kel::make<Lamp>();
  const auto one = Kel::make<Lit>();
  const auto other = Kel::make<Lit>();
  one->notifierIs(lamp);
  other->notifierIs(lamp);
  const auto deliveredBy = [&](int colour) {
    const std::uint64_t before = ActivityLoop::instance().delivered();
    lamp->colourIs(colour);
    return ActivityLoop::instance().delivered() - before;
  };
  EXPECT_EQ(deliveredBy(1), 2U);
  other->hasNotificationActiveIs(false);
  EXPECT_EQ(deliveredBy(2), 1U);
  other->notifierIs(nullptr);
  EXPECT_EQ(deliveredBy(3), 1U);
}

TEST(QueueTest, AClassThatInheritsACallbackHearsIt) {
  const auto lamp = Kel::make<Lamp>();
  const auto both = Kel::make<LitAndMore>();
  both->notifierIs(lamp);
  both->heard.clear();
  EXPECT_EQ(queuedBy([&] {
              lamp->colourIs(1);
              lamp->litIs(true);
            }),
            2U);
  EXPECT_EQ(both->heard, "colour lit ");
}

TEST(QueueTest, OfTwoCallbacksOfOneNameOnlyTheOverriddenOneTakesAPlace) {
  const auto lamp = Kel::make<Lamp>();
  const auto shade = Kel::make<Shade>();
  shade->notifierIs(lamp);
  shade->heard.clear();
  EXPECT_EQ(queuedBy([&] { lamp->shadeIs(3, 1); }), 1U);
  EXPECT_EQ(queuedBy([&] { lamp->shadeDelAll(); }), 1U);
  EXPECT_EQ(shade->heard, "shade 3 shade 3 ");
}

TEST(QueueTest, EachOfSeveralFollowersIsJudgedByItsOwnClass) {
  const auto lamp = Kel::make<Lamp>();
  const auto lit = Kel::make<Lit>();
  const auto both = Kel::make<LitAndMore>();
  lit->notifierIs(lamp);
  both->notifierIs(lamp);
  both->heard.clear();
  EXPECT_EQ(queuedBy([&] { lamp->colourIs(2); }), 1U);
  EXPECT_EQ(both->heard, "colour ");
}

// Outside of handlers the only follower is called without a stop in the queue, unless something waits there.
TEST(QueueTest, TheOnlyFollowerComesBehindWhatWaits) {
  struct Throws final : Kel::Follows<Lamp> {
    void onLit() override {
      if (other != nullptr) {
        other->colourIs(7);
        other = nullptr;
        throw std::runtime_error("broken");
      }
    }
    Lamp* other = nullptr;
  };
  const auto first = Kel::make<Lamp>();
  const auto second = Kel::make<Lamp>();
  const auto both = Kel::make<LitAndMore>();
  const auto throws = Kel::make<Throws>();
  both->notifierIs(second);
  throws->notifierIs(first);
  throws->other = second.get();
  both->heard.clear();
  EXPECT_THROW(first->litIs(true), std::runtime_error);
  EXPECT_EQ(ActivityLoop::instance().pending(), 1U);
  second->litIs(true);
  EXPECT_EQ(both->heard, "colour lit ");
}

TEST(QueueTest, TheOnlyFollowerHearsNothingWhileItIsInactiveOrAZombie) {
  const auto lamp = Kel::make<Lamp>();
  const auto lit = Kel::make<Lit>();
  lit->notifierIs(lamp);
  lit->heard.clear();
  lit->hasNotificationActiveIs(false);
  lamp->litIs(true);
  lit->hasNotificationActiveIs(true);
  lit->zombieIs(true);
  lamp->litIs(false);
  EXPECT_EQ(lit->heard, "");
  lit->zombieIs(false);
  lamp->litIs(true);
  EXPECT_EQ(lit->heard, "lit ");
}

// The chain of followers, no matter which of them leaves it.
TEST(QueueTest, FollowersAreCalledInTheOrderOfTheirBindingWhoeverLeaves) {
  struct Named final : Kel::Follows<Lamp> {
    Named(std::string& heard, char name) : all(heard), letter(name) {}
    void onLit() override { all += letter; }
    std::string& all;
    char letter;
  };
  std::string heard;
  const auto lamp = Kel::make<Lamp>();
  std::vector<Ptr<Named>> named;
  for (const char letter : {'a', 'b', 'c', 'd', 'e'}) {
    named.push_back(Kel::make<Named>(heard, letter));
    named.back()->notifierIs(lamp);
  }
  bool lit = false;
  const auto order = [&] {
    heard.clear();
    lamp->litIs(lit = !lit);
    return heard;
  };
  EXPECT_EQ(order(), "abcde");
  named[2]->notifierIs(nullptr);
  EXPECT_EQ(order(), "abde");
  named[0]->notifierIs(nullptr);
  named[4]->notifierIs(nullptr);
  EXPECT_EQ(order(), "bd");
  named[2]->notifierIs(lamp);
  EXPECT_EQ(order(), "bdc");
  named.erase(named.begin() + 1);
  EXPECT_EQ(order(), "dc");
  EXPECT_EQ(lamp->reactors(), 2U);
}

}  // namespace
