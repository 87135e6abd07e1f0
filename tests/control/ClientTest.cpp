#include "service/control/Client.h"

#include <gmock/gmock.h>

#include <thread>

#include "Rig.h"

namespace {

using namespace std::chrono_literals;
using Control::Client;
using Control::Refused;
using Control::Unreachable;
using TestControl::json;
using testing::HasSubstr;
using testing::ThrowsMessage;

// An agent in a thread of its own, as the client finds it in another process.
class ClientTest : public testing::Test {
 protected:
  ClientTest() {
    options.path = folder / "control.sock";
    options.access.owner = geteuid();
    options.longestLine = 100'000;
    service.document["output"] = {{"hosts", {{"10", 1}}}};
  }
  ~ClientTest() override {
    if (agent.joinable()) {
      tell("stop");
      agent.join();
    }
    close(order[0]);
    close(order[1]);
  }

  void start() {
    ASSERT_EQ(pipe(order), 0);
    server.emplace(loop, service, options);
    loop.watch(order[0], 1, [this](std::uint32_t) { obey(); });
    agent = std::thread([this] {
      loop.run();
      server.reset();
    });
  }
  void tell(const std::string& what) const { EXPECT_EQ(write(order[1], what.data(), 1), 1); }
  void obey() {
    char what = 0;
    EXPECT_EQ(read(order[0], &what, 1), 1);
    if (what == 's') {
      loop.stop();
    } else {
      service.document["output"]["hosts"]["10"] = 2;
      service.tellChange();
    }
  }

  TestControl::TempFolder folder;
  TestControl::FakeService service;
  Service::EventLoop loop;
  Control::ServerOptions options;
  std::optional<Control::Server> server;
  std::thread agent;
  int order[2] = {-1, -1};
};

TEST_F(ClientTest, AsksAndIsAnswered) {
  start();
  Client client(options.path);
  EXPECT_EQ(client.get("/output/hosts/10"), 1);
  EXPECT_EQ(client.call("echo", {{"a", 1}}), json::parse(R"({"a":1})"));
  client.patch({{"a", 1}});
  EXPECT_EQ(client.get("/input"), json::parse(R"({"a":1})"));
}

TEST_F(ClientTest, IsToldWhyNot) {
  start();
  Client client(options.path);
  EXPECT_THAT([&] { client.get("/nowhere"); }, ThrowsMessage<Refused>("/nowhere: nothing is there"));
  EXPECT_THAT([&] { client.patch({{"explode", 1}}); }, ThrowsMessage<Refused>("/explode: unknown member"));
}

TEST_F(ClientTest, FollowsAPart) {
  start();
  Client client(options.path);
  EXPECT_EQ(client.subscribe("/output/hosts"), json::parse(R"({"10":1})"));
  tell("change");
  EXPECT_EQ(client.next(), json::parse(R"({"merge":{"10":2}})"));
}

TEST_F(ClientTest, LearnsWhyItWasSentAwayInTheMiddleOfARequest) {
  start();
  Client client(options.path);
  EXPECT_THAT([&] { client.patch(std::string(5'000'000, 'x')); },
              ThrowsMessage<Refused>("a request has at most 100000 bytes"));
}

TEST_F(ClientTest, SaysThatNobodyIsThere) {
  EXPECT_THAT([&] { Client client(options.path); },
              ThrowsMessage<Unreachable>(HasSubstr("no agent at " + options.path)));
  EXPECT_THAT([&] { Client client(std::string(300, 'x')); },
              ThrowsMessage<Unreachable>(HasSubstr("no path of a socket")));
}

TEST_F(ClientTest, SaysThatTheAgentWentAway) {
  start();
  Client client(options.path);
  client.subscribe("");
  tell("stop");
  EXPECT_THAT([&] { client.next(); }, ThrowsMessage<Unreachable>(HasSubstr("has closed the connection")));
}

TEST_F(ClientTest, DoesNotWaitForEver) {
  const Control::Listener mute(options.path, options.access);
  Client client(options.path, 1ms);
  EXPECT_THAT([&] { client.get(""); }, ThrowsMessage<Unreachable>(HasSubstr("has not answered within 1 ms")));
}

}  // namespace
