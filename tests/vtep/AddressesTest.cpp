#include "agent/vtep/Addresses.h"

#include <gtest/gtest.h>

namespace Agent::Vtep::Testing {

namespace {

TEST(Addresses, MacsAndIpv4AreReadStrictlyAndWrittenCanonically) {
  EXPECT_EQ(macText(*parseMac("02:AB:cd:EF:00:09")), "02:ab:cd:ef:00:09");
  for (const char* const bad : {"", "02:ab:cd:ef:00", "02:ab:cd:ef:00:0g", "02-ab-cd-ef-00-09",
                                "02:ab:cd:ef:00:091", "+2:ab:cd:ef:00:09", "-1:ab:cd:ef:00:09"}) {
    EXPECT_FALSE(parseMac(bad)) << bad;
  }
  EXPECT_EQ(ipv4Text(*parseIpv4("10.0.255.1")), "10.0.255.1");
  for (const char* const bad : {"", "10.0.0", "10.0.0.256", "10.0.0.1.", "10.0.0.01", "2001:db8::1",
                                " 10.0.0.1", "10..0.1", "a.b.c.d"}) {
    EXPECT_FALSE(parseIpv4(bad)) << bad;
  }
  EXPECT_TRUE(canEndTunnel(*parseIpv4("10.0.0.1")));
  for (const char* const bad : {"0.0.0.0", "224.0.0.1", "255.255.255.255"}) {
    EXPECT_FALSE(canEndTunnel(*parseIpv4(bad))) << bad;
  }
  EXPECT_TRUE(isGroup(*parseMac("01:00:5e:00:00:01")));
  EXPECT_FALSE(isGroup(*parseMac("02:00:5e:00:00:01")));
}

}  // namespace

}  // namespace Agent::Vtep::Testing
