#include "tools/vxlanctl/Shows.h"

#include <cstdlib>
#include <utility>

namespace Vxlanctl {

namespace {

using nlohmann::json;

// A part that is an object, or one without members.
json objectAt(const Part& part, const char* pointer) {
  json value = part(pointer);
  return value.is_object() ? value : json::object();
}

json member(const json& object, const char* name) {
  return object.is_object() ? object.value(name, json()) : json();
}

int number(const std::string& key) {
  return std::atoi(key.c_str());
}

// Calls visit(VLAN, MAC, entry) for each entry of a table by VLAN and MAC.
template <typename Visit>
void eachByVlanAndMac(const json& table, const Visit& visit) {
  for (const auto& [vlan, macs] : table.items()) {
    for (const auto& [mac, entry] : macs.items()) {
      visit(number(vlan), mac, entry);
    }
  }
}

std::string floodSetType(const json& type) {
  return type == 1 ? "all" : type == 2 ? "any" : cellText(type);
}

// Of all VTIs: where a VNI is used, by VNI.
std::map<int, std::pair<std::string, int>> placesOfVnis(const Part& part) {
  std::map<int, std::pair<std::string, int>> places;
  const json maps = objectAt(part, "/input/vlanVniMap");
  for (const auto& [vti, map] : maps.items()) {
    for (const auto& [vlan, vni] : map.items()) {
      places.try_emplace(vni.get<int>(), vti, number(vlan));
    }
  }
  return places;
}

std::string onOff(const json& value) {
  return value == true ? "on" : value == false ? "off" : "-";
}

}  // namespace

Sheet showReceivedHosts(const Part& part) {
  Sheet sheet({{"vlan", "VLAN", true},
               {"mac", "MAC"},
               {"vti", "VTI"},
               {"vtepIp", "VTEP"},
               {"moveCount", "MOVES", true},
               {"hostAttr", "ATTR", true},
               {"lastUpdateTime", "UPDATED", true},
               {"markedForDel", "MARKED"}});
  eachByVlanAndMac(
      objectAt(part, "/output/receivedHosts"), [&](int vlan, const std::string& mac, const json& host) {
        json row = host;
        row["vlan"] = vlan;
        row["mac"] = mac;
        row["vti"] = member(host, "intf");
        row.erase("intf");
        for (const char* name : {"vtepIp", "moveCount", "hostAttr", "lastUpdateTime", "markedForDel"}) {
          row.emplace(name, nullptr);
        }
        sheet.add(std::move(row));
      });
  sheet.sortBy({"vlan", "mac"});
  return sheet;
}

Sheet showFloods(const Part& part) {
  Sheet sheet({{"vlan", "VLAN", true}, {"mac", "MAC"}, {"type", "TO"}, {"dests", "DESTINATIONS"}});
  eachByVlanAndMac(objectAt(part, "/output/l2Rib/floodSets"),
                   [&](int vlan, const std::string& mac, const json& set) {
                     sheet.add({{"vlan", vlan},
                                {"mac", mac},
                                {"type", floodSetType(member(set, "floodSetType"))},
                                {"dests", member(set, "dests")}});
                   });
  sheet.sortBy({"vlan", "mac"});
  return sheet;
}

Sheet showBum(const Part& part) {
  Sheet sheet({{"vlan", "VLAN", true},
               {"mac", "MAC"},
               {"bumVtepIpListType", "TYPE", true},
               {"remoteVtepAddr", "VTEPS"},
               {"bumReplicationMode", "MODE", true}});
  const json hardware = objectAt(part, "/output/hardware");
  const json lists = hardware.value("bumVtepList", json::object());
  eachByVlanAndMac(lists, [&](int vlan, const std::string& mac, const json& list) {
    sheet.add({{"vlan", vlan},
               {"mac", mac},
               {"bumVtepIpListType", member(list, "bumVtepIpListType")},
               {"remoteVtepAddr", member(list, "remoteVtepAddr")},
               {"bumReplicationMode", member(hardware, "bumReplicationMode")}});
  });
  sheet.sortBy({"vlan", "mac"});
  return sheet;
}

Sheet showVni(const Part& part) {
  Sheet sheet({{"vni", "VNI", true},
               {"state", "STATE"},
               {"vti", "VTI"},
               {"vlan", "VLAN", true},
               {"hosts", "HOSTS", true},
               {"floodLists", "FLOODS", true},
               {"multiPaths", "MULTIPATHS", true}});
  auto places = placesOfVnis(part);
  json vnis = objectAt(part, "/agent/vnis");
  for (const auto& [vni, place] : places) {
    vnis.emplace(std::to_string(vni), json::object());
  }
  for (const auto& [key, about] : vnis.items()) {
    const auto place = places.find(number(key));
    const bool used = place != places.end();
    sheet.add({{"vni", number(key)},
               {"state", about.value("state", "not published")},
               {"vti", used ? json(place->second.first) : json()},
               {"vlan", used ? json(place->second.second) : json()},
               {"hosts", member(about, "hosts")},
               {"floodLists", member(about, "floodLists")},
               {"multiPaths", member(about, "multiPaths")}});
  }
  sheet.sortBy({"vni"});
  return sheet;
}

Sheet showVti(const Part& part) {
  Sheet sheet({{"vti", "VTI"},
               {"localVtepAddr", "VTEP"},
               {"dgwVtepAddr", "GATEWAY VTEP"},
               {"controllerClientMode", "CLIENT"},
               {"datapathLearning", "LEARNING"},
               {"vlans", "VLANS", true}});
  const json maps = objectAt(part, "/input/vlanVniMap");
  const json statuses = objectAt(part, "/input/vtiStatus");
  for (const auto& [vti, status] : statuses.items()) {
    sheet.add({{"vti", vti},
               {"localVtepAddr", status.value("localVtepAddr", "0.0.0.0")},
               {"dgwVtepAddr", status.value("dgwVtepAddr", "0.0.0.0")},
               {"controllerClientMode", status.value("controllerClientMode", false)},
               {"datapathLearning", status.value("datapathLearning", false)},
               {"vlans", maps.contains(vti) ? maps.at(vti).size() : 0}});
  }
  sheet.sortBy({"vti"});
  return sheet;
}

Sheet showConvergence(const Part& part) {
  Sheet sheet({{"what", "WHAT"}, {"value", "VALUE"}});
  const auto add = [&sheet](const char* what, json value) {
    sheet.add({{"what", what}, {"value", std::move(value)}});
  };
  add("controller converges", part("/output/clientView/convergenceInProgress"));
  add("unicast deletions deferred", part("/output/convergenceStatus/unicastDeferredDeletionInProgress"));
  add("BUM deletions deferred", part("/output/convergenceStatus/bumDeferredDeletionInProgress"));
  add("hosts marked for deletion", part("/output/markedForDelCount"));
  const json adapter = objectAt(part, "/agent/convergence");
  add("reason", member(adapter, "reason"));
  add("for seconds", member(adapter, "seconds"));
  return sheet;
}

Sheet showMachines(const Part& part) {
  Sheet sheet({{"machine", "MACHINE"}, {"key", "FOR"}, {"state", "STATE"}});
  const auto add = [&sheet](const char* machine, json key, std::string state) {
    sheet.add({{"machine", machine}, {"key", std::move(key)}, {"state", std::move(state)}});
  };
  const json client = objectAt(part, "/output/client");
  if (client.empty()) {
    return sheet;
  }
  add("VxlanControllerClientSm", nullptr,
      "client mode " + onOff(member(client, "vxlanControllerClientMode")) + ", datapath learning " +
          onOff(member(client, "datapathLearningMode")));
  add("RmxStateSm", nullptr,
      part("/output/clientView/convergenceInProgress") == true ? "converging" : "converged");
  for (const json& vti : client.value("trackers", json::array())) {
    add("VtiVlanVniMapSm", vti, "following");
  }
  for (const json& vni : client.value("perVni", json::array())) {
    add("VccPerVniFdbStatusSm", vni, "following");
  }
  if (member(client, "mlagBumStatus") == true) {
    add("RmxMlagBumStatusSm", nullptr, "following");
  }
  return sheet;
}

Sheet showKernel(const Part& part) {
  Sheet sheet({{"kind", "KIND"},
               {"wanted", "WANTED", true},
               {"there", "THERE", true},
               {"differing", "DIFFERING", true},
               {"unknown", "UNKNOWN", true},
               {"compared", "COMPARED"}});
  const json kinds = objectAt(part, "/agent/kernel");
  for (const auto& [kind, status] : kinds.items()) {
    sheet.add({{"kind", kind},
               {"wanted", member(status, "wanted")},
               {"there", member(status, "there")},
               {"differing", member(status, "differing")},
               {"unknown", member(status, "unknown")},
               {"compared", member(status, "compared")}});
  }
  return sheet;
}

Sheet showProblems(const json& problems) {
  Sheet sheet({{"kind", "KIND"}, {"where", "WHERE"}, {"text", "WHAT"}});
  for (const json& problem : problems) {
    sheet.add({{"kind", problem.value("kind", "")},
               {"where", problem.value("where", "")},
               {"text", problem.value("text", "")}});
  }
  sheet.sortBy({"kind", "where", "text"});
  return sheet;
}

}  // namespace Vxlanctl
