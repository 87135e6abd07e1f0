// Sentences for an operator on the two ends of a MAC's way: the controller database and the kernel.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "agent/kernel/Adapter.h"

namespace Agent {

// One step as `explain` tells it: whether it went well (true, false, or null where neither can be said), and
// a sentence. The adapters' own accounts stay beside it for programs.
struct Told {
  nlohmann::json ok;
  std::string detail;
};

// Puts Ovsdb::Adapter::explain() into words: each logical switch that the MAC concerns, which of its rows
// counts, what became of the others, and where it is flooded to.
Told databaseTold(const nlohmann::json& account);

// Puts Kernel::Adapter::explain() into words: what is wanted, what the kernel acknowledged, and what it
// answered when it was asked again.
Told kernelTold(const Kernel::FullExplanation& explanation);

}  // namespace Agent
