#include "agent/vtep/Problems.h"

namespace Agent::Vtep {

std::string_view nameOf(ProblemKind kind) {
  static constexpr std::array<std::string_view, problemKinds> names{"none",
                                                                    "duplicate-mac",
                                                                    "bad-mac",
                                                                    "locator-not-ipv4",
                                                                    "locator-unusable",
                                                                    "reference-missing",
                                                                    "vlan-out-of-range",
                                                                    "vni-out-of-range",
                                                                    "vni-with-two-vlans",
                                                                    "vlan-with-two-vnis",
                                                                    "untagged-range-full",
                                                                    "tunnel-ip-not-ipv4",
                                                                    "several-tunnel-ips",
                                                                    "switch-missing",
                                                                    "bad-replication-mode"};
  return names[static_cast<std::size_t>(kind)];
}

}  // namespace Agent::Vtep
