// Addresses and interface names: strict reading, printing, order and hash.
#include <unordered_set>

#include "Refusal.h"
#include "Vxlan/types/L2RibHost.h"
#include "Vxlan/types/Qnet.h"

namespace {

using Qnet::EthAddr;
using Qnet::IntfId;
using Qnet::IpAddr;
using Qnet::IpGenAddr;

// A MAC address is read in either case and printed in lower case.
TEST(AddressesTest, AMacIsReadInEitherCaseAndPrintedInLowerCase) {
  const auto address = EthAddr::parse("02:aB:Cd:00:9f:F0");
  ASSERT_TRUE(address);
  EXPECT_EQ(address->text(), "02:ab:cd:00:9f:f0");
  EXPECT_EQ(text(*address), "02:ab:cd:00:9f:f0");
  EXPECT_EQ(address->value(), 0x02abcd009ff0U);
  EXPECT_EQ(EthAddr(std::uint64_t{0x02abcd009ff0}), *address);
  EXPECT_EQ(EthAddr(address->bytes()), *address);
  EXPECT_EQ(EthAddr().text(), "00:00:00:00:00:00");
}

// Anything that is not six pairs of hexadecimal digits with colons between them is no MAC address.
TEST(AddressesTest, AMacIsReadStrictly) {
  for (const char* bad : {"", "02:00:00:00:00", "02:00:00:00:00:01:", "02:00:00:00:00:1", "02-00-00-00-00-01",
                          "0200.0000.0001", "02:00:00:00:00:0g", "02:00:00:00:00:0G", "02:00:00:00:00:0 ",
                          " 2:00:00:00:00:01", "02:00:00:00:00:01 ", "02:00:00:00:00:0@", "02:00:00:00:00:0`",
                          "02:00:00:00:00:01:02", "+2:00:00:00:00:01", "02::0:00:00:00:01"}) {
    EXPECT_EQ(EthAddr::parse(bad), std::nullopt) << bad;
  }
}

// MAC addresses are ordered byte by byte, the first byte first.
TEST(AddressesTest, MacsAreOrderedByteByByte) {
  EXPECT_LT(EthAddr(std::uint64_t{0x010000000000}), EthAddr(std::uint64_t{0x020000000000}));
  EXPECT_LT(EthAddr(std::uint64_t{0x0100000000ff}), EthAddr(std::uint64_t{0x010000000100}));
  EXPECT_LT(EthAddr(std::uint64_t{0x7f0000000000}), EthAddr(std::uint64_t{0x800000000000}));
  std::unordered_set<std::size_t> hashes;
  for (std::uint64_t value = 0; value < 4096; ++value) {
    hashes.insert(std::hash<EthAddr>{}(EthAddr(value)));
  }
  EXPECT_EQ(hashes.size(), 4096U);
}

// An IPv4 address is four numbers, each without a zero in front.
TEST(AddressesTest, AnIpIsReadStrictly) {
  EXPECT_EQ(IpAddr::parse("10.0.0.1"), IpAddr(0x0a000001));
  EXPECT_EQ(IpAddr::parse("0.0.0.0"), IpAddr());
  EXPECT_EQ(IpAddr::parse("255.255.255.255"), IpAddr(0xffffffff));
  for (const char* bad :
       {"",          "10.0.0",    "10.0.0.",   "10.0.0.1.",         ".10.0.0.1", "10.0.0.1.2", "10.0.0.256",
        "10.0.0.01", "010.0.0.1", "10.0.0.1 ", " 10.0.0.1",         "10.0.0.+1", "10.0.0.-1",  "10..0.1",
        "10.0.0.x",  "10.0.0.1x", "1",         "10.0.0.4294967297", "::1",       "10.0.0.00"}) {
    EXPECT_EQ(IpAddr::parse(bad), std::nullopt) << bad;
  }
}

// What is printed is read back.
TEST(AddressesTest, WhatIsPrintedIsReadBack) {
  for (const std::uint32_t value : {0U, 1U, 0x0a000001U, 0x7f000001U, 0xc0a80101U, 0xffffffffU}) {
    EXPECT_EQ(IpAddr::parse(IpAddr(value).text()), IpAddr(value));
    EXPECT_EQ(text(IpAddr(value)), IpAddr(value).text());
  }
  EXPECT_EQ(IpAddr(0x0a000001).text(), "10.0.0.1");
  EXPECT_LT(IpAddr(0x0a000001), IpAddr(0x0a000002));
  EXPECT_LT(IpAddr(0x7fffffff), IpAddr(0x80000000));
}

// Addresses are equal and hashed by their value.
TEST(AddressesTest, IpsAreEqualAndHashedByTheirValue) {
  EXPECT_EQ(IpAddr(0x0a000001), IpAddr(0x0a000001));
  EXPECT_NE(IpAddr(0x0a000001), IpAddr(0x0a000101));
  std::unordered_set<std::size_t> hashes;
  for (std::uint32_t value = 0x0a000000; value < 0x0a001000; ++value) {
    hashes.insert(std::hash<IpAddr>{}(IpAddr(value)));
  }
  EXPECT_EQ(hashes.size(), 4096U);
  EXPECT_EQ(std::hash<IpAddr>{}(IpAddr(0x0a000001)), std::hash<IpAddr>{}(IpAddr(0x0a000001)));
}

// The generic address holds an IPv4 address, or nothing; nothing is not the address 0.0.0.0.
TEST(AddressesTest, TheGenericAddressHoldsAnIpOrNothing) {
  const IpGenAddr generic(IpAddr(0x0a0102ff));
  EXPECT_EQ(generic.family(), IpGenAddr::Family::V4);
  EXPECT_EQ(generic.v4(), IpAddr(0x0a0102ff));
  EXPECT_EQ(text(generic), "10.1.2.255");
  EXPECT_EQ(IpGenAddr().v4(), IpAddr());
  EXPECT_EQ(text(IpGenAddr()), "none");
  EXPECT_NE(IpGenAddr(), IpGenAddr(IpAddr()));
  EXPECT_NE(std::hash<IpGenAddr>{}(IpGenAddr()), std::hash<IpGenAddr>{}(IpGenAddr(IpAddr())));
  EXPECT_EQ(std::hash<IpGenAddr>{}(generic), std::hash<IpGenAddr>{}(IpGenAddr(IpAddr(0x0a0102ff))));
}

// Interface names are equal by their text and ordered by it; the default is no interface.
TEST(AddressesTest, InterfaceNamesAreOrderedByTheirText) {
  EXPECT_EQ(IntfId("Vxlan1"), IntfId(std::string("Vxlan") + "1"));
  EXPECT_LT(IntfId("Vxlan1"), IntfId("Vxlan2"));
  EXPECT_LT(IntfId("Vxlan10"), IntfId("Vxlan2"));
  EXPECT_LT(IntfId(), IntfId("A"));
  EXPECT_TRUE(IntfId().empty());
  EXPECT_FALSE(IntfId("Vxlan1").empty());
  EXPECT_EQ(std::hash<IntfId>{}(IntfId("Vxlan1")), std::hash<IntfId>{}(IntfId("Vxlan1")));
  EXPECT_NE(IntfId("Vxlan1"), IntfId("Vxlan2"));
  EXPECT_NE(std::hash<IntfId>{}(IntfId("Vxlan1")), std::hash<IntfId>{}(IntfId("Vxlan2")));
  EXPECT_EQ(text(IntfId("Vxlan1")), "Vxlan1");
}

// In shared memory a name has room for 23 characters; a longer one is refused with its text.
TEST(AddressesTest, AnInterfaceNameInSharedMemoryHasABoundedLength) {
  const std::string longest(23, 'x');
  EXPECT_EQ(L2Rib::InlineIntf(IntfId(longest)).text(), longest);
  EXPECT_EQ(L2Rib::InlineIntf(IntfId("Vxlan1")).text(), "Vxlan1");
  EXPECT_EQ(L2Rib::InlineIntf().text(), "");
  EXPECT_EQ(refusal([&] { L2Rib::InlineIntf(IntfId(longest + "y")); }),
            "interface name \"" + longest + "y\" is longer than 23 characters");
}

// The two slots of a destination are apart.
TEST(AddressesTest, ADestinationHasTwoSlots) {
  L2Rib::CiDest dest(L2Rib::DestType::VxlanVtep);
  dest.vtepAddrIs(L2Rib::CiVtepIndex::Second, IpGenAddr(IpAddr(1)));
  EXPECT_EQ(dest.vtepAddr(L2Rib::CiVtepIndex::First), IpGenAddr());
  EXPECT_EQ(dest.vtepAddr(L2Rib::CiVtepIndex::Second), IpGenAddr(IpAddr(1)));
  EXPECT_NE(dest, L2Rib::CiDest(L2Rib::DestType::VxlanVtep));
  EXPECT_EQ(L2Rib::CiDest().destType(), L2Rib::DestType::None);
}

// An empty host has every default that its readers expect.
TEST(AddressesTest, AnEmptyHostHasItsDefaults) {
  const L2Rib::Host host;
  EXPECT_EQ(host.moveCount, 0U);
  EXPECT_EQ(static_cast<unsigned>(host.hostAttr), 0U);
  EXPECT_EQ(static_cast<unsigned>(host.learnAttr), 16U);
  EXPECT_EQ(static_cast<unsigned>(host.entryType), 0U);
  EXPECT_EQ(host.lastUpdateTime, 0);
  EXPECT_EQ(host.sequence, 0U);
  EXPECT_EQ(host.flags, 0U);
  EXPECT_EQ(host.dest, L2Rib::CiDest());
  L2Rib::Host other;
  other.key.vlan = Bridging::VlanId(1U);
  EXPECT_NE(host, other);
}

// Keys are compared as machine words: every bit counts, and no byte behind them.
TEST(AddressesTest, MacsThatDifferInOneBitDiffer) {
  const EthAddr mac(0x0123456789abULL);
  EXPECT_EQ(mac, EthAddr(0x0123456789abULL));
  for (unsigned bit = 0; bit < 48; ++bit) {
    EXPECT_NE(mac, EthAddr(0x0123456789abULL ^ std::uint64_t{1} << bit)) << "bit " << bit;
  }
  static_assert(EthAddr(0x0123456789abULL) == EthAddr(0x0123456789abULL));
  static_assert(EthAddr(0x0123456789abULL) != EthAddr(0x0123456789aaULL));
}

TEST(AddressesTest, HostKeysThatDifferInOneBitDiffer) {
  const Bridging::MacVlanPair key{EthAddr(0x0123456789abULL), Bridging::VlanId(0x555U)};
  for (unsigned bit = 0; bit < 48; ++bit) {
    EXPECT_FALSE(
        (key == Bridging::MacVlanPair{EthAddr(0x0123456789abULL ^ std::uint64_t{1} << bit), key.vlan}));
  }
  for (unsigned bit = 0; bit < 11; ++bit) {
    EXPECT_FALSE((key == Bridging::MacVlanPair{key.mac, Bridging::VlanId(0x555U ^ 1U << bit)}))
        << "bit " << bit;
  }
  EXPECT_TRUE((key == Bridging::MacVlanPair{EthAddr(0x0123456789abULL), Bridging::VlanId(0x555U)}));
}

}  // namespace
