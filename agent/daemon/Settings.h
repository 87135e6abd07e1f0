// What the options of `vxlan-agent run` say, as values of those who use them.
#pragma once

#include <optional>
#include <vector>

#include "agent/daemon/KernelFollower.h"
#include "agent/daemon/RunOptions.h"
#include "agent/state/World.h"
#include "agent/vtep/Adapter.h"
#include "service/control/Access.h"

namespace Agent {

// Each raises std::invalid_argument, with the option and its value, for what cannot be.

// The host table, with its owner, who must be a user of this machine.
L2Rib::HostInput::Options hostTableOf(const RunOptions& options);
// The ports of the bridges, by VLAN.
KernelFollower::Ports portsOf(const RunOptions& options);
// Who may use the control socket.
Control::Access accessOf(const RunOptions& options);
// The servers of the controller database; none where no database is followed.
std::vector<Ovsdb::Remote> remotesOf(const RunOptions& options);
// The adapter of the controller database; needs the name of the switch.
Vtep::Adapter::Options databaseOf(const RunOptions& options);

}  // namespace Agent
