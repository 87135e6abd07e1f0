// What an operator asks for: the rows behind a MAC, and what was made of them.
#include <algorithm>

#include "agent/ovsdb/Mapper.h"

namespace Agent::Ovsdb {

using nlohmann::json;

namespace {

template <typename Number>
json orNull(Number value) {
  return value == 0 ? json() : json(value);
}

}  // namespace

json Mapper::explain(Mac mac, std::optional<std::uint32_t> vni, std::optional<std::uint16_t> vlan) const {
  json found = json::array();
  for (Slot slot = 0; slot < rows_.logicalSwitches.slots(); ++slot) {
    if (!rows_.logicalSwitches.live(slot)) {
      continue;
    }
    const LogicalSwitch& row = rows_.logicalSwitches[slot];
    const bool asked = (!vni || row.vni == *vni) && (!vlan || row.vlan == *vlan);
    const bool known = rows_.hosts.find({slot, mac}) != noSlot || row.floods.contains(mac);
    // Where the logical switch is given, it is worth telling that it has no row.
    if (asked && (known || ((vni || vlan) && row.exists))) {
      found.push_back(explainIn(slot, mac));
    }
  }
  std::sort(found.begin(), found.end(),
            [](const json& one, const json& other) { return one["logicalSwitch"] < other["logicalSwitch"]; });
  return {{"mac", macText(mac)},
          {"convergenceInProgress", convergence_.inProgress()},
          {"databaseFollowed", !awaitingSession_},
          {"logicalSwitches", std::move(found)}};
}

json Mapper::explainIn(Slot slot, Mac mac) const {
  const LogicalSwitch& row = rows_.logicalSwitches[slot];
  json out{{"logicalSwitch", row.name},
           {"row", rows_.logicalSwitches.key(slot).text()},
           {"tunnelKey", row.key ? json(*row.key) : json()},
           {"vni", orNull(row.vni)},
           {"vlan", orNull(row.vlan)},
           {"published", row.published}};
  if (!row.exists) {
    out["vniDecision"] = "the logical switch is not there";
  } else if (row.publishable) {
    out["vniDecision"] = row.published ? "published"
                         : convergence_.inProgress()
                             ? "withdrawn while converging; published again with its first row"
                             : "about to be published";
  } else if (row.vni != 0) {
    out["vniDecision"] = "withdrawn: the tunnel key is gone and held while converging";
  } else {
    out["vniDecision"] =
        row.key ? "not published: the tunnel key is out of range, or another logical switch has it"
                : "not published: the logical switch has no tunnel key";
  }
  out["vlanDecision"] = row.vlan != 0 ? "bound here"
                        : row.vni == 0
                            ? "not mapped: no VNI"
                            : "not mapped: no port of this switch binds it, or its VLAN is another's";
  out["unicast"] = explainUnicast(slot, mac);
  out["flood"] = explainFlood(slot, mac);
  return out;
}

json Mapper::explainUnicast(Slot slot, Mac mac) const {
  json out{{"rows", json::array()}, {"vtepIp", nullptr}, {"published", nullptr}};
  const Slot found = rows_.hosts.find({slot, mac});
  if (found == noSlot) {
    out["decision"] = "no row in Ucast_Macs_Remote";
    return out;
  }
  const Host& host = rows_.hosts[found];
  bool decided = false;
  for (Slot at = host.newest; at != noSlot; at = rows_.ucasts[at].older) {
    const RowStore::Ucast& row = rows_.ucasts[at];
    const RowStore::Locator& locator = rows_.locators[row.locator];
    const bool counts = !decided && row.problem == ProblemKind::none;
    decided |= counts;
    out["rows"].push_back({{"row", rows_.ucasts.key(at).text()},
                           {"locator", rows_.locators.key(row.locator).text()},
                           {"dstIp", locator.exists ? json(locator.text) : json()},
                           {"decision", counts ? std::string{"counts"} : std::string{nameOf(row.problem)}}});
  }
  if (host.vtep != 0) {
    out["vtepIp"] = ipv4Text(host.vtep);
    out["moveCount"] = host.moves;
  }
  const LogicalSwitch& row = rows_.logicalSwitches[slot];
  const bool published = host.publishedIn == row.generation;
  if (published) {
    out["published"] = {{"vtepIp", ipv4Text(host.publishedVtep)}, {"moveCount", host.publishedMoves}};
  }
  out["decision"] = host.vtep == 0     ? "none of the rows can be used"
                    : published        ? "published"
                    : !row.publishable ? "not published: its VNI is not"
                                       : "about to be published";
  return out;
}

json Mapper::explainFlood(Slot slot, Mac mac) const {
  const LogicalSwitch& row = rows_.logicalSwitches[slot];
  const auto flood = row.floods.find(mac);
  if (flood == row.floods.end()) {
    return nullptr;
  }
  json out{{"replicationMode", row.mode.empty() ? "service_node" : row.mode}, {"rows", json::array()}};
  std::for_each(flood->second.rows.rbegin(), flood->second.rows.rend(), [&](const Uuid& uuid) {
    const RowStore::Mcast& mcast = rows_.mcasts.at(uuid);
    out["rows"].push_back(
        {{"row", uuid.text()},
         {"locatorSet", mcast.set.text()},
         {"decision",
          mcast.problem == ProblemKind::none ? std::string{"counts"} : std::string{nameOf(mcast.problem)}}});
  });
  json addresses = json::array();
  if (flood->second.publishedIn == row.generation) {
    for (const Ipv4 address : flood->second.published) {
      addresses.push_back(ipv4Text(address));
    }
    out["table"] = flood->second.publishedMultipath ? "macVtepMultiPathTable" : "macVtepFloodListTable";
  }
  out["published"] = std::move(addresses);
  out["heldBack"] = flood->second.heldBack;
  return out;
}

}  // namespace Agent::Ovsdb
