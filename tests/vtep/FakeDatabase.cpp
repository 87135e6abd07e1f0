#include "FakeDatabase.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace Agent::Vtep::Testing {

using nlohmann::json;

namespace {

json reference(const std::string& id) {
  return json::array({"uuid", id});
}

// One element stands by itself, as servers write it.
json setOf(const json& elements) {
  return elements.size() == 1 ? elements[0] : json::array({"set", elements});
}

bool isTagged(const json& value, const char* tag) {
  return value.is_array() && value.size() == 2 && value[0] == tag;
}

// The elements of a set column; a value by itself is a set of one.
json elementsOf(const json& value) {
  return isTagged(value, "set") ? value[1] : json::array({value});
}

}  // namespace

FakeDatabase::Id FakeDatabase::insert(const std::string& table, json columns) {
  ++lastId_;
  char id[37];
  std::snprintf(id, sizeof id, "%08llx-0000-4000-8000-%012llx", static_cast<unsigned long long>(lastId_),
                static_cast<unsigned long long>(lastId_) * 7919);
  tables_[table][id] = std::move(columns);
  return id;
}

FakeDatabase::Id FakeDatabase::find(const std::string& table, const std::string& name) const {
  for (const auto& [id, columns] : rows(table)) {
    if (columns["name"] == name) {
      return id;
    }
  }
  return "";
}

const std::map<FakeDatabase::Id, json>& FakeDatabase::rows(const std::string& table) const {
  static const std::map<Id, json> none;
  const auto found = tables_.find(table);
  return found == tables_.end() ? none : found->second;
}

void FakeDatabase::physicalSwitch(const std::string& name, const std::vector<std::string>& tunnelIps) {
  const Id known = find("Physical_Switch", name);
  if (known.empty()) {
    insert("Physical_Switch",
           {{"name", name}, {"ports", setOf(json::array())}, {"tunnel_ips", setOf(tunnelIps)}});
  } else {
    row("Physical_Switch", known)["tunnel_ips"] = setOf(tunnelIps);
  }
}

void FakeDatabase::removePhysicalSwitch(const std::string& name) {
  tables_["Physical_Switch"].erase(find("Physical_Switch", name));
}

void FakeDatabase::bind(const std::string& physicalSwitch, const std::string& port, int vlan,
                        const std::string& logicalSwitch) {
  Id id = find("Physical_Port", port);
  if (id.empty()) {
    id = insert("Physical_Port", {{"name", port}, {"vlan_bindings", json::array({"map", json::array()})}});
    json& ports = row("Physical_Switch", find("Physical_Switch", physicalSwitch))["ports"];
    json elements = elementsOf(ports);
    elements.push_back(reference(id));
    ports = setOf(elements);
  }
  unbind(port, vlan);
  row("Physical_Port", id)["vlan_bindings"][1].push_back(
      json::array({vlan, reference(find("Logical_Switch", logicalSwitch))}));
}

void FakeDatabase::unbind(const std::string& port, int vlan) {
  json& pairs = row("Physical_Port", find("Physical_Port", port))["vlan_bindings"][1];
  for (auto pair = pairs.begin(); pair != pairs.end();) {
    pair = (*pair)[0] == vlan ? pairs.erase(pair) : std::next(pair);
  }
}

void FakeDatabase::logicalSwitch(const std::string& name, std::optional<std::int64_t> key,
                                 const std::string& mode) {
  insert("Logical_Switch", {{"name", name},
                            {"tunnel_key", setOf(key ? json::array({*key}) : json::array())},
                            {"replication_mode", setOf(mode.empty() ? json::array() : json::array({mode}))}});
}

void FakeDatabase::key(const std::string& name, std::optional<std::int64_t> key) {
  row("Logical_Switch", find("Logical_Switch", name))["tunnel_key"] =
      setOf(key ? json::array({*key}) : json::array());
}

void FakeDatabase::mode(const std::string& name, const std::string& mode) {
  row("Logical_Switch", find("Logical_Switch", name))["replication_mode"] = mode;
}

void FakeDatabase::removeLogicalSwitch(const std::string& name) {
  const Id id = find("Logical_Switch", name);
  for (auto& [portId, port] : tables_["Physical_Port"]) {
    json& pairs = port["vlan_bindings"][1];
    for (auto pair = pairs.begin(); pair != pairs.end();) {
      pair = (*pair)[1] == reference(id) ? pairs.erase(pair) : std::next(pair);
    }
  }
  for (const char* const table : {"Ucast_Macs_Remote", "Mcast_Macs_Remote"}) {
    std::erase_if(tables_[table],
                  [&](const auto& entry) { return entry.second["logical_switch"] == reference(id); });
  }
  tables_["Logical_Switch"].erase(id);
}

FakeDatabase::Id FakeDatabase::locator(const std::string& vtep) {
  for (const auto& [id, columns] : rows("Physical_Locator")) {
    if (columns["dst_ip"] == vtep) {
      return id;
    }
  }
  return insert("Physical_Locator", {{"dst_ip", vtep}});
}

FakeDatabase::Id FakeDatabase::locatorSet(const std::vector<std::string>& vteps) {
  json elements = json::array();
  for (const std::string& vtep : vteps) {
    elements.push_back(reference(locator(vtep)));
  }
  return insert("Physical_Locator_Set", {{"locators", setOf(elements)}});
}

FakeDatabase::Id FakeDatabase::host(const std::string& logicalSwitch, const std::string& mac,
                                    const std::string& vtep) {
  return insert("Ucast_Macs_Remote", {{"MAC", mac},
                                      {"logical_switch", reference(find("Logical_Switch", logicalSwitch))},
                                      {"locator", reference(locator(vtep))}});
}

void FakeDatabase::moveHost(const Id& id, const std::string& vtep) {
  row("Ucast_Macs_Remote", id)["locator"] = reference(locator(vtep));
}

FakeDatabase::Id FakeDatabase::flood(const std::string& logicalSwitch, const std::string& mac,
                                     const std::vector<std::string>& vteps) {
  return insert("Mcast_Macs_Remote", {{"MAC", mac},
                                      {"logical_switch", reference(find("Logical_Switch", logicalSwitch))},
                                      {"locator_set", reference(locatorSet(vteps))}});
}

void FakeDatabase::moveFlood(const Id& id, const std::vector<std::string>& vteps) {
  json& set = row("Mcast_Macs_Remote", id)["locator_set"];
  tables_["Physical_Locator_Set"].erase(set[1].get<std::string>());
  set = reference(locatorSet(vteps));
}

void FakeDatabase::remove(const Id& id) {
  for (auto& [table, rows] : tables_) {
    rows.erase(id);
  }
}

void FakeDatabase::converging(const std::string& value) {
  if (rows("Global").empty()) {
    insert("Global", {{"other_config", json::array({"map", json::array()})}});
  }
  json pairs = json::array();
  if (!value.empty()) {
    pairs.push_back(json::array({"converging", value}));
  }
  tables_["Global"].begin()->second["other_config"] = json::array({"map", pairs});
}

void FakeDatabase::clear() {
  tables_.clear();
}

void FakeDatabase::renameRows() {
  for (const char* const table : {"Ucast_Macs_Remote", "Mcast_Macs_Remote"}) {
    for (auto& [id, columns] : std::exchange(tables_[table], {})) {
      insert(table, columns);
    }
  }
}

// What "modify" says of a column: of sets what came or went, of maps what came, went or has another value, of
// all others the value.
json FakeDatabase::difference(const std::string& column, const json& before, const json& now) {
  const bool map = column == "vlan_bindings" || column == "other_config";
  if (!map && column != "ports" && column != "tunnel_ips" && column != "locators") {
    return now;
  }
  json difference = json::array();
  const json old = map ? before[1] : elementsOf(before);
  const json current = map ? now[1] : elementsOf(now);
  for (const json& element : current) {
    if (std::find(old.begin(), old.end(), element) == old.end()) {
      difference.push_back(element);
    }
  }
  for (const json& element : old) {
    const bool replaced = map && std::any_of(current.begin(), current.end(),
                                             [&](const json& other) { return other[0] == element[0]; });
    if (!replaced && std::find(current.begin(), current.end(), element) == current.end()) {
      difference.push_back(element);
    }
  }
  return json::array({map ? "map" : "set", difference});
}

// Within one message rows come in the order of their names.
void FakeDatabase::arrive(const std::string& table, const Id& id, const json& columns) {
  const auto before = told_[table].find(id);
  if (before == told_[table].end() || before->second != columns) {
    arrivals_[id] = ++lastArrival_;
  }
}

std::string FakeDatabase::changes() {
  json updates = json::object();
  for (const auto& [table, rows] : told_) {
    for (const auto& [id, columns] : rows) {
      if (!this->rows(table).contains(id)) {
        updates[table][id] = {{"delete", nullptr}};
      }
    }
  }
  for (const auto& [table, rows] : tables_) {
    for (const auto& [id, columns] : rows) {
      const auto before = told_[table].find(id);
      arrive(table, id, columns);
      if (before == told_[table].end()) {
        updates[table][id] = {{"insert", columns}};
        continue;
      }
      json modified = json::object();
      for (const auto& [name, value] : columns.items()) {
        if (before->second[name] != value) {
          modified[name] = difference(name, before->second[name], value);
        }
      }
      if (!modified.empty()) {
        updates[table][id] = {{"modify", modified}};
      }
    }
  }
  told_ = tables_;
  return updates.dump();
}

std::string FakeDatabase::everything() {
  json updates = json::object();
  for (const auto& [table, rows] : tables_) {
    for (const auto& [id, columns] : rows) {
      arrive(table, id, columns);
      updates[table][id] = {{"initial", columns}};
    }
  }
  told_ = tables_;
  return updates.dump();
}

}  // namespace Agent::Vtep::Testing
