// The common ground of the readers of JSON from outside: a place in the text, and checked access to it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/Decimal.h"
#include "Vxlan/types/Qnet.h"
#include "Vxlan/types/Vni.h"
#include "agent/state/InputPatch.h"

namespace Agent {

// A place in a JSON document: a chain of member names up to the root, put together only for a message.
class Place {
 public:
  Place() = default;
  Place(const Place& parent, std::string_view name) : parent_(&parent), name_(name) {}

  // The JSON Pointer (RFC 6901).
  std::string pointer() const;
  std::string_view name() const { return name_; }
  [[noreturn]] void refuse(const std::string& reason) const { throw Refused(pointer(), reason); }

 private:
  const Place* parent_ = nullptr;
  std::string_view name_;
};

// Values of the type asked for; anything else is refused, with the place. `null` must have been dealt with.
const nlohmann::json& objectAt(const Place& place, const nlohmann::json& value);
bool boolAt(const Place& place, const nlohmann::json& value);
std::uint32_t integerAt(const Place& place, const nlohmann::json& value, std::uint32_t max);
Qnet::IpAddr ipAt(const Place& place, const nlohmann::json& value);

// Member names as keys, or refused.
Qnet::IntfId intfKey(const Place& place);
Bridging::VlanId vlanKey(const Place& place);
Vxlan::VniExt vniKey(const Place& place);
Qnet::EthAddr macKey(const Place& place);
Qnet::IpAddr ipKey(const Place& place);
// A VNI as a number, 1 to 16777215.
Vxlan::VniExt vniAt(const Place& place, const nlohmann::json& value);

// An unknown member is refused.
[[noreturn]] void unknownMember(const Place& place);

// The members of an object by their keys, ascending, as `key` reads them; a key that is there twice (the same
// MAC in upper and in lower case) is refused.
template <class Key>
auto membersByKey(const Place& place, const nlohmann::json& object, const Key& key) {
  using K = decltype(key(place));
  std::map<K, std::pair<std::string_view, const nlohmann::json*>> members;
  for (auto member = object.begin(); member != object.end(); ++member) {
    const Place at(place, member.key());
    if (!members.emplace(key(at), std::pair(std::string_view(member.key()), &*member)).second) {
      at.refuse("the same key is there twice");
    }
  }
  return members;
}

}  // namespace Agent
