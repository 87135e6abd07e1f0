#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Agent::Vtep::Testing {

// A hardware_vtep database in memory, with the verbs of a controller and of the switch's own tools. What
// changed since the last look comes as the <table-updates2> text of an "update3", differences of sets and
// maps and all; everything there is, as that of a first answer.
class FakeDatabase {
 public:
  using Id = std::string;  // of a row

  // The switch, its ports, its bindings.
  void physicalSwitch(const std::string& name, const std::vector<std::string>& tunnelIps);
  void removePhysicalSwitch(const std::string& name);
  void bind(const std::string& physicalSwitch, const std::string& port, int vlan,
            const std::string& logicalSwitch);
  void unbind(const std::string& port, int vlan);

  // The controller.
  void logicalSwitch(const std::string& name, std::optional<std::int64_t> key = std::nullopt,
                     const std::string& mode = "");
  void key(const std::string& name, std::optional<std::int64_t> key);
  void mode(const std::string& name, const std::string& mode);
  void removeLogicalSwitch(const std::string& name);
  Id host(const std::string& logicalSwitch, const std::string& mac, const std::string& vtep);
  void moveHost(const Id& row, const std::string& vtep);
  Id flood(const std::string& logicalSwitch, const std::string& mac, const std::vector<std::string>& vteps);
  void moveFlood(const Id& row, const std::vector<std::string>& vteps);
  void remove(const Id& row);
  void converging(const std::string& value);
  // All rows are gone, as from a server that lost its file.
  void clear();
  // The same rows under new names.
  void renameRows();

  // Columns of a row as they stand; for odd ones.
  nlohmann::json& row(const std::string& table, const Id& id) { return tables_[table][id]; }
  Id insert(const std::string& table, nlohmann::json columns);
  Id find(const std::string& table, const std::string& name) const;
  const std::map<Id, nlohmann::json>& rows(const std::string& table) const;
  // When the present row was reported: a number that grows.
  std::uint64_t arrival(const Id& id) const { return arrivals_.at(id); }

  // What changed since the last changes() or everything().
  std::string changes();
  // Everything, as in a first answer.
  std::string everything();

 private:
  using Tables = std::map<std::string, std::map<Id, nlohmann::json>>;

  Id locator(const std::string& vtep);
  Id locatorSet(const std::vector<std::string>& vteps);
  void arrive(const std::string& table, const Id& id, const nlohmann::json& columns);
  static nlohmann::json difference(const std::string& column, const nlohmann::json& before,
                                   const nlohmann::json& now);

  std::uint64_t lastId_ = 0;
  std::uint64_t lastArrival_ = 0;
  Tables tables_;
  Tables told_;
  std::map<Id, std::uint64_t> arrivals_;
};

}  // namespace Agent::Vtep::Testing
