#include "service/ovsdb/Schema.h"

#include <algorithm>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string_view>

namespace Ovsdb {

namespace {

using nlohmann::json;

// The requirements for a column's type: of the key, of the value (empty: the column is no map), whether more
// than one element is allowed, and whether none is.
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

Schema::Schema(std::string_view database, std::span<const TableSchema> tables)
    : database_(database), tables_(tables) {
  for (const TableSchema& table : tables) {
    mostColumns_ = std::max(mostColumns_, table.columns.size());
  }
}

std::optional<std::size_t> Schema::tableNamed(std::string_view name) const {
  for (std::size_t at = 0; at < tables_.size(); ++at) {
    if (tables_[at].name == name) {
      return at;
    }
  }
  return std::nullopt;
}

json Schema::monitorRequests() const {
  json requests = json::object();
  for (const TableSchema& table : tables_) {
    json columns = json::array();
    for (const Column& column : table.columns) {
      columns.push_back(column.name);
    }
    requests[std::string{table.name}] = json::array({json{{"columns", columns}}});
  }
  return requests;
}

std::string Schema::objection(const json& schema) const {
  if (!schema.is_object() || !schema.contains("tables") || !schema["tables"].is_object()) {
    return "the answer to get_schema is not a schema";
  }
  if (schema.value("name", json()) != database_) {
    return "the schema is of another database than \"" + std::string{database_} + "\"";
  }
  std::string objection;
  const auto object = [&](std::initializer_list<std::string_view> what) {
    objection += objection.empty() ? "" : ", ";
    for (const std::string_view part : what) {
      objection += part;
    }
  };
  for (const TableSchema& table : tables_) {
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

}  // namespace Ovsdb
