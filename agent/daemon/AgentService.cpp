#include "agent/daemon/AgentService.h"

#include "agent/daemon/KernelDocuments.h"
#include "agent/state/Branches.h"
#include "agent/state/InputDocument.h"
#include "agent/state/JsonChecks.h"

namespace Agent {
namespace {

using Control::RequestError;
using nlohmann::json;

// What is there of one VNI.
Service::Part vniRecord(const Kel::Ptr<Kel::Entity>& entity) {
  const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(entity);
  return Service::recordOf({{"state", status ? "instantiated" : "announced"},
                            {"hosts", status ? status->macVtepTable().size() : 0},
                            {"floodLists", status ? status->macVtepFloodListTable().size() : 0},
                            {"multiPaths", status ? status->macVtepMultiPathTable().size() : 0}});
}

}  // namespace

AgentService::AgentService(World& world, const std::string& hostTable, Hooks hooks)
    : world_(world), output_(world, hostTable), hooks_(std::move(hooks)) {}

void AgentService::patch(json&& patch, std::string_view who, Answer answer) {
  if (const auto refusal = ownership_.check(patch, who)) {
    answer(refusal);
    return;
  }
  hooks_.carryOut(std::move(patch), [this, answer = std::move(answer)](const std::exception* error) {
    if (const auto* refused = dynamic_cast<const Refused*>(error)) {
      answer(Control::Refusal{refused->pointer(), refused->what()});
      return;
    }
    changed();
    answer(error == nullptr ? std::nullopt : std::optional(Control::Refusal{"", error->what(), true}));
  });
}

Service::Part AgentService::part(const std::string& pointer) {
  auto document = std::make_unique<Service::Members>();
  document->add("agent", [this] { return agentPart(); });
  document->add("input", [this] { return inputPart(world_); });
  document->add("output", [this] { return output_.part(); });
  return partAt(Service::Part(std::move(document)), pointer);
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

// Each member is made when it is asked for.
Service::Part AgentService::agentPart() {
  auto members = std::make_unique<Service::Members>();
  const auto own = std::make_shared<const json>(hooks_.agentSection());
  for (const auto& [name, value] : own->items()) {
    members->add(name, [own, member = &value] { return Service::partOf(*member); });
  }
  members->add("vnis", [this] { return vnis(); });
  if (database_ != nullptr) {
    members->add("ovsdb", [this] { return Service::partOf(database_->status().json()); });
  }
  if (kernel_ != nullptr) {
    members->add("kernel", [this] { return Service::partOf(kernelDocument(kernel_->status()).at("kinds")); });
    members->add("kernelStatus", [this] { return Service::partOf(kernelDocument(kernel_->status())); });
  }
  return Service::Part(std::move(members));
}

Service::Part AgentService::vnis() const {
  return Service::Part(std::make_unique<DirBranch>(world_.fdb, &vniRecord));
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
