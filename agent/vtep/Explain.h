#pragma once

#include <cstdint>
#include <optional>

#include <nlohmann/json.hpp>

#include "agent/vtep/RowStore.h"

namespace Agent::Vtep {

// The answer to an operator: the rows behind a MAC in each logical switch that has some, and what was decided
// on them; of the logical switches of `vni`, of `vlan`, or of all.
nlohmann::json explainRows(const RowStore& rows, bool converging, Mac mac, std::optional<std::uint32_t> vni,
                           std::optional<std::uint16_t> vlan);

}  // namespace Agent::Vtep
