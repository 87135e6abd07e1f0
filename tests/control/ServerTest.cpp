#include "service/control/Server.h"

#include "Rig.h"

namespace {

using namespace std::chrono_literals;
using TestControl::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using ServerTest = TestControl::ControlTest;

json error(const char* kind, const char* pointer, const std::string& reason) {
  return {{"error", {{"kind", kind}, {"pointer", pointer}, {"reason", reason}}}};
}

TEST_F(ServerTest, APatchIsCarriedOutAndAnswered) {
  serve();
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"patch", {{"a", 1}}}}), json::parse(R"({"ok":true})"));
  EXPECT_EQ(service.document.at("input"), json::parse(R"({"a":1})"));
  EXPECT_THAT(service.lastWho, HasSubstr("uid " + std::to_string(geteuid())));
}

TEST_F(ServerTest, ARefusedPatchSaysWhereAndWhy) {
  serve();
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"patch", {{"a", 1}, {"explode", 2}}}}),
            error("refused", "/explode", "unknown member"));
  EXPECT_EQ(service.document.at("input"), json::object());
}

TEST_F(ServerTest, AMemberThatAnAdapterOwnsIsRefusedWithItsName) {
  service.ownership.claim("/controller/fdb", "ovsdb");
  serve();
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"patch", {{"controller", nullptr}}}}),
            error("refused", "/controller/fdb", "owned by ovsdb"));
}

TEST_F(ServerTest, AGetIsAnsweredByThePartItLeadsTo) {
  service.document["output"]["hosts"] = {{"10", {1, 2}}};
  serve();
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"get", "/output/hosts/10/1"}, {"id", "q"}}),
            json::parse(R"({"id":"q","value":2})"));
  EXPECT_EQ(
      ask(*client, {{"get", "/output/floods"}, {"id", 8}}),
      json::parse(
          R"({"id":8,"error":{"kind":"notFound","pointer":"/output/floods","reason":"nothing is there"}})"));
}

TEST_F(ServerTest, ACallIsAnsweredByItsMethod) {
  serve();
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"call", "double"}, {"params", {{"number", 21}}}}), json::parse(R"({"value":42})"));
  EXPECT_EQ(ask(*client, {{"call", "dance"}}), error("refused", "", "unknown method \"dance\""));
  EXPECT_THAT(ask(*client, {{"call", "double"}, {"params", {{"number", "x"}}}}).dump(),
              HasSubstr("\"refused\""));
  EXPECT_EQ(ask(*client, {{"call", "flush"}}), json::parse(R"({"value":{}})"));
  EXPECT_EQ(service.flushes, 1);
}

TEST_F(ServerTest, GarbageIsAnsweredAndTheConnectionGoesOn) {
  serve();
  const auto client = connect();
  EXPECT_EQ(askText(*client, "\x01\x02garbage\n"), error("refused", "", "not JSON at byte 1"));
  EXPECT_EQ(askText(*client, "\n \r\n{\"get\":\"/agent\"}\n"), json::parse(R"({"value":{}})"));
  EXPECT_EQ(server->stats().requests, 2U);
  EXPECT_EQ(server->stats().refused, 1U);
}

TEST_F(ServerTest, RequestsThatComeAtOnceAreAnsweredInTheirOrder) {
  serve();
  const auto client = connect();
  std::string text;
  for (int i = 0; i < 100; ++i) {
    text += json{{"call", "echo"}, {"id", i}}.dump() + '\n';
  }
  client->send(text);
  turns(150);
  client->take();
  ASSERT_EQ(client->lines.size(), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(client->lines[static_cast<std::size_t>(i)].at("id"), i);
  }
}

TEST_F(ServerTest, ATurnAnswersOneRequestOfEachClient) {
  serve();
  const auto busy = connect();
  const auto modest = connect();
  std::string text;
  for (int i = 0; i < 1000; ++i) {
    text += "{\"call\":\"echo\"}\n";
  }
  busy->send(text);
  modest->send("{\"call\":\"echo\"}\n");
  turns(1);
  modest->take();
  busy->take();
  EXPECT_EQ(modest->lines.size(), 1U);
  EXPECT_EQ(busy->lines.size(), 1U);
}

TEST_F(ServerTest, ALineInPiecesIsOneRequest) {
  serve();
  const auto client = connect();
  client->send("{\"get\":");
  turns(3);
  EXPECT_EQ(askText(*client, "\"/agent\"}\n"), json::parse(R"({"value":{}})"));
}

TEST_F(ServerTest, AnEndlessLineIsStoppedWithAClearMessage) {
  serve();
  const auto client = connect();
  const std::string flood(std::size_t{100} << 20, 'x');  // and no newline
  EXPECT_EQ(askText(*client, flood), error("denied", "", "a request has at most 16777216 bytes"));
  turns(2);
  client->take();
  EXPECT_TRUE(client->ended);
  EXPECT_EQ(server->clients(), 0U);
  EXPECT_THAT(logged, ElementsAre(HasSubstr("a request has at most 16777216 bytes")));
}

TEST_F(ServerTest, AReaderMayAskButChangeNothing) {
  options.access = {.owner = 990, .othersRead = true};
  options.identify = [](int) { return Control::Peer{1000, 1000, 4711}; };
  serve();
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"get", "/agent"}}), json::parse(R"({"value":{}})"));
  EXPECT_THAT(ask(*client, {{"patch", json::object()}}).at("error").at("reason"),
              "uid 1000 (pid 4711) may only read");
  EXPECT_THAT(ask(*client, {{"call", "flush"}}).at("error").at("kind"), "denied");
  EXPECT_EQ(service.flushes, 0);
}

TEST_F(ServerTest, AReadersLinesAreShort) {
  options.access = {.owner = 990, .othersRead = true};
  options.identify = [](int) { return Control::Peer{1000, 1000, 4711}; };
  serve();
  const auto client = connect();
  EXPECT_EQ(askText(*client, std::string(200'000, 'x')),
            error("denied", "", "a request has at most 65536 bytes"));
}

TEST_F(ServerTest, AStrangerIsToldAndDropped) {
  options.access = {.owner = 990};
  options.identify = [](int) { return Control::Peer{1000, 1000, 4711}; };
  serve();
  const auto client = connect();
  client->take();
  EXPECT_THAT(client->lines, ElementsAre(error("denied", "", "may not use this socket")));
  EXPECT_TRUE(client->ended);
}

TEST_F(ServerTest, MoreClientsThanThereIsRoomForAreTurnedAway) {
  options.places.all = 2;
  serve();
  const auto first = connect();
  const auto second = connect();
  const auto third = connect();
  third->take();
  EXPECT_THAT(third->lines, ElementsAre(error("denied", "", "too many clients: 2 are here already")));
  EXPECT_TRUE(third->ended);
  EXPECT_EQ(ask(*first, {{"get", "/agent"}}), json::parse(R"({"value":{}})"));
  first->hangUp();
  turns(2);
  const auto fourth = connect();
  EXPECT_EQ(ask(*fourth, {{"get", "/agent"}}), json::parse(R"({"value":{}})"));
}

TEST_F(ServerTest, AHalfClosedClientGetsItsAnswers) {
  serve();
  const auto client = connect();
  client->send("{\"patch\":{\"a\":1}}\n{\"get\":\"/input/a\"}");  // the last line without a newline
  client->sayNoMore();
  turns(6);
  client->take();
  EXPECT_THAT(client->lines, ElementsAre(json::parse(R"({"ok":true})"), json::parse(R"({"value":1})")));
  EXPECT_TRUE(client->ended);
  EXPECT_EQ(server->clients(), 0U);
}

TEST_F(ServerTest, WhatAClientSaidBeforeItLeftIsCarriedOut) {
  serve();
  const auto client = connect();
  client->send("{\"patch\":{\"a\":1}}\n{\"patch\":{\"b\":2}}\n");
  client->hangUp();
  turns(6);
  EXPECT_EQ(service.document.at("input"), json::parse(R"({"a":1,"b":2})"));
  EXPECT_EQ(server->clients(), 0U);
}

TEST_F(ServerTest, APatchThatTakesItsTimeIsAnsweredWhenItIsCarriedOutAndKeepsNobodyElseWaiting) {
  service.takesItsTime = true;
  serve();
  const auto client = connect();
  const auto other = connect();
  client->send("{\"patch\":{\"a\":1},\"id\":1}\n{\"get\":\"/input\",\"id\":2}\n");
  turns(4);
  EXPECT_EQ(ask(*other, {{"get", "/input"}}), json::parse(R"({"value":{}})"));
  client->take();
  EXPECT_THAT(client->lines, IsEmpty()) << "the next request waits for the patch";
  service.later.front()();
  turns(4);
  client->take();
  EXPECT_THAT(client->lines,
              ElementsAre(json::parse(R"({"id":1,"ok":true})"), json::parse(R"({"id":2,"value":{"a":1}})")));
}

TEST_F(ServerTest, APatchThatTakesItsTimeIsCarriedOutWhenItsClientHasLeft) {
  service.takesItsTime = true;
  serve();
  const auto client = connect();
  client->send("{\"patch\":{\"a\":1}}\n");
  turns(2);
  client->hangUp();
  turns(4);
  service.later.front()();
  turns(4);
  EXPECT_EQ(service.document.at("input"), json::parse(R"({"a":1})"));
  EXPECT_EQ(server->clients(), 0U);
}

TEST_F(ServerTest, ALargeRequestIsReadAPartATurn) {
  serve();
  json patch;
  for (int i = 0; i < 20'000; ++i) {
    patch["member" + std::to_string(i)] = {{"value", i}, {"text", "\u00e4 \\ \" \n"}};
  }
  const auto client = connect();
  const auto other = connect();
  const std::string line = json{{"patch", patch}}.dump() + '\n';
  std::size_t answeredMeanwhile = 0;
  for (std::size_t sent = 0; client->lines.empty() && answeredMeanwhile < 100'000; ++answeredMeanwhile) {
    sent += client->send(line.substr(sent, 65536));
    ASSERT_EQ(ask(*other, {{"get", "/agent"}}), json::parse(R"({"value":{}})"));
    client->take();
  }
  EXPECT_THAT(client->lines, ElementsAre(json::parse(R"({"ok":true})")));
  EXPECT_EQ(service.document.at("input"), patch);
  EXPECT_GT(answeredMeanwhile, line.size() / 65536);
}

TEST_F(ServerTest, ALargeRequestThatIsNoJsonSaysWhere) {
  serve();
  const auto client = connect();
  const std::string blanks(200'000, ' ');
  EXPECT_EQ(askText(*client, "{\"get\":" + blanks + "nowhere}\n"),
            error("refused", "", "not JSON at byte 200009"));
  EXPECT_EQ(ask(*client, {{"get", "/agent"}}), json::parse(R"({"value":{}})"));
}

TEST_F(ServerTest, WhoTakesNoAnswersIsNotReadFromAndInTheEndDropped) {
  service.document["output"] = std::string(std::size_t{3} << 20, 'x');
  serve();
  const auto deaf = connect();
  const auto other = connect();
  std::string text;
  for (int i = 0; i < 100; ++i) {
    text += "{\"get\":\"/output\"}\n";
  }
  deaf->send(text);
  turns(200);
  EXPECT_LT(server->stats().requests, 5U);  // each answer fills what may wait
  EXPECT_EQ(ask(*other, {{"get", "/agent"}}), json::parse(R"({"value":{}})"));

  time += options.patience;
  turns(2);
  EXPECT_EQ(server->clients(), 1U);
  EXPECT_THAT(logged, ElementsAre(HasSubstr("takes nothing of what it asked for")));
}

TEST_F(ServerTest, WhoTakesALittleNowAndThenIsKept) {
  service.document["output"] = std::string(std::size_t{8} << 20, 'x');
  serve();
  const auto slow = connect();
  slow->send("{\"get\":\"/output\"}\n");
  turns(2);
  for (int i = 0; i < 40 && slow->lines.empty(); ++i) {
    time += options.patience / 2;
    slow->take();
    turns(2);
  }
  ASSERT_EQ(slow->lines.size(), 1U);
  EXPECT_THAT(logged, IsEmpty());
}

TEST_F(ServerTest, WhatWasTakenBeforeIsNotHeldAgainstALaterWait) {
  service.document["output"] = std::string(std::size_t{1} << 20, 'x');
  serve();
  const auto client = connect();
  ask(*client, {{"get", "/output"}});  // waited for, and taken
  time += options.patience - 1ns;
  client->send("{\"get\":\"/output\"}\n");
  turns(2);
  time += options.patience - 1ns;
  turns(2);
  EXPECT_EQ(server->clients(), 1U);
  time += 1ns;
  turns(2);
  EXPECT_EQ(server->clients(), 0U);
}

TEST_F(ServerTest, TheFileGoesWithTheServer) {
  serve();
  const auto client = connect();
  server.reset();
  client->take();
  EXPECT_TRUE(client->ended);
  EXPECT_FALSE(std::filesystem::exists(options.path));
  turns(2);
}

}  // namespace
