#include "service/control/MergeDiff.h"

#include <nlohmann/json.hpp>

namespace Control {

namespace {

using nlohmann::json;

// A whole value as a patch would set it: without the members that are null.
json settable(const json& value) {
  if (!value.is_object()) {
    return value;
  }
  json result = json::object();
  for (const auto& [key, member] : value.items()) {
    if (!member.is_null()) {
      result[key] = settable(member);
    }
  }
  return result;
}

// Both are ordered by key, so one walk over both finds what was removed, what changed and what came.
json objectDiff(const json& from, const json& to) {
  json patch = json::object();
  auto old = from.begin();
  auto now = to.begin();
  while (old != from.end() || now != to.end()) {
    if (now == to.end() || (old != from.end() && old.key() < now.key())) {
      patch[old.key()] = nullptr;
      ++old;
    } else if (old == from.end() || now.key() < old.key()) {
      if (!now->is_null()) {
        patch[now.key()] = settable(*now);
      }
      ++now;
    } else {
      if (auto change = mergeDiff(*old, *now)) {
        patch[now.key()] = std::move(*change);
      }
      ++old;
      ++now;
    }
  }
  return patch;
}

}  // namespace

std::optional<json> mergeDiff(const json& from, const json& to) {
  if (!from.is_object() || !to.is_object()) {
    return from == to ? std::nullopt : std::optional(settable(to));
  }
  json patch = objectDiff(from, to);
  return patch.empty() ? std::nullopt : std::optional(std::move(patch));
}

}  // namespace Control
