#include "agent/daemon/Settings.h"

#include <grp.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "Files/Owners.h"

namespace Agent {

namespace {

// "4000-4094"
std::pair<std::uint16_t, std::uint16_t> vlanRange(const std::string& text) {
  const std::size_t dash = text.find('-');
  const auto first = Bridging::VlanId::parse(text.substr(0, dash));
  const auto last = dash == std::string::npos ? first : Bridging::VlanId::parse(text.substr(dash + 1));
  if (!first || !last || *last < *first) {
    throw std::invalid_argument("--untagged-vlans: \"" + text +
                                "\" is not a range of VLANs such as 4000-4094");
  }
  return {first->value(), last->value()};
}

std::optional<gid_t> groupOf(const std::string& name) {
  if (name.empty()) {
    return std::nullopt;
  }
  const group* found = ::getgrnam(name.c_str());
  if (found == nullptr) {
    throw std::invalid_argument("--socket-group: there is no group \"" + name + "\"");
  }
  return found->gr_gid;
}

}  // namespace

L2Rib::HostInput::Options hostTableOf(const RunOptions& options) {
  L2Rib::HostInput::Options hosts;
  hosts.name = options.table;
  hosts.limit = options.tableLimit;
  hosts.replaceDamaged = true;
  if (!options.tableOwner.empty()) {
    hosts.owner = Files::userOf(options.tableOwner);
    if (!hosts.owner) {
      throw std::invalid_argument("--table-owner: there is no user \"" + options.tableOwner + "\"");
    }
  }
  return hosts;
}

// "10:eth1"
KernelFollower::Ports portsOf(const RunOptions& options) {
  KernelFollower::Ports ports;
  for (const std::string& text : options.ports) {
    const std::size_t colon = text.find(':');
    const auto vlan = Bridging::VlanId::parse(text.substr(0, colon));
    if (!vlan || colon == std::string::npos || colon + 1 == text.size()) {
      throw std::invalid_argument("--port: \"" + text + "\" is not VLAN:INTERFACE");
    }
    ports[vlan->value()].push_back(text.substr(colon + 1));
  }
  return ports;
}

Control::Access accessOf(const RunOptions& options) {
  Control::Access access;
  access.owner = ::geteuid();
  access.group = groupOf(options.socketGroup);
  access.othersRead = options.socketReadAll;
  return access;
}

std::vector<Ovsdb::Remote> remotesOf(const RunOptions& options) {
  std::vector<Ovsdb::Remote> remotes;
  for (const std::string& remote : options.ovsdb) {
    remotes.push_back(Ovsdb::Remote::parse(remote));
  }
  return remotes;
}

Vtep::Adapter::Options databaseOf(const RunOptions& options) {
  if (options.switchName.empty()) {
    throw std::invalid_argument("--ovsdb needs --switch, the name of this switch in the database");
  }
  Vtep::Adapter::Options adapter;
  adapter.session.remotes = remotesOf(options);
  adapter.session.largestFirst = options.maxMessage << 20;
  adapter.mapper.topology.switchName = options.switchName;
  std::tie(adapter.mapper.topology.untaggedFirst, adapter.mapper.topology.untaggedLast) =
      vlanRange(options.untaggedVlans);
  adapter.mapper.vti = options.vti;
  adapter.mapper.convergence = {options.convergeQuiet, options.convergeMax};
  adapter.tls = {options.ovsdbKey, options.ovsdbCert, options.ovsdbCa};
  return adapter;
}

}  // namespace Agent
