#include <gmock/gmock.h>

#include <random>
#include <tuple>

#include "Addresses.h"
#include "agent/kernel/Mappings.h"

// Which VLAN has which VNI, where several tunnel interfaces have their say.
namespace Agent::Kernel::Test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Mapping mapping(Vni vni, const char* vti, const char* local = "10.0.0.1") {
  return {vni, vti, ip(local), {}};
}

TEST(MappingsTest, TwoInterfacesShareAVniUntilTheLastGivesItUp) {
  Mappings mappings;
  EXPECT_THAT(mappings.is(10, mapping(5010, "Vxlan1")), ElementsAre(10));
  EXPECT_THAT(mappings.is(10, mapping(5010, "Vxlan2")), ElementsAre(10));
  ASSERT_NE(mappings.find(10), nullptr);
  EXPECT_EQ(mappings.find(10)->vti, "Vxlan2");
  EXPECT_THAT(mappings.del(10, "Vxlan2"), ElementsAre(10));
  ASSERT_NE(mappings.find(10), nullptr);
  EXPECT_EQ(mappings.find(10)->vti, "Vxlan1");
  EXPECT_EQ(mappings.vlanOf(5010), 10);
  EXPECT_THAT(mappings.del(10, "Vxlan1"), ElementsAre(10));
  EXPECT_EQ(mappings.find(10), nullptr);
  EXPECT_EQ(mappings.vlanOf(5010), std::nullopt);
}

TEST(MappingsTest, AnInterfaceThatWaitsMayGoUnnoticed) {
  Mappings mappings;
  mappings.is(10, mapping(5010, "Vxlan1"));
  mappings.is(10, mapping(5010, "Vxlan2"));
  EXPECT_THAT(mappings.del(10, "Vxlan1"), IsEmpty());
  EXPECT_EQ(mappings.find(10)->vti, "Vxlan2");
}

TEST(MappingsTest, AnInterfaceThatSaysTheSameAgainDoesNotPassTheOthers) {
  Mappings mappings;
  mappings.is(10, mapping(5010, "Vxlan1"));
  mappings.is(10, mapping(5010, "Vxlan2"));
  EXPECT_THAT(mappings.is(10, mapping(5010, "Vxlan1", "10.0.0.9")), IsEmpty());
  EXPECT_EQ(mappings.find(10)->local, ip("10.0.0.1"));
  EXPECT_THAT(mappings.is(10, mapping(5010, "Vxlan2", "10.0.0.8")), ElementsAre(10));
  EXPECT_EQ(mappings.find(10)->local, ip("10.0.0.8"));
}

TEST(MappingsTest, AVniThatComesToAnotherVlanGoesBackWhenItIsWithdrawnThere) {
  Mappings mappings;
  mappings.is(10, mapping(5010, "Vxlan1"));
  EXPECT_THAT(mappings.is(20, mapping(5010, "Vxlan2")), ElementsAre(10, 20)) << "who loses comes first";
  EXPECT_EQ(mappings.find(10), nullptr);
  EXPECT_EQ(mappings.vlanOf(5010), 20);
  EXPECT_THAT(mappings.del(20, "Vxlan2"), ElementsAre(20, 10));
  EXPECT_EQ(mappings.vlanOf(5010), 10);
}

TEST(MappingsTest, ThePortsOfAMappingAreItsUsersWhileItHolds) {
  Mappings mappings;
  mappings.is(10, {5010, "Vxlan1", ip("10.0.0.1"), {"t0", "t1"}});
  mappings.is(20, {5020, "Vxlan1", ip("10.0.0.1"), {"t1"}});
  EXPECT_THAT(mappings.usersOf("t1"), ElementsAre(10, 20));
  mappings.is(10, {5010, "Vxlan1", ip("10.0.0.1"), {"t0"}});
  EXPECT_THAT(mappings.usersOf("t1"), ElementsAre(20));
  mappings.del(20, "Vxlan1");
  EXPECT_THAT(mappings.usersOf("t1"), IsEmpty());
  EXPECT_THAT(mappings.usersOf("t0"), ElementsAre(10));
}

// All claims in the order of their age, and by plain rules which of them hold.
class Model {
 public:
  void is(Vlan vlan, const std::string& vti, Vni vni) {
    for (auto& [atVlan, atVti, atVni] : claims_) {
      if (atVlan == vlan && atVti == vti && atVni == vni) {
        return;
      }
    }
    del(vlan, vti);
    claims_.emplace_back(vlan, vti, vni);
  }
  void del(Vlan vlan, const std::string& vti) {
    std::erase_if(claims_,
                  [&](const auto& claim) { return std::get<0>(claim) == vlan && std::get<1>(claim) == vti; });
  }
  std::map<Vlan, std::pair<Vni, std::string>> holding() const {
    std::map<Vlan, std::pair<Vni, std::string>> out;
    std::set<Vni> taken;
    for (auto at = claims_.rbegin(); at != claims_.rend(); ++at) {
      const auto& [vlan, vti, vni] = *at;
      if (!out.contains(vlan) && !taken.contains(vni)) {
        out[vlan] = {vni, vti};
        taken.insert(vni);
      }
    }
    return out;
  }

 private:
  std::vector<std::tuple<Vlan, std::string, Vni>> claims_;
};

class MappingsRandomTest : public ::testing::TestWithParam<unsigned> {};

TEST_P(MappingsRandomTest, HoldsWhatALookAtAllMappingsWouldHold) {
  SCOPED_TRACE("seed " + std::to_string(GetParam()));
  std::mt19937 random(GetParam());
  const auto pick = [&](unsigned below) {
    return std::uniform_int_distribution<unsigned>(0, below - 1)(random);
  };
  Mappings mappings;
  Model model;
  std::map<Vlan, std::pair<Vni, std::string>> known;
  for (int n = 0; n < 2000; ++n) {
    const Vlan vlan = static_cast<Vlan>(10 + pick(4));
    const std::string vti = "Vxlan" + std::to_string(pick(3));
    std::vector<Vlan> changed;
    if (pick(3) != 0) {
      const Vni vni = 5000 + pick(4);
      changed = mappings.is(vlan, {vni, vti, {}, {}});
      model.is(vlan, vti, vni);
    } else {
      changed = mappings.del(vlan, vti);
      model.del(vlan, vti);
    }
    const auto expected = model.holding();
    for (Vlan each = 10; each < 14; ++each) {
      const auto at = expected.find(each);
      const Mapping* held = mappings.find(each);
      ASSERT_EQ(held != nullptr, at != expected.end()) << n;
      const bool same = held == nullptr
                            ? !known.contains(each)
                            : known.contains(each) && known.at(each) == std::pair(held->vni, held->vti);
      ASSERT_EQ(same, std::find(changed.begin(), changed.end(), each) == changed.end()) << n;
      if (held != nullptr) {
        ASSERT_EQ(std::pair(held->vni, held->vti), at->second) << n;
        ASSERT_EQ(mappings.vlanOf(held->vni), each) << n;
      }
    }
    known = expected;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, MappingsRandomTest, ::testing::Range(1U, 9U));

}  // namespace
}  // namespace Agent::Kernel::Test
