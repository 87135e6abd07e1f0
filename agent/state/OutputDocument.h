// The output document: what the client has made of its inputs.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "Memtab/Reader.h"
#include "agent/state/World.h"

namespace Agent {

// Prints the outputs of a world. Hosts of the layer-2 RIB are read back from the shared-memory table, as any
// other process would. Parts can be had alone, so that a look at one host does not cost printing a million.
class OutputDocument {
 public:
  // `hostTable` is the name of the shared-memory table; empty: it is not shared, and read from the writer.
  OutputDocument(const World& world, const std::string& hostTable);

  // All of it.
  nlohmann::json whole();
  // One top-level member; null for a name that is none.
  nlohmann::json section(const std::string& name);
  // The part that a JSON Pointer leads to; null where it leads nowhere. Raises nlohmann::json::exception for
  // a text that is no pointer.
  nlohmann::json at(const std::string& pointer);
  // As much of it as is needed to compare it with `expected`: the members that are named there.
  nlohmann::json shapedLike(const nlohmann::json& expected);

 private:
  using EachHost = std::function<void(const L2Rib::Host&)>;
  void eachHost(const EachHost& call);
  using EachKey = std::function<void(const Bridging::MacVlanPair&)>;
  void eachHostIn(Bridging::VlanId vlan, bool l2Rib, const EachKey& call);
  nlohmann::json hostOf(const Bridging::MacVlanPair& key, bool l2Rib);
  Kel::Ptr<Vxlan::ReceivedHostTable> receivedTable() const;
  nlohmann::json l2RibHosts();
  nlohmann::json receivedHosts();
  nlohmann::json wholeVlan(Bridging::VlanId vlan, bool l2Rib);
  nlohmann::json vlanLike(Bridging::VlanId vlan, const nlohmann::json& expected, bool l2Rib);
  nlohmann::json hostsLike(const nlohmann::json& expected, bool l2Rib);

  const World& world_;
  std::optional<Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue>> reader_;
};

}  // namespace Agent
