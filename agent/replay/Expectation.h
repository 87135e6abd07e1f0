// Comparing a document with what was expected of it.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace Agent {

// Reports one difference: the JSON Pointer of the place, what was wanted, and what is there ("absent" for
// nothing).
using Difference =
    std::function<void(const std::string& pointer, const std::string& want, const std::string& have)>;

// Compares: every member that is expected must be there and match, null means absent, an array must match
// whole, a number with a fraction within 1e-9. Returns how many differences it reported.
std::size_t compare(const nlohmann::json& expected, const nlohmann::json& document, const Difference& tell);

}  // namespace Agent
