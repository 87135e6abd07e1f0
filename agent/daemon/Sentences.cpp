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

// The kernel's answer for one row: where it leads to, or why there is none.
std::string readBackTold(const json& row) {
  if (row.at("there") != true) {
    return "no row (" + row.at("answer").get<std::string>() + ")";
  }
  std::string out = "a row";
  if (row.contains("dst")) {
    out += " to " + row.at("dst").get<std::string>();
  }
  if (row.contains("nexthop")) {
    out += " by nexthop group " + row.at("nexthop").dump();
  }
  if (row.contains("port")) {
    out += " on port " + row.at("port").get<std::string>();
  }
  return out + (row.at("marked") == true ? "" : ", not ours");
}

std::string wantedTold(const json& wanted) {
  const std::string vteps = listed(wanted.at("vteps"));
  const std::string kind = wanted.at("kind");
  return kind == "any" ? "any one of " + vteps : kind == "all" ? "each of " + vteps : "VTEP " + vteps;
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

Told kernelTold(const json& account) {
  if (account.at("mapped") != true) {
    return {false, "the VLAN has no bridge and no VXLAN device"};
  }
  const json& device = account.at("acknowledged").at("device");
  const json& bridge = account.at("acknowledged").at("bridge");
  const bool wanted = !account.at("wanted").empty();
  Told told{account.at("differs") != true && wanted,
            wanted ? "wanted: " + wantedTold(account.at("wanted")) : std::string("nothing wanted")};
  const auto side = [&](const char* table, const std::string& name, const std::string& mark) {
    told.detail += "; " + (name.empty() ? std::string(table) + " not there" : name) + ": " +
                   (mark == "none" || mark.empty() ? "nothing acknowledged" : mark + " acknowledged");
    if (const json& kernel = account.at("kernel"); kernel.contains(table)) {
      told.detail += ", read back " + readBackTold(kernel.at(table));
    }
  };
  side("device", device.at("device"), device.at("row"));
  side("bridge", bridge.at("bridge"), bridge.at("row"));
  if (account.contains("problem")) {
    told.detail += "; " + account.at("problem").get<std::string>();
  }
  if (!wanted && account.at("differs") != true) {
    told.ok = nullptr;
  }
  return told;
}

}  // namespace Agent
