#include "agent/daemon/AgentService.h"

#include "agent/daemon/Flush.h"
#include "agent/daemon/KernelDocuments.h"
#include "agent/state/Branches.h"
#include "agent/state/InputDocument.h"
#include "agent/state/JsonChecks.h"

namespace Agent {
namespace {

using nlohmann::json;

// The record of one VNI.
Service::Part vniRecord(const Kel::Ptr<Kel::Entity>& entity) {
  const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(entity);
  return Service::recordOf({{"state", status ? "instantiated" : "announced"},
                            {"hosts", status ? status->macVtepTable().size() : 0},
                            {"floodLists", status ? status->macVtepFloodListTable().size() : 0},
                            {"multiPaths", status ? status->macVtepMultiPathTable().size() : 0}});
}

Refused failure(const std::exception& error) {
  return {"", error.what(), Refused::Kind::failed};
}

// Members that are made one by one, and behind them those of a document that is made as a whole, where one of
// them is asked for.
class MembersAndMore final : public Service::Branch {
 public:
  MembersAndMore(std::unique_ptr<Service::Members> members, std::function<json()> more)
      : members_(std::move(members)), makeMore_(std::move(more)) {}

  Service::Walked next(std::string& name, Service::Part& part) override {
    if (const Service::Walked walked = members_->next(name, part); walked != Service::Walked::end) {
      return walked;
    }
    return more().next(name, part);
  }
  Service::Part find(const std::string& name) override {
    Service::Part member = members_->find(name);
    return member.there() ? std::move(member) : more().find(name);
  }

 private:
  Service::Branch& more() {
    if (!more_.branch) {
      more_ = Service::partOf(makeMore_());
    }
    return *more_.branch;
  }

  std::unique_ptr<Service::Members> members_;
  std::function<json()> makeMore_;
  Service::Part more_;
};

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
      answer(*refused);
      return;
    }
    changed();
    answer(error == nullptr ? std::nullopt : std::optional(failure(*error)));
  });
}

Service::Part AgentService::part(const std::string& pointer) {
  auto document = std::make_unique<Service::Members>();
  document->add("agent", [this] { return agentPart(); });
  document->add("input", [this] { return inputPart(world_); });
  document->add("output", [this] { return output_.part(); });
  return partAt(Service::Part(std::move(document)), pointer);
}

void AgentService::call(const std::string& method, const json& params, CallAnswer answer) {
  if (method == "explain") {
    return answer(std::nullopt, explain(params));
  }
  if (method == "problems") {
    return answer(std::nullopt, hooks_.problems());
  }
  if (method == "flush") {
    return flush(std::move(answer));
  }
  throw Refused("", "unknown method \"" + method + "\"");
}

// Each member is made when it is asked for.
Service::Part AgentService::agentPart() {
  auto members = std::make_unique<Service::Members>();
  members->add("vnis", [this] { return vnis(); });
  if (database_ != nullptr) {
    members->add("ovsdb", [this] { return Service::partOf(database_->status().json()); });
  }
  if (kernel_ != nullptr) {
    members->add("kernel", [this] { return Service::partOf(kernelDocument(kernel_->status()).at("kinds")); });
    members->add("kernelStatus", [this] { return Service::partOf(kernelDocument(kernel_->status())); });
  }
  return Service::Part(std::make_unique<MembersAndMore>(std::move(members), hooks_.agentSection));
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
      throw Refused("", "nothing is known of " + mac->text() + " in any VLAN of this switch",
                    Refused::Kind::notFound);
    }
    return explainHost(world_, *mac, vlans.front(), database_, kernel_, refused_);
  } catch (const json::exception& error) {
    throw Refused("", error.what());
  }
}

// Takes the switch out of service, behind the patches that came before.
void AgentService::flush(CallAnswer answer) {
  const auto flush = std::make_shared<Flush>(world_);
  const auto step = [this, flush] {
    const bool more = flush->step();
    changed();
    return more;
  };
  hooks_.inOrder(step, [flush, answer = std::move(answer)](const std::exception* error) {
    if (error != nullptr) {
      answer(failure(*error), nullptr);
    } else {
      answer(std::nullopt, {{"hosts", flush->hosts()}, {"floodSets", flush->floodSets()}});
    }
  });
}

}  // namespace Agent
