#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "service/ovsdb/Uuid.h"

namespace Ovsdb {

// The content of a column.
enum class ColumnType : std::uint8_t {
  string,
  optionalString,
  optionalInteger,
  uuid,
  stringSet,
  uuidSet,
  stringMap,   // string to string
  bindingMap,  // VLAN to the UUID of a logical switch
};

// A column that is followed.
struct Column {
  std::string_view name;
  ColumnType type;
};

// A table that is followed, with the columns that count here.
struct TableSchema {
  std::string_view name;
  std::span<const Column> columns;
};

// A database and the tables of it that are followed. The texts and the columns outlive it.
class Schema {
 public:
  Schema(std::string_view database, std::span<const TableSchema> tables);

  std::string_view database() const { return database_; }
  std::span<const TableSchema> tables() const { return tables_; }
  // The place of a table among those that are followed.
  std::optional<std::size_t> tableNamed(std::string_view name) const;
  // Of the table that has the most.
  std::size_t mostColumns() const { return mostColumns_; }

  // The <monitor-cond-requests> that ask for all followed tables and columns.
  nlohmann::json monitorRequests() const;

  // Compares the answer to "get_schema" with what is followed. Returns an empty text, or what is missing or
  // of another type, in words.
  std::string objection(const nlohmann::json& schema) const;

 private:
  std::string_view database_;
  std::span<const TableSchema> tables_;
  std::size_t mostColumns_ = 0;
};

// The received value of one column of a row.
struct Cell {
  bool present = false;  // whether the column was in the message; the members are of use only then
  bool empty = true;     // of an optional column: no value
  std::int64_t number = 0;
  Uuid uuid;
  std::string text;
  std::vector<Uuid> uuids;
  std::vector<std::string> texts;
  std::vector<std::pair<std::int64_t, Uuid>> bindings;
  std::vector<std::pair<std::string, std::string>> pairs;

  void clear();
};

// The kind of change of a row, as "update3" says it.
enum class RowChange : std::uint8_t {
  present,   // the row is there, with all its columns: "initial" or "insert"
  modified,  // columns changed; sets and maps of more than one element hold the difference
  removed,
};

// One row of a message. The cells stand in the order of the table's columns; those that the table has not
// are never present. There are Schema::mostColumns() of them.
struct RowEvent {
  std::size_t table = 0;  // its place in Schema::tables()
  Uuid uuid;
  RowChange change = RowChange::present;
  std::vector<Cell> cells;
};

}  // namespace Ovsdb
