// The output document: what the client has made of its inputs.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Memtab/Reader.h"
#include "agent/state/Branches.h"
#include "agent/state/World.h"
#include "service/json/Parts.h"

namespace Agent {

// Prints the outputs of a world. Hosts of the layer-2 RIB are read back from the shared-memory table, as any
// other process would. Parts can be had alone and a record at a time, so that a look at one host does not
// cost printing a million, and a million can be printed with pauses. World and document outlive the parts.
class OutputDocument {
 public:
  // `hostTable` is the name of the shared-memory table; empty: it is not shared, and read from the writer.
  OutputDocument(const World& world, const std::string& hostTable);

  // All of it, to be walked or looked into.
  Service::Part part();
  // The same as one value.
  nlohmann::json whole() { return jsonOf(part()); }
  // The part that a JSON Pointer leads to; null where it leads nowhere. Raises nlohmann::json::exception for
  // a text that is no pointer.
  nlohmann::json at(const std::string& pointer) { return jsonOf(partAt(part(), pointer)); }
  // As much of it as is needed to compare it with `expected`: the members that are named there.
  nlohmann::json shapedLike(const nlohmann::json& expected);

 private:
  using Reader = Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue>;

  Service::Part l2Rib();
  Service::Part l2RibHosts();
  Service::Part receivedHosts();
  nlohmann::json hostsLike(const nlohmann::json& expected, Service::Part hosts);

  const World& world_;
  std::unique_ptr<Reader> reader_;
};

}  // namespace Agent
