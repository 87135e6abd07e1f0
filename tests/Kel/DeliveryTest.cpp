// How changes are delivered: run to completion, in order, whatever handlers do meanwhile.
#include "Machines.h"

namespace {

using namespace scenario;

using DeliveryTest = KelTest;
using MachineDeliveryTest = MachineTest;

// Run to completion.

TEST_F(DeliveryTest, AChangeFromOutsideIsHeardBeforeTheMutatorReturns) {
  const auto a = listener("A");
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up"));
  EXPECT_TRUE(loop().idle());
}

TEST_F(DeliveryTest, AChangeFromInsideIsHeardWhenTheOutermostHandlerEnds) {
  const auto a = listener("A");
  inHandler([&] {
    device->upIs(true);
    inHandler([&] { device->loadIs(1); });
    EXPECT_THAT(heard, IsEmpty());
    EXPECT_TRUE(loop().inHandler());
  });
  EXPECT_THAT(take(), ElementsAre("A up", "A load"));
  EXPECT_FALSE(loop().inHandler());
}

TEST_F(DeliveryTest, WhatAHandlerChangesComesAfterWhatWasPending) {
  const auto a = listener("A");
  const auto b = listener("B");
  a->when("up", [&] {
    device->loadIs(1);
    heard.push_back("A done");
  });
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up", "A done", "B up", "A load", "B load"));
}

TEST_F(DeliveryTest, TheQueueIsFirstInFirstOutOverManyBlocks) {
  const auto a = listener("A");
  Heard expected;
  inHandler([&] {
    for (std::uint32_t key = 0; key < 1'000; ++key) {
      device->ping(key);
      expected.push_back("A ping " + std::to_string(key));
    }
  });
  EXPECT_EQ(take(), expected);
  EXPECT_EQ(loop().pending(), 0U);
}

// Each delivery of a long chain queues one more, so that the queue is never empty and never long.
TEST_F(DeliveryTest, ALongChainOfHandlersRunsInOneDrain) {
  const auto a = listener("A");
  a->when("load", [&] {
    if (device->load() < 5'000) {
      device->loadIs(device->load() + 1);
    }
  });
  device->loadIs(1);
  EXPECT_EQ(heard.size(), 5'000U);
}

TEST_F(DeliveryTest, AFactoryReturnsWhatIsLive) {
  Journal journal(heard);
  device->upIs(true);
  const auto seen = listener("A");
  inHandler([&] { EXPECT_TRUE(Kel::live<MonitorSm>(journal, device)->hasNotificationActive()); });
  const auto monitor = Kel::live<MonitorSm>(journal, device);
  take();
  device->upIs(false);
  EXPECT_THAT(take(), ElementsAre("A up", "monitor up"));
}

// What the work of a factory changes is heard before it returns, also by the machine itself.
TEST_F(DeliveryTest, AFactoryDrainsTheQueueAsItsLastAct) {
  Journal journal(heard);
  const auto made = loop().asHandler([&] {
    auto monitor = Kel::make<MonitorSm>(journal, device);
    device->upIs(true);
    monitor->hasNotificationActiveIs(true);
    EXPECT_THAT(heard, IsEmpty());
    return monitor;
  });
  EXPECT_THAT(take(), ElementsAre("monitor up"));
}

// Merging.

TEST_F(DeliveryTest, DeletingAndAddingAKeyFromOutsideIsHeardTwice) {
  const auto a = listener("A");
  device->counterIs(7, 1);
  std::vector<int> found;
  take();
  a->when("counter 7", [&] { found.push_back(device->counters().get(7)); });
  device->counterDel(7);
  device->counterIs(7, 1);
  EXPECT_THAT(take(), ElementsAre("A counter 7", "A counter 7"));
  EXPECT_THAT(found, ElementsAre(0, 1));
}

TEST_F(DeliveryTest, DifferentKeysAttributesAndListenersAreNeverMerged) {
  const auto a = listener("A");
  const auto b = listener("B");
  inHandler([&] {
    device->counterIs(1, 1);
    device->counterIs(2, 1);
    device->upIs(true);
  });
  EXPECT_THAT(take(),
              ElementsAre("A counter 1", "B counter 1", "A counter 2", "B counter 2", "A up", "B up"));
}

// Whatever is merged while it is pending, the last state is heard after it was written.
TEST_F(DeliveryTest, WritesInsideAHandlerAreHeardInTheirLastState) {
  const auto a = listener("A");
  int seen = 0;
  a->when("load", [&] { seen = device->load(); });
  inHandler([&] {
    device->loadIs(1);
    device->loadIs(2);
  });
  EXPECT_EQ(seen, 2);
}

// Construction and binding.

TEST_F(MachineDeliveryTest, NothingIsCalledBackDuringConstruction) {
  part("x");
  take();
  inHandler([&] {
    const auto other = Kel::make<MonitorSm>(journal, device);
    EXPECT_THAT(take(), IsEmpty());
    EXPECT_EQ(other->parts.size(), 1U);  // its constructor evaluated for itself
  });
  EXPECT_THAT(take(), ElementsAre("monitor gone"));
}

TEST_F(DeliveryTest, BindingAnActiveListenerCountsAsAChangeOfAllItFollows) {
  device->counterIs(7, 1);
  device->partIs(Name("x"), Kel::make<Device>());
  device->orderIs(3, 1);
  const auto a = Kel::make<Listener>("A", heard);
  a->notifierIs(device);
  // What is called at once comes first: the parts and the alarms as a whole; the ping has no value to tell.
  EXPECT_THAT(take(), ElementsAre("A parts", "A alarms", "A up", "A load", "A peer", "A counter 7",
                                  "A order 3", "A setting"));
}

TEST_F(DeliveryTest, BindingToTheSameEntityAgainIsSilent) {
  const auto a = listener("A");
  a->notifierIs(device);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(device->reactors(), 1U);
}

TEST_F(DeliveryTest, BindingAnInactiveListenerIsSilent) {
  const auto a = Kel::make<Listener>("A", heard);
  a->hasNotificationActiveIs(false);
  a->notifierIs(device);
  a->hasNotificationActiveIs(true);
  EXPECT_THAT(take(), IsEmpty());
}

// The second entity counts for itself; of the first nothing more is told.
TEST_F(DeliveryTest, AListenerMayBindElsewhereWhileItIsBeingBound) {
  device->counterIs(7, 1);
  const auto other = Kel::make<Device>();
  other->counterIs(8, 1);
  const auto a = Kel::make<Listener>("A", heard);
  a->when("parts", [&] { a->notifierIs(other); });
  a->notifierIs(device);
  EXPECT_THAT(take(), ElementsAre("A parts", "A parts", "A alarms", "A up", "A load", "A peer", "A counter 8",
                                  "A setting"));
}

TEST_F(MachineDeliveryTest, AReactorMadeInALiveMachineCountsAsBound) {
  part("x");
  EXPECT_THAT(take(), ElementsAre("monitor part x", "monitor load of x"));
}

// Reactors come and go.

TEST_F(DeliveryTest, AListenerAddedDuringADispatchDoesNotHearThatChange) {
  const auto a = listener("A");
  Ptr<Listener> late;
  a->when("up", [&] { late = listener("late"); });
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up"));
  device->upIs(false);
  EXPECT_THAT(take(), ElementsAre("A up", "late up"));
}

TEST_F(DeliveryTest, AListenerRemovedDuringADispatchHearsNoMore) {
  const auto a = listener("A");
  auto b = listener("B");
  a->when("up", [&] {
    b->notifierIs(nullptr);
    b = nullptr;
  });
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up"));
  EXPECT_EQ(device->reactors(), 1U);
}

TEST_F(DeliveryTest, AListenerMayDropItselfWhileItHears) {
  auto a = listener("A");
  a->when("up", [&] {
    a = nullptr;
    heard.push_back("still here");
  });
  device->upIs(true);
  device->upIs(false);
  EXPECT_THAT(take(), ElementsAre("A up", "still here"));
}

TEST_F(DeliveryTest, AnUnboundListenerIsNotCalledAtOnceEither) {
  const auto a = listener("A");
  const auto b = listener("B");
  a->when("alarms", [&] { b->notifierIs(nullptr); });
  device->alarmAll();
  EXPECT_THAT(take(), ElementsAre("A alarms"));
}

TEST_F(DeliveryTest, ActivityIsTestedAtDelivery) {
  const auto a = listener("A");
  inHandler([&] {
    device->upIs(true);
    a->hasNotificationActiveIs(false);
  });
  EXPECT_THAT(take(), IsEmpty());
  a->hasNotificationActiveIs(true);
  EXPECT_THAT(take(), IsEmpty());  // what was dropped stays dropped
  a->hasNotificationActiveIs(false);
  inHandler([&] {
    device->upIs(false);
    a->hasNotificationActiveIs(true);
  });
  EXPECT_THAT(take(), ElementsAre("A up"));
}

TEST_F(DeliveryTest, ZombieStateIsTestedAtDelivery) {
  const auto a = listener("A");
  inHandler([&] {
    device->upIs(true);
    a->zombieIs(true);
  });
  device->alarmAll();
  EXPECT_THAT(take(), IsEmpty());
  inHandler([&] {
    device->upIs(false);
    a->zombieIs(false);
  });
  EXPECT_THAT(take(), ElementsAre("A up"));
}

TEST_F(DeliveryTest, WhatAnEarlierBindingQueuedIsDropped) {
  const auto a = listener("A");
  const auto other = Kel::make<Device>();
  inHandler([&] {
    device->counterIs(7, 1);
    a->notifierIs(other);
  });
  EXPECT_THAT(take(), ElementsAre("A parts", "A alarms", "A up", "A load", "A peer", "A setting"));
}

TEST_F(MachineDeliveryTest, AMachineMayBeDestroyedInsideItsOwnCallback) {
  journal.when("monitor up", [&] {
    monitor->kelDoZombieReactors(true);
    monitor = nullptr;
    heard.push_back("handler ends");
  });
  inHandler([&] {
    device->upIs(true);
    device->loadIs(1);
  });
  EXPECT_THAT(take(), ElementsAre("monitor up", "handler ends", "monitor gone"));
  device->upIs(false);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(device->reactors(), 0U);
}

TEST_F(MachineDeliveryTest, AMachineMayBeDestroyedInsideACallOfTheWhole) {
  part("x");
  take();
  journal.when("monitor part x", [&] { monitor = nullptr; });
  device->partDelAll();
  EXPECT_THAT(take(), ElementsAre("monitor part x", "monitor gone"));
}

// A machine that nobody marked as a zombie, dropped outside any handler, is gone all the same.
TEST_F(MachineDeliveryTest, AMachineMayBeDroppedAtAnyTime) {
  part("x");
  take();
  monitor = nullptr;
  EXPECT_THAT(take(), ElementsAre("monitor gone"));
  EXPECT_EQ(device->reactors(), 0U);
}

// Errors.

TEST_F(DeliveryTest, AnErrorLeavesThroughTheWriterAndTheRestIsDeliveredLater) {
  const auto a = listener("A");
  const auto b = listener("B");
  a->when("up", [] { throw Broken(); });
  EXPECT_THROW(device->upIs(true), Broken);
  EXPECT_TRUE(device->up());
  EXPECT_THAT(take(), ElementsAre("A up"));
  EXPECT_FALSE(loop().inHandler());
  EXPECT_EQ(loop().pending(), 1U);
  device->loadIs(1);
  EXPECT_THAT(take(), ElementsAre("B up", "A load", "B load"));
}

TEST_F(DeliveryTest, AnErrorLeavesThroughWhoRunsTheLoop) {
  const auto a = listener("A");
  const auto b = listener("B");
  a->when("ping 1", [] { throw Broken(); });
  EXPECT_THROW(inHandler([&] {
                 device->ping(1);
                 throw std::logic_error("before anything is delivered");
               }),
               std::logic_error);
  EXPECT_EQ(loop().pending(), 2U);
  EXPECT_THROW(loop().turn(), Broken);
  EXPECT_TRUE(loop().turn());
  EXPECT_THAT(take(), ElementsAre("A ping 1", "B ping 1"));
  EXPECT_TRUE(loop().idle());
}

TEST_F(DeliveryTest, AnErrorInACallOfTheWholeLosesNoKey) {
  const auto a = listener("A");
  device->partIs(Name("x"), Kel::make<Device>());
  take();
  a->when("parts", [] { throw Broken(); });
  EXPECT_THROW(device->partDelAll(), Broken);
  EXPECT_TRUE(device->parts().empty());
  loop().runUntilIdle();
  EXPECT_THAT(take(), ElementsAre("A parts", "A part x"));
}

TEST_F(DeliveryTest, AnErrorDuringBindingLosesNoAttribute) {
  const auto a = Kel::make<Listener>("A", heard);
  a->when("parts", [] { throw Broken(); });
  EXPECT_THROW(a->notifierIs(device), Broken);
  EXPECT_EQ(a->notifier(), device.get());
  loop().runUntilIdle();
  EXPECT_THAT(take(), ElementsAre("A parts", "A up", "A load", "A peer", "A setting"));
}

TEST_F(MachineDeliveryTest, AFactoryThatFailsLeavesNothingBehind) {
  struct FailingSm final : Kel::StateMachine {
    FailingSm(Journal& journal, const Ptr<const Device>& device)
        : inner_(Kel::live<MonitorSm>(journal, device)) {
      throw Broken();
    }
    const Kel::TypeNode& fwkType() const override { return MonitorSm::type; }
    Ptr<MonitorSm> inner_;
  };
  const std::size_t before = device->reactors();
  EXPECT_THROW(Kel::live<FailingSm>(journal, device), Broken);
  EXPECT_EQ(device->reactors(), before);
  EXPECT_FALSE(loop().inHandler());
}

// Walks.

TEST_F(DeliveryTest, AHandlerMayChangeTheCollectionThatIsBeingWalked) {
  for (std::uint32_t key = 0; key < 50; ++key) {
    device->counterIs(key, 1);
  }
  const auto a = listener("A");
  a->when("counter 7", [&] {
    device->counterDel(8);
    device->counterIs(9, 2);
  });
  std::vector<std::uint32_t> met;
  for (auto&& pair : device->counters()) {
    const std::uint32_t key = pair.key;
    met.push_back(key);
    if (key < 10) {
      device->counterDel(key);
    }
  }
  EXPECT_EQ(met.size(), 49U);
  EXPECT_THAT(met, testing::Not(testing::Contains(8U)));
  EXPECT_EQ(device->counters().size(), 40U);
}

TEST_F(DeliveryTest, AWalkIsResumedFromAKey) {
  for (std::uint32_t key = 0; key < 50; ++key) {
    device->counterIs(key, 1);
  }
  const std::uint32_t bookmark = 30;
  device->counterDel(12);
  device->counterIs(40, 2);
  int met = 0;
  for (auto at = device->counters().at(bookmark); at; ++at) {
    EXPECT_GE(at->key, bookmark);
    ++met;
  }
  EXPECT_EQ(met, 20);
}

// The end of a turn.

class TurnEndTest : public KelTest {
 protected:
  TurnEndTest() {
    loop().atTurnEnd([](void* self) { static_cast<TurnEndTest*>(self)->heard.emplace_back("published"); },
                     this);
  }
  ~TurnEndTest() override { loop().forgetTurnEnd(this); }
};

TEST_F(TurnEndTest, WhatATurnWroteIsPublishedWhenAllIsDelivered) {
  const auto a = listener("A");
  a->when("load", [] { Kel::ActivityLoop::instance().turnHasWritten(); });
  a->when("up", [&] {
    loop().turnHasWritten();
    device->loadIs(1);
  });
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up", "A load", "published"));
}

TEST_F(TurnEndTest, ATurnThatWroteNothingPublishesNothing) {
  const auto a = listener("A");
  device->upIs(true);
  loop().turn();
  EXPECT_THAT(take(), ElementsAre("A up"));
}

// Also when its first handler caused more: that comes from the queue.
TEST_F(TurnEndTest, AQueueThatWroteNothingPublishesNothing) {
  const auto a = listener("A");
  a->when("up", [&] { device->loadIs(1); });
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("A up", "A load"));
}

TEST_F(TurnEndTest, WhatIsWrittenOutsideAnyHandlerIsPublishedAtOnce) {
  loop().turnHasWritten();
  EXPECT_THAT(take(), ElementsAre("published"));
}

TEST_F(TurnEndTest, WhoForgotTheEndIsNotCalledAnyMore) {
  struct Once {
    Heard& heard;
    static void atEnd(void* self) {
      static_cast<Once*>(self)->heard.emplace_back("once");
      Kel::ActivityLoop::instance().forgetTurnEnd(self);
    }
  };
  Once first{heard};
  Once second{heard};
  loop().atTurnEnd(&Once::atEnd, &first);
  loop().atTurnEnd(&Once::atEnd, &second);
  loop().turnHasWritten();
  EXPECT_THAT(take(), ElementsAre("published", "once", "once"));
  loop().turnHasWritten();
  EXPECT_THAT(take(), ElementsAre("published"));
}

TEST_F(TurnEndTest, AfterAnErrorItIsPublishedWithTheRest) {
  const auto a = listener("A");
  const auto b = listener("B");
  a->when("up", [&] {
    loop().turnHasWritten();
    throw Broken();
  });
  EXPECT_THROW(device->upIs(true), Broken);
  EXPECT_THAT(take(), ElementsAre("A up"));
  loop().turn();
  EXPECT_THAT(take(), ElementsAre("B up", "published"));
}

}  // namespace
