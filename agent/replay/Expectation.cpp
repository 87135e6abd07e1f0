#include "agent/replay/Expectation.h"

#include <cmath>

#include "agent/state/JsonChecks.h"

namespace Agent {
namespace {

using nlohmann::json;

bool same(const json& expected, const json& value) {
  if (expected.is_number() && value.is_number()) {
    if (expected.is_number_float() || value.is_number_float()) {
      return std::abs(expected.get<double>() - value.get<double>()) <= 1e-9;
    }
    return expected == value;
  }
  if (expected.is_array() && value.is_array() && expected.size() == value.size()) {
    return std::equal(expected.begin(), expected.end(), value.begin(), same);
  }
  return expected == value;
}

std::size_t compareAt(const Place& place, const json& expected, const json* value, const Difference& tell) {
  if (expected.is_null()) {
    if (value == nullptr) {
      return 0;
    }
    tell(place.pointer(), "absent", value->dump());
    return 1;
  }
  if (value == nullptr) {
    tell(place.pointer(), expected.dump(), "absent");
    return 1;
  }
  if (!expected.is_object()) {
    if (same(expected, *value)) {
      return 0;
    }
    tell(place.pointer(), expected.dump(), value->dump());
    return 1;
  }
  if (!value->is_object()) {
    tell(place.pointer(), "an object", value->dump());
    return 1;
  }
  std::size_t differences = 0;
  for (auto member = expected.begin(); member != expected.end(); ++member) {
    const auto there = value->find(member.key());
    differences +=
        compareAt(Place(place, member.key()), *member, there == value->end() ? nullptr : &*there, tell);
  }
  return differences;
}

}  // namespace

std::size_t compare(const json& expected, const json& document, const Difference& tell) {
  return compareAt(Place(), expected, &document, tell);
}

}  // namespace Agent
