#include "agent/state/JsonChecks.h"

#include <cmath>

namespace Agent {

std::string Place::pointer() const {
  if (parent_ == nullptr) {
    return "";
  }
  std::string text = parent_->pointer() + '/';
  for (const char character : name_) {
    if (character == '~') {
      text += "~0";
    } else if (character == '/') {
      text += "~1";
    } else {
      text += character;
    }
  }
  return text;
}

const nlohmann::json& objectAt(const Place& place, const nlohmann::json& value) {
  if (!value.is_object()) {
    place.refuse(std::string("an object was expected, not ") + value.type_name());
  }
  return value;
}

bool boolAt(const Place& place, const nlohmann::json& value) {
  if (!value.is_boolean()) {
    place.refuse(std::string("true or false was expected, not ") + value.type_name());
  }
  return value.get<bool>();
}

namespace {

// An integer in a range; `what` is what a message calls it, and `wanted` how it asks for one.
std::uint32_t integerIn(const Place& place, const nlohmann::json& value, std::uint32_t min, std::uint32_t max,
                        const char* what, const char* wanted) {
  // A number that 64 bits do not hold, or that is written with an exponent, has been read as a fraction.
  const bool huge = value.is_number_float() && std::abs(value.get<double>()) >= 0x1p63;
  if (!value.is_number_integer() && !huge) {
    place.refuse(std::string(wanted) + " was expected, not " +
                 (value.is_number_float() ? value.dump() : value.type_name()));
  }
  const bool negative = !value.is_number_unsigned() && !huge && value.get<std::int64_t>() < 0;
  if (huge || negative || value.get<std::uint64_t>() < min || value.get<std::uint64_t>() > max) {
    place.refuse(std::string(what) + " out of range " + std::to_string(min) + " to " + std::to_string(max));
  }
  return value.get<std::uint32_t>();
}

}  // namespace

std::uint32_t integerAt(const Place& place, const nlohmann::json& value, std::uint32_t max) {
  return integerIn(place, value, 0, max, "integer", "an integer");
}

Qnet::IpAddr ipAt(const Place& place, const nlohmann::json& value) {
  if (!value.is_string()) {
    place.refuse(std::string("an IPv4 address was expected, not ") + value.type_name());
  }
  const auto address = Qnet::IpAddr::parse(value.get_ref<const std::string&>());
  if (!address) {
    place.refuse("\"" + value.get<std::string>() + "\" is not a dotted IPv4 address");
  }
  return *address;
}

Qnet::IntfId intfKey(const Place& place) {
  if (place.name().empty()) {
    place.refuse("an interface has a name");
  }
  if (place.name().size() > Qnet::IntfId::maxLength) {
    place.refuse("interface name longer than " + std::to_string(Qnet::IntfId::maxLength) + " characters");
  }
  // The table in shared memory holds names that end with a zero byte.
  if (std::any_of(place.name().begin(), place.name().end(),
                  [](unsigned char c) { return c < 0x20 || c == 0x7f; })) {
    place.refuse("interface name with a control character");
  }
  return Qnet::IntfId(place.name());
}

Bridging::VlanId vlanKey(const Place& place) {
  if (const auto vlan = Bridging::VlanId::parse(place.name())) {
    return *vlan;
  }
  const auto number = Qnet::parseDecimal(place.name(), UINT32_MAX);
  place.refuse(number ? "VLAN out of range 1 to 4094" : "a VLAN is a decimal number without leading zeros");
}

constexpr std::uint32_t lastVni = 16777215;

Vxlan::VniExt vniKey(const Place& place) {
  const auto number = Qnet::parseDecimal(place.name(), UINT32_MAX);
  if (!number) {
    place.refuse("a VNI is a decimal number without leading zeros");
  }
  if (*number < 1 || *number > lastVni) {
    place.refuse("VNI out of range 1 to 16777215");
  }
  return Vxlan::VniExt(*number);
}

Vxlan::VniExt vniAt(const Place& place, const nlohmann::json& value) {
  return Vxlan::VniExt(integerIn(place, value, 1, lastVni, "VNI", "a VNI as an integer"));
}

Qnet::EthAddr macKey(const Place& place) {
  const auto mac = Qnet::EthAddr::parse(place.name());
  if (!mac) {
    place.refuse("\"" + std::string(place.name()) + "\" is not a MAC address such as 02:00:00:00:00:01");
  }
  return *mac;
}

Qnet::IpAddr ipKey(const Place& place) {
  const auto address = Qnet::IpAddr::parse(place.name());
  if (!address) {
    place.refuse("\"" + std::string(place.name()) + "\" is not a dotted IPv4 address");
  }
  return *address;
}

void unknownMember(const Place& place) {
  place.refuse("unknown member");
}

}  // namespace Agent
