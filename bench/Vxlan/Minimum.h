// What a host costs at the least, written by hand for this one purpose.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Hosts.h"
#include "MinimumTables.h"

namespace Minimum {

struct ControllerHost {
  std::uint32_t vtep, moves, attribute;
};
struct ReceivedHost {
  double time;
  std::uint32_t vti, vtep, moves, attribute;
  std::uint8_t type, marked;
};

// The work that the road cannot avoid: a table of hosts for each VNI, whether the host is new at all, the
// VNI's VLAN, whether the VTEP is the switch's own, the received host, and the host in shared memory. No
// framework, no clock, no publication by turns. Everything is here: a compiler sees the whole of it.
class Tables {
 public:
  Tables(std::uint32_t hosts, std::uint32_t vnis) : controller_(vnis), shared_(hosts) {
    for (std::uint32_t vni = 0; vni < vnis; ++vni) {
      vlans_.at(firstVni + vni) = Road::vlanOf(vni);
    }
  }

  // One host after the other, through all tables at once.
  void fused(const std::vector<Road::Update>& updates) {
    for (const Road::Update& update : updates) {
      if (!publish(update)) {
        continue;
      }
      const ControllerHost& host = *controller_[update.vni].find(update.mac);
      const std::uint32_t vlan = vlanOf(update.vni, host);
      if (vlan != 0) {
        shared_.put(exported(update.mac, vlan, receive(update.mac, vlan, host)));
      }
    }
  }
  // A thousand hosts through the first table, then through the second, then through the third, by way of
  // queues of keys, with a trace record in each stage: the shape that notification gives a program.
  void staged(const std::vector<Road::Update>& updates) {
    constexpr std::size_t atOnce = 1024;
    for (std::size_t from = 0; from < updates.size(); from += atOnce) {
      const std::size_t end = std::min(updates.size(), from + atOnce);
      for (std::size_t at = from; at < end; ++at) {
        const Road::Update& update = updates[at];
        trace_.record(1, update.vni, update.mac);
        if (publish(update)) {
          published_.push_back({update.mac, update.vni});
        }
      }
      for (const Key& key : published_) {
        const ControllerHost* host = controller_[key.of].find(key.mac);
        const std::uint32_t vlan = host == nullptr ? 0 : vlanOf(key.of, *host);
        trace_.record(2, vlan, key.mac);
        if (vlan != 0) {
          receive(key.mac, vlan, *host);
          received_.push_back({key.mac, vlan});
        }
      }
      for (const Key& key : received_) {
        trace_.record(3, key.of, key.mac);
        if (const ReceivedHost* host = hosts_.find(hostKey(key.mac, key.of))) {
          shared_.put(exported(key.mac, key.of, *host));
        }
      }
      published_.clear();
      received_.clear();
    }
  }
  void withdraw(const std::vector<Road::Update>& updates) {
    for (const Road::Update& update : updates) {
      const std::uint32_t* vlan = vlans_.find(firstVni + update.vni);
      if (controller_[update.vni].erase(update.mac) && vlan != nullptr &&
          hosts_.erase(hostKey(update.mac, *vlan))) {
        shared_.erase(hostKey(update.mac, *vlan));
      }
    }
  }

 private:
  struct Key {
    std::uint64_t mac;
    std::uint32_t of;  // a VNI, or a VLAN
  };
  static constexpr std::uint32_t firstVni = 10'000;
  static std::uint64_t hostKey(std::uint64_t mac, std::uint32_t vlan) { return mac << 12 | vlan; }

  // False when the host was there already, just so.
  bool publish(const Road::Update& update) {
    ControllerHost& host = controller_[update.vni].at(update.mac);
    if (host.vtep == update.vtep && host.moves == update.moves) {
      return false;
    }
    host = {update.vtep, update.moves, 16};
    return true;
  }
  // 0 where the VNI has none, or where the host is behind the switch itself.
  std::uint32_t vlanOf(std::uint32_t vni, const ControllerHost& host) const {
    const std::uint32_t* vlan = vlans_.find(firstVni + vni);
    return vlan == nullptr || host.vtep == Road::ownVtep ? 0 : *vlan;
  }
  const ReceivedHost& receive(std::uint64_t mac, std::uint32_t vlan, const ControllerHost& host) {
    ReceivedHost& received = hosts_.at(hostKey(mac, vlan));
    received = {1.0, 1, host.vtep, host.moves, host.attribute, 10, 0};
    return received;
  }
  static SharedHost exported(std::uint64_t mac, std::uint32_t vlan, const ReceivedHost& host) {
    SharedHost shared{};
    shared.word[0] = hostKey(mac, vlan);
    std::memcpy(&shared.word[1], &host.time, sizeof host.time);
    shared.word[3] = std::uint64_t{host.attribute} << 32 | host.moves;
    shared.word[4] = std::uint64_t{host.type} << 32;
    shared.word[5] = std::uint64_t{host.vti} << 32;
    shared.word[9] = std::uint64_t{host.vtep} << 32 | 4;
    return shared;
  }

  std::vector<FlatTable<ControllerHost>> controller_;
  FlatTable<ReceivedHost> hosts_;
  FlatTable<std::uint32_t> vlans_;
  SharedTable shared_;
  Trace trace_;
  std::vector<Key> published_;
  std::vector<Key> received_;
};

}  // namespace Minimum
