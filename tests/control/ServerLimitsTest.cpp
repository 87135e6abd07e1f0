// The limits of the control socket's clients, all together and each.
#include "Rig.h"

namespace {

using namespace std::chrono_literals;
using Control::Peer;
using TestControl::json;
using testing::ElementsAre;
using testing::HasSubstr;

json error(const char* kind, const char* pointer, const std::string& reason) {
  return {{"error", {{"kind", kind}, {"pointer", pointer}, {"reason", reason}}}};
}

class ServerLimitsTest : public TestControl::ControlTest {
 protected:
  ServerLimitsTest() {
    options.failed = [this](std::string_view where, std::string_view text) {
      failures.emplace_back(std::string(where) + ": " + std::string(text));
    };
    options.identify = [this](int) {
      time += newcomersTake;
      return Peer{user, user, 4711};
    };
    options.access.othersRead = true;
  }
  // A client of a user; 0 is the superuser.
  std::unique_ptr<TestControl::RawClient> connectAs(uid_t whose) {
    user = whose;
    return connect();
  }
  void hosts(int count) {
    for (int i = 0; i < count; ++i) {
      service.document["output"]["hosts"][std::to_string(i)] = {{"number", i}};
    }
  }

  uid_t user = 0;
  std::chrono::nanoseconds newcomersTake{0};  // each of them
  std::vector<std::string> failures;
};

TEST_F(ServerLimitsTest, ALargeAnswerSpansTurnsAndIsWhole) {
  hosts(20'000);
  serve();
  const auto client = connectAs(0);
  client->send("{\"get\":\"\",\"id\":1}\n");
  int count = 0;
  for (; client->lines.empty() && count < 1'000; ++count) {
    turns(1);
    client->take();
  }
  ASSERT_EQ(client->lines.size(), 1U);
  EXPECT_EQ(client->lines[0].at("value"), service.document);
  EXPECT_GT(count, 5);
  EXPECT_LE(server->stats().mostItems, options.turn.items + options.turn.instant);
}

TEST_F(ServerLimitsTest, AThousandHostsAreOneInstant) {
  hosts(1'000);
  serve();
  const auto client = connectAs(0);
  client->send("{\"get\":\"/output\"}\n");
  turns(1);
  service.document["output"]["hosts"]["7"]["number"] = "later";
  turns(3);
  client->take();
  ASSERT_EQ(client->lines.size(), 1U);
  EXPECT_EQ(client->lines[0].at("value").at("hosts").at("7").at("number"), 7);
}

TEST_F(ServerLimitsTest, AllClientsTogetherHaveABudgetATurn) {
  hosts(3'000);
  serve();
  std::vector<std::unique_ptr<TestControl::RawClient>> clients;
  for (uid_t i = 0; i < 40; ++i) {
    clients.push_back(connectAs(1000 + i % 10));
    clients.back()->send(i % 2 == 0 ? "{\"get\":\"\"}\n{\"get\":\"\"}\n" : "{\"subscribe\":\"/output\"}\n");
  }
  for (int i = 0; i < 2'000; ++i) {
    turns(1);
    for (const auto& client : clients) {
      client->take();
    }
  }
  for (std::size_t i = 0; i < clients.size(); ++i) {
    EXPECT_EQ(clients[i]->lines.size(), i % 2 == 0 ? 2U : 1U) << i;
  }
  EXPECT_LE(server->stats().mostItems, options.turn.items + options.turn.instant);
}

TEST_F(ServerLimitsTest, ATimeIsPartOfTheBudget) {
  service.onGet = [this] { time += 3ms; };
  serve();
  std::vector<std::unique_ptr<TestControl::RawClient>> clients;
  for (uid_t i = 0; i < 10; ++i) {
    clients.push_back(connectAs(1000 + i));
  }
  for (const auto& client : clients) {
    client->send("{\"get\":\"/agent\"}\n");
  }
  turns(1);
  EXPECT_EQ(service.reads, 2);  // the second one began within 4 ms
  turns(20);
  EXPECT_EQ(service.reads, 10);
}

TEST_F(ServerLimitsTest, WhoMayPatchIsServedInTheNextTurnWhateverReadersAskFor) {
  hosts(5'000);
  serve();
  std::vector<std::unique_ptr<TestControl::RawClient>> readers;
  for (uid_t i = 0; i < 48; ++i) {
    readers.push_back(connectAs(1000 + i));
    std::string text;
    for (int k = 0; k < 50; ++k) {
      text += "{\"get\":\"\"}\n";
    }
    readers.back()->send(text);
  }
  const auto root = connectAs(0);
  turns(20);
  root->send("{\"call\":\"flush\"}\n");
  turns(2);
  root->take();
  EXPECT_EQ(service.flushes, 1);
  EXPECT_THAT(root->lines, ElementsAre(json::parse(R"({"value":{}})")));
}

TEST_F(ServerLimitsTest, NewcomersDoNotUseUpTheTurnsOfWhoMayPatch) {
  serve();
  const auto root = connectAs(0);
  root->send("{\"call\":\"flush\"}\n{\"call\":\"flush\"}\n{\"call\":\"flush\"}\n{\"call\":\"flush\"}\n");
  turns(1);  // the first is answered, the others wait for the next turns
  user = 1000;
  newcomersTake = 5ms;  // more than all clients have in a turn
  std::vector<std::unique_ptr<TestControl::RawClient>> newcomers;
  for (int turn = 2; turn <= 4; ++turn) {
    for (int i = 0; i < 20; ++i) {
      newcomers.push_back(std::make_unique<TestControl::RawClient>(options.path));
    }
    const auto before = time;
    turns(1);
    EXPECT_GT(time - before, options.turn.time) << "or it would show nothing";
    EXPECT_EQ(service.flushes, turn);
  }
}

// Has a million records, and counts how many were read.
class Endless final : public Service::Branch {
 public:
  explicit Endless(int& count) : count_(count) {}
  Service::Walked next(std::string& name, Service::Part& part) override {
    if (++count_ == 1'000'000) {
      return Service::Walked::end;
    }
    name = std::to_string(count_);
    part = Service::recordOf(std::string(100, 'x'));
    return Service::Walked::member;
  }
  Service::Part find(const std::string& /*name*/) override { return {}; }

 private:
  int& count_;
};

// Has records that take long, and counts how many were read.
class Slow final : public Service::Branch {
 public:
  Slow(int& count, std::function<void()> read) : count_(count), read_(std::move(read)) {}
  Service::Walked next(std::string& name, Service::Part& part) override {
    if (at_ == 3'000) {
      return Service::Walked::end;
    }
    read_();
    ++count_;
    name = std::to_string(at_++);
    part = Service::recordOf(at_);
    return Service::Walked::member;
  }
  Service::Part find(const std::string& /*name*/) override { return {}; }

 private:
  int& count_;
  std::function<void()> read_;
  int at_ = 0;
};

TEST_F(ServerLimitsTest, AnInstantEndsWhereItTakesLong) {
  int count = 0;
  const auto read = [this] { time += 100us; };
  service.parts["/slow"] = [&] { return Service::Part(std::make_unique<Slow>(count, read)); };
  serve();
  const auto client = connectAs(1000);
  client->send("{\"get\":\"/slow\"}\n");
  turns(1);
  EXPECT_LE(count, 300);
  for (int i = 0; i < 100 && client->lines.empty(); ++i) {
    turns(1);
    client->take();
  }
  ASSERT_EQ(client->lines.size(), 1U);
  EXPECT_EQ(client->lines[0].at("value").size(), 3'000U);
  const int before = count;
  client->send("{\"subscribe\":\"/slow\"}\n");
  turns(1);
  EXPECT_GT(count, before);
  EXPECT_LE(count, before + 300);
}

TEST_F(ServerLimitsTest, AnAnswerIsReadNoFurtherThanItsClientTakesIt) {
  int count = 0;
  service.parts["/endless"] = [&] { return Service::Part(std::make_unique<Endless>(count)); };
  serve();
  const auto deaf = connectAs(1000);
  deaf->send("{\"get\":\"/endless\"}\n");
  turns(500);
  EXPECT_LT(count, 15'000);
  const int before = count;
  deaf->take();
  turns(50);
  EXPECT_GT(count, before);
}

TEST_F(ServerLimitsTest, AnAnswerOfAClientThatHasLeftIsNotGoneOnWith) {
  hosts(50'000);
  serve();
  auto client = connectAs(1000);
  client->send("{\"get\":\"/output\"}\n");
  turns(2);
  client->hangUp();
  turns(3);
  EXPECT_EQ(server->clients(), 0U);
}

TEST_F(ServerLimitsTest, NothingIsReadForAClientThatHasLeft) {
  serve();
  auto client = connectAs(1000);
  std::string text;
  for (int i = 0; i < 50; ++i) {
    text += "{\"get\":\"\"}\n{\"subscribe\":\"\"}\n";
  }
  client->send(text);
  client->hangUp();
  turns(200);
  EXPECT_EQ(server->clients(), 0U);
  EXPECT_EQ(service.reads, 0);
}

TEST_F(ServerLimitsTest, UpdatesComeBehindTheAnswerThatIsOnItsWay) {
  hosts(20'000);
  serve();
  const auto client = connectAs(0);
  ask(*client, {{"subscribe", "/agent"}, {"id", "s"}});
  client->send("{\"get\":\"/output\",\"id\":\"g\"}\n");
  turns(2);
  service.document["agent"]["turns"] = 1;
  service.tellChange();
  time += options.interval;
  for (int i = 0; i < 1'000 && client->lines.size() < 3; ++i) {
    turns(1);
    client->take();
  }
  ASSERT_EQ(client->lines.size(), 3U);
  EXPECT_EQ(client->lines[1].at("id"), "g");
  EXPECT_EQ(client->lines[2], json::parse(R"({"id":"s","merge":{"turns":1}})"));
}

TEST_F(ServerLimitsTest, ALargePartIsFollowedInPiecesAndGivesTheDocument) {
  hosts(10'000);
  serve();
  const auto client = connectAs(0);
  json value = ask(*client, {{"subscribe", "/output"}}).at("value");
  EXPECT_EQ(value, service.document.at("output"));
  for (int i = 0; i < 10'000; i += 3) {
    service.document["output"]["hosts"][std::to_string(i)]["number"] = -i;
    service.document["output"]["hosts"].erase(std::to_string(i + 1));
  }
  service.tellChange();
  for (int i = 0; i < 200; ++i) {
    interval(*client);
  }
  EXPECT_GE(client->lines.size(), 6U) << "a thousand changes a line";
  for (std::size_t i = 1; i < client->lines.size(); ++i) {
    value.merge_patch(client->lines[i].at("merge"));
  }
  EXPECT_EQ(value, service.document.at("output"));
  EXPECT_LE(server->stats().mostItems, options.turn.items + options.turn.instant);
}

TEST_F(ServerLimitsTest, WhatAllFollowTakesABoundedMemory) {
  hosts(1'000);
  options.mostFollowed = 100'000;
  serve();
  const auto client = connectAs(0);
  EXPECT_TRUE(ask(*client, {{"subscribe", "/output"}}).contains("value"));
  EXPECT_EQ(ask(*client, {{"subscribe", ""}}), error("refused", "", "too much is followed already"));
  client->hangUp();
  turns(10);
  const auto later = connectAs(0);
  EXPECT_TRUE(ask(*later, {{"subscribe", "/agent"}}).contains("value"));
}

TEST_F(ServerLimitsTest, SixtyFourIdleClientsOfOneUserLeaveRoomForAll) {
  serve();
  std::vector<std::unique_ptr<TestControl::RawClient>> idle;
  for (int i = 0; i < 64; ++i) {
    idle.push_back(connectAs(65534));
  }
  EXPECT_EQ(server->clients(), 16U);
  EXPECT_TRUE(ask(*connectAs(1000), {{"get", "/agent"}}).contains("value"));
  EXPECT_EQ(ask(*connectAs(0), {{"call", "flush"}}), json::parse(R"({"value":{}})"));
}

TEST_F(ServerLimitsTest, TheLongestIdleReaderMakesRoomAndIsTold) {
  options.places.all = 12;  // four for readers
  serve();
  const auto first = connectAs(1001);
  time += 1s;
  const auto second = connectAs(1002);
  const auto follower = connectAs(1003);
  ask(*follower, {{"subscribe", "/agent"}});
  const auto fourth = connectAs(1004);
  time += 5s;
  ask(*first, {{"get", "/agent"}});  // so that the second one is idle for longest
  const auto fifth = connectAs(1005);
  turns(2);
  second->take();
  EXPECT_THAT(second->lines, ElementsAre(error("denied", "", "idle, and its place is needed")));
  EXPECT_TRUE(second->ended);
  for (const auto* stays : {&first, &follower, &fourth, &fifth}) {
    EXPECT_TRUE(ask(**stays, {{"get", "/agent"}}).contains("value"));
  }
}

TEST_F(ServerLimitsTest, HalfALineDoesNotKeepAReadersPlace) {
  options.places.all = 9;  // one for readers
  serve();
  const auto slow = connectAs(1001);
  slow->send("{\"get\":");
  turns(1);
  time += 1s;
  slow->send("\"/ag");
  turns(1);
  const auto next = connectAs(1002);
  EXPECT_TRUE(ask(*next, {{"get", "/agent"}}).contains("value"));
}

TEST_F(ServerLimitsTest, HalfAPatchKeepsThePlaceOfWhoMayPatch) {
  options.places.all = 1;
  serve();
  const auto root = connectAs(0);
  root->send("{\"patch\":");
  turns(1);
  time += 5s;
  EXPECT_THAT(askText(*connectAs(0), "").dump(), HasSubstr("too many clients: 1 are here already"));
  EXPECT_EQ(askText(*root, "{}}\n"), json::parse(R"({"ok":true})"));
}

TEST_F(ServerLimitsTest, ARequestThatThrowsIsAnsweredCountedAndTold) {
  service.onGet = [] { throw std::runtime_error("the table is damaged"); };
  serve();
  const auto client = connectAs(0);
  EXPECT_EQ(ask(*client, {{"get", "/agent"}, {"id", 4}}),
            json::parse(R"({"id":4,"error":{"kind":"failed","pointer":"",)"
                        R"("reason":"an error of the agent: the table is damaged"}})"));
  EXPECT_EQ(ask(*client, {{"subscribe", "/agent"}}).at("error").at("kind"), "failed");
  service.onGet = {};
  EXPECT_TRUE(ask(*client, {{"get", "/agent"}}).contains("value"));
  EXPECT_EQ(server->stats().failed, 2U);
  EXPECT_THAT(failures, ElementsAre("uid 0 (pid 4711): the table is damaged",
                                    "uid 0 (pid 4711): the table is damaged"));
}

TEST_F(ServerLimitsTest, APatchOrACallThatThrowsIsAnswered) {
  service.throwsAt = "boom";
  serve();
  const auto client = connectAs(0);
  EXPECT_EQ(ask(*client, {{"call", "boom"}}).at("error").at("kind"), "failed");
  EXPECT_EQ(ask(*client, {{"patch", {{"boom", 1}}}}).at("error").at("kind"), "failed");
  EXPECT_EQ(ask(*client, {{"patch", {{"a", 1}}}}), json::parse(R"({"ok":true})"));
  EXPECT_EQ(server->stats().failed, 2U);
}

// Has so many records and then an error.
class Broken final : public Service::Branch {
 public:
  explicit Broken(int whole) : whole_(whole) {}
  Service::Walked next(std::string& name, Service::Part& part) override {
    if (at_ == whole_) {
      throw std::runtime_error("broken");
    }
    name = std::to_string(at_++);
    part = Service::recordOf("a record of some length");
    return Service::Walked::member;
  }
  Service::Part find(const std::string& /*name*/) override { return {}; }

 private:
  int whole_;
  int at_ = 0;
};

TEST_F(ServerLimitsTest, AnAnswerThatFailsBeforeItWentOutIsAnErrorLine) {
  service.parts["/broken"] = [] { return Service::Part(std::make_unique<Broken>(100)); };
  serve();
  const auto client = connectAs(0);
  EXPECT_EQ(ask(*client, {{"get", "/broken"}}).at("error").at("kind"), "failed");
  EXPECT_TRUE(ask(*client, {{"get", "/agent"}}).contains("value"));
}

TEST_F(ServerLimitsTest, AnAnswerThatFailsHalfwayEndsItsClientAlone) {
  service.parts["/broken"] = [] { return Service::Part(std::make_unique<Broken>(30'000)); };
  serve();
  const auto client = connectAs(0);
  const auto other = connectAs(1000);
  client->send("{\"get\":\"/broken\"}\n");
  for (int i = 0; i < 200; ++i) {
    turns(1);
    client->take();
  }
  EXPECT_TRUE(client->ended);
  EXPECT_TRUE(client->lines.empty());
  EXPECT_TRUE(ask(*other, {{"get", "/agent"}}).contains("value"));
  EXPECT_EQ(failures.size(), 1U);
}

TEST_F(ServerLimitsTest, ASubscriptionWhosePartCannotBeReadAnyMoreIsCut) {
  serve();
  const auto client = connectAs(0);
  ask(*client, {{"subscribe", "/agent"}, {"id", 7}});
  service.onGet = [] { throw std::runtime_error("the table is damaged"); };
  service.tellChange();
  interval(*client);
  EXPECT_EQ(client->lines.back(), json::parse(R"({"id":7,"cut":true})"));
  service.onGet = {};
  EXPECT_TRUE(ask(*client, {{"subscribe", "/agent"}}).contains("value"));
}

TEST_F(ServerLimitsTest, WhoSubscribesAgainAndAgainDoesNotKeepUpdatesFromOthers) {
  serve();
  const auto busy = connectAs(1000);
  const auto follower = connectAs(1001);
  ask(*follower, {{"subscribe", "/output"}});
  for (int i = 0; i < 10; ++i) {
    service.document["output"]["n"] = i;
    service.tellChange();
    time += options.interval;
    for (int k = 0; k < 5; ++k) {
      busy->send("{\"subscribe\":\"/output\"}\n");
      turns(1);
    }
    busy->take();
    follower->take();
    EXPECT_EQ(follower->lines.back(), json({{"merge", {{"n", i}}}}));
  }
}

}  // namespace
