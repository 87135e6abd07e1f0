// A table that version 0.2 wrote, kept as text: every later version reads it. What breaks this test breaks
// programs that are in use.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Table.h"

namespace HostsTest {
namespace {

// The file that the text describes: first its size, then a line for each stretch of bytes that are not zero,
// as offset and bytes in hexadecimal.
void unpack(const std::string& text, const std::string& path) {
  std::ifstream lines(text);
  std::size_t size = 0;
  lines >> size;
  std::vector<char> bytes(size);
  std::size_t at = 0;
  std::string digits;
  while (lines >> std::hex >> at >> digits) {
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      bytes.at(at + i / 2) = static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
  }
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string keptTable() {
  const std::string path =
      (std::filesystem::temp_directory_path() / ("vxlan-hosts-kept-" + std::to_string(::getpid()))).string();
  unpack(KEPT_TABLE, path);
  return path;
}

TEST(KeptTable, ATableOfTheFirstReleaseIsRead) {
  const std::string path = keptTable();
  vxlan_hosts* hosts = nullptr;
  ASSERT_EQ(vxlan_hosts_open(path.c_str(), nullptr, &hosts), 0) << vxlan_hosts_error();
  vxlan_host host{};
  for (std::uint32_t number = 1; number <= 3; ++number) {
    host.size = sizeof host;
    ASSERT_EQ(vxlan_hosts_lookup(hosts, keyOf(number).mac.data(), 10, &host), 1) << vxlan_hosts_error();
    EXPECT_EQ(host.sequence, recordOf(keyOf(number), number).sequence);
    EXPECT_EQ(host.move_count, 3 * number);
    EXPECT_EQ(host.intf, "intf" + std::to_string(number));
  }
  EXPECT_EQ(vxlan_hosts_lookup(hosts, keyOf(4).mac.data(), 10, &host), 0) << "it was deleted";
  EXPECT_EQ(vxlan_hosts_lookup(hosts, keyOf(5).mac.data(), 10, &host), 0) << "it was not published";
  vxlan_hosts_cursor cursor{};
  const auto count = [](void*, int, const vxlan_host*) { return 0; };
  EXPECT_EQ(vxlan_hosts_changes(hosts, &cursor, count, nullptr), 3);
  vxlan_hosts_close(hosts);
  std::filesystem::remove(path);
}

// An upgrade: the table keeps its seed, which is 0, and its readers find what is added.
TEST(KeptTable, ATableOfTheFirstReleaseIsAdopted) {
  const std::string path = keptTable();
  vxlan_hosts* hosts = nullptr;
  ASSERT_EQ(vxlan_hosts_open(path.c_str(), nullptr, &hosts), 0) << vxlan_hosts_error();
  {
    Writer writer(optionsOf(path));
    EXPECT_TRUE(writer.adopted());
    EXPECT_EQ(writer.size(), 3U);
    for (std::uint32_t number = 100; number < 110; ++number) {
      writer.is(keyOf(number), recordOf(keyOf(number), number));
    }
    writer.publish();
  }
  EXPECT_EQ(Memtab::Segment::forReader(path, VxlanHosts::schema, nullptr).description().seed, 0U);
  vxlan_host host{};
  for (const std::uint32_t number : {1U, 2U, 3U, 100U, 105U, 109U}) {
    host.size = sizeof host;
    ASSERT_EQ(vxlan_hosts_lookup(hosts, keyOf(number).mac.data(), 10, &host), 1) << number;
    EXPECT_EQ(host.sequence, recordOf(keyOf(number), number).sequence);
  }
  vxlan_hosts_close(hosts);
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace HostsTest
