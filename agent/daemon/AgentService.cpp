#include "agent/daemon/AgentService.h"

#include "agent/json/Text.h"
#include "agent/state/JsonChecks.h"

namespace Agent {
namespace {

using Control::RequestError;
using nlohmann::json;

// The name of the first member that a pointer leads to, and the rest of it.
std::pair<std::string, std::string> split(const std::string& pointer) {
  const std::size_t slash = pointer.find('/', 1);
  return slash == std::string::npos ? std::pair(pointer.substr(1), std::string())
                                    : std::pair(pointer.substr(1, slash - 1), pointer.substr(slash));
}

}  // namespace

AgentService::AgentService(World& world, const std::string& hostTable, Hooks hooks)
    : world_(world), output_(world, hostTable), hooks_(std::move(hooks)) {}

void AgentService::patch(json&& patch, std::string_view who, Answer answer) {
  if (const auto refusal = ownership_.check(patch, who)) {
    answer(refusal);
    return;
  }
  hooks_.carryOut(std::move(patch), [this, answer = std::move(answer)](const Refused* refused) {
    if (refused != nullptr) {
      answer(Control::Refusal{refused->pointer(), refused->what()});
      return;
    }
    changed();
    answer(std::nullopt);
  });
}

json AgentService::get(const std::string& pointer) {
  if (pointer.empty()) {
    return {{"input", inputDocument(world_)}, {"output", output_.whole()}, {"agent", agentSection("")}};
  }
  const auto [part, rest] = split(pointer);
  json value;
  if (part == "input") {
    // Only the section that is asked for is printed.
    const std::string section = rest.empty() ? "" : split(rest).first;
    value = rest.empty() ? inputDocument(world_) : partAt({{section, inputSection(world_, section)}}, rest);
  } else if (part == "output") {
    value = output_.at(rest);
  } else if (part == "agent") {
    value = partAt({{"agent", agentSection(rest.empty() ? "" : split(rest).first)}}, pointer);
  }
  if (value.is_null()) {
    throw RequestError(RequestError::Kind::notFound, pointer, "nothing is there");
  }
  return value;
}

json AgentService::call(const std::string& method, const json& params) {
  if (method == "explain") {
    return explain(params);
  }
  if (method == "problems") {
    return hooks_.problems();
  }
  if (method == "flush") {
    return flush();
  }
  throw RequestError(RequestError::Kind::refused, "", "unknown method \"" + method + "\"");
}

json AgentService::agentSection(const std::string& part) {
  json section = hooks_.agentSection();
  section["vnis"] = vnis();
  if (database_ != nullptr) {
    section["ovsdb"] = database_->status().json();
  }
  if (kernel_ != nullptr && (part.empty() || part == "kernel" || part == "kernelStatus")) {
    const json status = kernel_->status();
    section["kernel"] = status.value("kinds", json::object());
    section["kernelStatus"] = status;
  }
  return section;
}

json AgentService::vnis() const {
  json all = json::object();
  for (auto&& entry : *world_.fdb) {
    const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(entry.value);
    json& vni = all[entry.key.text()];
    vni["state"] = status ? "instantiated" : "announced";
    vni["hosts"] = status ? status->macVtepTable().size() : 0;
    vni["floodLists"] = status ? status->macVtepFloodListTable().size() : 0;
    vni["multiPaths"] = status ? status->macVtepMultiPathTable().size() : 0;
  }
  return all;
}

json AgentService::explain(const json& params) {
  try {
    const Place root;
    objectAt(root, params);
    const Place macPlace(root, "mac");
    const auto mac = Qnet::EthAddr::parse(params.value("mac", std::string()));
    if (!mac) {
      macPlace.refuse("a MAC address such as 02:00:00:00:00:01 was expected");
    }
    std::vector<Bridging::VlanId> vlans = vlansKnowing(world_, *mac);
    if (params.contains("vlan")) {
      const Place at(root, "vlan");
      const std::uint32_t vlan = integerAt(at, params.at("vlan"), Bridging::VlanId::max);
      if (vlan == 0) {
        at.refuse("VLAN out of range 1 to 4094");
      }
      vlans = {Bridging::VlanId(vlan)};
    } else if (params.contains("vni")) {
      const Vxlan::VniExt vni = vniAt(Place(root, "vni"), params.at("vni"));
      vlans.clear();
      for (auto&& map : world_.vlanVniMaps->vlanVniMap()) {
        if (const Bridging::VlanIdOrNone vlan = map.value->vniToVlan(vni)) {
          vlans.emplace_back(vlan);
        }
      }
    }
    if (vlans.empty()) {
      throw RequestError(RequestError::Kind::notFound, "",
                         "nothing is known of " + mac->text() + " in any VLAN of this switch");
    }
    return explainHost(world_, *mac, vlans.front(), database_, kernel_, refused_);
  } catch (const Refused& refused) {
    throw RequestError(RequestError::Kind::refused, refused.pointer(), refused.what());
  } catch (const json::exception& error) {
    throw RequestError(RequestError::Kind::refused, "", error.what());
  }
}

// Takes the switch out of service: all forwarding state goes, and none comes before the next start.
json AgentService::flush() {
  hooks_.finishPatches();
  std::size_t floodSets = 0;
  const std::size_t hosts = world_.hosts->hosts();
  Kel::ActivityLoop::instance().asHandler([&] {
    for (auto&& vlan : world_.floodSets->vlanFloodSet()) {
      floodSets += vlan.value->floodSets();
    }
    world_.clientDel();
    for (auto host = world_.hosts->firstHost(); host; host = world_.hosts->nextHost(host->key)) {
      world_.hosts->hostDel(host->key);
    }
    world_.floodSets->vlanFloodSetDelAll();
    world_.hwStatus->bumStatus()->bumVtepListDelAll();
  });
  changed();
  return {{"hosts", hosts}, {"floodSets", floodSets}};
}

}  // namespace Agent
