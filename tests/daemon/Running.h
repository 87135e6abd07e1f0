// The inputs of a running agent: the state database, the client, and the queue that patches at the control
// socket go through.
#pragma once

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Kel/Activity.h"
#include "Kel/System.h"
#include "agent/daemon/Delivery.h"
#include "agent/daemon/PatchQueue.h"
#include "agent/state/InputDocument.h"
#include "agent/state/OutputDocument.h"

namespace TestDaemon {

using nlohmann::json;

// What `patch` answered: empty when it was carried out, else where and why not.
using Answer = std::string;

// An agent without its sockets, in simulated time.
class Running {
 public:
  explicit Running(std::size_t tableLimit = 4096)
      : world(table(tableLimit)),
        queue(loop, world,
              {[] {}, [this](const std::function<void()>& change) { guarded(change); },
               [this](const json& patch) { recorded.push_back(patch); }}) {
    loop.embed(client_);
    world.clientIs();
    world.client->maxProcessTimeIs(0.004);
  }
  ~Running() {
    loop.unembed(client_);
    world.clientDel();
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  // Takes a patch in, and turns the loop until it is answered.
  Answer patch(const json& patch) {
    std::optional<Answer> answer;
    queue.add(patch, [&](const std::exception* error) {
      const auto* refused = dynamic_cast<const Agent::Refused*>(error);
      answer =
          error == nullptr ? Answer() : (refused == nullptr ? "" : refused->pointer() + ": ") + error->what();
    });
    while (!answer) {
      turn();
    }
    return *answer;
  }
  Answer patch(const char* text) { return patch(json::parse(text)); }

  void turn() { loop.runOnce(std::chrono::nanoseconds(0)); }
  // Nothing is pending and no clock is due.
  void settle() {
    while (!Kel::ActivityLoop::instance().idle()) {
      turn();
    }
  }
  void advance(double seconds) { time_.time.timeIs(time_.time.peek() + seconds); }
  void tickPerReadIs(double seconds) { time_.time.tickPerReadIs(seconds); }

  json input(const std::string& pointer = "") const {
    return Service::jsonOf(Agent::inputPart(world)).at(json::json_pointer(pointer));
  }
  json output(const std::string& pointer = "") { return document_.at(pointer); }

 private:
  // In place before the world is, which reads the time.
  struct Time {
    Time() { Kel::System::timeSourceIs(&time); }
    ~Time() { Kel::System::timeSourceIs(nullptr); }
    Kel::SimulatedTime time;
  };
  // The client's activity loop as a guest.
  struct Client final : Service::EventLoop::Embedded {
    explicit Client(Running& owner) : running(owner) {}
    bool turn() override {
      running.guarded([] { Kel::ActivityLoop::instance().turn(); });
      return !Kel::ActivityLoop::instance().idle();
    }
    double nextWakeup() override {
      return Kel::ActivityLoop::instance().nextWakeup() - Kel::System::loopTime();
    }
    Running& running;
  };

  static L2Rib::HostInput::Options table(std::size_t limit) {
    L2Rib::HostInput::Options options;
    options.limit = limit;
    return options;
  }
  // A handler's error is counted, and the agent goes on.
  void guarded(const std::function<void()>& work) {
    Agent::carryThrough(work, [this](const std::exception&) { ++errors; });
  }

  Time time_;
  Service::EventLoop::Clock::time_point at_;

 public:
  // Its budgets pass as it is asked for the time, so that slices are the same on every machine.
  Service::EventLoop loop{[this] { return at_ += std::chrono::milliseconds(1); }};
  Agent::World world;
  Agent::PatchQueue queue;
  std::vector<json> recorded;
  std::size_t errors = 0;

 private:
  Client client_{*this};
  Agent::OutputDocument document_{world, ""};
};

}  // namespace TestDaemon
