// Attributes, collections and notifications: what is stored, who hears of it, who holds whom.
#include "Scenario.h"

namespace {

using namespace scenario;

class EntityTest : public KelTest {
 protected:
  // The printed values of one attribute of the device.
  Heard printed(const std::string& attribute) const {
    Heard lines;
    Kel::Attributes list([&](const char* name, const Kel::AttributeBase& one) {
      if (name == attribute) {
        one.each([&](const std::string& key, const std::string& value, const Kel::Entity*) {
          lines.push_back(key + '=' + value);
        });
        EXPECT_EQ(lines.size(), one.values());
      }
    });
    device->attributes(list);
    return lines;
  }
};

TEST_F(EntityTest, AScalarIsReadAsItWasWritten) {
  EXPECT_FALSE(device->up());
  device->upIs(true);
  device->loadIs(-4);
  EXPECT_TRUE(device->up());
  EXPECT_EQ(device->load(), -4);
}

TEST_F(EntityTest, WritingAScalarIsHeardOnceAndAnEqualValueIsNot) {
  const auto a = listener("A");
  device->loadIs(5);
  EXPECT_THAT(take(), ElementsAre("A load"));
  device->loadIs(5);
  EXPECT_THAT(take(), IsEmpty());
  device->loadIs(6);
  EXPECT_THAT(take(), ElementsAre("A load"));
}

TEST_F(EntityTest, TheNewValueIsThereWhenItIsHeard) {
  const auto a = listener("A");
  int seen = 0;
  a->when("load", [&] { seen = device->load(); });
  device->loadIs(5);
  EXPECT_EQ(seen, 5);
}

TEST_F(EntityTest, ACollectionTellsEachKeyThatWasAddedReplacedOrRemoved) {
  const auto a = listener("A");
  device->counterIs(7, 1);
  device->counterIs(7, 2);
  device->counterIs(8, 2);
  device->counterDel(7);
  EXPECT_THAT(take(), ElementsAre("A counter 7", "A counter 7", "A counter 8", "A counter 7"));
  EXPECT_EQ(device->counters().get(8), 2);
  EXPECT_EQ(device->counters().get(7), 0);
  EXPECT_EQ(device->counters().find(7), nullptr);
  EXPECT_EQ(device->counters().size(), 1U);
}

TEST_F(EntityTest, AnEqualValueAndAnAbsentKeyAreSilent) {
  const auto a = listener("A");
  device->counterIs(7, 1);
  take();
  device->counterIs(7, 1);
  device->counterDel(8);
  EXPECT_THAT(take(), IsEmpty());
  device->counterDel(7);
  device->counterDel(7);
  EXPECT_THAT(take(), ElementsAre("A counter 7"));
}

TEST_F(EntityTest, DeletingAllTellsTheWholeAtOnceAndThenEachKey) {
  const auto a = listener("A");
  for (const char* name : {"x", "y"}) {
    device->partIs(Name(name), Kel::make<Device>());
  }
  take();
  std::size_t left = 99;
  a->when("parts", [&] { left = device->parts().size(); });
  device->partDelAll();
  EXPECT_THAT(take(), ElementsAre("A parts", "A part x", "A part y"));
  EXPECT_EQ(left, 0U);
}

TEST_F(EntityTest, DeletingAllOfNothingIsSilent) {
  const auto a = listener("A");
  device->partDelAll();
  device->orderDelAll();
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(EntityTest, AQueuedWholeWaitsItsTurn) {
  const auto a = listener("A");
  device->orderIs(1, 1);
  take();
  inHandler([&] {
    device->upIs(true);
    device->orderDelAll();
    EXPECT_THAT(take(), IsEmpty());
  });
  EXPECT_THAT(take(), ElementsAre("A up", "A orders", "A order 1"));
}

TEST_F(EntityTest, AnImmediateWholeDoesNotWait) {
  const auto a = listener("A");
  device->partIs(Name("x"), Kel::make<Device>());
  take();
  inHandler([&] {
    device->upIs(true);
    device->partDelAll();
    EXPECT_THAT(take(), ElementsAre("A parts"));
  });
  EXPECT_THAT(take(), ElementsAre("A up", "A part x"));
}

TEST_F(EntityTest, ACollectionMayBeFollowedWithoutItsKeys) {
  const auto a = listener("A");
  device->settingIs(1, 1);
  device->settingIs(1, 1);
  device->settingIs(2, 1);
  EXPECT_THAT(take(), ElementsAre("A setting", "A setting"));
}

TEST_F(EntityTest, ANotificationAlwaysCalls) {
  const auto a = listener("A");
  device->ping(3);
  device->ping(3);
  EXPECT_THAT(take(), ElementsAre("A ping 3", "A ping 3"));
}

TEST_F(EntityTest, ANotificationOfTheWholeRunsAtOnce) {
  const auto a = listener("A");
  inHandler([&] {
    device->alarm(1);
    device->alarmAll();
    EXPECT_THAT(take(), ElementsAre("A alarms"));
  });
  EXPECT_THAT(take(), ElementsAre("A alarm 1"));
}

TEST_F(EntityTest, ListenersHearInTheOrderInWhichTheyWereBound) {
  const auto b = listener("B");
  const auto a = listener("A");
  EXPECT_EQ(device->reactors(), 2U);
  device->upIs(true);
  EXPECT_THAT(take(), ElementsAre("B up", "A up"));
}

TEST_F(EntityTest, ANullEntityIsRefusedAndChangesNothing) {
  const auto a = listener("A");
  try {
    device->partIs(Name("x"), nullptr);
    FAIL() << "a null part was accepted";
  } catch (const Kel::RangeException& error) {
    EXPECT_STREQ(error.what(), "null _part parameter to mutator for scenario::Device::part not allowed\"");
  }
  EXPECT_TRUE(device->parts().empty());
  EXPECT_THAT(take(), IsEmpty());
}

// The key may belong to the very element that goes.
TEST_F(EntityTest, AKeyMayBeGivenByTheElementItself) {
  const auto a = listener("A");
  device->partIs(Name("x"), Kel::make<Device>());
  take();
  device->partDel(device->parts().begin()->key);
  EXPECT_THAT(take(), ElementsAre("A part x"));
  EXPECT_TRUE(device->parts().empty());
}

TEST_F(EntityTest, AnEntityKnowsWhoHoldsIt) {
  const auto part = Kel::make<Device>();
  EXPECT_EQ(part->parent(), nullptr);
  device->partIs(Name("x"), part);
  EXPECT_EQ(part->parent(), device.get());
  device->partDel(Name("x"));
  EXPECT_EQ(part->parent(), nullptr);
  device->peerIs(part);
  EXPECT_EQ(part->parent(), device.get());
  device->peerIs(nullptr);
  EXPECT_EQ(part->parent(), nullptr);
}

TEST_F(EntityTest, AReplacedEntityIsHeldByNobody) {
  const auto first = Kel::make<Device>();
  const auto second = Kel::make<Device>();
  device->partIs(Name("x"), first);
  device->partIs(Name("x"), second);
  EXPECT_EQ(first->parent(), nullptr);
  EXPECT_EQ(second->parent(), device.get());
}

TEST_F(EntityTest, AnEntityThatMovedIsHeldByTheLastWhoTookIt) {
  const auto part = Kel::make<Device>();
  auto other = Kel::make<Device>();
  device->partIs(Name("x"), part);
  other->partIs(Name("y"), part);
  device->partDel(Name("x"));
  EXPECT_EQ(part->parent(), other.get());
  other = nullptr;
  EXPECT_EQ(part->parent(), nullptr);
}

TEST_F(EntityTest, EveryAttributePrintsItself) {
  device->upIs(true);
  device->counterIs(7, 70);
  device->partIs(Name("x"), Kel::make<Device>());
  EXPECT_THAT(printed("up"), ElementsAre("=true"));
  EXPECT_THAT(printed("load"), ElementsAre("=0"));
  EXPECT_THAT(printed("peer"), ElementsAre("=none"));
  EXPECT_THAT(printed("counter"), ElementsAre("7=70"));
  EXPECT_THAT(printed("part"), ElementsAre("x=scenario::Device"));
  EXPECT_THAT(printed("ping"), IsEmpty());
}

TEST_F(EntityTest, ValuesPrintAsPeopleReadThem) {
  enum class Mode { Off = 3 };
  EXPECT_EQ(Kel::printed(true), "true");
  EXPECT_EQ(Kel::printed(std::uint8_t{65}), "65");
  EXPECT_EQ(Kel::printed(Mode::Off), "3");
  EXPECT_EQ(Kel::printed(std::string("text")), "text");
  EXPECT_EQ(Kel::printed(Ptr<Device>()), "none");
}

}  // namespace
