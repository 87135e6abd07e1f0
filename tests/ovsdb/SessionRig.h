#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Schemas.h"
#include "agent/vtep/Schema.h"
#include "service/ovsdb/Session.h"

namespace Ovsdb::Testing {

using Agent::Vtep::hardwareVtep;

inline constexpr const char* rowId = "11111111-1111-4111-8111-111111111111";
inline constexpr const char* noTransaction = "00000000-0000-0000-0000-000000000000";
inline constexpr const char* transaction = "99999999-9999-4999-8999-999999999999";

// Writes down what it is told.
class Taker : public UpdateSink {
 public:
  void beginUpdate(bool whole, double) override { told.emplace_back(whole ? "whole" : "part"); }
  void row(const RowEvent& event) override {
    if (!raises.empty()) {
      throw std::runtime_error(raises);
    }
    told.push_back("row " + std::string{hardwareVtep().tables()[event.table].name});
  }
  void endUpdate(double) override {
    if (raisesAtTheEnd) {
      throw std::bad_alloc{};
    }
    told.emplace_back("end");
  }
  void sessionLost(double) override { told.emplace_back("lost"); }
  std::vector<std::string> told;
  std::string raises;  // in place of taking a row
  bool raisesAtTheEnd = false;
};

// A session with a peer that the test plays, message by message, on time that the test moves.
class SessionTest : public testing::Test {
 protected:
  static SessionOptions options() {
    SessionOptions options;
    options.remotes = Remote::parseList("unix:/one,unix:/two,unix:/three");
    options.largestFirst = 1 << 20;
    return options;
  }

  // In place of the session, one with other options.
  void behaves(const SessionOptions& options) {
    slot.emplace(hardwareVtep(), options, sink, [this](const std::string& line) { log.push_back(line); });
  }

  std::string connects() {
    const std::optional<Remote> remote = session.connectTo(now);
    if (!remote) {
      return "not now";
    }
    session.connecting(now);
    session.connected(now);
    return remote->text();
  }
  void comes(std::string_view bytes) {
    while (!bytes.empty() && session.state() >= SessionState::checking) {
      const std::string_view piece = bytes.substr(0, 50'000);
      const std::span<char> room = session.room(piece.size());
      std::copy(piece.begin(), piece.end(), room.begin());
      session.received(piece.size(), now);
      bytes.remove_prefix(piece.size());
      while (session.work(1, now)) {
      }
    }
  }
  void comesMessage(const nlohmann::json& message) { comes(message.dump()); }
  // The messages that went out since the last look.
  std::vector<nlohmann::json> goesOut() {
    std::vector<nlohmann::json> messages;
    std::string bytes{session.output()};
    session.written(bytes.size(), now);
    Framer framer;
    while (framer.scan(bytes)) {
      messages.push_back(nlohmann::json::parse(bytes.substr(0, framer.length())));
      bytes.erase(0, framer.length());
      framer.next();
    }
    EXPECT_EQ(bytes, "");
    return messages;
  }
  void answers(const std::string& id, const nlohmann::json& result) {
    comesMessage(nlohmann::json{{"id", id}, {"result", result}, {"error", nullptr}});
  }
  // The schema and the server's status are answered; the rows have been asked for.
  void isAskedForRows() {
    connects();
    answers("schema", goodSchema());
    serverSays(true);
    goesOut();
  }
  static nlohmann::json update() {
    return {{"id", nullptr},
            {"method", "update3"},
            {"params", nlohmann::json::array({"rows", transaction, oneRow()})}};
  }
  void refuses(const std::string& id, const nlohmann::json& error) {
    comesMessage(nlohmann::json{{"id", id}, {"result", nullptr}, {"error", error}});
  }
  void serverSays(bool isConnected) {
    answers("server",
            nlohmann::json::array(
                {false,
                 noTransaction,
                 {{"Database",
                   {{rowId, {{"initial", {{"name", "hardware_vtep"}, {"connected", isConnected}}}}}}}}}));
  }
  static nlohmann::json oneRow() {
    return {{"Physical_Locator", {{rowId, {{"insert", {{"dst_ip", "10.0.0.2"}}}}}}}};
  }
  void follows() {
    isAskedForRows();
    answers("rows", nlohmann::json::array({false, transaction, nlohmann::json::object()}));
    ASSERT_EQ(session.state(), SessionState::following);
    sink.told.clear();
  }

  double now = 100;
  Taker sink;
  std::vector<std::string> log;
  std::optional<Session> slot{std::in_place, hardwareVtep(), options(), sink,
                              [this](const std::string& line) { log.push_back(line); }};
  Session& session = *slot;
};

}  // namespace Ovsdb::Testing
