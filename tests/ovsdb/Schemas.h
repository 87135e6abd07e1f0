#pragma once

#include <nlohmann/json.hpp>
#include <utility>

namespace Ovsdb::Testing {

// A schema with just what is followed.
inline nlohmann::json goodSchema() {
  using nlohmann::json;
  const auto column = [](const json& type) { return json{{"type", type}}; };
  const json uuid{{"key", {{"type", "uuid"}}}};
  const json strings{{"key", "string"}, {"min", 0}, {"max", "unlimited"}};
  const json uuids{{"key", {{"type", "uuid"}}}, {"min", 0}, {"max", "unlimited"}};
  const json map{{"key", "string"}, {"value", "string"}, {"min", 0}, {"max", "unlimited"}};
  const json bindings{
      {"key", {{"type", "integer"}}}, {"value", {{"type", "uuid"}}}, {"min", 0}, {"max", "unlimited"}};
  json tables;
  tables["Global"]["columns"] = {{"other_config", column(map)}};
  tables["Physical_Switch"]["columns"] = {
      {"name", column("string")}, {"ports", column(uuids)}, {"tunnel_ips", column(strings)}};
  tables["Physical_Port"]["columns"] = {{"name", column("string")}, {"vlan_bindings", column(bindings)}};
  tables["Logical_Switch"]["columns"] = {
      {"name", column("string")},
      {"tunnel_key", column(json{{"key", "integer"}, {"min", 0}, {"max", 1}})},
      {"replication_mode", column(json{{"key", "string"}, {"min", 0}})}};
  tables["Physical_Locator"]["columns"] = {{"dst_ip", column("string")}};
  tables["Physical_Locator_Set"]["columns"] = {{"locators", column(uuids)}};
  for (const auto& [table, last] :
       {std::pair{"Ucast_Macs_Remote", "locator"}, {"Mcast_Macs_Remote", "locator_set"}}) {
    tables[table]["columns"] = {
        {"MAC", column("string")}, {"logical_switch", column(uuid)}, {last, column(uuid)}};
  }
  return {{"name", "hardware_vtep"}, {"version", "1.7.0"}, {"tables", tables}};
}

}  // namespace Ovsdb::Testing
