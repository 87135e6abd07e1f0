// Machines: their inputs and per-key reactors, and how activity and zombie state spread.
#include "Kel/StateMachine.h"

#include "Machines.h"

namespace {

using namespace scenario;

using StateMachineTest = MachineTest;

// Inputs.

TEST_F(StateMachineTest, ANullInputHasNoReactor) {
  const auto blind = Kel::live<MonitorSm>(journal, nullptr);
  EXPECT_EQ(blind->deviceReactor(), nullptr);
  EXPECT_EQ(device->reactors(), 1U);  // that of the fixture's monitor alone
}

TEST_F(StateMachineTest, AnInputFollowsTheEntityItIsGiven) {
  const auto other = Kel::make<Device>();
  monitor->deviceIs(other);
  EXPECT_THAT(take(), ElementsAre("monitor up", "monitor load"));  // a live machine hears it as a change
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
  other->upIs(true);
  EXPECT_THAT(take(), ElementsAre("monitor up"));
  EXPECT_EQ(device->reactors(), 0U);
}

TEST_F(StateMachineTest, ADroppedInputCallsNothing) {
  inHandler([&] {
    device->upIs(true);
    monitor->deviceDel();
  });
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(monitor->deviceReactor(), nullptr);
  EXPECT_EQ(device->reactors(), 0U);
  monitor->deviceDel();
  monitor->deviceIs(device);
  EXPECT_THAT(take(), ElementsAre("monitor up", "monitor load"));
}

TEST_F(StateMachineTest, GivingNullDropsAnInput) {
  monitor->deviceIs(nullptr);
  EXPECT_EQ(monitor->deviceReactor(), nullptr);
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(StateMachineTest, GivingTheSameEntityAgainIsSilent) {
  monitor->deviceIs(device);
  EXPECT_THAT(take(), IsEmpty());
}

// Activity.

TEST_F(StateMachineTest, AMachineIsConstructedInactive) {
  const auto fresh = Kel::make<MonitorSm>(journal, device);
  EXPECT_FALSE(fresh->hasNotificationActive());
  EXPECT_FALSE(fresh->deviceReactor()->hasNotificationActive());
  monitor->kelDoZombieReactors(true);
  device->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(StateMachineTest, ActivityReachesReactorsAndChildren) {
  const auto x = part("x");
  const auto guard = monitor->guardShadowIs(Name("g"), x);
  const auto chief = monitor->chiefShadowIs(x);
  take();
  monitor->hasNotificationActiveIs(false);
  EXPECT_FALSE(monitor->deviceReactor()->hasNotificationActive());
  EXPECT_FALSE(monitor->parts(Name("x"))->hasNotificationActive());
  EXPECT_FALSE(guard->hasNotificationActive());
  EXPECT_FALSE(guard->reactor()->hasNotificationActive());
  EXPECT_FALSE(chief->hasNotificationActive());
  device->upIs(true);
  x->upIs(true);
  x->loadIs(1);
  EXPECT_THAT(take(), IsEmpty());
  monitor->hasNotificationActiveIs(true);
  device->upIs(false);
  x->upIs(false);
  x->loadIs(2);
  EXPECT_THAT(take(), ElementsAre("monitor up", "guard g up", "chief up", "monitor load of x"));
}

// A child that was switched off by itself stays so while its owner is only told what it is already.
TEST_F(StateMachineTest, SettingTheSameActivityAgainReachesNobody) {
  const auto guard = monitor->guardShadowIs(Name("g"), part("x"));
  guard->hasNotificationActiveIs(false);
  monitor->hasNotificationActiveIs(true);
  EXPECT_FALSE(guard->hasNotificationActive());
  monitor->hasNotificationActiveIs(false);
  monitor->hasNotificationActiveIs(true);
  EXPECT_TRUE(guard->hasNotificationActive());
}

// Zombie state.

TEST_F(StateMachineTest, ZombieStateReachesReactorsAndChildren) {
  const auto x = part("x");
  const auto guard = monitor->guardShadowIs(Name("g"), x);
  const auto chief = monitor->chiefShadowIs(x);
  take();
  inHandler([&] {
    device->upIs(true);
    x->upIs(true);
    x->loadIs(1);
    monitor->kelDoZombieReactors(true);
  });
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_TRUE(monitor->zombie());
  EXPECT_TRUE(monitor->deviceReactor()->zombie());
  EXPECT_TRUE(monitor->parts(Name("x"))->zombie());
  EXPECT_TRUE(guard->zombie());
  EXPECT_TRUE(guard->reactor()->zombie());
  EXPECT_TRUE(chief->zombie());
  monitor->kelDoZombieReactors(false);
  device->upIs(false);
  x->upIs(false);
  EXPECT_THAT(take(), ElementsAre("monitor up", "guard g up", "chief up"));
}

TEST_F(StateMachineTest, SettingTheSameZombieStateAgainReachesNobody) {
  const auto guard = monitor->guardShadowIs(Name("g"), part("x"));
  guard->kelDoZombieReactors(true);
  monitor->kelDoZombieReactors(false);
  EXPECT_TRUE(guard->zombie());
  monitor->kelDoZombieReactors(true);
  guard->kelDoZombieReactors(false);
  monitor->kelDoZombieReactors(true);
  EXPECT_FALSE(guard->zombie());
}

TEST_F(StateMachineTest, WhatAZombieIsGivenIsBornAZombie) {
  monitor->kelDoZombieReactors(true);
  const auto other = Kel::make<Device>();
  monitor->deviceDel();
  monitor->deviceIs(other);
  monitor->parts.is(Name("y"), other);
  EXPECT_TRUE(monitor->deviceReactor()->zombie());
  EXPECT_TRUE(monitor->parts(Name("y"))->zombie());
  EXPECT_THAT(take(), IsEmpty());
}

// Reactors by key.

TEST_F(StateMachineTest, ReconcilingMakesWhatIsMissingAndDropsWhatIsStale) {
  part("x");
  part("y");
  auto fresh = Kel::live<MonitorSm>(journal, device);
  EXPECT_EQ(fresh->parts.size(), 2U);
  fresh->parts.is(Name("stale"), device);
  fresh->parts.del(Name("x"));
  const MonitorSm::KelPart* y = fresh->parts(Name("y"));
  take();
  bool staleWasThere = false;
  journal.when("monitor load of x", [&] { staleWasThere = fresh->parts(Name("stale")) != nullptr; });
  fresh->handleParts();
  EXPECT_TRUE(staleWasThere);  // what is missing is made before what is stale goes
  EXPECT_EQ(fresh->parts.size(), 2U);
  EXPECT_NE(fresh->parts(Name("x")), nullptr);
  EXPECT_EQ(fresh->parts(Name("stale")), nullptr);
  EXPECT_EQ(fresh->parts(Name("y")), y);  // what was right is kept
  EXPECT_THAT(take(), ElementsAre("monitor load of x"));
}

TEST_F(StateMachineTest, APartThatGoesTakesItsReactorAlong) {
  const auto x = part("x");
  take();
  device->partDel(Name("x"));
  EXPECT_THAT(take(), ElementsAre("monitor part x"));
  EXPECT_EQ(monitor->parts(Name("x")), nullptr);
  EXPECT_EQ(x->reactors(), 0U);
  x->loadIs(1);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(StateMachineTest, AReplacedPartIsFollowedByTheSameReactor) {
  const auto x = part("x");
  const MonitorSm::KelPart* reactor = monitor->parts(Name("x"));
  const auto next = part("x");
  EXPECT_EQ(monitor->parts(Name("x")), reactor);
  EXPECT_EQ(reactor->notifier(), next.get());
  take();
  x->loadIs(1);
  EXPECT_THAT(take(), IsEmpty());
  next->loadIs(1);
  EXPECT_THAT(take(), ElementsAre("monitor load of x"));
}

TEST_F(StateMachineTest, ASilentReactorHearsOnlyWhatChangesLater) {
  monitor->quiet.is(1, device);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_TRUE(monitor->quiet(1)->hasNotificationActive());
  device->loadIs(1);
  EXPECT_THAT(take(), ElementsAre("monitor load", "monitor quiet load"));
}

TEST_F(StateMachineTest, DroppingAllReactorsUnbindsThem) {
  const auto x = part("x");
  part("y");
  take();
  inHandler([&] {
    x->loadIs(1);
    monitor->parts.delAll();
  });
  EXPECT_EQ(monitor->parts.size(), 0U);
  EXPECT_EQ(x->reactors(), 0U);
  EXPECT_THAT(take(), IsEmpty());
  monitor->parts.del(Name("x"));
}

// A collection follows the entity that the machine's input follows.

TEST_F(StateMachineTest, AnotherInputBringsItsOwnCollection) {
  part("x");
  const auto y = part("y");
  const auto other = Kel::make<Device>();
  other->partIs(Name("y"), y);
  other->partIs(Name("z"), Kel::make<Device>());
  take();
  monitor->parts.inputIs(other);
  EXPECT_EQ(monitor->deviceReactor()->notifier(), other.get());
  EXPECT_EQ(monitor->parts(Name("x")), nullptr);
  EXPECT_NE(monitor->parts(Name("y")), nullptr);
  EXPECT_NE(monitor->parts(Name("z")), nullptr);
  EXPECT_THAT(take(),
              testing::Contains("monitor load of z"));  // what a live machine binds counts as a change
}

TEST_F(StateMachineTest, WithoutAnInputNothingOfTheCollectionIsFollowed) {
  const auto x = part("x");
  monitor->parts.inputIs(nullptr);
  EXPECT_EQ(monitor->deviceReactor(), nullptr);
  EXPECT_EQ(monitor->parts.size(), 0U);
  EXPECT_EQ(x->reactors(), 0U);
  take();
  monitor->handleParts();
  monitor->handlePart(Name("x"));
  EXPECT_EQ(monitor->parts.size(), 0U);
}

TEST_F(StateMachineTest, AKeyThatIsHandledWithoutAnInputLosesItsReactor) {
  part("x");
  monitor->deviceDel();  // drops the input alone
  monitor->handleParts();
  EXPECT_EQ(monitor->parts.size(), 1U);
  monitor->handlePart(Name("x"));
  EXPECT_EQ(monitor->parts.size(), 0U);
}

// A handler of the reactor drops it while the reconciliation that made it is walking.
TEST_F(StateMachineTest, AReactorMayBeDroppedByItsOwnFirstCall) {
  part("x");
  part("y");
  monitor->parts.delAll();
  take();
  journal.when("monitor load of x", [&] { monitor->parts.del(Name("x")); });
  monitor->handleParts();
  EXPECT_THAT(take(), ElementsAre("monitor load of x", "monitor load of y"));
  EXPECT_EQ(monitor->parts.size(), 1U);
}

TEST_F(StateMachineTest, OwnAndHeldValuesReadLikeWhatTheyHold) {
  monitor->spare = device;
  EXPECT_TRUE(monitor->spare);
  EXPECT_EQ(monitor->spare->load(), 0);
  EXPECT_EQ(device->reactors(), 1U);  // held, not followed
  monitor->spare = nullptr;
  EXPECT_FALSE(monitor->spare);
}

}  // namespace
