#include "agent/ovsdb/Topology.h"

#include <algorithm>

#include "agent/ovsdb/JsonReader.h"

namespace Agent::Ovsdb {

namespace {

bool isVni(std::int64_t key) {
  return key >= leastVni && key <= mostVni;
}

// FNV-1a, 32 bits.
std::uint32_t hashOf(std::string_view name) {
  std::uint32_t hash = 2166136261U;
  for (const char c : name) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  }
  return hash;
}

std::string quoted(const std::string& name) {
  return "\"" + name + "\"";
}

}  // namespace

void Topology::derive(RowStore& rows, bool converging) {
  const VlanMap old = std::exchange(vlans_, {});
  decisions_.clear();
  problems_.clear();
  bound_.clear();
  tagged_.clear();
  Uuid uuid;
  const RowStore::PhysicalSwitch* const own = ownSwitch(rows, uuid);
  if (own != nullptr) {
    deriveTunnelIp(*own, uuid);
    readBindings(rows, *own);
  } else {
    localVtep_ = converging ? localVtep_ : 0;
    object(ProblemKind::switchMissing, Table::physicalSwitch, {},
           "no physical switch is named " + quoted(options_.switchName));
  }
  decideVnis(rows, converging);
  decideVlans(rows);
  if (converging) {
    holdVlans(rows, old, own == nullptr);
  }
}

const RowStore::PhysicalSwitch* Topology::ownSwitch(const RowStore& rows, Uuid& uuid) const {
  for (const auto& [id, row] : rows.physicalSwitches) {
    if (row.name == options_.switchName) {
      uuid = id;
      return &row;
    }
  }
  return nullptr;
}

void Topology::deriveTunnelIp(const RowStore::PhysicalSwitch& own, const Uuid& uuid) {
  std::set<Ipv4> addresses;
  for (const std::string& text : own.tunnelIps) {
    const Ipv4 address = parseIpv4(text).value_or(0);
    if (canEndTunnel(address)) {
      addresses.insert(address);
    } else {
      object(ProblemKind::tunnelIpNotIpv4, Table::physicalSwitch, uuid,
             "the tunnel address " + quoted(printable(text)) +
                 " is not an IPv4 address at which a tunnel can end");
    }
  }
  localVtep_ = addresses.empty() ? 0 : *addresses.begin();
  for (auto address = addresses.begin(); address != addresses.end(); ++address) {
    if (address != addresses.begin()) {
      object(ProblemKind::severalTunnelIps, Table::physicalSwitch, uuid,
             "the tunnel address " + ipv4Text(*address) + " is left out: the lowest, " +
                 ipv4Text(localVtep_) + ", counts");
    }
  }
}

void Topology::readBindings(const RowStore& rows, const RowStore::PhysicalSwitch& own) {
  for (const Uuid& portId : own.ports) {
    const auto port = rows.ports.find(portId);
    if (port == rows.ports.end()) {
      object(ProblemKind::referenceMissing, Table::physicalPort, portId, "the port is not there");
      continue;
    }
    for (const auto& [vlan, logicalSwitchId] : port->second.bindings) {
      const std::string binding = "port " + quoted(port->second.name) + ", VLAN " + std::to_string(vlan);
      const Slot slot = rows.logicalSwitches.find(logicalSwitchId);
      if (vlan < 0 || vlan > mostVlan) {
        object(ProblemKind::vlanOutOfRange, Table::physicalPort, portId,
               binding + ": out of range 0 to 4094");
      } else if (slot == noSlot || !rows.logicalSwitches[slot].exists) {
        object(ProblemKind::referenceMissing, Table::physicalPort, portId,
               binding + ": logical switch " + logicalSwitchId.text() + " is not there");
      } else if (vlan == 0) {
        bound_[slot].untagged = true;
      } else {
        bound_[slot].tagged.insert(static_cast<std::uint16_t>(vlan));
        tagged_.insert(static_cast<std::uint16_t>(vlan));
      }
    }
  }
}

void Topology::decideVnis(RowStore& rows, bool converging) {
  std::map<std::uint32_t, std::size_t> owners;  // VNI to its place in decisions_
  const auto before = [&](const Decision& one, const Decision& other) {
    const auto rank = [&](const Decision& decision) {
      return std::tuple(!bound_.contains(decision.logicalSwitch), !decision.publishable,
                        std::string_view{rows.logicalSwitches[decision.logicalSwitch].name},
                        rows.logicalSwitches.key(decision.logicalSwitch));
    };
    return rank(one) < rank(other);
  };
  for (Slot slot = 0; slot < rows.logicalSwitches.slots(); ++slot) {
    if (!rows.logicalSwitches.live(slot)) {
      continue;
    }
    RowStore::LogicalSwitch& row = rows.logicalSwitches[slot];
    Decision decision{.logicalSwitch = slot};
    if (row.key && isVni(*row.key)) {
      row.heldKey = static_cast<std::uint32_t>(*row.key);
      decision.publishable = true;
    } else if (row.key) {
      object(ProblemKind::vniOutOfRange, Table::logicalSwitch, rows.logicalSwitches.key(slot),
             "tunnel key " + std::to_string(*row.key) + " of " + quoted(row.name) +
                 " is out of range 1 to 16777215");
    }
    if (!row.mode.empty() && row.mode != "source_node" && row.mode != "service_node") {
      object(ProblemKind::badReplicationMode, Table::logicalSwitch, rows.logicalSwitches.key(slot),
             "replication mode " + quoted(printable(row.mode)) + " of " + quoted(row.name) +
                 " is not known; service_node is assumed");
    }
    row.heldKey = decision.publishable || converging ? row.heldKey : 0;
    decision.vni = row.exists ? row.heldKey : 0;
    decisions_.push_back(decision);
    if (decision.vni == 0) {
      continue;
    }
    const auto [owner, first] = owners.try_emplace(decision.vni, decisions_.size() - 1);
    if (!first) {
      const bool wins = before(decision, decisions_[owner->second]);
      const std::size_t loser =
          wins ? std::exchange(owner->second, decisions_.size() - 1) : decisions_.size() - 1;
      decisions_[loser].vni = 0;
      decisions_[loser].publishable = false;
      const Slot lost = decisions_[loser].logicalSwitch;
      const Slot won = decisions_[owner->second].logicalSwitch;
      object(ProblemKind::vniWithTwoVlans, Table::logicalSwitch, rows.logicalSwitches.key(lost),
             quoted(std::as_const(rows.logicalSwitches[lost].name)) + " is left out: VNI " +
                 std::to_string(decision.vni) + " belongs to " +
                 quoted(std::as_const(rows.logicalSwitches[won].name)));
    }
  }
}

void Topology::decideVlans(const RowStore& rows) {
  std::vector<Decision*> bound;
  for (Decision& decision : decisions_) {
    if (decision.vni != 0 && bound_.contains(decision.logicalSwitch)) {
      bound.push_back(&decision);
    }
  }
  const auto name = [&](const Decision* decision) {
    return std::pair(std::string_view{rows.logicalSwitches[decision->logicalSwitch].name},
                     rows.logicalSwitches.key(decision->logicalSwitch));
  };
  std::sort(bound.begin(), bound.end(),
            [&](const Decision* one, const Decision* other) { return name(one) < name(other); });
  std::vector<Decision*> untagged;
  for (Decision* const decision : bound) {
    const Bound& ports = bound_[decision->logicalSwitch];
    if (ports.tagged.empty()) {
      untagged.push_back(decision);
    } else {
      decideTagged(rows, *decision, ports);
    }
  }
  decideUntagged(rows, untagged);
}

void Topology::decideTagged(const RowStore& rows, Decision& decision, const Bound& bound) {
  const Uuid& uuid = rows.logicalSwitches.key(decision.logicalSwitch);
  const std::string name = quoted(rows.logicalSwitches[decision.logicalSwitch].name);
  const std::uint16_t vlan = *bound.tagged.begin();
  for (auto other = std::next(bound.tagged.begin()); other != bound.tagged.end(); ++other) {
    object(ProblemKind::vniWithTwoVlans, Table::logicalSwitch, uuid,
           "the bindings of " + name + " to VLAN " + std::to_string(*other) + " are left out: VNI " +
               std::to_string(decision.vni) + " has VLAN " + std::to_string(vlan));
  }
  const auto [taken, mine] = vlans_.try_emplace(vlan, Vlan{decision.vni, uuid});
  if (mine) {
    decision.vlan = vlan;
    return;
  }
  const Slot owner = rows.logicalSwitches.find(taken->second.logicalSwitch);
  object(ProblemKind::vlanWithTwoVnis, Table::logicalSwitch, uuid,
         name + " is not mapped: VLAN " + std::to_string(vlan) + " belongs to " +
             quoted(rows.logicalSwitches[owner].name));
}

void Topology::decideUntagged(const RowStore& rows, const std::vector<Decision*>& decisions) {
  const auto take = [&](Decision& decision, std::uint16_t vlan) {
    const Uuid& uuid = rows.logicalSwitches.key(decision.logicalSwitch);
    decision.vlan = vlan;
    vlans_[vlan] = {decision.vni, uuid};
    return uuid;
  };
  const std::map<Uuid, std::uint16_t> before = std::exchange(assigned_, {});
  std::vector<Decision*> fresh;
  for (Decision* const decision : decisions) {
    const auto known = before.find(rows.logicalSwitches.key(decision->logicalSwitch));
    if (known != before.end() && !tagged_.contains(known->second)) {
      assigned_[take(*decision, known->second)] = known->second;
    } else {
      fresh.push_back(decision);
    }
  }
  const std::uint32_t size = options_.untaggedLast - options_.untaggedFirst + 1U;
  for (Decision* const decision : fresh) {
    const RowStore::LogicalSwitch& row = rows.logicalSwitches[decision->logicalSwitch];
    const std::uint32_t home = hashOf(row.name) % size;
    for (std::uint32_t step = 0; step < size && decision->vlan == 0; ++step) {
      const auto vlan = static_cast<std::uint16_t>(options_.untaggedFirst + (home + step) % size);
      if (!tagged_.contains(vlan) && !vlans_.contains(vlan)) {
        assigned_[take(*decision, vlan)] = vlan;
      }
    }
    if (decision->vlan == 0) {
      object(ProblemKind::untaggedRangeFull, Table::logicalSwitch,
             rows.logicalSwitches.key(decision->logicalSwitch),
             quoted(row.name) + " is not mapped: no VLAN from " + std::to_string(options_.untaggedFirst) +
                 " to " + std::to_string(options_.untaggedLast) + " is left for its untagged ports");
    }
  }
}

void Topology::holdVlans(const RowStore& rows, const VlanMap& old, bool switchMissing) {
  std::set<std::uint32_t> vnis;
  for (const auto& [vlan, entry] : vlans_) {
    vnis.insert(entry.vni);
  }
  for (const auto& [vlan, entry] : old) {
    const Slot slot = rows.logicalSwitches.find(entry.logicalSwitch);
    const bool gone = switchMissing || slot == noSlot || !rows.logicalSwitches[slot].exists;
    if (gone && !vlans_.contains(vlan) && vnis.insert(entry.vni).second) {
      vlans_[vlan] = entry;
    }
  }
}

}  // namespace Agent::Ovsdb
