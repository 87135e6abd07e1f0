#include "agent/daemon/Flush.h"

#include "Kel/Activity.h"

namespace Agent {
namespace {

constexpr std::size_t entriesAtOnce = 512;

}  // namespace

bool Flush::step() {
  if (!begun_) {
    begin();
    return true;
  }
  std::size_t room = entriesAtOnce;
  Kel::ActivityLoop::instance().asHandler([&] {
    removeHosts(room);
    removeFloodSets(room);
    removeBumLists(room);
    removeReceived(room);
  });
  return room == 0;
}

void Flush::begin() {
  begun_ = true;
  if (world_.client) {
    received_ = world_.client->hostTable();
  }
  world_.clientDel();
}

void Flush::removeHosts(std::size_t& room) {
  for (auto host = world_.hosts->firstHost(); host && room > 0; --room) {
    world_.hosts->hostDel(host->key);
    ++hosts_;
    host = world_.hosts->nextHost(host->key);
  }
}

void Flush::removeReceived(std::size_t& room) {
  if (!received_) {
    return;
  }
  for (auto at = received_->receivedEntry().begin(); at && room > 0; --room) {
    const Bridging::MacVlanPair key = at->key;
    ++at;
    received_->receivedEntryDel(key);
  }
}

void Flush::removeFloodSets(std::size_t& room) {
  for (auto vlan = world_.floodSets->vlanFloodSet().begin(); vlan && room > 0; --room) {
    const Bridging::VlanId key = vlan->key;
    const Kel::Ptr<L2Rib::VlanFloodSet> sets = vlan->value;
    for (auto set = sets->floodSet().begin(); set && room > 1; --room) {
      const Qnet::EthAddr mac = set->key;
      ++set;
      sets->floodSetDel(mac);
      ++floodSets_;
    }
    if (sets->floodSets() != 0) {
      room = 0;
      return;
    }
    ++vlan;
    world_.floodSets->vlanFloodSetDel(key);
  }
}

void Flush::removeBumLists(std::size_t& room) const {
  const Vxlan::BumStatus& status = *world_.hwStatus->bumStatus();
  for (auto list = status.bumVtepList().begin(); list && room > 0; --room) {
    const Bridging::MacVlanPair key = list->key;
    ++list;
    world_.hwStatus->bumStatus()->bumVtepListDel({key.mac, key.vlan});
  }
}

}  // namespace Agent
