// Random rows that name each other, or what is not there, or what comes later; after each update, what is
// published against a plain look at the rows.
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>
#include <set>
#include <tuple>

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr const char* switches = "Logical_Switch";
constexpr const char* locators = "Physical_Locator";
constexpr const char* sets = "Physical_Locator_Set";
constexpr const char* hosts = "Ucast_Macs_Remote";
constexpr const char* floods = "Mcast_Macs_Remote";

// --- the plain look

const json* find(const FakeDatabase& database, const char* table, const json& reference) {
  const auto row = database.rows(table).find(reference[1].get<std::string>());
  return row == database.rows(table).end() ? nullptr : &row->second;
}

std::string addressOf(const FakeDatabase& database, const json& reference) {
  const json* const locator = find(database, locators, reference);
  const std::string text = locator == nullptr ? "" : (*locator)["dst_ip"].get<std::string>();
  return text.starts_with("10.") ? text : "";
}

// VNI to the row of the logical switch that has it: the first by name, then by UUID.
std::map<int, std::string> owners(const FakeDatabase& database) {
  std::map<int, std::pair<std::string, std::string>> best;
  for (const auto& [id, row] : database.rows(switches)) {
    if (row["tunnel_key"].is_number() && row["tunnel_key"] < 16777216) {
      const auto rank = std::pair(row["name"].get<std::string>(), id);
      const auto [known, first] = best.try_emplace(row["tunnel_key"].get<int>(), rank);
      known->second = first ? rank : std::min(known->second, rank);
    }
  }
  std::map<int, std::string> found;
  for (const auto& [vni, rank] : best) {
    found[vni] = rank.second;
  }
  return found;
}

json hostsOf(const FakeDatabase& database, const std::string& logicalSwitch) {
  std::map<std::string, std::uint64_t> latest;
  json found = json::object();
  for (const auto& [id, row] : database.rows(hosts)) {
    const std::string mac = row["MAC"];
    const std::string address = addressOf(database, row["locator"]);
    if (row["logical_switch"][1] == logicalSwitch && mac.starts_with("02:") && !address.empty() &&
        database.arrival(id) > latest[mac]) {
      latest[mac] = database.arrival(id);
      found[mac] = address;
    }
  }
  return found;
}

json elementsOf(const json& set) {
  return set[0] == "set" ? set[1] : json::array({set});
}

json addressesOf(const FakeDatabase& database, const json& reference) {
  json addresses = json::object();
  const json* const set = find(database, sets, reference);
  if (set != nullptr) {
    for (const json& locator : elementsOf((*set)["locators"])) {
      if (const std::string address = addressOf(database, locator); !address.empty()) {
        addresses[address] = true;
      }
    }
  }
  return addresses;
}

json floodsOf(const FakeDatabase& database, const std::string& logicalSwitch) {
  std::map<std::string, std::uint64_t> latest;
  json found = json::object();
  for (const auto& [id, row] : database.rows(floods)) {
    const std::string text = row["MAC"];
    const std::string mac = text == "unknown-dst" ? "00:00:00:00:00:00" : text;
    const json addresses = addressesOf(database, row["locator_set"]);
    if (row["logical_switch"][1] == logicalSwitch && text != "no mac" && !addresses.empty() &&
        database.arrival(id) > latest[mac]) {
      latest[mac] = database.arrival(id);
      found[mac] = addresses;
    }
  }
  return found;
}

// By VNI: the hosts, the destinations of each flooded MAC, and whether they are a list.
json plainLook(const FakeDatabase& database) {
  json look = json::object();
  for (const auto& [vni, id] : owners(database)) {
    const json found = floodsOf(database, id);
    const bool list = database.rows(switches).at(id)["replication_mode"] == "source_node";
    look[std::to_string(vni)] = {{"hosts", hostsOf(database, id)},
                                 {"lists", list ? found : json::object()},
                                 {"multipaths", list ? json::object() : found}};
  }
  return look;
}

json published(const Mapping& mapping) {
  json look = json::object();
  const json fdb = mapping.document.value("/controller/fdb"_json_pointer, json::object());
  for (const auto& [vni, entry] : fdb.items()) {
    json found = json::object();
    const json table = entry.value("macVtepTable", json::object());
    for (const auto& [mac, host] : table.items()) {
      found[mac] = host["vtepIp"];
    }
    look[vni] = {{"hosts", found},
                 {"lists", entry.value("macVtepFloodListTable", json::object())},
                 {"multipaths", entry.value("macVtepMultiPathTable", json::object())}};
  }
  return look;
}

// How many rows of a table have which problem. `judge` takes a row and returns its problem, and whether it
// can be used all the same; of the rows of one MAC those below the newest that can be used are duplicates.
template <typename Judge>
void countProblems(const FakeDatabase& database, const char* table, Judge judge, ProblemCounts& counts) {
  std::map<std::pair<std::string, std::string>, std::map<std::uint64_t, const json*, std::greater<>>> chains;
  for (const auto& [id, row] : database.rows(table)) {
    if (row["MAC"] == "no mac") {
      ++counts[static_cast<std::size_t>(ProblemKind::badMac)];
    } else {
      chains[{row["logical_switch"][1], row["MAC"]}][database.arrival(id)] = &row;
    }
  }
  for (const auto& [mac, chain] : chains) {
    bool decided = false;
    for (const auto& [arrival, row] : chain) {
      const auto [problem, usable] = decided ? std::pair(ProblemKind::duplicateMac, true) : judge(*row);
      counts[static_cast<std::size_t>(problem)] += problem == ProblemKind::none ? 0U : 1U;
      decided |= usable;
    }
  }
}

ProblemCounts plainProblems(const FakeDatabase& database) {
  ProblemCounts counts{};
  const auto judgeLocator = [&](const json& reference) {
    return find(database, locators, reference) == nullptr ? ProblemKind::referenceMissing
           : addressOf(database, reference).empty()       ? ProblemKind::locatorUnusable
                                                          : ProblemKind::none;
  };
  const auto judgeHost = [&](const json& row) {
    const ProblemKind problem = find(database, switches, row["logical_switch"]) == nullptr
                                    ? ProblemKind::referenceMissing
                                    : judgeLocator(row["locator"]);
    return std::pair(problem, problem == ProblemKind::none);
  };
  const auto judgeFlood = [&](const json& row) {
    const json* const set = find(database, sets, row["locator_set"]);
    if (find(database, switches, row["logical_switch"]) == nullptr || set == nullptr) {
      return std::pair(ProblemKind::referenceMissing, false);
    }
    std::set<std::string> ids;
    for (const json& locator : elementsOf((*set)["locators"])) {
      ids.insert(locator[1].get<std::string>());
    }
    ProblemKind problem = ProblemKind::none;
    for (const std::string& id : ids) {
      const ProblemKind objection = judgeLocator(json::array({"uuid", id}));
      problem = objection == ProblemKind::none ? problem : objection;
    }
    return std::pair(problem, !addressesOf(database, row["locator_set"]).empty());
  };
  for (const auto& [id, row] : database.rows(locators)) {
    const bool bad = !row["dst_ip"].get<std::string>().starts_with("10.");
    counts[static_cast<std::size_t>(ProblemKind::locatorNotIpv4)] += bad ? 1U : 0U;
  }
  countProblems(database, hosts, judgeHost, counts);
  countProblems(database, floods, judgeFlood, counts);
  return counts;
}

// --- random rows

class RandomRows {
 public:
  RandomRows(std::uint32_t seed, FakeDatabase& database) : random_(seed), database_(database) {}

  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

  // A row is inserted, deleted, or has some of its columns changed.
  void step() {
    static constexpr std::tuple<const char*, int, std::uint32_t> tables[] = {
        {switches, 1, 4}, {locators, 2, 6}, {sets, 3, 5}, {hosts, 4, 12}, {floods, 5, 8}};
    const auto [table, kind, many] = tables[std::min(below(8), 4U)];
    const std::string id = name(kind, below(many));
    const json columns = any(table);
    if (!database_.rows(table).contains(id)) {
      database_.row(table, id) = columns;
    } else if (below(3) == 0) {
      database_.remove(id);
    } else {
      for (const auto& [column, value] : columns.items()) {
        if (below(2) == 0) {
          database_.row(table, id)[column] = value;
        }
      }
    }
  }

  void removeAll() {
    std::vector<std::string> ids;
    for (const char* const table : {switches, locators, sets, hosts, floods}) {
      for (const auto& [id, row] : database_.rows(table)) {
        ids.push_back(id);
      }
    }
    std::shuffle(ids.begin(), ids.end(), random_);
    for (const std::string& id : ids) {
      database_.remove(id);
    }
  }

 private:
  static std::string name(int kind, std::uint32_t number) {
    return std::to_string(kind) + "0000000-0000-4000-8000-00000000000" + "0123456789ab"[number];
  }
  json reference(int kind, std::uint32_t many) { return json::array({"uuid", name(kind, below(many))}); }

  json any(const std::string& table) {
    if (table == switches) {
      return {{"name", "ls" + std::to_string(below(3))},
              {"tunnel_key", below(6) == 0   ? json::array({"set", json::array()})
                             : below(8) == 0 ? json(16777216)
                                             : json(5000 + below(3))},
              {"replication_mode", below(2) == 0 ? "source_node" : "service_node"}};
    }
    if (table == locators) {
      return {{"dst_ip", below(8) == 0   ? "2001:db8::1"
                         : below(9) == 0 ? "224.0.0.1"
                                         : "10.0.0." + std::to_string(1 + below(4))}};
    }
    if (table == sets) {
      json elements = json::array();
      for (std::uint32_t more = below(4); more > 0; --more) {
        json element = reference(2, 6);
        if (std::find(elements.begin(), elements.end(), element) == elements.end()) {
          elements.push_back(std::move(element));
        }
      }
      return {{"locators", elements.size() == 1 ? elements[0] : json::array({"set", elements})}};
    }
    if (table == hosts) {
      return {{"MAC", below(12) == 0 ? "no mac" : "02:00:00:00:00:0" + std::to_string(below(3))},
              {"logical_switch", reference(1, 4)},
              {"locator", reference(2, 6)}};
    }
    const char* const macs[] = {"unknown-dst", "01:00:5e:00:00:01", "no mac"};
    return {
        {"MAC", macs[below(7) % 3]}, {"logical_switch", reference(1, 4)}, {"locator_set", reference(3, 5)}};
  }

  std::mt19937 random_;
  FakeDatabase& database_;
};

void expectNothingIsKept(const RowStore& rows) {
  EXPECT_EQ(rows.logicalSwitches().size(), 0U);
  EXPECT_EQ(rows.locators().size(), 0U);
  EXPECT_EQ(rows.locatorSets().size(), 0U);
  EXPECT_EQ(rows.hosts().size() + rows.hosts().entries(), 0U);
  EXPECT_EQ(rows.floods().size() + rows.floods().entries(), 0U);
  EXPECT_EQ(rows.problemCounts(), ProblemCounts{});
}

void runSeed(std::uint32_t seed, int updates) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  Mapping mapping;
  RandomRows rows(seed, mapping.database);
  mapping.everythingComes();
  for (int update = 0; update < updates; ++update) {
    SCOPED_TRACE("update " + std::to_string(update));
    for (std::uint32_t steps = 1 + rows.below(4); steps > 0; --steps) {
      rows.step();
    }
    const std::uint32_t how = rows.below(10);
    if (how == 0) {
      mapping.sessionIsLost();
      mapping.everythingComes();
    } else if (how == 1) {
      mapping.changesComeUntaken();
      rows.step();
      mapping.changesCome();
    } else {
      mapping.changesCome();
    }
    mapping.timePasses(200);
    ASSERT_FALSE(mapping.converging());
    ASSERT_EQ(published(mapping), plainLook(mapping.database));
    ASSERT_EQ(mapping.mapper.rows().problemCounts(), plainProblems(mapping.database));
  }
  rows.removeAll();
  mapping.changesCome();
  mapping.timePasses(200);
  EXPECT_EQ(published(mapping), json::object());
  expectNothingIsKept(mapping.mapper.rows());
}

// How much is run: by hand, OVSDB_MODEL_SEEDS and OVSDB_MODEL_UPDATES say more.
int setting(const char* name, int usual) {
  const char* const value = std::getenv(name);
  return value == nullptr ? usual : std::atoi(value);
}

}  // namespace

TEST(RowModel, WhatIsPublishedIsWhatAPlainLookAtTheRowsSays) {
  const int seeds = setting("OVSDB_MODEL_SEEDS", 10);
  const int updates = setting("OVSDB_MODEL_UPDATES", 120);
  std::cout << "seeds 1 to " << seeds << ", " << updates << " updates each\n";
  for (int seed = 1; seed <= seeds && !testing::Test::HasFailure(); ++seed) {
    runSeed(static_cast<std::uint32_t>(seed), updates);
  }
}

}  // namespace Agent::Vtep::Testing
