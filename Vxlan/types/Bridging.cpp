#include "Vxlan/types/Bridging.h"

#include <ostream>

#include "Vxlan/types/Decimal.h"

namespace Bridging {

std::optional<VlanId> VlanId::parse(std::string_view text) {
  const auto value = Qnet::parseDecimal(text, max);
  return value && *value >= min ? std::optional(VlanId(*value)) : std::nullopt;
}

std::ostream& operator<<(std::ostream& stream, const VlanId& vlan) {
  return stream << vlan.value();
}
std::ostream& operator<<(std::ostream& stream, const VlanIdOrNone& vlan) {
  return stream << vlan.value();
}
std::ostream& operator<<(std::ostream& stream, const MacVlanPair& key) {
  return stream << key.mac << ':' << key.vlan;
}

}  // namespace Bridging
