#include "service/control/Subscriptions.h"

#include "Rig.h"

namespace {

using namespace std::chrono_literals;
using TestControl::json;
using testing::ElementsAre;
using testing::IsEmpty;

class SubscriptionsTest : public TestControl::ControlTest {
 protected:
  SubscriptionsTest() {
    service.document["output"] = json::parse(R"({"hosts":{"10":{"a":1}},"marked":[1,2]})");
    serve();
  }
  void change(const char* pointer, json value) {
    service.document[json::json_pointer(pointer)] = std::move(value);
    service.tellChange();
  }
};

TEST_F(SubscriptionsTest, BeginWithTheWholePartAndGoOnWithItsChanges) {
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"subscribe", "/output"}, {"id", "s"}}),
            json::parse(R"({"id":"s","value":{"hosts":{"10":{"a":1}},"marked":[1,2]}})"));
  change("/output/hosts/10/b", 2);
  change("/output/marked", json::array({nullptr}));
  interval(*client);
  service.document["output"]["hosts"].erase("10");
  service.tellChange();
  interval(*client);
  client->lines.erase(client->lines.begin());
  EXPECT_THAT(client->lines,
              ElementsAre(json::parse(R"({"id":"s","merge":{"hosts":{"10":{"b":2}},"marked":[null]}})"),
                          json::parse(R"({"id":"s","merge":{"hosts":{"10":null}}})")));
}

TEST_F(SubscriptionsTest, SayNothingOfChangesElsewhere) {
  const auto client = connect();
  ask(*client, {{"subscribe", "/output/hosts"}});
  change("/agent/turns", 5);
  interval(*client);
  EXPECT_EQ(client->lines.size(), 1U);
}

TEST_F(SubscriptionsTest, OfAPartThatIsNotThereWaitForIt) {
  const auto client = connect();
  EXPECT_EQ(ask(*client, {{"subscribe", "/output/hosts/20"}}), json::parse(R"({"value":null})"));
  change("/output/hosts/20", json::parse(R"({"c":3})"));
  interval(*client);
  service.document["output"]["hosts"].erase("20");
  service.tellChange();
  interval(*client);
  EXPECT_EQ(client->lines.at(1), json::parse(R"({"merge":{"c":3}})"));
  EXPECT_EQ(client->lines.at(2), json::parse(R"({"merge":null})"));
}

TEST_F(SubscriptionsTest, OfTheSamePartAreReadOnceForAll) {
  const auto one = connect();
  const auto two = connect();
  const auto three = connect();
  for (auto* client : {one.get(), two.get(), three.get()}) {
    ask(*client, {{"subscribe", "/output/hosts"}});
  }
  const int before = service.reads;
  change("/output/hosts/10/a", 7);
  interval(*one);
  EXPECT_EQ(service.reads, before + 1);
  for (auto* client : {one.get(), two.get(), three.get()}) {
    client->take();
    EXPECT_EQ(client->lines.back(), json::parse(R"({"merge":{"10":{"a":7}}})"));
  }
}

TEST_F(SubscriptionsTest, GatherTheChangesOfAnInterval) {
  const auto client = connect();
  ask(*client, {{"subscribe", "/output/hosts"}});
  change("/output/hosts/10/a", 2);
  turns(3);  // the first change is told at once
  client->take();
  EXPECT_EQ(client->lines.size(), 2U);
  const int before = service.reads;
  for (int i = 0; i < 50; ++i) {
    change("/output/hosts/10/a", i);
    turns(1);
  }
  EXPECT_EQ(service.reads, before);
  interval(*client);
  EXPECT_EQ(service.reads, before + 1);
  EXPECT_EQ(client->lines.back(), json::parse(R"({"merge":{"10":{"a":49}}})"));
}

TEST_F(SubscriptionsTest, ThatJoinLateBeginWithTheValueTheOthersHave) {
  const auto early = connect();
  ask(*early, {{"subscribe", "/output/hosts"}});
  service.document["output"]["hosts"]["10"]["a"] = 5;  // not told yet
  const auto late = connect();
  EXPECT_EQ(ask(*late, {{"subscribe", "/output/hosts"}}), json::parse(R"({"value":{"10":{"a":5}}})"));
  turns(2);
  early->take();
  EXPECT_EQ(early->lines.back(), json::parse(R"({"merge":{"10":{"a":5}}})"));
}

TEST_F(SubscriptionsTest, OfAHalfClosedClientGoOnUntilItLeaves) {
  const auto client = connect();
  client->send("{\"subscribe\":\"/output/hosts\"}\n");
  client->sayNoMore();
  turns(3);
  change("/output/hosts/10/a", 2);
  interval(*client);
  EXPECT_EQ(client->lines.size(), 2U);
  client->hangUp();
  turns(2);
  EXPECT_EQ(server->clients(), 0U);
}

TEST_F(SubscriptionsTest, AreLimited) {
  const auto client = connect();
  for (std::size_t i = 0; i < options.mostSubscriptions; ++i) {
    EXPECT_TRUE(ask(*client, {{"subscribe", "/agent/" + std::to_string(i)}}).contains("value"));
  }
  EXPECT_EQ(ask(*client, {{"subscribe", "/output"}}).at("error").at("reason"), "at most 16 subscriptions");
}

TEST_F(SubscriptionsTest, OfAReaderWhoNeverReadsAreCutWhileOthersAreServed) {
  const auto deaf = connect();
  const auto other = connect();
  ask(*deaf, {{"subscribe", "/output/hosts"}, {"id", 1}});
  ask(*other, {{"subscribe", "/output/hosts"}});
  for (int i = 0; i < 40; ++i) {
    change("/output/hosts/10/a", std::string(100'000, static_cast<char>('a' + i % 26)));
    time += options.interval;
    turns(3);
    other->take();
  }
  EXPECT_EQ(other->lines.size(), 41U);  // misses nothing
  EXPECT_EQ(server->stats().cut, 1U);

  // When it reads at last, it finds what was sent before, learns that it was cut, and begins again.
  for (int i = 0; i < 500 && !deaf->lines.back().contains("cut"); ++i) {
    deaf->take();
    turns(1);
  }
  EXPECT_GT(deaf->lines.size(), 2U);
  EXPECT_EQ(deaf->lines.back(), json::parse(R"({"id":1,"cut":true})"));
  const json again = ask(*deaf, {{"subscribe", "/output/hosts"}, {"id", 2}});
  EXPECT_EQ(again.at("value"), service.document.at("output").at("hosts"));
  change("/output/hosts/10/a", 1);
  interval(*deaf);
  EXPECT_EQ(deaf->lines.back(), json::parse(R"({"id":2,"merge":{"10":{"a":1}}})"));
}

TEST_F(SubscriptionsTest, TheLargeFirstValueOfASlowReaderIsNotHeldAgainstIt) {
  service.document["output"]["hosts"] = std::string(std::size_t{4} << 20, 'x');  // more than updates may take
  const auto client = connect();
  client->send("{\"subscribe\":\"/output\"}\n");
  turns(3);
  change("/output/marked", 1);
  time += options.interval;
  turns(3);
  EXPECT_EQ(server->stats().cut, 0U);
  for (int i = 0; i < 500 && client->lines.size() < 2; ++i) {
    client->take();
    turns(1);
  }
  EXPECT_EQ(client->lines.back(), json::parse(R"({"merge":{"marked":1}})"));
}

TEST_F(SubscriptionsTest, OfALargePartTakeATwentiethOfTheTimeAtMost) {
  const auto client = connect();
  ask(*client, {{"subscribe", "/agent"}});
  service.onGet = [this] { time += 1s; };
  service.tellChange();
  turns(2);
  const int before = service.reads;
  service.tellChange();
  time += 19s - 1ns;
  turns(2);
  EXPECT_EQ(service.reads, before);
  time += 1ns;
  turns(2);
  EXPECT_EQ(service.reads, before + 1);
}

}  // namespace
