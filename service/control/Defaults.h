#pragma once

// Where the agent and its tools meet, unless they are configured otherwise.
namespace Agent::Defaults {

inline constexpr const char* socketPath = "/run/vxlan-agent/control.sock";
inline constexpr const char* hostTable = "/vxlan-agent.hosts";  // in shared memory
inline constexpr const char* tableOwner = "vxlan-agent";        // where there is such a user
inline constexpr const char* traceFile = "/var/lib/vxlan-agent/UbeVxlanControllerSm.rl";

}  // namespace Agent::Defaults
