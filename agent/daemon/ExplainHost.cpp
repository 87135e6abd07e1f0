// The way of one MAC, step by step.
#include <algorithm>
#include <set>

#include "agent/daemon/AgentService.h"
#include "agent/daemon/KernelDocuments.h"
#include "agent/daemon/Sentences.h"

namespace Agent {
namespace {

using nlohmann::json;

// The steps so far, and how the story ends.
class Story {
 public:
  void step(const char* name, const json& ok, const std::string& detail) {
    steps_.push_back({{"step", name}, {"ok", ok}, {"detail", detail}});
  }
  // A step that an adapter accounts for: in words, and the account itself for programs.
  void step(const char* name, const Told& told, const json& account) {
    step(name, told.ok, told.detail);
    steps_.back()["account"] = account;
  }
  // Ends the story with a step that did not go well.
  void end(const char* name, const std::string& detail) {
    step(name, false, detail);
    verdict_ = verdict_.empty() ? detail : verdict_;
  }
  bool ended() const { return !verdict_.empty(); }
  const json& steps() const { return steps_; }
  const std::string& verdict() const { return verdict_; }

 private:
  json steps_ = json::array();
  std::string verdict_;
};

struct Mapped {
  Qnet::IntfId vti;
  Vxlan::VniExtOrNone vni;
};

Mapped mappingOf(const World& world, Bridging::VlanId vlan) {
  for (auto&& map : world.vlanVniMaps->vlanVniMap()) {
    if (const Vxlan::VniExtOrNone vni = map.value->vlanToVsp(vlan).vni) {
      return {map.key, vni};
    }
  }
  return {};
}

void tellDatabase(Story& story, const Vtep::Adapter& database, const Qnet::EthAddr& mac, const Mapped& mapped,
                  Bridging::VlanId vlan) {
  const json account = database.explain(
      mac.value(), mapped.vni ? std::optional(mapped.vni.value()) : std::nullopt, vlan.value());
  story.step("controller database", databaseTold(account), account);
}

void tellMapping(Story& story, const Mapped& mapped, Bridging::VlanId vlan) {
  const std::string number = std::to_string(vlan.value());
  if (mapped.vni) {
    story.step(
        "VLAN", true,
        "VLAN " + number + " is VNI " + std::to_string(mapped.vni.value()) + " on " + mapped.vti.text());
  } else {
    story.end("VLAN", "no VTI maps VLAN " + number + " to a VNI");
  }
}

VxlanController::MacVtepV2 tellController(Story& story, const World& world, const Qnet::EthAddr& mac,
                                          const Mapped& mapped) {
  const Kel::Name name(std::to_string(mapped.vni.value()));
  const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(world.fdb->entityPtr(name));
  if (!status) {
    story.end("controller", world.fdb->hasEntry(name) ? "the VNI is announced, but not instantiated"
                                                      : "the controller does not publish the VNI");
    return {};
  }
  const VxlanController::MacVtepV2 host = status->macVtepTable(mac);
  if (host == VxlanController::MacVtepV2()) {
    story.end("controller", "the controller does not publish the MAC in this VNI");
  } else {
    story.step("controller", true,
               "published behind VTEP " + host.vtepIp.text() + ", moved " + std::to_string(host.moveCount) +
                   " times");
  }
  return host;
}

void tellClient(Story& story, const World& world) {
  if (!world.client) {
    story.end("client", "flushed: the switch is out of service until the agent is started again");
  } else if (!world.client->vxlanControllerClientMode()) {
    story.end("client", "no VTI is in controller client mode");
  } else if (world.client->datapathLearningMode()) {
    story.end("client", "every VTI learns in the data path, so that the controller's hosts are not copied");
  } else {
    story.step("client", true, "in controller client mode, without data-path learning");
  }
}

void tellOwnVtep(Story& story, const World& world, const VxlanController::MacVtepV2& host,
                 const Mapped& mapped) {
  if (world.client->isVtepIpMine(Vxlan::VniExt(mapped.vni), host.vtepIp, mapped.vti)) {
    story.end("VTEP", host.vtepIp.text() + " is the switch's own address: the host is local");
  } else {
    story.step("VTEP", true, host.vtepIp.text() + " is remote");
  }
}

bool tellReceived(Story& story, const World& world, const Bridging::MacVlanPair& key) {
  const Kel::Ptr<Vxlan::ReceivedHostTable> table = world.client ? world.client->hostTable() : nullptr;
  const Vxlan::ReceivedEntry* entry = table ? table->receivedEntry().find(key) : nullptr;
  if (entry == nullptr) {
    story.step("received host", false, "not in the table of received hosts");
    return false;
  }
  std::string detail = "behind " + entry->vtepIp.text() + " on " + entry->intf.text() + ", written at " +
                       std::to_string(entry->lastUpdateTime);
  if (entry->markedForDel) {
    detail += world.client->converging() ? "; marked for deletion, kept while the controller converges"
                                         : "; marked for deletion, waiting for the paced job";
  }
  story.step("received host", entry->markedForDel ? json() : json(true), detail);
  return true;
}

bool tellL2Rib(Story& story, const World& world, const Bridging::MacVlanPair& key,
               const RefusedWrites* refused) {
  const auto host = world.hosts->findHost(key);
  if (refused != nullptr && refused->waits(key)) {
    story.end("layer-2 RIB", "the write to the shared-memory table was refused and waits, with " +
                                 std::to_string(refused->waiting() - 1) +
                                 " others, to be tried again: " + refused->why());
    return static_cast<bool>(host);
  }
  story.step("layer-2 RIB", static_cast<bool>(host),
             host ? "exported, behind " + host->dest.vtepAddr(L2Rib::CiVtepIndex::First).text()
                  : "not in the shared-memory table");
  return static_cast<bool>(host);
}

}  // namespace

json explainHost(const World& world, const Qnet::EthAddr& mac, Bridging::VlanId vlan,
                 const Vtep::Adapter* database, Kernel::Adapter* kernel, const RefusedWrites* refused) {
  const Bridging::MacVlanPair key{mac, vlan};
  const Mapped mapped = mappingOf(world, vlan);
  Story story;
  if (database != nullptr) {
    tellDatabase(story, *database, mac, mapped, vlan);
  }
  tellMapping(story, mapped, vlan);
  VxlanController::MacVtepV2 host;
  if (!story.ended()) {
    host = tellController(story, world, mac, mapped);
  }
  tellClient(story, world);
  if (!story.ended()) {
    tellOwnVtep(story, world, host, mapped);
  }
  const bool received = tellReceived(story, world, key);
  const bool exported = tellL2Rib(story, world, key, refused);
  if (kernel != nullptr) {
    const Kernel::FullExplanation explanation = kernel->explain(vlan.value(), {mac.value()});
    story.step("kernel", kernelTold(explanation), kernelAccount(explanation));
  }
  std::string verdict = story.verdict();
  if (verdict.empty()) {
    verdict = received && exported ? "the host forwards" : "the host is on its way";
  } else if (exported) {
    verdict += "; the host still forwards";
  }
  return {{"mac", mac.text()},
          {"vlan", vlan.value()},
          {"vni", mapped.vni ? json(mapped.vni.value()) : json()},
          {"steps", story.steps()},
          {"verdict", verdict},
          {"published", exported}};
}

std::vector<Bridging::VlanId> vlansKnowing(const World& world, const Qnet::EthAddr& mac) {
  std::set<Bridging::VlanId> vlans;
  for (auto&& map : world.vlanVniMaps->vlanVniMap()) {
    for (auto&& mapping : map.value->vlanToVsp()) {
      const Kel::Name name(std::to_string(mapping.value.vni.value()));
      const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(world.fdb->entityPtr(name));
      if ((status && status->macVtepTable().contains(mac)) || world.hosts->hasHost({mac, mapping.key})) {
        vlans.insert(mapping.key);
      }
    }
  }
  return {vlans.begin(), vlans.end()};
}

}  // namespace Agent
