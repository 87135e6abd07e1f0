#include <gmock/gmock.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "SessionRig.h"

namespace Ovsdb::Testing {

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

}  // namespace

TEST_F(SessionTest, SchemaAndServerAreAskedForFirstThenTheRows) {
  EXPECT_EQ(connects(), "unix:/one");
  auto out = goesOut();
  ASSERT_EQ(out.size(), 2U);
  EXPECT_EQ(out[0], json::parse(R"({"id":"schema","method":"get_schema","params":["hardware_vtep"]})"));
  EXPECT_EQ(out[1]["method"], "monitor_cond_since");
  EXPECT_EQ(out[1]["params"][0], "_Server");
  serverSays(true);
  EXPECT_TRUE(goesOut().empty());
  answers("schema", goodSchema());
  out = goesOut();
  ASSERT_EQ(out.size(), 1U);
  EXPECT_EQ(out[0]["method"], "monitor_cond_since");
  EXPECT_EQ(out[0]["params"][0], "hardware_vtep");
  EXPECT_EQ(out[0]["params"][2]["Physical_Locator"], json::parse(R"([{"columns":["dst_ip"]}])"));
  EXPECT_EQ(out[0]["params"][3], noTransaction);
  answers("rows", json::array({false, transaction, oneRow()}));
  EXPECT_THAT(sink.told, ElementsAre("whole", "row Physical_Locator", "end"));
  EXPECT_EQ(session.state(), SessionState::following);
  EXPECT_EQ(session.lastTransaction(), transaction);
}

TEST_F(SessionTest, UpdatesAreTakenAsTheyCome) {
  follows();
  const json update{
      {"id", nullptr}, {"method", "update3"}, {"params", json::array({"rows", transaction, oneRow()})}};
  comes(update.dump() + update.dump());
  EXPECT_THAT(sink.told,
              ElementsAre("part", "row Physical_Locator", "end", "part", "row Physical_Locator", "end"));
}

TEST_F(SessionTest, MessagesAreUnderstoodHoweverTheBytesAreCut) {
  const std::string text =
      json{{"id", "schema"}, {"result", goodSchema()}, {"error", nullptr}}.dump() +
      json{{"id", "server"}, {"result", nullptr}, {"error", "unknown database"}}.dump() +
      json{{"id", "rows"}, {"result", json::array({false, transaction, oneRow()})}, {"error", nullptr}}
          .dump();
  connects();
  for (const char byte : text) {
    comes(std::string_view{&byte, 1});
  }
  EXPECT_THAT(sink.told, ElementsAre("whole", "row Physical_Locator", "end"));
}

TEST_F(SessionTest, ThePeerIsHeldBackWhileRowsAreWorkedOn) {
  follows();
  const std::string text =
      json{{"id", nullptr}, {"method", "update3"}, {"params", json::array({"rows", transaction, oneRow()})}}
          .dump();
  const std::span<char> room = session.room(text.size());
  std::copy(text.begin(), text.end(), room.begin());
  EXPECT_TRUE(session.wantsInput());
  session.received(text.size(), now);
  EXPECT_TRUE(session.work(1, now));
  EXPECT_FALSE(session.wantsInput());
  while (session.work(1, now)) {
  }
  EXPECT_TRUE(session.wantsInput());
}

// --- echo

TEST_F(SessionTest, AnEchoRequestIsAnswered) {
  follows();
  comesMessage(json::parse(R"({"method":"echo","params":["a",1],"id":{"x":7}})"));
  EXPECT_THAT(goesOut(), ElementsAre(json::parse(R"({"id":{"x":7},"result":["a",1],"error":null})")));
}

TEST_F(SessionTest, ASilentPeerIsAskedAndGivenUpWhenItStaysSilent) {
  follows();
  EXPECT_EQ(session.nextWakeup(), now + 5);
  now += 5;
  session.tick(now);
  ASSERT_EQ(goesOut().size(), 1U);
  EXPECT_EQ(session.nextWakeup(), now + 5);
  now += 5;
  session.tick(now);
  EXPECT_TRUE(session.connectionDropped());
  EXPECT_EQ(session.lastError(), "unix:/one: no answer for 10.0 s");
}

TEST_F(SessionTest, AnAnswerToTheProbeKeepsTheSession) {
  follows();
  for (int round = 0; round < 5; ++round) {
    now += 5;
    session.tick(now);
    ASSERT_EQ(goesOut().size(), 1U) << round;
    answers("probe", json::array());
  }
  EXPECT_EQ(session.state(), SessionState::following);
}

TEST_F(SessionTest, AServerThatPutsAllRowsTogetherMayTakeItsTime) {
  connects();
  answers("schema", goodSchema());
  serverSays(true);
  goesOut();
  ASSERT_EQ(session.state(), SessionState::requesting);
  now += 59;
  session.tick(now);
  EXPECT_TRUE(goesOut().empty());
  EXPECT_EQ(session.nextWakeup(), now + 1);
  now += 1;
  session.tick(now);
  EXPECT_EQ(goesOut().size(), 1U);
  answers("rows", json::array({false, transaction, oneRow()}));
  EXPECT_EQ(session.nextWakeup(), now + 5);
}

// --- what can be wrong with a server

TEST_F(SessionTest, AWrongSchemaIsNamedAndTheNextRemoteTried) {
  connects();
  json schema = goodSchema();
  schema["tables"]["Logical_Switch"]["columns"].erase("tunnel_key");
  answers("schema", schema);
  EXPECT_TRUE(session.connectionDropped());
  EXPECT_THAT(log, ElementsAre("unix:/one: the schema does not serve: no column Logical_Switch.tunnel_key"));
  now += 1;
  EXPECT_EQ(connects(), "unix:/two");
}

TEST_F(SessionTest, AServerWithoutTheDatabaseIsNamed) {
  connects();
  refuses("schema", "unknown database");
  EXPECT_EQ(session.lastError(), "unix:/one: no schema of database \"hardware_vtep\": \"unknown database\"");
}

TEST_F(SessionTest, AServerThatCannotResumeIsNamed) {
  connects();
  answers("schema", goodSchema());
  refuses("server", json{{"error", "unknown method"}});
  refuses("rows", json{{"error", "unknown method"}});
  EXPECT_EQ(session.lastError(),
            "unix:/one: the server refused to be monitored by \"monitor_cond_since\": "
            "{\"error\":\"unknown method\"}; a newer server is needed");
}

TEST_F(SessionTest, AMemberThatIsNotConnectedToItsClusterIsPassedOver) {
  connects();
  answers("schema", goodSchema());
  serverSays(false);
  EXPECT_EQ(session.lastError(), "unix:/one: this member is not connected to its cluster");
  now += 1;
  EXPECT_EQ(connects(), "unix:/two");
}

TEST_F(SessionTest, AMemberThatLosesItsClusterIsLeft) {
  follows();
  comesMessage(
      json{{"id", nullptr},
           {"method", "update3"},
           {"params",
            json::array(
                {"server", transaction, {{"Database", {{rowId, {{"modify", {{"connected", false}}}}}}}}})}});
  EXPECT_EQ(session.lastError(), "unix:/one: this member lost the connection to its cluster");
  EXPECT_THAT(sink.told, ElementsAre("lost"));
}

TEST_F(SessionTest, ACanceledMonitorBeginsAnew) {
  follows();
  comesMessage(json::parse(R"({"id":null,"method":"monitor_canceled","params":["rows"]})"));
  EXPECT_EQ(session.state(), SessionState::backoff);
  EXPECT_THAT(session.lastError(), HasSubstr("canceled the monitor"));
}

TEST_F(SessionTest, GarbageIsNamedAndLeavesNothingBehind) {
  const std::pair<std::string, std::string> cases[] = {
      {"HTTP/1.1 400", "this is not OVSDB: a message begins with byte 72 instead of '{'"},
      {"{garbage}", "this is not OVSDB: a message is neither a request nor an answer"},
      {"{}", "this is not OVSDB: a message is neither a request nor an answer"},
      {R"({"id":"other","result":[],"error":null})",
       "an answer came to a request that was not made: id \"other\""},
      {R"({"id":"schema","result":{]],"error":null})", "the schema is not JSON"},
      {R"({"method":"update3","params":["other","x",{}],"id":null})",
       "an update came for a monitor that was not asked for: other"},
      {R"({"method":"update3","params":[],"id":null})", "at byte 2: want three elements"},
      {R"({"method":"update2","params":["rows",{}],"id":null})",
       "the server may not ask for this: method \"update2\""},
      {R"({"method":"echo","params":[)" + std::string(70'000, '1') + "]}",
       "more than 64 KiB of white space or of one number"},
      {R"({"method":"echo","params":[1,],"id":1})", "an echo request is not JSON at byte 4"},
      {R"({"method":"echo","id":1})", "an echo request is not JSON"},
      {"{\"method\":\"echo\",\"id\":1,\"params\":[\"\xff\"]}", "an echo request is not JSON at byte 3"},
      {"{\"method\":\"echo\",\"id\":{\"\xff\":1},\"params\":[]}", "an id is not JSON at byte 3"},
      {R"({"method":"echo","id":1,"params":[]7})", "an echo request is not JSON at byte 3"},
      {R"({"method":"echo","params":[],"id":1,"id":2})", "a message has the member \"id\" twice"},
      {R"({"method":"echo","params":[],"id":1,"result":1})", "neither a request nor an answer"},
  };
  for (const auto& [bytes, text] : cases) {
    now += 100;
    connects();
    comes(bytes);
    EXPECT_TRUE(session.connectionDropped()) << bytes.substr(0, 100);
    EXPECT_THAT(session.lastError(), HasSubstr(text));
    EXPECT_TRUE(sink.told.empty());
    EXPECT_TRUE(session.output().empty());
  }
  now += 100;
  follows();
}

TEST_F(SessionTest, AnUpdateThatBreaksOffIsFollowedByEverything) {
  follows();
  comesMessage(
      json{{"id", nullptr},
           {"method", "update3"},
           {"params",
            json::array(
                {"rows", transaction, {{"Physical_Locator", {{rowId, {{"insert", {{"dst_ip", 7}}}}}}}}})}});
  EXPECT_EQ(session.lastError(), "unix:/one: table Physical_Locator, row " + std::string{rowId} +
                                     ", column dst_ip: at byte 80: want '\"', have '7'");
  EXPECT_THAT(sink.told, ElementsAre("part", "lost"));
  now += 10;
  connects();
  answers("schema", goodSchema());
  serverSays(true);
  EXPECT_EQ(goesOut().back()["params"][3], noTransaction);
}

// --- reconnecting

TEST_F(SessionTest, TheLastTransactionIsAskedForAfterAReconnect) {
  follows();
  now += 60;
  session.failed("the peer closed the connection", now);
  EXPECT_THAT(sink.told, ElementsAre("lost"));
  EXPECT_EQ(connects(), "unix:/two") << "at once, after a session that lasted";
  answers("schema", goodSchema());
  serverSays(true);
  EXPECT_EQ(goesOut().back()["params"][3], transaction);
  sink.told.clear();
  answers("rows", json::array({true, transaction, oneRow()}));
  EXPECT_THAT(sink.told, ElementsAre("part", "row Physical_Locator", "end"));
  EXPECT_EQ(session.reconnects(), 1U);
}

TEST_F(SessionTest, AHalfClosedPeerIsLeftAfterWhatItHadSaid) {
  follows();
  comes(json{{"id", nullptr}, {"method", "update3"}, {"params", json::array({"rows", transaction, oneRow()})}}
            .dump() +
        R"({"id":null,"meth)");
  session.failed("the peer closed the connection", now);
  EXPECT_THAT(sink.told, ElementsAre("part", "row Physical_Locator", "end", "lost"));
  EXPECT_FALSE(session.connectionDropped()) << "the transport knows";
  EXPECT_EQ(session.lastError(), "unix:/one: the peer closed the connection");
}

TEST_F(SessionTest, PausesDoubleFromFailureToFailureUpToTheLongest) {
  std::vector<std::pair<std::string, double>> attempts;
  const double begin = now;
  while (attempts.size() < 10) {
    const std::optional<Remote> remote = session.connectTo(now);
    ASSERT_TRUE(remote);
    attempts.emplace_back(remote->text(), std::round((now - begin) * 10) / 10);
    session.connecting(now);
    session.failed("connecting: Connection refused", now);
    ASSERT_FALSE(session.connectTo(session.nextWakeup() - 0.01));
    now = session.nextWakeup();
  }
  EXPECT_THAT(attempts, ElementsAre(std::pair{"unix:/one", 0.0}, std::pair{"unix:/two", 0.1},
                                    std::pair{"unix:/three", 0.3}, std::pair{"unix:/one", 0.7},
                                    std::pair{"unix:/two", 1.5}, std::pair{"unix:/three", 3.1},
                                    std::pair{"unix:/one", 6.3}, std::pair{"unix:/two", 12.7},
                                    std::pair{"unix:/three", 20.7}, std::pair{"unix:/one", 28.7}));
  EXPECT_TRUE(sink.told.empty());
}

TEST_F(SessionTest, AConnectionThatDoesNotComeUpIsGivenUp) {
  session.connecting(now);
  EXPECT_EQ(session.nextWakeup(), now + 5);
  session.tick(now + 5);
  EXPECT_TRUE(session.connectionDropped());
  EXPECT_EQ(session.lastError(), "unix:/one: no connection after 5.0 s");
}

TEST_F(SessionTest, ARemoteThatIsConfiguredNoMoreIsLeftForTheFirstOfTheOthersAtOnce) {
  follows();
  session.remotesAre(Remote::parseList("unix:/four,unix:/five"), now);
  EXPECT_TRUE(session.connectionDropped());
  EXPECT_THAT(sink.told, ElementsAre("lost"));
  EXPECT_EQ(session.lastError(), "unix:/one: is configured no more");
  EXPECT_EQ(connects(), "unix:/four");
}

TEST_F(SessionTest, ARemoteThatIsStillConfiguredIsKept) {
  follows();
  session.remotesAre(Remote::parseList("unix:/four,unix:/one"), now);
  EXPECT_FALSE(session.connectionDropped());
  EXPECT_EQ(session.state(), SessionState::following);
  EXPECT_EQ(session.remote().text(), "unix:/one");
  now += 60;
  session.failed("the peer closed the connection", now);
  EXPECT_EQ(connects(), "unix:/four") << "the next one of the new list";
}

TEST_F(SessionTest, OtherRemotesEndThePause) {
  session.connecting(now);
  session.failed("connecting: Connection refused", now);
  EXPECT_FALSE(session.connectTo(now));
  session.remotesAre(Remote::parseList("unix:/four"), now);
  EXPECT_EQ(connects(), "unix:/four");
}

TEST_F(SessionTest, TheSameErrorIsLoggedOnce) {
  SessionOptions one = options();
  one.remotes.resize(1);
  std::vector<std::string> lines;
  Session other(hardwareVtep(), one, sink, [&](const std::string& line) { lines.push_back(line); });
  for (int round = 0; round < 3; ++round) {
    other.connecting(now);
    other.failed("connecting: Connection refused", now);
  }
  EXPECT_THAT(lines, ElementsAre("unix:/one: connecting: Connection refused"));
}

TEST(SessionSchema, TheInstalledSchemaServes) {
  std::ifstream file("/usr/share/openvswitch/vtep.ovsschema");
  if (!file) {
    GTEST_SKIP() << "the package with the hardware_vtep schema is not installed";
  }
  EXPECT_EQ(hardwareVtep().objection(json::parse(file)), "");
}

}  // namespace Ovsdb::Testing
