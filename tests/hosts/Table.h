// A table of hosts for a test, and hosts that give themselves away when they were never written whole.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "Memtab/Writer.h"
#include "Vxlan/hosts/Record.h"

namespace HostsTest {

using VxlanHosts::Key;
using VxlanHosts::Record;
using Writer = Memtab::Writer<Key, Record>;

// Tables that others may write to are refused.
inline const mode_t umaskBefore = ::umask(022);

// A name nobody else has, and no table left under it afterwards.
class Name {
 public:
  Name() : text_("/vxlan-hosts-test-" + std::to_string(::getpid()) + "-" + std::to_string(count++)) {}
  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;
  ~Name() { Memtab::remove(text_); }
  const char* text() const { return text_.c_str(); }

 private:
  static inline int count = 0;
  std::string text_;
};

inline Memtab::Options optionsOf(const std::string& name, std::size_t limit = 100'000,
                                 std::size_t changes = 0) {
  Memtab::Options options;
  options.name = name;
  options.schema = VxlanHosts::schema;
  options.limit = limit;
  options.changes = changes;
  return options;
}

inline Key keyOf(std::uint32_t number, std::uint16_t vlan = 10) {
  return {{2, 0, static_cast<std::uint8_t>(number >> 24U), static_cast<std::uint8_t>(number >> 16U),
           static_cast<std::uint8_t>(number >> 8U), static_cast<std::uint8_t>(number)},
          vlan};
}

// Of everything in a host but the sum itself, which is kept as its sequence.
inline std::uint64_t sumOf(const Key& key, const Record& record) {
  std::uint64_t sum = 1;
  const auto add = [&](std::uint64_t word) { sum = sum * 0x9e37'79b9'7f4a'7c15U + word; };
  for (const std::uint8_t byte : key.mac) {
    add(byte);
  }
  add(key.vlan);
  add(static_cast<std::uint64_t>(record.lastUpdateTime));
  for (const std::uint32_t word : {record.moveCount, record.hostAttr, record.learnAttr, record.entryType,
                                   record.flags, record.destType}) {
    add(word);
  }
  for (const char letter : record.intf) {
    add(static_cast<std::uint8_t>(letter));
  }
  for (const VxlanHosts::Address& address : record.vtep) {
    add(address.family);
    for (const std::uint8_t byte : address.bytes) {
      add(byte);
    }
  }
  return sum;
}

// Every word of it depends on the stamp.
inline Record recordOf(const Key& key, std::uint32_t stamp) {
  Record record{};
  record.lastUpdateTime = stamp;
  record.moveCount = stamp * 3;
  record.hostAttr = stamp ^ 5U;
  record.learnAttr = stamp + 7;
  record.entryType = stamp * 11;
  record.flags = ~stamp;
  record.destType = stamp << 2U;
  const std::string intf = "intf" + std::to_string(stamp);
  intf.copy(record.intf.data(), record.intf.size() - 1);
  for (VxlanHosts::Address& address : record.vtep) {
    address.family = stamp % 2 == 0 ? VXLAN_HOSTS_IPV4 : VXLAN_HOSTS_IPV6;
    for (std::uint8_t& byte : address.bytes) {
      byte = static_cast<std::uint8_t>(stamp++);
    }
  }
  record.sequence = sumOf(key, record);
  return record;
}

inline bool whole(const Key& key, const Record& record) {
  return record.sequence == sumOf(key, record);
}

}  // namespace HostsTest
