// Random changes of the rows, taken in piece by piece, against a plain mapping of the rows as they are in the
// end.
#include <algorithm>
#include <random>
#include <set>

#include "Mapping.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr int leastRange = 4000, mostRange = 4094;

// What the rows mean, by one look at all of them. VLANs of untagged bindings are not decided here.
class PlainMapping {
 public:
  explicit PlainMapping(const FakeDatabase& database) : database_(database) {
    for (const auto& [id, row] : database.rows("Logical_Switch")) {
      names_[row["name"]] = id;
    }
    bindings();
    vnis();
  }

  // controller.fdb without the counts of moves.
  json fdb() const {
    json fdb = json::object();
    for (const auto& [vni, id] : owners_) {
      json& entry = fdb[std::to_string(vni)] = json::object();
      hosts(id, entry);
      floods(id, entry);
    }
    return fdb;
  }

  // The VLANs of tagged bindings.
  json taggedVlans() const {
    json vlans = json::object();
    for (const auto& [name, id] : names_) {
      const auto bound = tagged_.find(id);
      const std::string vlan = bound == tagged_.end() ? "" : std::to_string(*bound->second.begin());
      if (vniOf(id) != 0 && !vlan.empty() && !vlans.contains(vlan)) {
        vlans[vlan] = vniOf(id);
      }
    }
    return vlans;
  }

  // VNIs that need a VLAN of the range.
  std::set<int> untaggedVnis() const {
    std::set<int> vnis;
    for (const std::string& id : untagged_) {
      if (!tagged_.contains(id) && vniOf(id) != 0) {
        vnis.insert(vniOf(id));
      }
    }
    return vnis;
  }

 private:
  void bindings() {
    const std::string leaf = database_.find("Physical_Switch", "leaf1");
    for (const auto& [id, port] : database_.rows("Physical_Port")) {
      for (const json& pair : port["vlan_bindings"][1]) {
        const int vlan = pair[0];
        if (vlan == 0) {
          untagged_.insert(pair[1][1].get<std::string>());
        } else if (vlan <= 4094) {
          tagged_[pair[1][1]].insert(vlan);
        }
      }
    }
  }

  void vnis() {
    std::map<int, std::tuple<bool, std::string>> best;
    for (const auto& [name, id] : names_) {
      const json& key = database_.rows("Logical_Switch").at(id)["tunnel_key"];
      if (!key.is_number() || key < 1 || key > 16777215) {
        continue;
      }
      const bool unbound = !tagged_.contains(id) && !untagged_.contains(id);
      const auto rank = std::tuple(unbound, name);
      const auto [known, first] = best.try_emplace(key.get<int>(), rank);
      if (first || rank < known->second) {
        known->second = rank;
        owners_[key.get<int>()] = id;
      }
    }
  }

  int vniOf(const std::string& id) const {
    for (const auto& [vni, owner] : owners_) {
      if (owner == id) {
        return vni;
      }
    }
    return 0;
  }

  std::string addressOf(const json& locator) const {
    const std::string text = database_.rows("Physical_Locator").at(locator[1])["dst_ip"];
    return parseIpv4(text) ? text : "";
  }

  void hosts(const std::string& id, json& entry) const {
    std::map<std::string, std::uint64_t> latest;
    for (const auto& [row, columns] : database_.rows("Ucast_Macs_Remote")) {
      const std::string address = addressOf(columns["locator"]);
      const std::string mac = columns["MAC"];
      if (columns["logical_switch"][1] == id && !address.empty() && parseMac(mac) &&
          database_.arrival(row) > latest[mac]) {
        latest[mac] = database_.arrival(row);
        entry["macVtepTable"][mac]["vtepIp"] = address;
      }
    }
  }

  void floods(const std::string& id, json& entry) const {
    const json& mode = database_.rows("Logical_Switch").at(id)["replication_mode"];
    const char* const table = mode == "source_node" ? "macVtepFloodListTable" : "macVtepMultiPathTable";
    std::map<std::string, std::uint64_t> latest;
    for (const auto& [row, columns] : database_.rows("Mcast_Macs_Remote")) {
      const std::string text = columns["MAC"];
      const std::string mac = text == "unknown-dst" ? "00:00:00:00:00:00" : text;
      const json& set = database_.rows("Physical_Locator_Set").at(columns["locator_set"][1])["locators"];
      json addresses = json::object();
      json locators = json::array();
      if (set[0] == "set") {
        locators = set[1];
      } else {
        locators.push_back(set);
      }
      for (const json& locator : locators) {
        if (const std::string address = addressOf(locator); !address.empty()) {
          addresses[address] = true;
        }
      }
      if (columns["logical_switch"][1] == id && !addresses.empty() && database_.arrival(row) > latest[mac]) {
        latest[mac] = database_.arrival(row);
        entry[table][mac] = addresses;
      }
    }
  }

  const FakeDatabase& database_;
  std::map<std::string, std::string> names_;
  std::map<std::string, std::set<int>> tagged_;
  std::set<std::string> untagged_;
  std::map<int, std::string> owners_;
};

// The document's part without counts of moves and without tables that are empty.
json plain(json fdb) {
  if (fdb.is_null()) {
    return json::object();
  }
  for (json& entry : fdb) {
    if (entry.contains("macVtepTable")) {
      for (json& host : entry["macVtepTable"]) {
        host.erase("moveCount");
      }
    }
    for (const char* const table : {"macVtepTable", "macVtepFloodListTable", "macVtepMultiPathTable"}) {
      if (entry.contains(table) && entry[table].empty()) {
        entry.erase(table);
      }
    }
  }
  return fdb;
}

// A controller and an operator who do anything at any time.
class Scramble {
 public:
  Scramble(std::uint32_t seed, Mapping& mapping) : random_(seed), mapping_(mapping) {
    mapping.database.physicalSwitch("leaf1", {"10.0.0.1"});
    for (int i = 0; i < 3; ++i) {
      mapping.database.logicalSwitch(switchName(i), 5000 + i, "source_node");
    }
  }

  void step() {
    FakeDatabase& database = mapping_.database;
    const std::string name = anySwitch();
    switch (below(14)) {
      case 0:
        database.logicalSwitch(freshName(), below(4) == 0 ? std::nullopt : std::optional{anyKey()},
                               below(2) == 0 ? "source_node" : "");
        return;
      case 1:
        return name.empty() ? void() : database.removeLogicalSwitch(name);
      case 2:
        return name.empty() ? void()
                            : database.key(name, below(5) == 0 ? std::nullopt : std::optional{anyKey()});
      case 3:
        return name.empty() ? void() : database.mode(name, below(2) == 0 ? "source_node" : "service_node");
      case 4:
        return name.empty() ? void() : database.bind("leaf1", anyPort(), anyVlan(), name);
      case 5: {
        const std::string port = anyPort();
        return database.find("Physical_Port", port).empty() ? void() : database.unbind(port, anyVlan());
      }
      case 6:
        return remove("Mcast_Macs_Remote");
      case 7:
        return name.empty() ? void() : static_cast<void>(database.flood(name, anyGroup(), anyVteps()));
      case 8:
        if (const std::string row = any("Mcast_Macs_Remote"); !row.empty()) {
          database.moveFlood(row, anyVteps());
        }
        return;
      case 9:
        if (const std::string row = any("Ucast_Macs_Remote"); !row.empty()) {
          database.moveHost(row, anyVtep());
        }
        return;
      case 10:
        return remove("Ucast_Macs_Remote");
      default:
        return name.empty() ? void() : static_cast<void>(database.host(name, anyMac(), anyVtep()));
    }
  }

  std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

 private:
  static std::string switchName(int i) { return "ls" + std::to_string(i); }
  std::string freshName() { return "ls" + std::to_string(++last_) + "-" + std::to_string(below(10)); }
  std::string any(const std::string& table) {
    const auto& rows = mapping_.database.rows(table);
    return rows.empty() ? "" : std::next(rows.begin(), below(static_cast<std::uint32_t>(rows.size())))->first;
  }
  std::string anySwitch() {
    const std::string id = any("Logical_Switch");
    return id.empty() ? "" : mapping_.database.rows("Logical_Switch").at(id)["name"].get<std::string>();
  }
  std::int64_t anyKey() { return below(12) == 0 ? 16777216 : 5000 + below(6); }
  std::string anyPort() { return "t" + std::to_string(below(3)); }
  int anyVlan() { return below(8) == 0 ? 4095 : static_cast<int>(below(5)); }
  std::string anyVtep() { return below(10) == 0 ? "2001:db8::1" : "10.0.0." + std::to_string(2 + below(4)); }
  std::vector<std::string> anyVteps() {
    std::set<std::string> vteps{anyVtep()};
    for (std::uint32_t more = below(3); more > 0; --more) {
      vteps.insert(anyVtep());
    }
    return {vteps.begin(), vteps.end()};
  }
  std::string anyMac() { return below(15) == 0 ? "no mac" : "02:00:00:00:00:0" + std::to_string(below(8)); }
  std::string anyGroup() { return below(3) == 0 ? "01:00:5e:00:00:01" : "unknown-dst"; }
  void remove(const std::string& table) {
    if (const std::string row = any(table); !row.empty()) {
      mapping_.database.remove(row);
    }
  }

  std::mt19937 random_;
  Mapping& mapping_;
  int last_ = 100;
};

// Holds after all that was pending has been taken, outside of convergence.
void expectMappedAsByOneLook(const Mapping& mapping) {
  const PlainMapping expected(mapping.database);
  ASSERT_EQ(plain(mapping.at("/controller/fdb")), expected.fdb());
  json tagged = json::object();
  std::set<int> untagged;
  const json vlans = mapping.vlans();
  for (const auto& [vlan, vni] : vlans.items()) {
    if (std::stoi(vlan) >= leastRange && std::stoi(vlan) <= mostRange) {
      untagged.insert(vni.get<int>());
    } else {
      tagged[vlan] = vni;
    }
  }
  ASSERT_EQ(tagged, expected.taggedVlans());
  ASSERT_EQ(untagged, expected.untaggedVnis());
  std::size_t hosts = 0;
  for (const json& entry : plain(mapping.at("/controller/fdb"))) {
    hosts += entry.value("macVtepTable", json::object()).size();
  }
  ASSERT_EQ(mapping.mapper.publishedHosts(), hosts);
}

}  // namespace

TEST(MapperModel, RandomUpdatesEndAsAMappingOfTheRowsByOneLook) {
  for (std::uint32_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Mapping mapping;
    Scramble scramble(seed, mapping);
    mapping.everythingComes();
    for (int update = 0; update < 60; ++update) {
      SCOPED_TRACE("update " + std::to_string(update));
      for (std::uint32_t steps = 1 + scramble.below(6); steps > 0; --steps) {
        scramble.step();
      }
      if (scramble.below(4) == 0) {
        mapping.changesComeUntaken();
        continue;
      }
      mapping.changesCome();
      mapping.timePasses(200);
      ASSERT_FALSE(mapping.converging());
      expectMappedAsByOneLook(mapping);
      ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
  }
}

TEST(MapperModel, LostSessionsAndConvergenceEndAsAMappingOfTheRowsByOneLook) {
  for (std::uint32_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Mapping mapping;
    Scramble scramble(seed, mapping);
    mapping.everythingComes();
    for (int update = 0; update < 60; ++update) {
      SCOPED_TRACE("update " + std::to_string(update));
      for (std::uint32_t steps = 1 + scramble.below(10); steps > 0; --steps) {
        scramble.step();
      }
      switch (scramble.below(5)) {
        case 0:
          mapping.sessionIsLost();
          mapping.everythingComes();
          break;
        case 1:
          mapping.sessionIsLost();
          mapping.changesCome();
          break;
        case 2:
          mapping.database.converging(scramble.below(2) == 0 ? "true" : "");
          mapping.changesCome();
          break;
        default:
          mapping.changesCome();
          mapping.timePasses(scramble.below(3));
          break;
      }
      if (scramble.below(5) == 0) {
        mapping.timePasses(200);
        ASSERT_FALSE(mapping.converging());
        expectMappedAsByOneLook(mapping);
        ASSERT_FALSE(testing::Test::HasFatalFailure());
      }
    }
  }
}

}  // namespace Agent::Vtep::Testing
