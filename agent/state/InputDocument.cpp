// The input document, printed from the state database.
#include "agent/state/InputPatch.h"

namespace Agent {
namespace {

using nlohmann::json;

json vtiStatus(const World& world) {
  json section = json::object();
  for (auto&& vti : world.vtiStatusDir->vtiStatus()) {
    section[vti.key.text()] = {{"controllerClientMode", vti.value->controllerClientMode()},
                               {"datapathLearning", vti.value->datapathLearning()},
                               {"localVtepAddr", vti.value->localVtepAddr().text()},
                               {"dgwVtepAddr", vti.value->dgwVtepAddr().text()}};
  }
  return section;
}

json vlanVniMap(const World& world) {
  json section = json::object();
  for (auto&& map : world.vlanVniMaps->vlanVniMap()) {
    json vlans = json::object();
    for (auto&& entry : map.value->vlanToVsp()) {
      vlans[std::to_string(entry.key.value())] = entry.value.vni.value();
    }
    section[map.key.text()] = std::move(vlans);
  }
  return section;
}

template <class Addresses>
json addressSet(const Addresses& addresses) {
  json set = json::object();
  for (auto&& address : addresses) {
    set[address.key.text()] = address.value;
  }
  return set;
}

json mlag(const World& world) {
  json addresses = json::object();
  for (auto&& address : world.mlagVxlanStatus->vtepAddr()) {
    addresses[address.key.text()] = address.value.text();
  }
  json lists = json::object();
  const Vxlan::BumStatus& peer = *world.mlagVxlanStatus->bumStatus();
  for (auto&& list : peer.bumVtepList()) {
    lists[std::to_string(list.key.vlan.value())][list.key.mac.text()] = {
        {"bumVtepIpListType", static_cast<std::uint32_t>(list.value->bumVtepIpListType())},
        {"remoteVtepAddr", addressSet(list.value->remoteVtepAddr())}};
  }
  return {{"mlagState", static_cast<std::uint32_t>(world.mlagStatus->mlagState())},
          {"vtepAddr", std::move(addresses)},
          {"bumStatus",
           {{"bumReplicationMode", static_cast<std::uint32_t>(peer.bumReplicationMode())},
            {"bumVtepList", std::move(lists)}}}};
}

json hardware(const World& world) {
  return {{"bumStatus",
           {{"bumReplicationMode",
             static_cast<std::uint32_t>(world.hwStatus->bumStatus()->bumReplicationMode())}}}};
}

json vniTables(const VxlanController::VniFdbStatusV2& status) {
  json hosts = json::object();
  for (auto&& host : status.macVtepTable()) {
    hosts[host.key.text()] = {{"vtepIp", host.value.vtepIp.text()},
                              {"moveCount", host.value.moveCount},
                              {"hostAttr", static_cast<unsigned>(host.value.hostAttr)}};
  }
  json floodLists = json::object();
  for (auto&& list : status.macVtepFloodListTable()) {
    floodLists[list.key.text()] = addressSet(list.value->vtepIpFloodList());
  }
  json multiPaths = json::object();
  for (auto&& entry : status.macVtepMultiPathTable()) {
    json& vteps = multiPaths[entry.key.text()] = json::object();
    for (const auto& [vtep, value] : entry.value.vtepIpList) {
      vteps[vtep.text()] = value;
    }
  }
  return {{"macVtepTable", std::move(hosts)},
          {"macVtepFloodListTable", std::move(floodLists)},
          {"macVtepMultiPathTable", std::move(multiPaths)}};
}

json controller(const World& world) {
  json fdb = json::object();
  for (auto&& entry : *world.fdb) {
    const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(entry.value);
    fdb[entry.key.text()] = status ? vniTables(*status) : json("announced");
  }
  json state = json::object();
  for (auto&& entry : *world.controllerState) {
    const auto status = Kel::ptrCast<VxlanController::RmxStateV2>(entry.value);
    state[entry.key.text()] =
        status ? json{{"convergenceInProgress", status->convergenceInProgress()}} : json("announced");
  }
  return {{"fdb", std::move(fdb)}, {"state", std::move(state)}};
}

using Section = json (*)(const World&);
const std::map<std::string, Section>& sections() {
  static const std::map<std::string, Section> all = {{"vtiStatus", vtiStatus},
                                                     {"vlanVniMap", vlanVniMap},
                                                     {"mlag", mlag},
                                                     {"hardware", hardware},
                                                     {"controller", controller}};
  return all;
}

}  // namespace

json inputSection(const World& world, const std::string& section) {
  const auto at = sections().find(section);
  return at == sections().end() ? json() : at->second(world);
}

json inputDocument(const World& world) {
  json document;
  for (const auto& [name, section] : sections()) {
    document[name] = section(world);
  }
  return document;
}

}  // namespace Agent
