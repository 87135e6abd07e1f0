// The sections of the input document, each read from a patch into changes. Raise Refused; change nothing
// themselves.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "agent/state/InputPatch.h"
#include "agent/state/JsonChecks.h"
#include "agent/state/World.h"

namespace Agent {

using Changes = std::deque<Change>;

void planVtiStatus(World& world, const Place& place, const nlohmann::json& patch, Changes& changes);
void planVlanVniMap(World& world, const Place& place, const nlohmann::json& patch, Changes& changes);
void planMlag(World& world, const Place& place, const nlohmann::json& patch, Changes& changes);
void planHardware(World& world, const Place& place, const nlohmann::json& patch, Changes& changes);
void planControllerState(World& world, const Place& place, const nlohmann::json& patch, Changes& changes);
void planControllerFdb(World& world, const Place& place, const nlohmann::json& patch, Changes& changes);

// The addresses of a set such as {"10.0.0.2": true, "10.0.0.3": null}, in the order of their text.
struct AddressPatch {
  std::vector<Qnet::IpAddr> removed;
  std::vector<std::pair<Qnet::IpAddr, bool>> set;
};
AddressPatch readAddresses(const Place& place, const nlohmann::json& patch);

// Sorts addresses by their text, the order in which a document names them.
void sortByText(std::vector<Qnet::IpAddr>& addresses);

// The changes that an address patch makes of an entity's set of addresses: removals, then settings. A patch
// of null removes all that `present` lists.
template <class Present, class Remove, class Set>
void planAddresses(const Place& place, const nlohmann::json& patch, const Present& present,
                   const Remove& remove, const Set& set, Changes& changes) {
  if (patch.is_null()) {
    std::vector<Qnet::IpAddr> all;
    for (auto&& address : present) {
      all.push_back(address.key);
    }
    sortByText(all);
    for (const Qnet::IpAddr address : all) {
      changes.emplace_back([remove, address] { remove(address); });
    }
    return;
  }
  const AddressPatch addresses = readAddresses(place, patch);
  for (const Qnet::IpAddr address : addresses.removed) {
    changes.emplace_back([remove, address] { remove(address); });
  }
  for (const auto& [address, value] : addresses.set) {
    changes.emplace_back([set, address = address, value = value] { set(address, value); });
  }
}

}  // namespace Agent
