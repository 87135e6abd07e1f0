// A host as it lies in shared memory, and as C sees it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Vxlan/hosts/vxlan_hosts.h"

namespace VxlanHosts {

// The records that this room reads, by name. Their layout is written down here for itself: it stays as it is
// when the types of the controller client change.
inline constexpr const char* schema = "L2Rib::Host/1";

// Which host.
struct Key {
  std::array<std::uint8_t, 6> mac;
  std::uint16_t vlan;
};
static_assert(sizeof(Key) == 8);

// An address of a record.
struct Address {
  std::uint32_t family;
  std::array<std::uint8_t, 16> bytes;
};

// What the table keeps of a host beside its key.
struct Record {
  double lastUpdateTime;
  std::uint64_t sequence;
  std::uint32_t moveCount;
  std::uint32_t hostAttr;
  std::uint32_t learnAttr;
  std::uint32_t entryType;
  std::uint32_t flags;
  std::uint32_t destType;
  std::array<char, 24> intf;
  std::array<Address, 2> vtep;
};
static_assert(sizeof(Record) == 104 && offsetof(Record, sequence) == 8 && offsetof(Record, moveCount) == 16 &&
              offsetof(Record, destType) == 36 && offsetof(Record, intf) == 40 &&
              offsetof(Record, vtep) == 64);

// As C sees it: all of it, and the key alone.
vxlan_host hostOf(const Key& key, const Record& record);
vxlan_host hostOf(const Key& key);

}  // namespace VxlanHosts
