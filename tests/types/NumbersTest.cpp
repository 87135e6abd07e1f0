// VNIs and VLANs: their limits, their text, their order and hash.
#include <set>
#include <unordered_set>

#include "Refusal.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Decimal.h"
#include "Vxlan/types/Vni.h"

namespace {

using Bridging::MacVlanPair;
using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Vxlan::VniExt;
using Vxlan::VniExtOrNone;

// A VNI is any 32-bit value but all ones.
TEST(NumbersTest, AVniIsAnyValueButAllOnes) {
  EXPECT_EQ(VniExt(0U).value(), 0U);
  EXPECT_EQ(VniExt(4294967294U).value(), 4294967294U);
  EXPECT_EQ(VniExt().value(), 0U);
  EXPECT_EQ(VniExt::min, 0U);
  EXPECT_EQ(VniExt::max, 4294967294U);
  const std::string text = "VniExt::value < VniExt::min or > VniExt::max not allowed";
  EXPECT_EQ(refusal([] { VniExt(4294967295U); }), text);
  EXPECT_EQ(refusal([] { VniExt(VniExtOrNone{}); }), text);
  EXPECT_EQ(VniExt(VniExtOrNone(10010U)), VniExt(10010U));
}

// No VNI is all ones, and says so.
TEST(NumbersTest, NoVniIsAllOnes) {
  EXPECT_EQ(VniExtOrNone().value(), 4294967295U);
  EXPECT_FALSE(VniExtOrNone());
  EXPECT_TRUE(VniExtOrNone(0U));
  EXPECT_EQ(text(VniExtOrNone()), "none");
  EXPECT_EQ(text(VniExtOrNone(5U)), "5");
  EXPECT_EQ(text(VniExt(10010U)), "10010");
}

// VLANs are 1 to 4094.
TEST(NumbersTest, AVlanIs1To4094) {
  EXPECT_EQ(VlanId(1U).value(), 1U);
  EXPECT_EQ(VlanId(4094U).value(), 4094U);
  const std::string text = "VlanId::value < 1 or > 4094 not allowed";
  for (const std::uint32_t bad : {0U, 4095U, 4096U, 65536U, 65537U, 4294967295U}) {
    EXPECT_EQ(refusal([&] { VlanId{bad}; }), text) << bad;
  }
  EXPECT_EQ(refusal([] { VlanId(VlanIdOrNone{}); }), text);
  EXPECT_EQ(VlanId(VlanIdOrNone(10U)), VlanId(10U));
}

// A VLAN or none is 0 to 4094.
TEST(NumbersTest, AVlanOrNoneIs0To4094) {
  EXPECT_FALSE(VlanIdOrNone(0U));
  EXPECT_FALSE(VlanIdOrNone());
  EXPECT_TRUE(VlanIdOrNone(1U));
  EXPECT_EQ(VlanIdOrNone(4094U).value(), 4094U);
  for (const std::uint32_t bad : {4095U, 65536U, 65537U, 4294967295U}) {
    EXPECT_EQ(refusal([&] { VlanIdOrNone{bad}; }), "VlanIdOrNone::value > 4094 not allowed") << bad;
  }
}

// A VLAN is read from its decimal digits alone: no sign, no zero in front, no blank, nothing behind.
TEST(NumbersTest, AVlanIsReadStrictly) {
  EXPECT_EQ(VlanId::parse("1"), VlanId(1U));
  EXPECT_EQ(VlanId::parse("4094"), VlanId(4094U));
  for (const char* bad : {"", "0", "4095", "010", "00", " 10", "10 ", "+10", "-1", "10x", "x", "1.0", "0x10",
                          "1e1", "65537", "4294967306", "99999999999999999999"}) {
    EXPECT_EQ(VlanId::parse(bad), std::nullopt) << bad;
  }
}

// So is any number, up to what the caller allows.
TEST(NumbersTest, ANumberIsReadStrictly) {
  EXPECT_EQ(Qnet::parseDecimal("0", 10), 0U);
  EXPECT_EQ(Qnet::parseDecimal("10", 10), 10U);
  EXPECT_EQ(Qnet::parseDecimal("11", 10), std::nullopt);
  EXPECT_EQ(Qnet::parseDecimal("4294967295", UINT32_MAX), UINT32_MAX);
  EXPECT_EQ(Qnet::parseDecimal("4294967296", UINT32_MAX), std::nullopt);
  EXPECT_EQ(Qnet::parseDecimal("00", 10), std::nullopt);
  EXPECT_EQ(Qnet::parseDecimal(std::string_view("1\0", 2), 10), std::nullopt);
}

// A host key is a MAC and a VLAN; it is equal, ordered and hashed over both.
TEST(NumbersTest, AHostKeyIsAMacAndAVlan) {
  const auto key = [](std::uint64_t mac, std::uint32_t vlan) {
    return MacVlanPair{Qnet::EthAddr(mac), VlanId(vlan)};
  };
  EXPECT_EQ(key(1, 10), key(1, 10));
  EXPECT_NE(key(1, 10), key(2, 10));
  EXPECT_NE(key(1, 10), key(1, 20));
  EXPECT_LT(key(1, 20), key(2, 10));
  EXPECT_LT(key(1, 10), key(1, 20));
  EXPECT_EQ(MacVlanPair().mac, Qnet::EthAddr());
  EXPECT_EQ(MacVlanPair().vlan.value(), 0U);
  EXPECT_EQ(text(key(0x020000000001, 10)), "02:00:00:00:00:01:10");
  std::unordered_set<std::size_t> hashes;
  for (std::uint32_t mac = 0; mac < 64; ++mac) {
    for (std::uint32_t vlan = 1; vlan <= 64; ++vlan) {
      hashes.insert(std::hash<MacVlanPair>{}(key(mac, vlan)));
    }
  }
  EXPECT_EQ(hashes.size(), 64U * 64U);
}

// A VNI is hashed by the reversal of its bits, so that neighbours lie far apart.
TEST(NumbersTest, AVniIsHashedByItsBitsReversed) {
  EXPECT_EQ(std::hash<VniExt>{}(VniExt(1U)), 0x80000000U);
  EXPECT_EQ(std::hash<VniExt>{}(VniExt(2U)), 0x40000000U);
  EXPECT_EQ(std::hash<VniExt>{}(VniExt(0x80000000U)), 1U);
  EXPECT_EQ(std::hash<VniExt>{}(VniExt(0x12345678U)), 0x1e6a2c48U);
}

// VLANs and VNIs are as wide as their numbers, and ordered by them; VLANs are hashed by them too.
TEST(NumbersTest, VlansAndVnisAreOrderedByTheirNumbers) {
  static_assert(sizeof(VlanId) == 2 && sizeof(VlanIdOrNone) == 2 && sizeof(VniExt) == 4);
  EXPECT_LT(VlanId(9U), VlanId(10U));
  EXPECT_LT(VlanIdOrNone(), VlanIdOrNone(1U));
  EXPECT_LT(VniExt(9U), VniExt(10U));
  std::unordered_set<VlanId> vlans;
  std::unordered_set<VlanIdOrNone> vlansOrNone{VlanIdOrNone()};
  std::set<std::size_t> hashes;
  for (std::uint32_t number = 1; number <= 4094; ++number) {
    vlans.insert(VlanId(number));
    vlansOrNone.insert(VlanIdOrNone(number));
    hashes.insert(std::hash<VlanId>{}(VlanId(number)));
  }
  EXPECT_EQ(vlans.size(), 4094U);
  EXPECT_TRUE(vlans.contains(VlanId(4094U)));
  EXPECT_EQ(vlansOrNone.size(), 4095U);
  EXPECT_EQ(hashes.size(), 4094U);
}

// What a VLAN is mapped to: the default is the empty pair, which is no VNI.
TEST(NumbersTest, TheEmptyPairIsNoVni) {
  const Vxlan::VniSourcePair empty;
  EXPECT_FALSE(empty.vni);
  const Vxlan::VniSourcePair pair{VniExtOrNone(10010U), Vxlan::VniSource::Configuration};
  EXPECT_NE(pair, empty);
  EXPECT_NE(pair, (Vxlan::VniSourcePair{VniExtOrNone(10010U), Vxlan::VniSource::None}));
  EXPECT_EQ(pair, (Vxlan::VniSourcePair{VniExtOrNone(10010U), Vxlan::VniSource::Configuration}));
  const std::unordered_set<Vxlan::VniSourcePair> pairs{
      empty, pair, pair, {VniExtOrNone(10010U), Vxlan::VniSource::None}, {VniExtOrNone(10020U)}};
  EXPECT_EQ(pairs.size(), 4U);
  EXPECT_EQ(text(pair), "10010");
}

}  // namespace
