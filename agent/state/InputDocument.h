// The input document, printed from the state database.
#pragma once

#include "agent/json/Parts.h"
#include "agent/state/World.h"

namespace Agent {

// The input document as the state database holds it, to be walked or looked into: "vtiStatus", "vlanVniMap",
// "mlag", "hardware", "controller". The world outlives it.
Part inputPart(const World& world);

}  // namespace Agent
