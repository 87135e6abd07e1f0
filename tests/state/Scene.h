// A state database with its client, changed by patches.
#pragma once

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>

#include "Kel/Activity.h"
#include "Kel/System.h"
#include "agent/state/InputDocument.h"
#include "agent/state/InputPatch.h"
#include "agent/state/World.h"

namespace TestState {

using nlohmann::json;

// A world in simulated time, with a host table of this process alone.
class Scene : public ::testing::Test {
 protected:
  Scene() { world.clientIs(); }
  ~Scene() override { world.clientDel(); }

  // Carries a patch out; returns where and why it is refused, or nothing.
  std::string patch(const json& patch) {
    try {
      Agent::InputPatch(world, patch).carryOut();
      Kel::ActivityLoop::instance().runUntilIdle();
      return "";
    } catch (const Agent::Refused& refused) {
      return refused.pointer() + ": " + refused.what();
    }
  }
  std::string patch(const char* text) { return patch(json::parse(text)); }
  // The input document as the state database has it.
  json input() { return Service::jsonOf(Agent::inputPart(world)); }

 private:
  struct Time {
    Time() { Kel::System::timeSourceIs(&time); }
    ~Time() { Kel::System::timeSourceIs(nullptr); }
    Kel::SimulatedTime time;
  };
  Time time_;

 protected:
  Agent::World world{L2Rib::HostInput::Options()};
};

}  // namespace TestState
