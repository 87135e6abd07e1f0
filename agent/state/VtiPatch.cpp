// The VTIs: their status, and their VLAN-VNI maps.
#include <set>

#include "agent/state/PatchSections.h"

namespace Agent {
namespace {

using Vxlan::VlanVniMap;
using Vxlan::VtiStatus;

const nlohmann::json empty = nlohmann::json::object();

// One member of a VTI's status, set to a value; null stands for the default.
std::function<void(VtiStatus&)> readStatusMember(const Place& place, const nlohmann::json& value) {
  const auto flag = [&] { return !value.is_null() && boolAt(place, value); };
  const auto address = [&] { return value.is_null() ? Qnet::IpAddr() : ipAt(place, value); };
  if (place.name() == "controllerClientMode") {
    return [mode = flag()](VtiStatus& status) { status.controllerClientModeIs(mode); };
  }
  if (place.name() == "datapathLearning") {
    return [learning = flag()](VtiStatus& status) { status.datapathLearningIs(learning); };
  }
  if (place.name() == "localVtepAddr") {
    return [ip = address()](VtiStatus& status) { status.localVtepAddrIs(ip); };
  }
  if (place.name() == "dgwVtepAddr") {
    return [ip = address()](VtiStatus& status) { status.dgwVtepAddrIs(ip); };
  }
  unknownMember(place);
}

// The members that a patch names: those that go back to their default first, then those that are set.
std::vector<std::function<void(VtiStatus&)>> readStatus(const Place& place, const nlohmann::json& patch) {
  std::vector<std::function<void(VtiStatus&)>> removed;
  std::vector<std::function<void(VtiStatus&)>> set;
  for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
    (member->is_null() ? removed : set).push_back(readStatusMember(Place(place, member.key()), *member));
  }
  removed.insert(removed.end(), std::make_move_iterator(set.begin()), std::make_move_iterator(set.end()));
  return removed;
}

}  // namespace

void planVtiStatus(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  const Kel::Ptr<Vxlan::VtiStatusDir> dir = world.vtiStatusDir;
  Changes settings;
  if (patch.is_null()) {
    for (auto&& vti : dir->vtiStatus()) {
      changes.emplace_back([dir, intf = Qnet::IntfId(vti.key)] { dir->vtiStatusDel(intf); });
    }
    return;
  }
  for (const auto& [intf, member] : membersByKey(place, objectAt(place, patch), intfKey)) {
    if (member.second->is_null()) {
      changes.emplace_back([dir, intf = intf] { dir->vtiStatusDel(intf); });
      continue;
    }
    const auto members = readStatus(Place(place, member.first), *member.second);
    if (const Kel::Ptr<VtiStatus> present = dir->vtiStatus(intf)) {
      for (const auto& set : members) {
        settings.emplace_back([present, set] { set(*present); });
      }
    } else {
      settings.emplace_back([dir, intf = intf, members] {
        const auto status = Kel::make<VtiStatus>(intf);
        for (const auto& set : members) {
          set(*status);
        }
        dir->vtiStatusIs(status);
      });
    }
  }
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

namespace {

using Mapping = std::map<Bridging::VlanId, Vxlan::VniExt>;

// One VTI's part of a patch on the maps, and what its map will be.
struct MapPatch {
  bool removeMap = false;
  std::vector<Bridging::VlanId> removed;
  Mapping set;
  Mapping result;
};

Mapping mappingOf(const VlanVniMap* map) {
  Mapping mapping;
  if (map != nullptr) {
    for (auto&& entry : map->vlanToVsp()) {
      mapping.emplace(entry.key, Vxlan::VniExt(entry.value.vni));
    }
  }
  return mapping;
}

MapPatch readMap(const Place& place, const nlohmann::json& patch, const VlanVniMap* present) {
  MapPatch map;
  map.result = mappingOf(present);
  if (patch.is_null()) {
    map.removeMap = present != nullptr;
    for (const auto& [vlan, vni] : map.result) {
      map.removed.push_back(vlan);
    }
    map.result.clear();
    return map;
  }
  for (const auto& [vlan, member] : membersByKey(place, objectAt(place, patch), vlanKey)) {
    const auto old = map.result.find(vlan);
    if (member.second->is_null()) {
      if (old != map.result.end()) {
        map.removed.push_back(vlan);
        map.result.erase(old);
      }
      continue;
    }
    const Vxlan::VniExt vni = vniAt(Place(place, member.first), *member.second);
    if (old != map.result.end() && old->second == vni) {
      continue;
    }
    if (old != map.result.end()) {
      map.removed.push_back(vlan);  // pointing a VLAN at another VNI is a removal and a setting
    }
    map.set.emplace(vlan, vni);
    map.result.insert_or_assign(vlan, vni);
  }
  return map;
}

// On one VTI a VNI belongs to one VLAN at most.
void refuseSharedVni(const Place& place, const MapPatch& map) {
  std::map<Vxlan::VniExt, Bridging::VlanId> vlanOf;
  for (const auto& [vlan, vni] : map.result) {
    const auto [other, alone] = vlanOf.emplace(vni, vlan);
    if (!alone) {
      const bool blameThis = map.set.contains(vlan);
      const Bridging::VlanId blamed = blameThis ? vlan : other->second;
      const Bridging::VlanId rival = blameThis ? other->second : vlan;
      const std::string name = std::to_string(blamed.value());
      Place(place, name)
          .refuse("VNI " + std::to_string(vni.value()) + " would belong to VLAN " +
                  std::to_string(rival.value()) + " of this VTI as well");
    }
  }
}

// A VLAN belongs to one VTI at most.
void refuseSharedVlan(const Place& place, const World& world,
                      const std::map<Qnet::IntfId, MapPatch>& patches) {
  std::map<Bridging::VlanId, Qnet::IntfId> vtiOf;
  for (auto&& map : world.vlanVniMaps->vlanVniMap()) {
    if (!patches.contains(map.key)) {
      for (const auto& [vlan, vni] : mappingOf(map.value.get())) {
        vtiOf.emplace(vlan, map.key);
      }
    }
  }
  std::vector<std::pair<Qnet::IntfId, Bridging::VlanId>> fresh;
  for (const auto& [intf, patch] : patches) {
    for (const auto& [vlan, vni] : patch.result) {
      if (patch.set.contains(vlan)) {
        fresh.emplace_back(intf, vlan);
      } else {
        vtiOf.emplace(vlan, intf);
      }
    }
  }
  for (const auto& [intf, vlan] : fresh) {
    const auto [other, alone] = vtiOf.emplace(vlan, intf);
    if (!alone) {
      const Place vti(place, intf.text());
      const std::string name = std::to_string(vlan.value());
      Place(vti, name).refuse("VLAN " + name + " would belong to VTI " + other->second.text() + " as well");
    }
  }
}

void planRemovals(World& world, const Qnet::IntfId& intf, const MapPatch& patch, Changes& changes) {
  const Kel::Ptr<Vxlan::VlanVniMaps> maps = world.vlanVniMaps;
  const Kel::Ptr<VlanVniMap> present = maps->vlanVniMap(intf);
  for (const Bridging::VlanId vlan : patch.removed) {
    changes.emplace_back([present, vlan] { present->mappingDel(vlan); });
  }
  if (patch.removeMap) {
    changes.emplace_back([maps, intf] { maps->vlanVniMapDel(intf); });
  }
}

void planSettings(World& world, const Qnet::IntfId& intf, const MapPatch& patch, Changes& changes) {
  const Kel::Ptr<Vxlan::VlanVniMaps> maps = world.vlanVniMaps;
  if (const Kel::Ptr<VlanVniMap> present = maps->vlanVniMap(intf)) {
    for (const auto& [vlan, vni] : patch.set) {
      changes.emplace_back([present, vlan = vlan, vni = vni] { present->mappingIs(vlan, vni); });
    }
    return;
  }
  changes.emplace_back([maps, intf, set = patch.set] {
    const auto map = Kel::make<VlanVniMap>();
    for (const auto& [vlan, vni] : set) {
      map->mappingIs(vlan, vni);
    }
    maps->vlanVniMapIs(intf, map);
  });
}

}  // namespace

void planVlanVniMap(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  nlohmann::json all = empty;
  if (patch.is_null()) {
    for (auto&& map : world.vlanVniMaps->vlanVniMap()) {
      all[map.key.text()] = nullptr;
    }
  }
  const nlohmann::json& members = patch.is_null() ? all : objectAt(place, patch);
  std::map<Qnet::IntfId, MapPatch> patches;
  for (const auto& [intf, member] : membersByKey(place, members, intfKey)) {
    const Place at(place, member.first);
    const Kel::Ptr<VlanVniMap> present = world.vlanVniMaps->vlanVniMap(intf);
    const MapPatch& map = patches.emplace(intf, readMap(at, *member.second, present.get())).first->second;
    refuseSharedVni(at, map);
  }
  if (!patches.empty()) {
    refuseSharedVlan(place, world, patches);
  }
  // Whole maps first, then single VLANs, and all removals of all VTIs before the first setting.
  for (const bool whole : {true, false}) {
    for (const auto& [intf, map] : patches) {
      if (map.removeMap == whole) {
        planRemovals(world, intf, map, changes);
      }
    }
  }
  for (const auto& [intf, member] : membersByKey(place, members, intfKey)) {
    if (!member.second->is_null()) {
      planSettings(world, intf, patches.at(intf), changes);
    }
  }
}

}  // namespace Agent
