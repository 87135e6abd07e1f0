#pragma once

#include <gmock/gmock.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "service/control/Server.h"
#include "tools/vxlanctl/Run.h"

namespace TestVxlanctl {

using nlohmann::json;

// An agent that knows only what the test has put into its document, and answers methods from a list.
class FakeAgent : public Control::Backend {
 public:
  using RequestError = Control::RequestError;

  void patch(json&& patch, std::string_view, Answer answer) override {
    if (patch.contains("vlanVniMap") && patch["vlanVniMap"].contains("bad")) {
      answer(Control::Refusal{"/vlanVniMap/bad/5000", "VLAN out of range 1 to 4094"});
      return;
    }
    document["input"].merge_patch(patch);
    tell();
    answer(std::nullopt);
  }
  Service::Part part(const std::string& pointer) override {
    Service::Part found = Service::partAt(Service::partOf(document), pointer);
    if (!toCome.empty()) {
      document.merge_patch(toCome.front());
      toCome.erase(toCome.begin());
      tell();
    } else if (whenNothingComes) {
      whenNothingComes();
    }
    return found;
  }
  json call(const std::string& method, const json& params) override {
    called.push_back({{"method", method}, {"params", params}});
    if (!answers.contains(method)) {
      throw RequestError(RequestError::Kind::refused, "", "unknown method \"" + method + '"');
    }
    return answers.at(method);
  }
  bool callChanges(const std::string& method) const override { return method == "flush"; }
  void onChange(std::function<void()> listener) override { listener_ = std::move(listener); }
  void tell() const {
    if (listener_) {
      listener_();
    }
  }

  json document = json::object();
  json answers = json::object();
  json called = json::array();
  json toCome = json::array();  // patches of the document, one after each read of it
  std::function<void()> whenNothingComes;

 private:
  std::function<void()> listener_;
};

// An operator at a shell: runs vxlanctl against an agent in a thread of its own, or against none.
class OperatorTest : public testing::Test {
 protected:
  OperatorTest() {
    std::string name = (std::filesystem::temp_directory_path() / "vxlanctl-XXXXXX").string();
    folder = mkdtemp(name.data()) == nullptr ? "" : name;
    serverOptions.path = folder + "/control.sock";
    serverOptions.access.owner = geteuid();
    serverOptions.interval = std::chrono::nanoseconds::zero();
    table = folder + "/hosts.table";
  }
  ~OperatorTest() override {
    stopAgent();
    std::filesystem::remove_all(folder);
  }

  // From here on the agent belongs to its thread until it is stopped.
  void startAgent() {
    if (pipe(order) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
    server.emplace(loop, agent, serverOptions);
    loop.watch(order[0], EPOLLIN, [this](std::uint32_t) { loop.stop(); });
    thread = std::thread([this] {
      loop.run();
      server.reset();
    });
  }
  void stopAgent() {
    if (thread.joinable()) {
      EXPECT_EQ(write(order[1], "x", 1), 1);
      thread.join();
      loop.forget(order[0]);
      close(order[0]);
      close(order[1]);
    }
  }

  // Returns the exit code; what was printed is in `out` and `err`.
  int run(std::vector<std::string> arguments, const std::string& input = "") {
    arguments.insert(arguments.begin(), {"--socket", serverOptions.path, "--table", table});
    std::istringstream in(input);
    std::ostringstream outStream;
    std::ostringstream errStream;
    const int code = Vxlanctl::run(arguments, in, outStream, errStream);
    out = outStream.str();
    err = errStream.str();
    return code;
  }

  std::string folder;
  std::string table;
  FakeAgent agent;
  std::string out;
  std::string err;

  Service::EventLoop loop;

 private:
  Control::ServerOptions serverOptions;
  std::optional<Control::Server> server;
  std::thread thread;
  int order[2] = {-1, -1};
};

}  // namespace TestVxlanctl
