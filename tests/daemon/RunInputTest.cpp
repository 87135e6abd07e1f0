// Random documents through the checks that a patch at the control socket passes: whatever is accepted, the
// agent goes on, and what it floods to is what is published.
//
// RUN_INPUT_SEEDS in the environment says how many sequences there are, RUN_INPUT_FIRST with which seed they
// begin.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <random>
#include <set>

#include "Running.h"

namespace {

using nlohmann::json;
using TestDaemon::Running;

constexpr std::array vtis{"Vxlan1", "Vxlan2", "Vxlan3"};
constexpr std::array vnis{"1", "2", "3", "16777215"};
constexpr std::array macs{"00:00:00:00:00:00", "02:00:00:00:00:01", "02:00:00:00:00:02", "FF:ff:ff:ff:ff:ff",
                          "01:00:5e:00:00:01"};
constexpr std::array addresses{"0.0.0.0",  "10.0.0.1", "10.0.0.2",  "10.0.0.3",
                               "10.0.1.1", "10.0.2.1", "224.0.0.1", "255.255.255.255"};
constexpr std::array<std::uint32_t, 6> integers{0, 1, 2, 3, 16, UINT32_MAX};
constexpr int patchesPerSeed = 25;

class Documents {
 public:
  explicit Documents(std::uint64_t seed) : dice_(seed) {}

  unsigned below(std::size_t bound) { return static_cast<unsigned>(dice_() % bound); }
  bool chance(unsigned percent) { return below(100) < percent; }
  template <class List>
  auto oneOf(const List& list) {
    return list[below(list.size())];
  }

  json patch() {
    json patch = json::object();
    if (chance(30)) {
      patch["vtiStatus"] = chance(3) ? json() : some(vtis, 60, [&] { return vtiStatus(); });
    }
    if (chance(35)) {
      patch["vlanVniMap"] = chance(4) ? json() : chance(75) ? agreedMaps() : anyMaps();
    }
    if (chance(20)) {
      patch["mlag"] = chance(5) ? json() : mlag();
    }
    if (chance(25)) {
      const json mode = chance(60) ? json(3) : scalar();
      patch["hardware"] = chance(5) ? json() : json{{"bumStatus", {{"bumReplicationMode", mode}}}};
    }
    if (chance(30)) {
      patch["controller"]["state"] = chance(4) ? json() : state();
    }
    if (chance(60)) {
      patch["controller"]["fdb"] = chance(2) ? json() : some(vnis, 40, [&] { return vni(); });
    }
    return patch;
  }

 private:
  // Some of the names, each with a value, or with null to remove it.
  template <class Names, class Value>
  json some(const Names& names, unsigned percent, const Value& value, unsigned removed = 20) {
    json object = json::object();
    for (const char* name : names) {
      if (chance(percent)) {
        object[name] = chance(removed) ? json() : value();
      }
    }
    return object;
  }
  json scalar() { return chance(15) ? json() : json(oneOf(integers)); }
  json flag() { return chance(15) ? json() : json(chance(60)); }
  json address() { return oneOf(addresses); }
  json addressSet() {
    return some(addresses, 35, [&] { return json(chance(85)); });
  }

  json vtiStatus() {
    json status = json::object();
    if (chance(50)) status["controllerClientMode"] = chance(80) ? json(true) : flag();
    if (chance(30)) status["datapathLearning"] = chance(70) ? json(false) : flag();
    if (chance(30)) status["localVtepAddr"] = chance(20) ? json() : address();
    if (chance(30)) status["dgwVtepAddr"] = chance(20) ? json() : address();
    return status;
  }

  // Each VTI has VLANs of its own, more than there are VNIs, so that a VNI can move from one to another.
  static std::string vlan(std::size_t vti, std::size_t number) {
    return std::to_string(100 * vti + number + 1);
  }

  // The same VNIs on some of the VTIs, nothing on the others.
  json agreedMaps() {
    std::vector<const char*> chosen;
    for (const char* vni : vnis) {
      if (chance(50)) chosen.push_back(vni);
    }
    json maps = json::object();
    for (std::size_t vti = 0; vti < vtis.size(); ++vti) {
      if (chance(30)) {
        maps[vtis[vti]] = chance(70) ? json() : json::object();
        continue;
      }
      json map = json::object();
      std::vector<std::size_t> free{0, 1, 2, 3, 4};
      for (const std::size_t number : free) {
        map[vlan(vti, number)] = nullptr;
      }
      std::shuffle(free.begin(), free.end(), dice_);
      for (std::size_t at = 0; at < chosen.size(); ++at) {
        map[vlan(vti, free[at])] = std::stoul(chosen[at]);
      }
      maps[vtis[vti]] = std::move(map);
    }
    return maps;
  }

  // Whatever comes: most of these are refused.
  json anyMaps() {
    json maps = json::object();
    for (std::size_t vti = 0; vti < vtis.size(); ++vti) {
      if (chance(40)) {
        json map = json::object();
        for (std::size_t number = 0; number < 5; ++number) {
          if (chance(30)) {
            map[vlan(chance(95) ? vti : 0, number)] = chance(40) ? json() : json(std::stoul(oneOf(vnis)));
          }
        }
        maps[vtis[vti]] = chance(20) ? json() : std::move(map);
      }
    }
    return maps;
  }

  json mlag() {
    json peer = json::object();
    if (chance(60)) peer["bumReplicationMode"] = chance(70) ? json(3) : scalar();
    if (chance(60)) {
      json lists = json::object();
      for (std::size_t number = 0; number < 3; ++number) {
        const std::string name = vlan(below(vtis.size()), number);
        lists[name] = chance(20) ? json() : some(macs, 40, [&] {
          json list = json::object();
          if (chance(50)) list["bumVtepIpListType"] = scalar();
          if (chance(80)) list["remoteVtepAddr"] = chance(10) ? json() : addressSet();
          return list;
        });
      }
      peer["bumVtepList"] = chance(10) ? json() : std::move(lists);
    }
    json all = json::object();
    if (chance(70)) all["bumStatus"] = chance(5) ? json() : std::move(peer);
    if (chance(60)) all["mlagState"] = chance(70) ? json(2) : scalar();
    if (chance(30)) all["vtepAddr"] = some(std::array{"", "anycast"}, 60, [&] { return address(); });
    return all;
  }

  json state() {
    if (chance(10)) return {{"s", nullptr}, {"t", chance(50) ? json("announced") : json::object()}};
    if (chance(10)) return {{"t", nullptr}};
    if (chance(10)) return {{"s", "announced"}};
    return {{"s", chance(10)   ? json()
                  : chance(10) ? json::object()
                               : json{{"convergenceInProgress", flag()}}}};
  }

  json vni() {
    if (chance(5)) return "announced";
    json tables = json::object();
    if (chance(70)) {
      tables["macVtepTable"] = chance(5) ? json() : some(macs, 50, [&] {
        json host{{"vtepIp", chance(2) ? json() : address()}};
        if (chance(30)) host["moveCount"] = scalar();
        if (chance(30)) host["hostAttr"] = chance(50) ? json(16) : json(below(256));
        return host;
      });
    }
    const auto sets = [&] { return addressSet(); };
    if (chance(50)) tables["macVtepMultiPathTable"] = chance(10) ? json() : some(macs, 30, sets, 40);
    if (chance(70)) tables["macVtepFloodListTable"] = chance(5) ? json() : some(macs, 50, sets);
    return tables;
  }

  std::mt19937_64 dice_;
};

// The VNIs that a machine is to follow: instantiated, and mapped by a VTI.
std::set<std::uint32_t> followed(const json& input) {
  std::set<std::uint32_t> numbers;
  for (const json& map : input.at("vlanVniMap")) {
    for (const json& vni : map) {
      const auto entry = input.at("controller").at("fdb").find(std::to_string(vni.get<std::uint32_t>()));
      if (entry != input.at("controller").at("fdb").end() && entry->is_object()) {
        numbers.insert(vni.get<std::uint32_t>());
      }
    }
  }
  return numbers;
}

// The destinations that are published for a MAC in a VNI: any of a multipath entry, else all of the flood
// list.
json publishedDests(const json& vni, const std::string& mac) {
  json dests = json::array();
  const json multiPath = vni.at("macVtepMultiPathTable").value(mac, json::object());
  for (auto vtep = multiPath.begin(); vtep != multiPath.end(); ++vtep) {
    dests.push_back(vtep.key());
  }
  if (!dests.empty()) {
    return dests;
  }
  const json list = vni.at("macVtepFloodListTable").value(mac, json::object());
  for (auto vtep = list.begin(); vtep != list.end(); ++vtep) {
    if (*vtep == true) {
      dests.push_back(vtep.key());
    }
  }
  return dests;
}

// In each VLAN there is a destination for whatever is published for its VNI; more may be left from before.
void expectFloods(const json& input, const json& output) {
  for (const json& map : input.at("vlanVniMap")) {
    for (auto mapping = map.begin(); mapping != map.end(); ++mapping) {
      const auto vni = input.at("controller").at("fdb").find(std::to_string(mapping->get<std::uint32_t>()));
      if (vni == input.at("controller").at("fdb").end() || !vni->is_object()) {
        continue;
      }
      const json floods = output.at("l2Rib").at("floodSets").value(mapping.key(), json::object());
      for (const char* table : {"macVtepMultiPathTable", "macVtepFloodListTable"}) {
        for (auto entry = vni->at(table).begin(); entry != vni->at(table).end(); ++entry) {
          const json have = floods.value(entry.key(), json::object()).value("dests", json::array());
          for (const json& dest : publishedDests(*vni, entry.key())) {
            EXPECT_NE(std::find(have.begin(), have.end(), dest), have.end())
                << "VLAN " << mapping.key() << " MAC " << entry.key() << " is not flooded to " << dest;
          }
        }
      }
    }
  }
}

void expectSound(Running& agent) {
  const json input = agent.input();
  const json output = agent.output();
  const json& client = output.at("client");
  const bool on = client.at("vxlanControllerClientMode").get<bool>();
  EXPECT_EQ(client.at("perVni").get<std::set<std::uint32_t>>(),
            on ? followed(input) : std::set<std::uint32_t>());
  if (on && input.at("hardware").at("bumStatus").at("bumReplicationMode") == 3) {
    expectFloods(input, output);
  }
}

struct Count {
  std::size_t accepted = 0;
  std::size_t refused = 0;
  std::size_t several = 0;  // documents in which two VTIs map something
  std::size_t errors = 0;
};

void runSequence(std::uint64_t seed, Count& count) {
  Documents documents(seed);
  Running agent(documents.chance(10) ? 6 : 4096);
  agent.tickPerReadIs(documents.chance(50) ? 0 : documents.chance(50) ? 0.0005 : 0.003);
  ASSERT_EQ(agent.patch(R"({"vtiStatus": {"Vxlan1": {"controllerClientMode": true}}})"), "");
  for (int step = 0; step < patchesPerSeed; ++step) {
    const json patch = documents.patch();
    SCOPED_TRACE("seed " + std::to_string(seed) + ", patch " + std::to_string(step) + ": " + patch.dump());
    ++(agent.patch(patch).empty() ? count.accepted : count.refused);
    const json maps = agent.input("/vlanVniMap");
    count.several +=
        std::count_if(maps.begin(), maps.end(), [](const json& map) { return !map.empty(); }) > 1;
    for (unsigned turns = documents.below(4); turns > 0; --turns) {
      agent.turn();
    }
    if (documents.chance(30)) {
      agent.settle();
    }
    agent.advance(documents.chance(50) ? 0 : documents.chance(50) ? 0.001 : 100);
    if (agent.errors == 0) {
      expectSound(agent);
    }
    if (testing::Test::HasFailure()) {
      return;
    }
  }
  agent.settle();
  count.errors += agent.errors;
}

std::uint64_t numberFrom(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

TEST(RunInputTest, NoDocumentEndsTheAgent) {
  const std::uint64_t first = numberFrom("RUN_INPUT_FIRST", 1);
  const std::uint64_t seeds = numberFrom("RUN_INPUT_SEEDS", 150);
  Count count;
  for (std::uint64_t seed = first; seed < first + seeds && !HasFailure(); ++seed) {
    if (seeds > 1000 && seed % 1000 == 0) {
      std::cout << "seed " << seed << std::endl;
    }
    RecordProperty("seed", std::to_string(seed));
    runSequence(seed, count);
  }
  std::cout << seeds << " seeds from " << first << ": " << count.accepted << " patches accepted, "
            << count.refused << " refused, " << count.several << " documents of several VTIs, "
            << count.errors << " writes that a full table refused" << std::endl;
  EXPECT_GT(count.accepted, count.refused);
  EXPECT_GT(count.refused, 0U);
  EXPECT_GT(count.several, 0U);
  EXPECT_GT(count.errors, 0U);
}

}  // namespace
