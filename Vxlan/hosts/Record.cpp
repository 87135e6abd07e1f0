#include "Vxlan/hosts/Record.h"

#include <algorithm>
#include <iterator>

namespace VxlanHosts {

// Programs were built with these: they stay.
static_assert(sizeof(vxlan_hosts_address) == 20);
static_assert(sizeof(vxlan_host) == 152 && offsetof(vxlan_host, mac) == 4 &&
              offsetof(vxlan_host, vlan) == 10 && offsetof(vxlan_host, entry_type) == 12 &&
              offsetof(vxlan_host, dest_type) == 16 && offsetof(vxlan_host, last_update_time) == 24 &&
              offsetof(vxlan_host, sequence) == 32 && offsetof(vxlan_host, move_count) == 40 &&
              offsetof(vxlan_host, host_attr) == 44 && offsetof(vxlan_host, learn_attr) == 48 &&
              offsetof(vxlan_host, flags) == 52 && offsetof(vxlan_host, intf) == 56 &&
              offsetof(vxlan_host, vtep) == 80 && offsetof(vxlan_host, reserved) == 120);
static_assert(sizeof(vxlan_hosts_state) == 72 && offsetof(vxlan_hosts_state, generation) == 8 &&
              offsetof(vxlan_hosts_state, turn) == 16 && offsetof(vxlan_hosts_state, hosts) == 24 &&
              offsetof(vxlan_hosts_state, limit) == 32);
static_assert(sizeof(vxlan_hosts_cursor) == 32);

vxlan_host hostOf(const Key& key) {
  vxlan_host host{};
  host.size = sizeof host;
  std::copy(key.mac.begin(), key.mac.end(), std::begin(host.mac));
  host.vlan = key.vlan;
  return host;
}

vxlan_host hostOf(const Key& key, const Record& record) {
  vxlan_host host = hostOf(key);
  host.entry_type = record.entryType;
  host.dest_type = record.destType;
  host.last_update_time = record.lastUpdateTime;
  host.sequence = record.sequence;
  host.move_count = record.moveCount;
  host.host_attr = record.hostAttr;
  host.learn_attr = record.learnAttr;
  host.flags = record.flags;
  std::copy(record.intf.begin(), record.intf.end() - 1, std::begin(host.intf));  // always ended by a zero
  for (std::size_t slot = 0; slot < record.vtep.size(); ++slot) {
    host.vtep[slot].family = record.vtep[slot].family;
    std::copy(record.vtep[slot].bytes.begin(), record.vtep[slot].bytes.end(),
              std::begin(host.vtep[slot].bytes));
  }
  return host;
}

}  // namespace VxlanHosts
