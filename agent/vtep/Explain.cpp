#include "agent/vtep/Explain.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Agent::Vtep {

using nlohmann::json;

namespace {

// Of the rows of one MAC, how many are told.
constexpr std::size_t mostRows = 100;

template <typename Number>
json orNull(Number value) {
  return value == 0 ? json() : json(value);
}

std::string decisionOn(ProblemKind problem, bool counts) {
  return counts ? std::string{"counts"} : std::string{nameOf(problem)};
}

json explainUnicast(const RowStore& rows, Slot slot, Mac mac) {
  json out{{"rows", json::array()}, {"vtepIp", nullptr}, {"published", nullptr}};
  const RowStore::Hosts& hosts = rows.hosts();
  const Slot found = hosts.findEntry(slot, mac);
  if (found == noSlot) {
    out["decision"] = "no row in Ucast_Macs_Remote";
    return out;
  }
  bool decided = false;
  for (Slot at = hosts.entry(found).newest; at != noSlot && out["rows"].size() < mostRows;
       at = hosts.row(at).older) {
    const RowStore::Hosts::Row& row = hosts.row(at);
    const bool counts = !decided && row.problem == ProblemKind::none;
    decided |= counts;
    out["rows"].push_back({{"row", hosts.uuid(at).text()},
                           {"locator", row.target.uuid().text()},
                           {"dstIp", row.target.exists() ? json(row.target->text.shown()) : json()},
                           {"decision", decisionOn(row.problem, counts)}});
  }
  const HostDecision& host = hosts.entry(found).decision;
  if (host.vtep != 0) {
    out["vtepIp"] = ipv4Text(host.vtep);
    out["moveCount"] = host.moves;
  }
  const SwitchDecision& decision = rows.logicalSwitches()[slot].decision;
  const bool published = host.publishedIn == decision.generation;
  if (published) {
    out["published"] = {{"vtepIp", ipv4Text(host.publishedVtep)}, {"moveCount", host.publishedMoves}};
  }
  out["decision"] = host.vtep == 0          ? "none of the rows can be used"
                    : published             ? "published"
                    : !decision.publishable ? "not published: its VNI is not"
                                            : "about to be published";
  return out;
}

json explainFlood(const RowStore& rows, Slot slot, Mac mac) {
  const RowStore::LogicalSwitch& row = rows.logicalSwitches()[slot];
  const RowStore::Floods& floods = rows.floods();
  const Slot found = floods.findEntry(slot, mac);
  if (found == noSlot) {
    return nullptr;
  }
  json out{{"replicationMode", row.mode == BoundedText() ? "service_node" : row.mode.shown()},
           {"rows", json::array()}};
  for (Slot at = floods.entry(found).newest; at != noSlot && out["rows"].size() < mostRows;
       at = floods.row(at).older) {
    const RowStore::Floods::Row& mcast = floods.row(at);
    out["rows"].push_back({{"row", floods.uuid(at).text()},
                           {"locatorSet", mcast.target.uuid().text()},
                           {"decision", decisionOn(mcast.problem, mcast.problem == ProblemKind::none)}});
  }
  const FloodDecision& flood = floods.entry(found).decision;
  const bool published = flood.publishedIn == row.decision.generation;
  json addresses = json::array();
  if (published) {
    for (const Ipv4 address : flood.published) {
      addresses.push_back(ipv4Text(address));
    }
    out["table"] = flood.publishedMultipath ? "macVtepMultiPathTable" : "macVtepFloodListTable";
  }
  out["published"] = std::move(addresses);
  out["heldBack"] = published && flood.heldBack;
  return out;
}

const char* vniDecision(const SwitchDecision& decision, bool exists, bool hasKey, bool converging) {
  if (!exists) {
    return "the logical switch is not there";
  }
  if (decision.publishable) {
    return decision.published ? "published"
           : converging       ? "withdrawn while converging; published again with its first row"
                              : "about to be published";
  }
  if (decision.vni != 0) {
    return "withdrawn: the tunnel key is gone and held while converging";
  }
  return hasKey ? "not published: the tunnel key is out of range, or another logical switch has it"
                : "not published: the logical switch has no tunnel key";
}

json explainIn(const RowStore& rows, bool converging, Slot slot, Mac mac) {
  const RowStore::LogicalSwitch& row = rows.logicalSwitches()[slot];
  const SwitchDecision& decision = row.decision;
  json out{{"logicalSwitch", row.name.shown()},
           {"row", rows.logicalSwitches().uuid(slot).text()},
           {"tunnelKey", row.key ? json(*row.key) : json()},
           {"vni", orNull(decision.vni)},
           {"vlan", orNull(decision.vlan)},
           {"published", decision.published}};
  out["vniDecision"] =
      vniDecision(decision, rows.logicalSwitches().exists(slot), row.key.has_value(), converging);
  out["vlanDecision"] = decision.vlan != 0 ? "bound here"
                        : decision.vni == 0
                            ? "not mapped: no VNI"
                            : "not mapped: no port of this switch binds it, or its VLAN is another's";
  out["unicast"] = explainUnicast(rows, slot, mac);
  out["flood"] = explainFlood(rows, slot, mac);
  return out;
}

}  // namespace

json explainRows(const RowStore& rows, bool converging, Mac mac, std::optional<std::uint32_t> vni,
                 std::optional<std::uint16_t> vlan) {
  std::vector<json> found;
  const RowStore::Switches& switches = rows.logicalSwitches();
  for (Slot slot = 0; slot < switches.slots(); ++slot) {
    if (!switches.live(slot)) {
      continue;
    }
    const SwitchDecision& decision = switches[slot].decision;
    const bool asked = (!vni || decision.vni == *vni) && (!vlan || decision.vlan == *vlan);
    const bool known =
        rows.hosts().findEntry(slot, mac) != noSlot || rows.floods().findEntry(slot, mac) != noSlot;
    // Where the logical switch is given, it is worth telling that it has no row.
    if (asked && (known || ((vni || vlan) && switches.exists(slot)))) {
      found.push_back(explainIn(rows, converging, slot, mac));
    }
  }
  std::sort(found.begin(), found.end(),
            [](const json& one, const json& other) { return one["logicalSwitch"] < other["logicalSwitch"]; });
  return found;
}

}  // namespace Agent::Vtep
