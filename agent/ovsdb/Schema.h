#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "agent/ovsdb/Uuid.h"

namespace Agent::Ovsdb {

// The database that a controller of hardware VTEPs and the switch share.
inline constexpr std::string_view databaseName = "hardware_vtep";

// The tables that are followed.
enum class Table : std::uint8_t {
  global,
  physicalSwitch,
  physicalPort,
  logicalSwitch,
  physicalLocator,
  physicalLocatorSet,
  ucastMacsRemote,
  mcastMacsRemote,
};
inline constexpr std::size_t tableCount = 8;

// What a column holds.
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

inline constexpr std::size_t mostColumns = 3;

// The place of each column in its table's columns, and in a row's cells.
struct At {
  static constexpr std::size_t globalOtherConfig = 0;
  static constexpr std::size_t switchName = 0, switchPorts = 1, switchTunnelIps = 2;
  static constexpr std::size_t portName = 0, portBindings = 1;
  static constexpr std::size_t logicalName = 0, logicalKey = 1, logicalMode = 2;
  static constexpr std::size_t locatorIp = 0;
  static constexpr std::size_t setLocators = 0;
  static constexpr std::size_t macMac = 0, macSwitch = 1, macLocator = 2;
};

const TableSchema& schemaOf(Table table);
inline std::string_view nameOf(Table table) {
  return schemaOf(table).name;
}

// The <monitor-cond-requests> that ask for all followed tables and columns.
nlohmann::json monitorRequests();

// Compares the answer to "get_schema" with what is followed. Returns an empty text, or what is missing or of
// another type, in words.
std::string schemaObjection(const nlohmann::json& schema);

// What came for one column of a row.
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

// What happened to a row, as "update3" says it.
enum class RowChange : std::uint8_t {
  present,   // the row is there, with all its columns: "initial" or "insert"
  modified,  // columns changed; sets and maps of more than one element hold the difference
  removed,
};

// One row of a message. The cells stand in the order of the table's columns; those that the table has not
// are never present.
struct RowEvent {
  Table table = Table::global;
  Uuid uuid;
  RowChange change = RowChange::present;
  std::array<Cell, mostColumns> cells;
};

}  // namespace Agent::Ovsdb
