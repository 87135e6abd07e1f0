#include "Kel/TypeRegistry.h"

#include <sstream>

#include "Machines.h"

namespace {

using namespace scenario;

TEST(TypeRegistryTest, ATypeIsFoundByItsName) {
  static constexpr Kel::TypeNode base{"scenario::BaseSm"};
  static constexpr Kel::TypeNode derived{"scenario::DerivedSm", &base};
  EXPECT_EQ(Kel::typeNode("scenario::DerivedSm"), nullptr);
  EXPECT_TRUE(Kel::typeNodeIs(derived));
  EXPECT_TRUE(Kel::typeNodeIs(base));
  EXPECT_EQ(Kel::typeNode("scenario::DerivedSm"), &derived);
  EXPECT_EQ(Kel::typeNode("scenario::DerivedSm")->base, &base);
  EXPECT_EQ(Kel::typeNode("scenario::Derived"), nullptr);
}

TEST(TypeRegistryTest, TypesAreListedByNameAndEachOnce) {
  static constexpr Kel::TypeNode z{"scenario::ZSm"};
  static constexpr Kel::TypeNode a{"scenario::ASm"};
  const std::size_t before = Kel::typeNodes().size();
  Kel::typeNodeIs(z);
  Kel::typeNodeIs(a);
  Kel::typeNodeIs(a);
  const std::vector<const Kel::TypeNode*> all = Kel::typeNodes();
  EXPECT_EQ(all.size(), before + 2);
  EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](const auto* left, const auto* right) {
    return std::string_view(left->name) < right->name;
  }));
}

class PrintTreeTest : public MachineTest {
 protected:
  std::string tree() const {
    std::ostringstream stream;
    Kel::printTree(stream, *monitor);
    return stream.str();
  }
};

TEST_F(PrintTreeTest, AMachinePrintsItsPartsInTheOrderOfTheirDeclaration) {
  EXPECT_EQ(tree(),
            "scenario::MonitorSm\n"
            "  device = scenario::Device\n"
            "  spare = none\n");
}

TEST_F(PrintTreeTest, ChildrenArePrintedBelowTheirOwner) {
  const auto x = part("x");
  monitor->guardShadowIs(Name("g"), x)->countIs(3);
  monitor->guardShadowIs(Name("h"), nullptr);
  monitor->chiefShadowIs(x);
  EXPECT_EQ(tree(),
            "scenario::MonitorSm\n"
            "  device = scenario::Device\n"
            "  part[x] = followed\n"
            "  guard[g]: scenario::GuardSm\n"
            "    part = scenario::Device\n"
            "    count = 3\n"
            "  guard[h]: scenario::GuardSm\n"
            "    part = none\n"
            "    count = 0\n"
            "  chief: scenario::ChiefSm\n"
            "    part = scenario::Device\n"
            "  spare = none\n");
}

TEST_F(PrintTreeTest, InactiveMachinesAndZombiesSaySo) {
  monitor->hasNotificationActiveIs(false);
  monitor->kelDoZombieReactors(true);
  EXPECT_EQ(tree(),
            "scenario::MonitorSm (inactive) (zombie)\n"
            "  device = scenario::Device\n"
            "  spare = none\n");
}

// A base keeps the same children under its own type; they are printed where they are owned.
TEST(PrintTreeAliasTest, AnAliasNamesItsChildrenWithoutTheirInside) {
  struct LeafSm final : Kel::StateMachine {
    const Kel::TypeNode& fwkType() const override {
      static constexpr Kel::TypeNode type{"scenario::LeafSm"};
      return type;
    }
    Kel::Own<bool> flag{*this, "flag", true};
  };
  struct OwnerSm final : Kel::StateMachine {
    const Kel::TypeNode& fwkType() const override { return MonitorSm::type; }
    Kel::Children<Kel::OrderedTable, Name, LeafSm> leaves{*this, "leaf"};
    Kel::Children<Kel::OrderedTable, Name, LeafSm> same{*this, "same", Kel::Owns::Alias};
    Kel::Child<LeafSm> one{*this, "one", Kel::Owns::Alias};
  };
  const auto owner = Kel::live<OwnerSm>();
  const auto leaf = Kel::live<LeafSm>();
  owner->leaves.is(Name("l"), leaf);
  owner->same.is(Name("l"), leaf);
  owner->one.is(leaf);
  std::ostringstream stream;
  Kel::printTree(stream, *owner);
  EXPECT_EQ(stream.str(),
            "scenario::MonitorSm\n"
            "  leaf[l]: scenario::LeafSm\n"
            "    flag = true\n"
            "  same[l] = scenario::LeafSm\n"
            "  one = scenario::LeafSm\n");
}

}  // namespace
