// The input document, printed from the state database.
#pragma once

#include "agent/state/World.h"
#include "service/json/Parts.h"

namespace Agent {

// The input document as the state database holds it, to be walked or looked into: "vtiStatus", "vlanVniMap",
// "mlag", "hardware", "controller". The world outlives it.
Service::Part inputPart(const World& world);

}  // namespace Agent
