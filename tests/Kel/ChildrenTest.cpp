// Child machines and the shadow mutators that make them.
#include "Kel/Children.h"

#include <sstream>

#include "Machines.h"

namespace {

using namespace scenario;

class ChildrenTest : public MachineTest {
 protected:
  // The text of the name-in-use error.
  template <class Function>
  static std::string refusal(Function&& function) {
    try {
      function();
    } catch (const Kel::NameInUseException& error) {
      return error.what();
    }
    return "nothing was refused";
  }
  static std::string reinstantiation(const char* name, const void* wanted, const void* present) {
    std::ostringstream text;
    text << "Reinstantiating the pointer interface where constructor parameter attribute " << name
         << " has a different value of " << wanted << " than the current value of " << present
         << " not allowed";
    return text.str();
  }

  Ptr<Device> x = Kel::make<Device>();
  Ptr<Device> y = Kel::make<Device>();
};

TEST_F(ChildrenTest, AShadowMutatorMakesALiveChildAndKeepsIt) {
  const auto guard = monitor->guardShadowIs(Name("g"), x);
  EXPECT_TRUE(guard->hasNotificationActive());
  EXPECT_EQ(monitor->guards(Name("g")), guard);
  EXPECT_EQ(monitor->guards.size(), 1U);
  EXPECT_TRUE(monitor->guards.contains(Name("g")));
  x->upIs(true);
  EXPECT_THAT(take(), ElementsAre("guard g up"));
}

TEST_F(ChildrenTest, EqualParametersReturnTheExistingChild) {
  const auto guard = monitor->guardShadowIs(Name("g"), x);
  EXPECT_EQ(monitor->guardShadowIs(Name("g"), x), guard);
  EXPECT_EQ(monitor->guards.size(), 1U);
  const auto chief = monitor->chiefShadowIs(x);
  EXPECT_EQ(monitor->chiefShadowIs(x), chief);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(ChildrenTest, AnotherParameterIsRefusedAndTheChildStays) {
  const auto guard = monitor->guardShadowIs(Name("g"), x);
  EXPECT_EQ(refusal([&] { monitor->guardShadowIs(Name("g"), y); }),
            reinstantiation("_part", y.get(), x.get()));
  EXPECT_EQ(refusal([&] { monitor->guardShadowIs(Name("g"), nullptr); }),
            reinstantiation("_part", nullptr, x.get()));
  EXPECT_EQ(monitor->guards(Name("g")), guard);
  const auto chief = monitor->chiefShadowIs(x);
  EXPECT_EQ(refusal([&] { monitor->chiefShadowIs(y); }), reinstantiation("_part", y.get(), x.get()));
  EXPECT_EQ(monitor->chief.get(), chief);
}

TEST_F(ChildrenTest, TheFirstParameterThatDiffersIsNamed) {
  monitor->guardShadowIs(Name("g"), x);
  Journal other(heard);
  EXPECT_EQ(refusal([&] { monitor->guards.shadowIs(Name("g"), &other, y); }),
            reinstantiation("_journal", &other, &journal));
}

TEST_F(ChildrenTest, AnotherKeyIsAnotherChild) {
  const auto first = monitor->guardShadowIs(Name("g"), x);
  const auto second = monitor->guardShadowIs(Name("h"), y);
  EXPECT_NE(first, second);
  EXPECT_THAT(monitor->guards.keys(), ElementsAre(Name("g"), Name("h")));
}

TEST_F(ChildrenTest, ADroppedChildIsAZombieFirst) {
  const auto guard = monitor->guardShadowIs(Name("g"), x);
  inHandler([&] {
    x->upIs(true);
    monitor->guards.del(Name("g"));
  });
  EXPECT_TRUE(guard->zombie());
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_FALSE(monitor->guards(Name("g")));
  monitor->guards.del(Name("g"));
}

TEST_F(ChildrenTest, TheLastHolderDestroysADroppedChild) {
  monitor->guardShadowIs(Name("g"), x);
  monitor->guards.del(Name("g"));
  EXPECT_THAT(take(), ElementsAre("guard g gone"));
  EXPECT_EQ(x->reactors(), 0U);
  monitor->chiefShadowIs(x);
  monitor->chief.del();
  EXPECT_THAT(take(), ElementsAre("chief gone"));
}

TEST_F(ChildrenTest, DroppingAllLeavesNone) {
  monitor->guardShadowIs(Name("g"), x);
  monitor->guardShadowIs(Name("h"), x);
  monitor->guards.delAll();
  EXPECT_THAT(take(), ElementsAre("guard g gone", "guard h gone"));
  EXPECT_EQ(monitor->guards.size(), 0U);
}

TEST_F(ChildrenTest, ChildrenGoWithTheirOwner) {
  monitor->guardShadowIs(Name("g"), x);
  monitor->chiefShadowIs(x);
  const auto kept = monitor->guardShadowIs(Name("kept"), y);
  monitor = nullptr;
  EXPECT_THAT(take(), ElementsAre("monitor gone", "chief gone", "guard g gone"));
  EXPECT_TRUE(kept->zombie());
  y->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(ChildrenTest, AChildMayDropItselfInItsOwnCallback) {
  monitor->guardShadowIs(Name("g"), x);
  journal.when("guard g up", [&] {
    monitor->guards.del(Name("g"));
    heard.push_back("handler ends");
  });
  x->upIs(true);
  EXPECT_THAT(take(), ElementsAre("guard g up", "handler ends", "guard g gone"));
}

TEST_F(ChildrenTest, AnExistingMachineTakesThePlaceOfAnother) {
  const auto first = monitor->guardShadowIs(Name("g"), x);
  const auto second = Kel::live<GuardSm>(Name("second"), &journal, y);
  monitor->guards.is(Name("g"), second);
  EXPECT_TRUE(first->zombie());
  EXPECT_FALSE(second->zombie());
  EXPECT_EQ(monitor->guards(Name("g")), second);
  monitor->guards.is(Name("g"), second);
  EXPECT_FALSE(second->zombie());
}

TEST_F(ChildrenTest, TheOnlyChildIsReplacedTheSameWay) {
  const auto first = monitor->chiefShadowIs(x);
  const auto second = Kel::live<ChiefSm>(&journal, y);
  monitor->chief.is(second);
  EXPECT_TRUE(first->zombie());
  EXPECT_EQ(monitor->chief.get(), second);
  monitor->chief.is(second);
  EXPECT_FALSE(second->zombie());
}

TEST_F(ChildrenTest, AChildThatAZombieTakesIsAZombie) {
  monitor->kelDoZombieReactors(true);
  EXPECT_TRUE(monitor->guardShadowIs(Name("g"), x)->zombie());
  EXPECT_TRUE(monitor->chiefShadowIs(x)->zombie());
  x->upIs(true);
  EXPECT_THAT(take(), IsEmpty());
  monitor->kelDoZombieReactors(false);
  x->upIs(false);
  EXPECT_THAT(take(), ElementsAre("guard g up", "chief up"));
}

// What a shadow mutator sets off may drop the child before it returns; the caller still holds a machine.
TEST_F(ChildrenTest, AChildDroppedByItsOwnArrivalIsReturnedAsAZombie) {
  const auto a = listener("A");
  a->when("up", [&] {
    monitor->guards.delAll();
    monitor->chief.del();
  });
  Ptr<GuardSm> guard;
  inHandler([&] {
    device->upIs(true);
    guard = monitor->guardShadowIs(Name("g"), x);
  });
  EXPECT_TRUE(guard->zombie());
  EXPECT_FALSE(monitor->guards.contains(Name("g")));
}

// Its construction fails.
struct FailingSm final : Kel::StateMachine {
  static constexpr Kel::Parameters<0> parameterNames{};
  explicit FailingSm(const Name&) { throw Broken(); }
  std::array<const void*, 0> parameters() const { return {}; }
  const Kel::TypeNode& fwkType() const override { return MonitorSm::type; }
};
struct FailingOwnerSm final : Kel::StateMachine {
  const Kel::TypeNode& fwkType() const override { return MonitorSm::type; }
  Kel::Children<Kel::OrderedTable, Name, FailingSm> children{*this, "child"};
};

TEST_F(ChildrenTest, AFailedConstructionLeavesNoChild) {
  const auto owner = Kel::live<FailingOwnerSm>();
  EXPECT_THROW(owner->children.shadowIs(Name("c")), Broken);
  EXPECT_EQ(owner->children.size(), 0U);
  EXPECT_FALSE(loop().inHandler());
}

TEST_F(ChildrenTest, ChildrenAreWalkedInOrder) {
  for (const char* name : {"c", "a", "b"}) {
    monitor->guardShadowIs(Name(name), x);
  }
  std::string walked;
  for (auto&& child : monitor->guards) {
    walked += child.key.text();
    monitor->guards.del(Name("b"));
  }
  EXPECT_EQ(walked, "ac");
}

}  // namespace
