#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/vxlanctl/Sheet.h"

namespace Vxlanctl {

// Where a "show" command gets a part of the agent's document from; null for a part that is not there.
using Part = std::function<nlohmann::json(const std::string& pointer)>;

// Each makes the rows of one "show" command out of the parts it asks for, in a stable order.
Sheet showReceivedHosts(const Part& part);
Sheet showFloods(const Part& part);
Sheet showBum(const Part& part);
Sheet showVni(const Part& part);
Sheet showVti(const Part& part);
Sheet showConvergence(const Part& part);
Sheet showMachines(const Part& part);
Sheet showKernel(const Part& part);
// Of the answer to the method "problems".
Sheet showProblems(const nlohmann::json& problems);

}  // namespace Vxlanctl
