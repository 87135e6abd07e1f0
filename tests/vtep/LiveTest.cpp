// The adapter on a real event loop: against real database servers, and against peers that are none.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "Live.h"
#include "Schemas.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;
using testing::HasSubstr;

// Something that listens at a unix socket and is no database server.
class Impostor {
 public:
  explicit Impostor(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const void* const place = &address;
    if (bind(fd_, static_cast<const sockaddr*>(place), sizeof address) != 0 || listen(fd_, 8) != 0) {
      throw std::runtime_error("cannot listen at " + path);
    }
  }
  ~Impostor() { close(fd_); }
  Impostor(const Impostor&) = delete;
  Impostor& operator=(const Impostor&) = delete;

  // The adapter's connection; it must have been made.
  int accept() const { return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC); }

 private:
  int fd_;
};

}  // namespace

TEST_F(LiveServerTest, ADatabaseIsFollowed) {
  create("db");
  const Process server = serve("db");
  Controller controller(socket("db"));
  controller.transact(switchOperations());
  agentStarts("unix:" + socket("db"));
  ASSERT_TRUE(becomes([&] { return document.contains("/vlanVniMap/Vxlan1/10"_json_pointer); }));
  EXPECT_EQ(document["vlanVniMap"]["Vxlan1"]["10"], 5010);
  EXPECT_EQ(document["vtiStatus"]["Vxlan1"]["localVtepAddr"], "10.0.0.1");
  controller.transact(hostOperations("many", 6000, 1, 2000, "10.0.0.2"));
  ASSERT_TRUE(becomes([&] { return hosts(6000) == 2000; }));
  ASSERT_TRUE(becomes([&] { return !converging(); }));
  controller.transact(
      json::array({{{"op", "delete"},
                    {"table", "Ucast_Macs_Remote"},
                    {"where", json::array({json::array({"MAC", "==", "02:00:00:00:00:01"})})}}}));
  ASSERT_TRUE(becomes([&] { return hosts(6000) == 1999; }));
  const AdapterStatus status = adapter->status();
  EXPECT_EQ(status.session, SessionState::following);
  EXPECT_EQ(status.rows.at("Ucast_Macs_Remote"), 1999U);
  EXPECT_EQ(status.hostsPublished, 1999U);
  EXPECT_EQ(status.json()["session"], "following");
}

TEST_F(LiveServerTest, AServerThatIsKilledAndComesBackWithItsRowsWithdrawsNothing) {
  create("db");
  Process server = serve("db");
  auto controller = std::make_unique<Controller>(socket("db"));
  controller->transact(switchOperations());
  controller->transact(hostOperations("many", 6000, 1, 500, "10.0.0.2"));
  agentStarts("unix:" + socket("db"));
  ASSERT_TRUE(becomes([&] { return hosts(6000) == 500 && !converging(); }));
  const json before = document;
  withdrawn = false;
  server.kill();
  ASSERT_TRUE(becomes([&] { return adapter->status().session != SessionState::following; }));
  EXPECT_EQ(document, before);
  unlink(socket("db").c_str());
  server = serve("db");
  ASSERT_TRUE(becomes([&] { return adapter->status().session == SessionState::following; }));
  ASSERT_TRUE(becomes([&] { return !converging(); }));
  EXPECT_FALSE(withdrawn);
  EXPECT_EQ(document, before);
  EXPECT_EQ(adapter->status().reconnects, 1U);
  controller = std::make_unique<Controller>(socket("db"));
  controller->transact(hostOperations("more", 6001, 1000, 10, "10.0.0.3"));
  EXPECT_TRUE(becomes([&] { return hosts(6001) == 10; }));
}

TEST_F(LiveServerTest, AClusterWhoseLeaderIsKilledIsFollowedAtAnotherMemberFromWhereItWas) {
  const std::vector<int> ports = freePorts(3);
  const auto raft = [&](std::size_t i) { return "tcp:127.0.0.1:" + std::to_string(ports[i]); };
  const std::string tool = programPath("ovsdb-tool");
  run({tool, "create-cluster", folder / "m0.db", "/usr/share/openvswitch/vtep.ovsschema", raft(0)},
      folder / "tool.log");
  std::vector<Process> members;
  members.push_back(serve("m0"));
  ASSERT_TRUE(becomes([&] { return access(socket("m0").c_str(), F_OK) == 0; }));
  for (std::size_t i = 1; i < 3; ++i) {
    const std::string name = "m" + std::to_string(i);
    run({tool, "join-cluster", folder / (name + ".db"), "hardware_vtep", raft(i), raft(0)},
        folder / "tool.log");
    members.push_back(serve(name));
    ASSERT_TRUE(becomes(
        [&] { return access(socket(name).c_str(), F_OK) == 0 && memberSays(socket(name), "connected"); }));
  }
  ASSERT_TRUE(becomes([&] { return memberSays(socket("m0"), "leader"); }));
  Controller controller(socket("m0"));
  controller.transact(switchOperations());
  controller.transact(hostOperations("many", 6000, 1, 500, "10.0.0.2"));
  agentStarts("unix:" + socket("m0") + ",unix:" + socket("m1") + ",unix:" + socket("m2"));
  ASSERT_TRUE(becomes([&] { return hosts(6000) == 500 && !converging(); }));
  EXPECT_EQ(adapter->status().remote, "unix:" + socket("m0"));
  withdrawn = false;

  members[0].kill();
  std::string leader;
  ASSERT_TRUE(becomes([&] {
    for (const char* const name : {"m1", "m2"}) {
      leader = memberSays(socket(name), "leader") ? socket(name) : leader;
    }
    return !leader.empty();
  }));
  Controller(leader).transact(hostOperations("more", 6001, 1000, 10, "10.0.0.3"));
  ASSERT_TRUE(becomes([&] { return hosts(6001) == 10; }));
  EXPECT_NE(adapter->status().remote, "unix:" + socket("m0"));
  EXPECT_EQ(adapter->status().resumptions, adapter->status().reconnects);
  EXPECT_GE(adapter->status().reconnects, 1U);
  ASSERT_TRUE(becomes([&] { return !converging(); }));
  EXPECT_FALSE(withdrawn);
  EXPECT_EQ(hosts(6000), 500U);
}

TEST_F(LiveServerTest, AServerIsFollowedOverTcpByName) {
  create("db");
  const int port = freePorts(1)[0];
  const Process server = serve("db", {"--remote=ptcp:" + std::to_string(port) + ":127.0.0.1"});
  Controller(socket("db")).transact(switchOperations());
  agentStarts("tcp:localhost:" + std::to_string(port));
  EXPECT_TRUE(becomes([&] { return document.contains("/vlanVniMap/Vxlan1/10"_json_pointer); }));
}

TEST_F(LiveServerTest, AServerIsFollowedOverTlsAndAStrangersCertificateIsRefused) {
  const std::string openssl = programPath("openssl");
  if (openssl.empty()) {
    GTEST_SKIP() << "openssl is not installed";
  }
  const auto certificate = [&](const std::string& name) {
    run({openssl, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=" + name,
         "-keyout", folder / (name + "-key.pem"), "-out", folder / (name + "-cert.pem")},
        folder / "openssl.log");
  };
  certificate("server");
  certificate("agent");
  create("db");
  const int port = freePorts(1)[0];
  const Process server =
      serve("db", {"--remote=pssl:" + std::to_string(port) + ":127.0.0.1",
                   "--private-key=" + folder / "server-key.pem",
                   "--certificate=" + folder / "server-cert.pem", "--ca-cert=" + folder / "agent-cert.pem"});
  Controller controller(socket("db"));
  controller.transact(switchOperations());
  controller.transact(hostOperations("many", 6000, 1, 3000, "10.0.0.2"));
  tls = {folder / "agent-key.pem", folder / "agent-cert.pem", folder / "agent-cert.pem"};
  agentStarts("ssl:127.0.0.1:" + std::to_string(port));
  EXPECT_TRUE(logs("TLS: the peer's certificate is refused: self-signed certificate"));
  tls.caCertificate = folder / "server-cert.pem";
  agentStarts("ssl:127.0.0.1:" + std::to_string(port));
  EXPECT_TRUE(becomes([&] { return hosts(6000) == 3000; }));
}

TEST_F(LiveServerTest, ADatabaseWithAnotherSchemaIsRefusedWithAClearMessage) {
  const std::string schema = "/usr/share/openvswitch/local-config.ovsschema";
  if (access(schema.c_str(), R_OK) != 0) {
    GTEST_SKIP() << "no second schema is installed";
  }
  create("other", schema);
  const Process server = serve("other");
  ASSERT_TRUE(becomes([&] { return access(socket("other").c_str(), F_OK) == 0; }));
  agentStarts("unix:" + socket("other"));
  EXPECT_TRUE(logs("no schema of database \"hardware_vtep\""));
}

// --- peers that are no database servers

TEST_F(LiveTest, ARefusedConnectionIsNamedAndTheNextRemoteTried) {
  agentStarts("unix:" + folder / "none.sock" + ",tcp:127.0.0.1:" + std::to_string(freePorts(1)[0]));
  EXPECT_TRUE(logs("connecting: No such file or directory"));
  EXPECT_TRUE(logs("connecting: Connection refused"));
}

TEST_F(LiveTest, ANameThatCannotBeResolvedIsNamedWithoutAPauseOfTheLoop) {
  agentStarts("tcp:no-such-host.invalid:6640");
  EXPECT_TRUE(logs("looking up \"no-such-host.invalid\""));
}

TEST_F(LiveTest, GarbageOnTheWireIsNamed) {
  const Impostor impostor(folder / "db.sock");
  agentStarts("unix:" + folder / "db.sock");
  ASSERT_TRUE(becomes([&] { return adapter->status().session == SessionState::checking; }));
  const int peer = impostor.accept();
  ASSERT_GT(write(peer, "SSH-2.0-x\r\n", 11), 0);
  EXPECT_TRUE(logs("this is not OVSDB: a message begins with byte 83 instead of '{'"));
  close(peer);
}

TEST_F(LiveTest, AHalfClosedPeerIsNamed) {
  const Impostor impostor(folder / "db.sock");
  agentStarts("unix:" + folder / "db.sock");
  ASSERT_TRUE(becomes([&] { return adapter->status().session == SessionState::checking; }));
  const int peer = impostor.accept();
  shutdown(peer, SHUT_WR);
  EXPECT_TRUE(logs("the peer closed the connection"));
  close(peer);
}

TEST_F(LiveTest, AMessageOfAHundredMegabytesNeverHoldsTheLoopUp) {
  const Impostor impostor(folder / "db.sock");
  agentStarts("unix:" + folder / "db.sock");
  ASSERT_TRUE(becomes([&] { return adapter->status().session == SessionState::checking; }));
  const int peer = impostor.accept();
  fcntl(peer, F_SETFL, O_NONBLOCK);
  const std::string answers =
      json{{"id", "schema"}, {"result", Ovsdb::Testing::goodSchema()}, {"error", nullptr}}.dump() +
      R"({"id":"server","result":null,"error":"unknown database"})";
  ASSERT_EQ(write(peer, answers.data(), answers.size()), static_cast<ssize_t>(answers.size()));
  ASSERT_TRUE(becomes([&] { return adapter->status().session == SessionState::requesting; }));
  std::string piece;
  while (piece.size() < 1'000'000) {
    piece += "\"xxxxxxxxxxxxxxxx\",";
  }
  std::string message = R"({"id":"rows","error":null,"result":[)";
  message.reserve(101'000'000);
  for (int i = 0; i < 100; ++i) {
    message += piece;
  }
  message += "1]}";
  std::size_t sent = 0;
  int timersBetween = 0;
  std::function<void()> tick = [&] {
    ++timersBetween;
    loop.after(std::chrono::milliseconds(1), tick);
  };
  tick();
  EXPECT_TRUE(becomes([&] {
    const ssize_t size = send(peer, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
    sent += size > 0 ? static_cast<std::size_t>(size) : 0;
    return !log.empty();
  }));
  EXPECT_THAT(log.front(), HasSubstr("want true or false"));
  EXPECT_EQ(sent, message.size());
  EXPECT_GT(timersBetween, 10) << "other work goes on meanwhile";
  close(peer);
}

TEST_F(LiveTest, APeerThatReadsLateIsHeldBackAndAnsweredInTheEnd) {
  const Impostor impostor(folder / "db.sock");
  agentStarts("unix:" + folder / "db.sock");
  ASSERT_TRUE(becomes([&] { return adapter->status().session == SessionState::checking; }));
  const int peer = impostor.accept();
  fcntl(peer, F_SETFL, O_NONBLOCK);
  std::string requests;
  for (int i = 0; i < 60; ++i) {
    requests += R"({"id":1,"method":"echo","params":[")" + std::string(100'000, 'x') + "\"]}";
  }
  std::size_t sent = 0;
  const auto send = [&] {
    const ssize_t size = ::send(peer, requests.data() + sent, requests.size() - sent, MSG_NOSIGNAL);
    sent += size > 0 ? static_cast<std::size_t>(size) : 0;
    return size > 0;
  };
  int blocked = 0;
  ASSERT_TRUE(becomes([&] { return (blocked = send() ? 0 : blocked + 1) >= 10; }));
  EXPECT_LT(sent, std::size_t{4} << 20);
  std::vector<char> bytes(1 << 20);
  std::size_t answered = 0;
  EXPECT_TRUE(becomes([&] {
    send();
    const ssize_t size = recv(peer, bytes.data(), bytes.size(), 0);
    answered += size > 0 ? static_cast<std::size_t>(size) : 0;
    return answered >= 60 * 100'000;
  }));
  EXPECT_TRUE(log.empty());
  close(peer);
}

}  // namespace Agent::Vtep::Testing
