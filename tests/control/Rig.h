#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "FakeService.h"
#include "service/control/Server.h"

namespace TestControl {

using nlohmann::json;

// A folder of its own that goes with the test.
class TempFolder {
 public:
  TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "control-XXXXXX").string();
    path_ = mkdtemp(name.data()) == nullptr ? "" : name;
  }
  ~TempFolder() { std::filesystem::remove_all(path_); }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A client that neither waits nor knows the protocol.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { hangUp(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Returns how many bytes the socket took.
  std::size_t send(const std::string& bytes) const {
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  void sayNoMore() const { shutdown(fd_, SHUT_WR); }
  void hangUp() { close(std::exchange(fd_, -1)); }

  // Takes what is there; whole lines come to `lines`.
  void take() {
    std::array<char, 65536> buffer;
    ssize_t got = 0;
    while ((got = recv(fd_, buffer.data(), buffer.size(), 0)) > 0) {
      in_.append(buffer.data(), static_cast<std::size_t>(got));
    }
    ended = ended || got == 0 || (got < 0 && errno == ECONNRESET);
    for (std::size_t newline = in_.find('\n'); newline != std::string::npos; newline = in_.find('\n')) {
      lines.push_back(json::parse(in_.substr(0, newline)));
      in_.erase(0, newline + 1);
    }
  }

  bool connected = false;
  bool ended = false;
  std::vector<json> lines;

 private:
  int fd_;
  std::string in_;
};

// A server over a real socket in a folder of its own, on a loop whose time stands still until the test moves
// it.
class ControlTest : public testing::Test {
 protected:
  using ServerOptions = Control::ServerOptions;

  ControlTest() {
    options.path = folder / "control.sock";
    options.access.owner = geteuid();
    options.log = [this](std::string_view text) { logged.emplace_back(text); };
  }

  void serve() { server = std::make_unique<Control::Server>(loop, service, options); }

  std::unique_ptr<RawClient> connect() {
    auto client = std::make_unique<RawClient>(options.path);
    EXPECT_TRUE(client->connected);
    turns(2);
    return client;
  }

  void turns(int count) {
    for (int i = 0; i < count; ++i) {
      loop.runOnce(std::chrono::nanoseconds::zero());
    }
  }

  // Sends a line and returns the next line that comes; null when none does.
  json ask(RawClient& client, const json& request) { return askText(client, request.dump() + '\n'); }
  json askText(RawClient& client, const std::string& text) {
    std::size_t sent = 0;
    const std::size_t before = client.lines.size();
    constexpr int patience = 20'000;
    for (int i = 0; i < patience && client.lines.size() == before && !client.ended; ++i) {
      sent += client.send(text.substr(sent, 65536));
      turns(1);
      client.take();
    }
    return client.lines.size() == before ? json() : client.lines[before];
  }

  // Moves time on until a change is due to be told, and takes what was told.
  void interval(RawClient& client) {
    time += options.interval;
    turns(3);
    client.take();
  }

  Service::EventLoop::Clock::time_point time{std::chrono::hours{1}};
  Service::EventLoop loop{[this] { return time; }};
  TempFolder folder;
  FakeService service;
  ServerOptions options;
  std::vector<std::string> logged;
  std::unique_ptr<Control::Server> server;
};

}  // namespace TestControl
