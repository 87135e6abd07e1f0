#include "agent/vtep/Schema.h"

#include <array>

namespace Agent::Vtep {

namespace {

using Ovsdb::Column;
using Ovsdb::ColumnType;

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

constexpr std::array<Ovsdb::TableSchema, tableCount> tables{{
    {"Global", globalColumns},
    {"Physical_Switch", switchColumns},
    {"Physical_Port", portColumns},
    {"Logical_Switch", logicalColumns},
    {"Physical_Locator", locatorColumns},
    {"Physical_Locator_Set", locatorSetColumns},
    {"Ucast_Macs_Remote", ucastColumns},
    {"Mcast_Macs_Remote", mcastColumns},
}};

}  // namespace

const Ovsdb::Schema& hardwareVtep() {
  static const Ovsdb::Schema schema("hardware_vtep", tables);
  return schema;
}

}  // namespace Agent::Vtep
