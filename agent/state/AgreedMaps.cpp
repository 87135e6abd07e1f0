#include "agent/state/AgreedMaps.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "agent/state/JsonChecks.h"

namespace Agent {
namespace {

using nlohmann::json;
using Vnis = std::set<Vxlan::VniExt>;
using Mapping = std::map<Bridging::VlanId, Vxlan::VniExt>;
using Maps = std::map<Qnet::IntfId, Mapping>;

constexpr const char* section = "vlanVniMap";
constexpr std::size_t mostNamed = 5;  // of each kind in a message

Maps mapsOf(const World& world) {
  Maps maps;
  for (auto&& map : world.vlanVniMaps->vlanVniMap()) {
    Mapping& mapping = maps[map.key];
    for (auto&& entry : map.value->vlanToVsp()) {
      mapping.emplace(entry.key, Vxlan::VniExt(entry.value.vni));
    }
  }
  return maps;
}

void merge(const Place& place, const json& patch, Mapping& mapping) {
  for (const auto& [vlan, member] : membersByKey(place, objectAt(place, patch), vlanKey)) {
    if (member.second->is_null()) {
      mapping.erase(vlan);
    } else {
      mapping.insert_or_assign(vlan, vniAt(Place(place, member.first), *member.second));
    }
  }
}

// The maps as the patch of the section leaves them.
void merge(const Place& place, const json& patch, Maps& maps) {
  if (patch.is_null()) {
    maps.clear();
    return;
  }
  for (const auto& [intf, member] : membersByKey(place, objectAt(place, patch), intfKey)) {
    if (member.second->is_null()) {
      maps.erase(intf);
    } else {
      merge(Place(place, member.first), *member.second, maps[intf]);
    }
  }
}

Vnis vnisOf(const Mapping& mapping) {
  Vnis vnis;
  for (const auto& [vlan, vni] : mapping) {
    vnis.insert(vni);
  }
  return vnis;
}

// "VTI Vxlan0 lacks VNI 1, 2"
std::string lacking(const Qnet::IntfId& intf, const Vnis& all, const Vnis& has) {
  std::string text;
  std::size_t count = 0;
  for (const Vxlan::VniExt vni : all) {
    if (!has.contains(vni) && ++count <= mostNamed) {
      text += (text.empty() ? "" : ", ") + std::to_string(vni.value());
    }
  }
  if (count > mostNamed) {
    text += " and " + std::to_string(count - mostNamed) + " more";
  }
  return count == 0 ? "" : "VTI " + intf.text() + " lacks VNI " + text;
}

void refuseDifferentVnis(const Place& place, const Maps& maps) {
  Vnis all;
  for (const auto& [intf, mapping] : maps) {
    all.merge(vnisOf(mapping));
  }
  std::string text;
  std::size_t count = 0;
  for (const auto& [intf, mapping] : maps) {
    const std::string what = mapping.empty() ? "" : lacking(intf, all, vnisOf(mapping));
    if (!what.empty() && ++count <= mostNamed) {
      text += (text.empty() ? "" : "; ") + what;
    }
  }
  if (count > mostNamed) {
    text += "; and " + std::to_string(count - mostNamed) + " VTIs more";
  }
  if (count != 0) {
    place.refuse(text + ": VTIs that map anything map the same VNIs");
  }
}

bool mapsAnything(const Maps& maps) {
  return std::any_of(maps.begin(), maps.end(), [](const auto& map) { return !map.second.empty(); });
}

// Whether a VTI of before maps nothing any more.
bool anyEnds(const Maps& before, const Maps& after) {
  return std::any_of(before.begin(), before.end(), [&](const auto& map) {
    const auto now = after.find(map.first);
    return !map.second.empty() && (now == after.end() || now->second.empty());
  });
}

// The mappings that are there before and after.
json kept(const Maps& before, const Maps& after) {
  json all;
  for (const auto& [intf, mapping] : after) {
    const auto old = before.find(intf);
    for (const auto& [vlan, vni] : mapping) {
      if (old != before.end() && old->second.contains(vlan) && old->second.at(vlan) == vni) {
        all[intf.text()][std::to_string(vlan.value())] = vni.value();
      }
    }
  }
  return all;
}

}  // namespace

AgreedPatch agreedPatch(const World& world, json patch) {
  if (!patch.is_object() || !patch.contains(section)) {
    return {std::move(patch), nullptr};
  }
  const Place root;
  const Place place(root, section);
  const Maps before = mapsOf(world);
  Maps after = before;
  try {
    merge(place, patch.at(section), after);
  } catch (const Refused&) {
    return {std::move(patch), nullptr};
  }
  refuseDifferentVnis(place, after);
  if (!mapsAnything(after)) {
    return {std::move(patch), nullptr};
  }
  for (const auto& [intf, mapping] : after) {
    if (mapping.empty()) {
      patch[section][intf.text()] = nullptr;
    }
  }
  return {std::move(patch), anyEnds(before, after) ? kept(before, after) : json()};
}

void renew(World& world, const json& renewed) {
  const Place root;
  Kel::ActivityLoop::instance().asHandler([&] {
    for (auto vti = renewed.begin(); vti != renewed.end(); ++vti) {
      const Kel::Ptr<Vxlan::VlanVniMap> map = world.vlanVniMaps->vlanVniMap(Qnet::IntfId(vti.key()));
      const Place at(root, vti.key());
      for (const auto& [vlan, member] : membersByKey(at, *vti, vlanKey)) {
        map->mappingIs(vlan, vniAt(Place(at, member.first), *member.second));
      }
    }
  });
}

std::pair<json, json> asPatches(const json& renewed) {
  json removals = renewed;
  for (json& vti : removals) {
    for (json& vlan : vti) {
      vlan = nullptr;
    }
  }
  return {{{section, std::move(removals)}}, {{section, renewed}}};
}

}  // namespace Agent
