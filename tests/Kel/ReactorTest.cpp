// Reactors on their own: binding, activity, zombie state.
#include "Kel/Reactor.h"

#include "Scenario.h"

namespace {

using namespace scenario;

using ReactorTest = KelTest;

TEST_F(ReactorTest, ALooseListenerFollowsNothing) {
  const auto a = Kel::make<Listener>("A", heard);
  EXPECT_EQ(a->notifier(), nullptr);
  EXPECT_EQ(a->machine(), nullptr);
  EXPECT_TRUE(a->hasNotificationActive());
  EXPECT_FALSE(a->zombie());
  a->countAsBound();
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(ReactorTest, AfterRebindingTheOldEntityCallsNothing) {
  const auto a = listener("A");
  const auto other = Kel::make<Device>();
  a->notifierIs(other);
  EXPECT_EQ(a->notifier(), other.get());
  take();
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
  other->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up"));
}

TEST_F(ReactorTest, BoundToNoneItHearsNothing) {
  const auto a = listener("A");
  a->notifierIs(nullptr);
  EXPECT_EQ(a->notifier(), nullptr);
  EXPECT_EQ(device->reactors(), 0U);
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(ReactorTest, AReactorKeepsItsEntityAlive) {
  const auto a = listener("A");
  const Device* raw = device.get();
  EXPECT_EQ(device->references(), 2U);
  device = nullptr;
  EXPECT_EQ(a->notifier(), raw);
  EXPECT_FALSE(a->notifier()->up());
}

TEST_F(ReactorTest, AnEntityForgetsAReactorThatIsDestroyed) {
  auto a = listener("A");
  a = nullptr;
  EXPECT_EQ(device->reactors(), 0U);
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(ReactorTest, SwitchedOffItHearsNothingAndLearnsNothingLater) {
  const auto a = listener("A");
  a->hasNotificationActiveIs(false);
  device->upIs(true);
  device->alarmAll();
  a->hasNotificationActiveIs(true);
  EXPECT_THAT(take(), IsEmpty());
  device->upIs(false);
  EXPECT_THAT(take(), ElementsAre("A up"));
}

TEST_F(ReactorTest, AZombieHearsNothingUntilItIsNone) {
  const auto a = listener("A");
  a->zombieIs(true);
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
  a->zombieIs(false);
  device->upIs(false);
  EXPECT_THAT(take(), ElementsAre("A up"));
}

TEST_F(ReactorTest, SettingTheSameStateAgainChangesNothing) {
  const auto a = listener("A");
  inHandler([&] {
    device->upIs(true);
    a->hasNotificationActiveIs(true);
    a->zombieIs(false);
  });
  EXPECT_THAT(take(), ElementsAre("A up"));
}

TEST_F(ReactorTest, ItCanBeToldOfAllThatItsEntityHas) {
  const auto a = listener("A");
  device->counterIs(7, 1);
  take();
  a->countAsBound();
  EXPECT_THAT(take(),
              ElementsAre("A parts", "A alarms", "A up", "A load", "A peer", "A counter 7", "A setting"));
}

// A listener that belongs to nobody lives as long as something of its own is pending.
TEST_F(ReactorTest, WhatIsPendingForADroppedReactorReachesNobody) {
  inHandler([&] {
    const auto a = listener("A");
    device->upIs(true);
    a->notifierIs(nullptr);
  });
  EXPECT_THAT(take(), IsEmpty());
}

}  // namespace
