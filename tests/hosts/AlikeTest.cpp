// A reader in C sees each field as a controller client wrote it.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Kel/Activity.h"
#include "Table.h"
#include "Vxlan/types/HostInput.h"

namespace HostsTest {
namespace {

TEST(Alike, AHostOfTheLibraryIsTheHostInC) {
  const Name name;
  L2Rib::HostInput input({.name = name.text(), .limit = 1000});
  L2Rib::Host written;
  written.key = {Qnet::EthAddr(0x020304050607), Bridging::VlanId(4094)};
  written.lastUpdateTime = 12.5;
  written.sequence = 0x1122334455667788;
  written.moveCount = 3;
  written.hostAttr = L2Rib::HostAttr(4);
  written.learnAttr = L2Rib::LearnAttr(16);
  written.entryType = L2Rib::EntryType::Controller;
  written.flags = 6;
  written.dest = L2Rib::CiDest(L2Rib::DestType::VxlanVtep);
  written.dest.intfIs(L2Rib::InlineIntf(Qnet::IntfId("Vxlan1234567890123456")));
  written.dest.vtepAddrIs(L2Rib::CiVtepIndex::First, Qnet::IpAddr(0x0a000002));
  written.dest.vtepAddrIs(L2Rib::CiVtepIndex::Second, Qnet::IpAddr(0xc0000201));
  input.hostIs(written);
  Kel::ActivityLoop::instance().turn();

  vxlan_hosts* hosts = nullptr;
  ASSERT_EQ(vxlan_hosts_open(name.text(), nullptr, &hosts), 0) << vxlan_hosts_error();
  vxlan_host host{};
  host.size = sizeof host;
  const std::uint8_t mac[6] = {2, 3, 4, 5, 6, 7};
  ASSERT_EQ(vxlan_hosts_lookup(hosts, mac, 4094, &host), 1);
  EXPECT_EQ(std::memcmp(host.mac, mac, sizeof mac), 0);
  EXPECT_EQ(host.vlan, 4094);
  EXPECT_EQ(host.last_update_time, 12.5);
  EXPECT_EQ(host.sequence, 0x1122334455667788U);
  EXPECT_EQ(host.move_count, 3U);
  EXPECT_EQ(host.host_attr, 4U);
  EXPECT_EQ(host.learn_attr, 16U);
  EXPECT_EQ(host.entry_type, 10U);
  EXPECT_EQ(host.flags, 6U);
  EXPECT_EQ(host.dest_type, 1U);
  EXPECT_STREQ(host.intf, "Vxlan1234567890123456");
  EXPECT_EQ(host.vtep[0].family, std::uint32_t{VXLAN_HOSTS_IPV4});
  EXPECT_EQ(host.vtep[1].family, std::uint32_t{VXLAN_HOSTS_IPV4});
  const std::uint8_t first[16] = {10, 0, 0, 2};
  const std::uint8_t second[16] = {192, 0, 2, 1};
  EXPECT_EQ(std::memcmp(host.vtep[0].bytes, first, sizeof first), 0);
  EXPECT_EQ(std::memcmp(host.vtep[1].bytes, second, sizeof second), 0);
  vxlan_hosts_close(hosts);
}

TEST(Alike, TheSchemaIsTheLibrarys) {
  EXPECT_STREQ(VxlanHosts::schema, L2Rib::hostSchema);
}

}  // namespace
}  // namespace HostsTest
