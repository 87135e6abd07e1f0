#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "service/ovsdb/Schema.h"

namespace Agent::Vtep {

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

// The database that a controller of hardware VTEPs and the switch share, "hardware_vtep", and what of it is
// followed: the tables in the order of Table, the columns in the order of At.
const Ovsdb::Schema& hardwareVtep();

inline std::string_view nameOf(Table table) {
  return hardwareVtep().tables()[static_cast<std::size_t>(table)].name;
}
inline Table tableOf(const Ovsdb::RowEvent& event) {
  return static_cast<Table>(event.table);
}

}  // namespace Agent::Vtep
