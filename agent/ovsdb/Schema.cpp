#include "agent/ovsdb/Schema.h"

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string_view>

namespace Agent::Ovsdb {

namespace {

using nlohmann::json;

constexpr std::array globalColumns{Column{"other_config", ColumnType::stringMap}};
constexpr std::array switchColumns{Column{"name", ColumnType::string}, Column{"ports", ColumnType::uuidSet},
                                   Column{"tunnel_ips", ColumnType::stringSet}};
constexpr std::array portColumns{Column{"name", ColumnType::string},
                                 Column{"vlan_bindings", ColumnType::bindingMap}};
constexpr std::array logicalColumns{Column{"name", ColumnType::string},
                                    Column{"tunnel_key", ColumnType::optionalInteger},
                                    Column{"replication_mode", ColumnType::optionalString}};
constexpr std::array locatorColumns{Column{"dst_ip", ColumnType::string}};
constexpr std::array locatorSetColumns{Column{"locators", ColumnType::uuidSet}};
constexpr std::array ucastColumns{Column{"MAC", ColumnType::string},
                                  Column{"logical_switch", ColumnType::uuid},
                                  Column{"locator", ColumnType::uuid}};
constexpr std::array mcastColumns{Column{"MAC", ColumnType::string},
                                  Column{"logical_switch", ColumnType::uuid},
                                  Column{"locator_set", ColumnType::uuid}};

constexpr std::array<TableSchema, tableCount> tables{{
    {"Global", globalColumns},
    {"Physical_Switch", switchColumns},
    {"Physical_Port", portColumns},
    {"Logical_Switch", logicalColumns},
    {"Physical_Locator", locatorColumns},
    {"Physical_Locator_Set", locatorSetColumns},
    {"Ucast_Macs_Remote", ucastColumns},
    {"Mcast_Macs_Remote", mcastColumns},
}};

// What a column's type must say: of the key, of the value (empty: the column is no map), whether more than
// one element is allowed, and whether none is.
struct Shape {
  std::string_view key;
  std::string_view value;
  bool many;
  bool none;
};

Shape shapeOf(ColumnType type) {
  switch (type) {
    case ColumnType::string:
      return {"string", "", false, false};
    case ColumnType::optionalString:
      return {"string", "", false, true};
    case ColumnType::optionalInteger:
      return {"integer", "", false, true};
    case ColumnType::uuid:
      return {"uuid", "", false, false};
    case ColumnType::stringSet:
      return {"string", "", true, true};
    case ColumnType::uuidSet:
      return {"uuid", "", true, true};
    case ColumnType::stringMap:
      return {"string", "string", true, true};
    case ColumnType::bindingMap:
      return {"integer", "uuid", true, true};
  }
  return {};
}

// The name in a <base-type>, which is a string or an object with "type".
std::string baseName(const json& base) {
  if (base.is_object()) {
    return base.contains("type") && base["type"].is_string() ? base["type"].get<std::string>() : "";
  }
  return base.is_string() ? base.get<std::string>() : "";
}

bool fits(const json& type, const Shape& shape) {
  const bool plain = !type.is_object();
  const std::string key = baseName(plain ? type : type.value("key", json()));
  const std::string value = plain ? "" : baseName(type.value("value", json()));
  const bool many = !plain && type.contains("max") && type["max"] != 1;
  return key == shape.key && value == shape.value && many == shape.many;
}

}  // namespace

const TableSchema& schemaOf(Table table) {
  return tables[static_cast<std::size_t>(table)];
}

json monitorRequests() {
  json requests = json::object();
  for (const TableSchema& table : tables) {
    json columns = json::array();
    for (const Column& column : table.columns) {
      columns.push_back(column.name);
    }
    requests[std::string{table.name}] = json::array({json{{"columns", columns}}});
  }
  return requests;
}

std::string schemaObjection(const json& schema) {
  if (!schema.is_object() || !schema.contains("tables") || !schema["tables"].is_object()) {
    return "the answer to get_schema is not a schema";
  }
  if (schema.value("name", json()) != databaseName) {
    return "the schema is of another database than \"" + std::string{databaseName} + "\"";
  }
  std::string objection;
  const auto object = [&](std::initializer_list<std::string_view> what) {
    objection += objection.empty() ? "" : ", ";
    for (const std::string_view part : what) {
      objection += part;
    }
  };
  for (const TableSchema& table : tables) {
    const std::string name{table.name};
    const json& known = schema["tables"];
    if (!known.contains(name) || !known[name].is_object() || !known[name].contains("columns")) {
      object({"no table ", name});
      continue;
    }
    for (const Column& column : table.columns) {
      const json& columns = known[name]["columns"];
      const std::string columnName{column.name};
      if (!columns.is_object() || !columns.contains(columnName)) {
        object({"no column ", name, ".", columnName});
      } else if (!columns[columnName].is_object() || !columns[columnName].contains("type") ||
                 !fits(columns[columnName]["type"], shapeOf(column.type))) {
        object({"column ", name, ".", columnName, " is of another type"});
      }
    }
  }
  return objection.empty() ? "" : "the schema does not serve: " + objection;
}

void Cell::clear() {
  present = false;
  empty = true;
  number = 0;
  uuid = {};
  text.clear();
  uuids.clear();
  texts.clear();
  bindings.clear();
  pairs.clear();
}

}  // namespace Agent::Ovsdb
