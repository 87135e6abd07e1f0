#include "agent/vtep/Topology.h"

#include <algorithm>
#include <functional>
#include <tuple>

#include "service/ovsdb/JsonReader.h"

namespace Agent::Vtep {

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

}  // namespace

void Topology::derive(const RowStore& rows, bool converging) {
  const VlanMap old = std::exchange(vlans_, {});
  decisions_.clear();
  problems_.clear();
  bound_.clear();
  tagged_.clear();
  Ovsdb::Uuid uuid;
  const RowStore::PhysicalSwitch* const own = ownSwitch(rows, uuid);
  if (own != nullptr) {
    deriveTunnelIp(*own, uuid);
    readBindings(rows, *own);
  } else {
    localVtep_ = converging ? localVtep_ : 0;
    object(ProblemKind::switchMissing, Table::physicalSwitch, {},
           "no physical switch is named " + switchName_.quoted());
  }
  decideVnis(rows, converging);
  decideVlans(rows);
  if (converging) {
    holdVlans(rows, old, own == nullptr);
  }
}

// The names of switches are unique in the database; if one is not, the switch of the lowest UUID has it.
const RowStore::PhysicalSwitch* Topology::ownSwitch(const RowStore& rows, Ovsdb::Uuid& uuid) const {
  const RowStore::PhysicalSwitch* own = nullptr;
  const auto& switches = rows.physicalSwitches();
  for (Slot slot = 0; slot < switches.slots(); ++slot) {
    if (switches.live(slot) && switches[slot].name == switchName_ &&
        (own == nullptr || switches.key(slot) < uuid)) {
      own = &switches[slot];
      uuid = switches.key(slot);
    }
  }
  return own;
}

void Topology::deriveTunnelIp(const RowStore::PhysicalSwitch& own, const Ovsdb::Uuid& uuid) {
  std::set<Ipv4> addresses;
  for (const BoundedText& text : own.tunnelIps) {
    const Ipv4 address = parseIpv4(text.kept()).value_or(0);
    if (canEndTunnel(address)) {
      addresses.insert(address);
    } else {
      object(ProblemKind::tunnelIpNotIpv4, Table::physicalSwitch, uuid,
             "the tunnel address \"" + Ovsdb::printable(text.kept()) +
                 "\" is not an IPv4 address at which a tunnel can end");
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
  for (const Ovsdb::Uuid& portId : own.ports) {
    const Slot portSlot = rows.ports().find(portId);
    if (portSlot == noSlot) {
      object(ProblemKind::referenceMissing, Table::physicalPort, portId, "the port is not there");
      continue;
    }
    const RowStore::Port& port = rows.ports()[portSlot];
    for (const auto& [vlan, logicalSwitchId] : port.bindings) {
      const std::string binding = "port " + port.name.quoted() + ", VLAN " + std::to_string(vlan);
      const Slot slot = rows.logicalSwitches().find(logicalSwitchId);
      if (vlan < 0 || vlan > mostVlan) {
        object(ProblemKind::vlanOutOfRange, Table::physicalPort, portId,
               binding + ": out of range 0 to 4094");
      } else if (!rows.logicalSwitches().exists(slot)) {
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

// The tunnel key that counts: while `converging`, one that is gone counts on. 0 if there is none.
std::uint32_t Topology::heldKey(const RowStore& rows, Slot slot, bool converging) const {
  const std::optional<std::int64_t>& key = rows.logicalSwitches()[slot].key;
  if (key && isVni(*key)) {
    return static_cast<std::uint32_t>(*key);
  }
  const auto held = held_.find(rows.logicalSwitches().uuid(slot));
  return converging && held != held_.end() ? held->second : 0;
}

void Topology::decideVnis(const RowStore& rows, bool converging) {
  std::map<std::uint32_t, std::size_t> owners;  // VNI to its place in decisions_
  std::map<Ovsdb::Uuid, std::uint32_t> held;
  const RowStore::Switches& switches = rows.logicalSwitches();
  for (Slot slot = 0; slot < switches.slots(); ++slot) {
    if (!switches.live(slot)) {
      continue;
    }
    const RowStore::LogicalSwitch& row = switches[slot];
    const std::uint32_t key = heldKey(rows, slot, converging);
    if (key != 0) {
      held[switches.uuid(slot)] = key;
    }
    decisions_.push_back({.logicalSwitch = slot,
                          .vni = switches.exists(slot) ? key : 0,
                          .publishable = row.key && isVni(*row.key)});
    if (row.key && !isVni(*row.key)) {
      object(ProblemKind::vniOutOfRange, Table::logicalSwitch, switches.uuid(slot),
             "tunnel key " + std::to_string(*row.key) + " of " + row.name.quoted() +
                 " is out of range 1 to 16777215");
    }
    if (switches.exists(slot) && row.mode != BoundedText() && !row.isSourceNode() &&
        row.mode.kept() != "service_node") {
      object(ProblemKind::badReplicationMode, Table::logicalSwitch, switches.uuid(slot),
             "replication mode \"" + Ovsdb::printable(row.mode.kept()) + "\" of " + row.name.quoted() +
                 " is not known; service_node is assumed");
    }
    if (decisions_.back().vni != 0) {
      settleOwner(rows, owners);
    }
  }
  held_ = std::move(held);
}

// Whether the logical switch decided on last has its VNI, or one before it.
void Topology::settleOwner(const RowStore& rows, std::map<std::uint32_t, std::size_t>& owners) {
  const RowStore::Switches& switches = rows.logicalSwitches();
  const auto rank = [&](const Decision& decision) {
    const RowStore::LogicalSwitch& row = switches[decision.logicalSwitch];
    return std::tuple(!bound_.contains(decision.logicalSwitch), !decision.publishable, std::cref(row.name),
                      switches.uuid(decision.logicalSwitch));
  };
  const std::size_t last = decisions_.size() - 1;
  const std::uint32_t vni = decisions_[last].vni;
  const auto [owner, first] = owners.try_emplace(vni, last);
  if (first) {
    return;
  }
  const bool wins = rank(decisions_[last]) < rank(decisions_[owner->second]);
  Decision& loser = decisions_[wins ? std::exchange(owner->second, last) : last];
  loser.vni = 0;
  loser.publishable = false;
  object(ProblemKind::vniWithTwoVlans, Table::logicalSwitch, switches.uuid(loser.logicalSwitch),
         switches[loser.logicalSwitch].name.quoted() + " is left out: VNI " + std::to_string(vni) +
             " belongs to " + switches[decisions_[owner->second].logicalSwitch].name.quoted());
}

void Topology::decideVlans(const RowStore& rows) {
  std::vector<Decision*> bound;
  for (Decision& decision : decisions_) {
    if (decision.vni != 0 && bound_.contains(decision.logicalSwitch)) {
      bound.push_back(&decision);
    }
  }
  const auto name = [&](const Decision* decision) {
    return std::pair(std::cref(rows.logicalSwitches()[decision->logicalSwitch].name),
                     rows.logicalSwitches().uuid(decision->logicalSwitch));
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
  const Ovsdb::Uuid& uuid = rows.logicalSwitches().uuid(decision.logicalSwitch);
  const std::string name = rows.logicalSwitches()[decision.logicalSwitch].name.quoted();
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
  const Slot owner = rows.logicalSwitches().find(taken->second.logicalSwitch);
  object(ProblemKind::vlanWithTwoVnis, Table::logicalSwitch, uuid,
         name + " is not mapped: VLAN " + std::to_string(vlan) + " belongs to " +
             rows.logicalSwitches()[owner].name.quoted());
}

void Topology::decideUntagged(const RowStore& rows, const std::vector<Decision*>& decisions) {
  const auto take = [&](Decision& decision, std::uint16_t vlan) {
    const Ovsdb::Uuid& uuid = rows.logicalSwitches().uuid(decision.logicalSwitch);
    decision.vlan = vlan;
    vlans_[vlan] = {decision.vni, uuid};
    return uuid;
  };
  const std::map<Ovsdb::Uuid, std::uint16_t> before = std::exchange(assigned_, {});
  std::vector<Decision*> fresh;
  for (Decision* const decision : decisions) {
    const auto known = before.find(rows.logicalSwitches().uuid(decision->logicalSwitch));
    if (known != before.end() && !tagged_.contains(known->second)) {
      assigned_[take(*decision, known->second)] = known->second;
    } else {
      fresh.push_back(decision);
    }
  }
  const std::uint32_t size = options_.untaggedLast - options_.untaggedFirst + 1U;
  for (Decision* const decision : fresh) {
    const RowStore::LogicalSwitch& row = rows.logicalSwitches()[decision->logicalSwitch];
    const std::uint32_t home = hashOf(row.name.kept()) % size;
    for (std::uint32_t step = 0; step < size && decision->vlan == 0; ++step) {
      const auto vlan = static_cast<std::uint16_t>(options_.untaggedFirst + (home + step) % size);
      if (!tagged_.contains(vlan) && !vlans_.contains(vlan)) {
        assigned_[take(*decision, vlan)] = vlan;
      }
    }
    if (decision->vlan == 0) {
      object(ProblemKind::untaggedRangeFull, Table::logicalSwitch,
             rows.logicalSwitches().uuid(decision->logicalSwitch),
             row.name.quoted() + " is not mapped: no VLAN from " + std::to_string(options_.untaggedFirst) +
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
    const Slot slot = rows.logicalSwitches().find(entry.logicalSwitch);
    const bool gone = switchMissing || !rows.logicalSwitches().exists(slot);
    if (gone && !vlans_.contains(vlan) && vnis.insert(entry.vni).second) {
      vlans_[vlan] = entry;
    }
  }
}

}  // namespace Agent::Vtep
