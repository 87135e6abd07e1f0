#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>

namespace Vxlanctl {

// Prints the agent's answer to the method "explain": the host, one numbered line for each step of its way
// from the controller to the layer-2 RIB with what was decided there and why, and the verdict. Returns
// whether it is published.
bool printExplanation(const nlohmann::json& answer, std::ostream& out);

}  // namespace Vxlanctl
