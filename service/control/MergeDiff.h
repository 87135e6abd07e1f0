#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>

namespace Control {

// The smallest JSON Merge Patch (RFC 7396) that makes `to` of `from`, or nothing when they are equal. Arrays
// are replaced whole. Such a patch cannot give an object member the value null: a member of `to` that is null
// counts as absent (nulls inside arrays stay).
std::optional<nlohmann::json> mergeDiff(const nlohmann::json& from, const nlohmann::json& to);

}  // namespace Control
