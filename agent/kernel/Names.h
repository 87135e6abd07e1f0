// The names of the devices that we make.
#pragma once

#include <charconv>
#include <optional>
#include <string>

#include "agent/kernel/Options.h"

namespace Agent::Kernel {

inline std::string bridgeName(const Options& options, Vlan vlan) {
  return options.bridgePrefix + std::to_string(vlan);
}
inline std::string deviceName(const Options& options, Vni vni) {
  return options.devicePrefix + std::to_string(vni);
}
// The VLAN that a bridge of ours of this name is made for; none if we give no such name.
inline std::optional<Vlan> vlanOfBridgeName(const Options& options, const std::string& name) {
  const std::string& prefix = options.bridgePrefix;
  if (!name.starts_with(prefix)) {
    return std::nullopt;
  }
  Vlan vlan = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + prefix.size(), end, vlan);
  return error == std::errc{} && stop == end ? std::optional(vlan) : std::nullopt;
}

}  // namespace Agent::Kernel
