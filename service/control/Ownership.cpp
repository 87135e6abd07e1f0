#include "service/control/Ownership.h"

#include <nlohmann/json.hpp>

namespace Control {

namespace {

// A member's name as a token of a JSON Pointer (RFC 6901).
std::string token(const std::string& name) {
  std::string escaped;
  for (const char c : name) {
    if (c == '~') {
      escaped += "~0";
    } else if (c == '/') {
      escaped += "~1";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace

void Ownership::claim(std::string pointer, std::string owner) {
  owners_.insert_or_assign(std::move(pointer), std::move(owner));
}

void Ownership::release(std::string_view owner) {
  std::erase_if(owners_, [owner](const auto& claim) { return claim.second == owner; });
}

std::optional<std::string> Ownership::ownerOf(std::string_view pointer) const {
  for (;;) {
    if (const auto found = owners_.find(pointer); found != owners_.end()) {
      return found->second;
    }
    const std::size_t slash = pointer.rfind('/');
    if (slash == std::string_view::npos) {
      return std::nullopt;
    }
    pointer = pointer.substr(0, slash);
  }
}

std::optional<Refusal> Ownership::check(const nlohmann::json& patch, std::string_view who) const {
  return owners_.empty() ? std::nullopt : checkAt("", patch, who);
}

// Only leaves of the patch touch anything; what is an object merely leads to them, unless it is empty or a
// new owner begins there.
std::optional<Refusal> Ownership::checkAt(const std::string& pointer, const nlohmann::json& patch,
                                          std::string_view who) const {
  if (patch.is_object() && !patch.empty()) {
    for (const auto& [name, member] : patch.items()) {
      if (auto refusal = checkAt(pointer + '/' + token(name), member, who)) {
        return refusal;
      }
    }
    return std::nullopt;
  }
  if (const auto owner = ownerOf(pointer); owner && *owner != who) {
    return Refusal{pointer, "owned by " + *owner};
  }
  return patch.is_object() ? std::nullopt : ownedBelow(pointer, who);
}

std::optional<Refusal> Ownership::ownedBelow(const std::string& pointer, std::string_view who) const {
  const std::string prefix = pointer + '/';
  for (auto claim = owners_.lower_bound(prefix); claim != owners_.end() && claim->first.starts_with(prefix);
       ++claim) {
    if (claim->second != who) {
      return Refusal{claim->first, "owned by " + claim->second};
    }
  }
  return std::nullopt;
}

}  // namespace Control
