#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeDatabase.h"
#include "agent/vtep/Mapper.h"
#include "service/ovsdb/UpdateWalk.h"

namespace Agent::Vtep::Testing {

// A mapper between a fake database and the agent's input document, on time that the test moves. Rows are
// taken in and settled a few at a time, patches a few hosts at a time.
class Mapping {
 public:
  static MapperOptions options() {
    MapperOptions options;
    options.topology.switchName = "leaf1";
    options.convergeAtStart = false;
    return options;
  }

  explicit Mapping(MapperOptions options = Mapping::options()) : mapper(std::move(options)) {}

  // The database answers with everything; the agent takes all patches.
  void everythingComes() {
    take(database.everything(), true);
    patchesAreTaken();
  }
  // The database tells what changed; the agent takes all patches.
  void changesCome() {
    changesComeUntaken();
    patchesAreTaken();
  }
  void changesComeUntaken() { take(database.changes(), false); }
  void sessionIsLost() { mapper.sessionLost(now); }

  void timePasses(double seconds) {
    now += seconds;
    mapper.tick(now);
    settle();
    patchesAreTaken();
  }

  void patchesAreTaken() {
    while (std::optional<nlohmann::json> patch = mapper.next(2)) {
      mostInAPatch = std::max(mostInAPatch, mapper.lastSpent());
      document.merge_patch(*patch);
      patches.push_back(std::move(*patch));
    }
  }

  void take(const std::string& text, bool whole) {
    Ovsdb::UpdateWalk walk(hardwareVtep(), text);
    mapper.beginUpdate(whole, now);
    while (walk.step(2, mapper)) {
    }
    mapper.endUpdate(now);
    settle();
  }
  void settle() {
    for (bool more = true; more;) {
      more = mapper.settle(stepsPerTurn, now);
      mostInATurn = std::max(mostInATurn, mapper.lastSpent());
      inAllTurns += mapper.lastSpent();
    }
  }

  // A part of the document; null where there is nothing.
  nlohmann::json at(const std::string& pointer) const {
    const nlohmann::json::json_pointer place(pointer);
    return document.contains(place) ? document.at(place) : nlohmann::json();
  }
  nlohmann::json vni(int vni) const { return at("/controller/fdb/" + std::to_string(vni)); }
  nlohmann::json vlans() const { return at("/vlanVniMap/Vxlan1"); }
  bool converging() const { return at("/controller/state/ovsdb/convergenceInProgress") == true; }
  std::string vtepOf(int vni, const std::string& mac) const {
    const nlohmann::json value = at("/controller/fdb/" + std::to_string(vni) + "/macVtepTable/" + mac);
    return value.is_null() ? "none" : value["vtepIp"].get<std::string>();
  }
  int movesOf(int vni, const std::string& mac) const {
    return at("/controller/fdb/" + std::to_string(vni) + "/macVtepTable/" + mac)["moveCount"].get<int>();
  }
  std::size_t problems(ProblemKind kind) const {
    return mapper.problemCounts()[static_cast<std::size_t>(kind)];
  }
  std::string problemText(ProblemKind kind) const {
    for (const Problem& problem : mapper.problems(1000)) {
      if (problem.kind == kind) {
        return problem.text;
      }
    }
    return "";
  }

  FakeDatabase database;
  Mapper mapper;
  double now = 1000;
  nlohmann::json document = nlohmann::json::object();
  std::vector<nlohmann::json> patches;
  // what the turns looked at
  std::size_t stepsPerTurn = 3;
  std::size_t mostInATurn = 0;
  std::size_t inAllTurns = 0;
  std::size_t mostInAPatch = 0;
};

}  // namespace Agent::Vtep::Testing
