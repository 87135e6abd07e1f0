#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LiveServer.h"
#include "agent/vtep/Adapter.h"

namespace Agent::Vtep::Testing {

// Whether a patch withdraws anything of the controller's tables.
inline bool hasNull(const nlohmann::json& value) {
  return value.is_null() || (value.is_object() && std::any_of(value.begin(), value.end(), hasNull));
}
inline bool withdraws(const nlohmann::json& patch) {
  return hasNull(patch.value("/controller/fdb"_json_pointer, nlohmann::json::object()));
}

// The agent's side: a loop with an adapter whose patches make a document.
class LiveTest : public testing::Test {
 protected:
  void agentStarts(const std::string& remotes) {
    Adapter::Options options;
    options.session.remotes = Ovsdb::Remote::parseList(remotes);
    options.session.mostBackoff = 0.2;
    options.mapper.topology.switchName = "leaf1";
    options.mapper.convergence.quiet = 0.3;
    options.tls = tls;
    adapter = std::make_unique<Adapter>(
        loop, options, [this] { takePatches(); }, [this](const std::string& line) { log.push_back(line); });
  }

  void takePatches() {
    while (std::optional<nlohmann::json> patch = adapter->next(1000)) {
      const bool withdrawing = withdraws(*patch);
      document.merge_patch(*patch);
      withdrawn |= withdrawing;
      withdrawnWithoutConvergence |= withdrawing && !converging();
    }
  }

  // Lets the loop turn until it is so; false after two minutes.
  bool becomes(const std::function<bool()>& so) {
    const auto deadline = Service::EventLoop::Clock::now() + std::chrono::minutes(2);
    while (!so() && Service::EventLoop::Clock::now() < deadline) {
      loop.runOnce(std::chrono::milliseconds(20));
    }
    return so();
  }
  bool logs(const std::string& text) {
    return becomes([&] {
      return std::any_of(log.begin(), log.end(),
                         [&](const std::string& line) { return line.find(text) != std::string::npos; });
    });
  }
  std::size_t hosts(int vni) const {
    const nlohmann::json::json_pointer place("/controller/fdb/" + std::to_string(vni) + "/macVtepTable");
    return document.contains(place) ? document.at(place).size() : 0;
  }
  bool converging() const {
    return document.value("/controller/state/ovsdb/convergenceInProgress"_json_pointer, false);
  }

  TemporaryFolder folder;
  Ovsdb::TlsOptions tls;
  Service::EventLoop loop;
  std::unique_ptr<Adapter> adapter;
  nlohmann::json document = nlohmann::json::object();
  std::vector<std::string> log;
  bool withdrawn = false;                    // something of the controller's tables
  bool withdrawnWithoutConvergence = false;  // so that the client deleted it at once
};

// With database servers.
class LiveServerTest : public LiveTest {
 protected:
  void SetUp() override {
    if (const std::string reason = reasonToSkip(); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }

  void create(const std::string& name, const std::string& schema = "/usr/share/openvswitch/vtep.ovsschema") {
    run({programPath("ovsdb-tool"), "create", folder / (name + ".db"), schema}, folder / "tool.log");
  }
  Process serve(const std::string& name, const std::vector<std::string>& more = {}) {
    std::vector<std::string> command{programPath("ovsdb-server"), "--no-chdir", "-vconsole:warn",
                                     "--unixctl=" + folder / (name + ".ctl"),
                                     "--remote=punix:" + folder / (name + ".sock")};
    command.insert(command.end(), more.begin(), more.end());
    command.push_back(folder / (name + ".db"));
    return {command, folder / (name + ".log")};
  }
  std::string socket(const std::string& name) const { return folder / (name + ".sock"); }
};

}  // namespace Agent::Vtep::Testing
