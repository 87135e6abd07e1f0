#include "agent/daemon/Sentences.h"

namespace Agent {

using nlohmann::json;

namespace {

std::string listed(const json& texts) {
  std::string out;
  for (const json& each : texts) {
    out += (out.empty() ? "" : ", ") + each.get<std::string>();
  }
  return out;
}

std::string valueOr(const json& object, const char* name, const std::string& otherwise) {
  const json& value = object.at(name);
  return value.is_string() ? value.get<std::string>() : value.is_null() ? otherwise : value.dump();
}

// The rows of a MAC, newest first: the one that counts by its VTEP alone, the others with the reason.
std::string rowsTold(const json& rows) {
  std::string out;
  for (const json& row : rows) {
    const std::string decision = row.at("decision");
    out += (out.empty() ? "" : ", ") + ("row " + row.at("row").get<std::string>().substr(0, 8)) + " behind " +
           valueOr(row, "dstIp", "a locator that is not there") +
           (decision == "counts" ? " counts" : ": " + decision);
  }
  return out;
}

std::string unicastTold(const json& unicast) {
  const std::string rows = rowsTold(unicast.at("rows"));
  return (rows.empty() ? "" : rows + "; ") + unicast.at("decision").get<std::string>();
}

std::string floodTold(const json& flood) {
  const std::string to = listed(flood.at("published"));
  return (flood.at("replicationMode") == "service_node" ? "flooded (service_node) to any one of "
                                                        : "flooded (source_node) to ") +
         (to.empty() ? std::string("none") : to) +
         (flood.at("heldBack") == true ? ", a change is held back" : "");
}

std::string switchTold(const json& here) {
  std::string out = here.at("logicalSwitch").get<std::string>() + " (VNI " + valueOr(here, "vni", "none") +
                    ", VLAN " + valueOr(here, "vlan", "none") + "): " + unicastTold(here.at("unicast"));
  if (!here.at("flood").is_null()) {
    out += "; " + floodTold(here.at("flood"));
  }
  if (here.at("published") != true) {
    out += "; the VNI is " + here.at("vniDecision").get<std::string>();
  }
  if (here.at("vlanDecision") != "bound here") {
    out += "; the VLAN is " + here.at("vlanDecision").get<std::string>();
  }
  return out;
}

bool isPublished(const json& here) {
  return here.at("unicast").at("decision") == "published" ||
         (!here.at("flood").is_null() && !here.at("flood").at("published").empty());
}

std::string listed(const std::vector<Kernel::Ip4>& addresses) {
  std::string out;
  for (const Kernel::Ip4 address : addresses) {
    out += (out.empty() ? "" : ", ") + address.text();
  }
  return out;
}

// What the kernel answered for one FDB entry: where it leads to, or why there is none.
std::string readBackTold(const Kernel::ReadBack& found) {
  if (!found.there) {
    return "no row (" + found.answer + ")";
  }
  std::string out = "a row";
  if (found.dst) {
    out += " to " + found.dst.text();
  }
  if (found.nexthop != 0) {
    out += " by nexthop group " + std::to_string(found.nexthop);
  }
  if (!found.port.empty()) {
    out += " on port " + found.port;
  }
  return out + (found.marked ? "" : ", not ours");
}

std::string desiredTold(const Kernel::Explanation& known) {
  using Kind = Kernel::Explanation::Kind;
  const std::string vteps = listed(known.desiredVteps);
  return known.desired == Kind::any   ? "any one of " + vteps
         : known.desired == Kind::all ? "each of " + vteps
                                      : "VTEP " + vteps;
}

std::string ownerTold(Kernel::Owner owner) {
  switch (owner) {
    case Kernel::Owner::none:
      break;
    case Kernel::Owner::ours:
      return "ours acknowledged";
    case Kernel::Owner::foreign:
      return "foreign acknowledged";
    case Kernel::Owner::learned:
      return "learned acknowledged";
  }
  return "nothing acknowledged";
}

std::string sideTold(const char* table, const std::string& name, Kernel::Owner owner,
                     const std::optional<Kernel::ReadBack>& found) {
  return "; " + (name.empty() ? std::string(table) + " not there" : name) + ": " + ownerTold(owner) +
         (found ? ", read back " + readBackTold(*found) : "");
}

}  // namespace

Told databaseTold(const json& account) {
  Told told{false, account.at("databaseFollowed") == true ? "" : "as last read, the session is not there: "};
  const json& switches = account.at("logicalSwitches");
  if (switches.empty()) {
    return {told.detail.empty() ? json(false) : json(), told.detail + "no row of this MAC"};
  }
  const char* separator = "";
  for (const json& here : switches) {
    told.detail += separator + switchTold(here);
    told.ok = told.ok == true || isPublished(here);
    separator = " | ";
  }
  return told;
}

Told kernelTold(const Kernel::FullExplanation& explanation) {
  const Kernel::Explanation& known = explanation.known;
  if (!known.mapped) {
    return {false, "the VLAN has no bridge and no VXLAN device"};
  }
  const bool desired = known.desired != Kernel::Explanation::Kind::none;
  Told told{!known.differs && desired,
            desired ? "wanted: " + desiredTold(known) : std::string("nothing wanted")};
  told.detail += sideTold("device", known.device, known.deviceOwner, explanation.device) +
                 sideTold("bridge", known.bridge, known.portOwner, explanation.bridge);
  if (!known.problem.empty()) {
    told.detail += "; " + known.problem;
  }
  if (!desired && !known.differs) {
    told.ok = nullptr;
  }
  return told;
}

}  // namespace Agent
