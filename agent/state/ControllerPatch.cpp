// What the controller publishes: its state, and its VNIs.
#include "agent/state/PatchSections.h"

namespace Agent {
namespace {

using Kel::Dir;
using VxlanController::MacVtepFloodListV2;
using VxlanController::MacVtepMultiPathV2;
using VxlanController::MacVtepV2;
using VxlanController::RmxStateV2;
using VxlanController::VniFdbStatusV2;

constexpr const char* announced = "announced";

// Whether the value announces an entry; a string that does not is refused, and so is announcing what is
// instantiated.
bool announces(const Place& place, const nlohmann::json& value, Dir::EntryState present) {
  if (!value.is_string()) {
    return false;
  }
  if (value != announced) {
    place.refuse("\"announced\" or an object was expected");
  }
  if (present == Dir::EntryState::Instantiated) {
    place.refuse("the entry is instantiated already and cannot be announced");
  }
  return true;
}

const nlohmann::json& entryObject(const Place& place, const nlohmann::json& value) {
  if (!value.is_object()) {
    place.refuse(std::string("\"announced\" or an object was expected, not ") + value.type_name());
  }
  return value;
}

// A host as the patch leaves it: its members changed in the present value, which a new host begins without a
// VTEP.
MacVtepV2 readHost(const Place& place, const nlohmann::json& patch, const Qnet::EthAddr& mac,
                   const MacVtepV2* present) {
  MacVtepV2 host = present == nullptr ? MacVtepV2{mac, {}, 0, VxlanController::HostAttr::Dynamic} : *present;
  bool hasVtep = present != nullptr;
  for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
    const Place at(place, member.key());
    const nlohmann::json& value = *member;
    if (member.key() == "vtepIp") {
      hasVtep = !value.is_null();
      host.vtepIp = hasVtep ? ipAt(at, value) : Qnet::IpAddr();
    } else if (member.key() == "moveCount") {
      host.moveCount = value.is_null() ? 0 : integerAt(at, value, UINT32_MAX);
    } else if (member.key() == "hostAttr") {
      host.hostAttr = value.is_null()
                          ? VxlanController::HostAttr::Dynamic
                          : static_cast<VxlanController::HostAttr>(integerAt(at, value, UINT8_MAX));
    } else {
      unknownMember(at);
    }
  }
  if (!hasVtep) {
    place.refuse("a host needs a vtepIp");
  }
  return host;
}

template <class Collection>
std::vector<Qnet::EthAddr> sortedKeys(const Collection& collection) {
  std::vector<Qnet::EthAddr> keys;
  for (auto&& pair : collection) {
    keys.push_back(pair.key);
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

// A host that equals the default counts as absent. Were it entered, each look at it would withdraw the MAC
// once more, and a MAC that waits for its deletion cannot be withdrawn twice.
void hostIs(VniFdbStatusV2& status, const MacVtepV2& host) {
  if (host == MacVtepV2()) {
    status.macVtepTableDel(host.macAddr);
  } else {
    status.macVtepTableIs(host);
  }
}

void planHosts(const Place& place, const nlohmann::json& patch, const Kel::Ptr<VniFdbStatusV2>& status,
               Changes& changes) {
  if (patch.is_null()) {
    for (const Qnet::EthAddr& mac : sortedKeys(status->macVtepTable())) {
      changes.emplace_back([status, mac] { status->macVtepTableDel(mac); }, status.get());
    }
    return;
  }
  Changes settings;
  for (const auto& [mac, member] : membersByKey(place, objectAt(place, patch), macKey)) {
    if (member.second->is_null()) {
      changes.emplace_back([status, mac = mac] { status->macVtepTableDel(mac); }, status.get());
    } else {
      const MacVtepV2 host =
          readHost(Place(place, member.first), *member.second, mac, status->macVtepTable().find(mac));
      settings.emplace_back([status, host] { hostIs(*status, host); }, status.get());
    }
  }
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

// A multipath entry is a value: whatever the patch changes in it is one change.
void planMultiPaths(const Place& place, const nlohmann::json& patch, const Kel::Ptr<VniFdbStatusV2>& status,
                    Changes& changes) {
  if (patch.is_null()) {
    for (const Qnet::EthAddr& mac : sortedKeys(status->macVtepMultiPathTable())) {
      changes.emplace_back([status, mac] { status->macVtepMultiPathTableDel(mac); });
    }
    return;
  }
  Changes settings;
  for (const auto& [mac, member] : membersByKey(place, objectAt(place, patch), macKey)) {
    if (member.second->is_null()) {
      changes.emplace_back([status, mac = mac] { status->macVtepMultiPathTableDel(mac); });
      continue;
    }
    const AddressPatch addresses = readAddresses(Place(place, member.first), *member.second);
    MacVtepMultiPathV2 entry = status->macVtepMultiPathTable(mac);
    for (const Qnet::IpAddr address : addresses.removed) {
      entry.vtepIpList.erase(address);
    }
    for (const auto& [address, value] : addresses.set) {
      entry.vtepIpList.insert_or_assign(address, value);
    }
    settings.emplace_back([status, entry] { status->macVtepMultiPathTableIs(entry); });
  }
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

void planFloodListAddresses(const Place& place, const nlohmann::json& patch,
                            const Kel::Ptr<MacVtepFloodListV2>& list, Changes& changes) {
  planAddresses(
      place, patch, list->vtepIpFloodList(), [list](Qnet::IpAddr vtep) { list->vtepIpFloodListDel(vtep); },
      [list](Qnet::IpAddr vtep, bool flood) { list->vtepIpFloodListIs(vtep, flood); }, changes);
}

void planFloodLists(const Place& place, const nlohmann::json& patch, const Kel::Ptr<VniFdbStatusV2>& status,
                    Changes& changes) {
  if (patch.is_null()) {
    for (const Qnet::EthAddr& mac : sortedKeys(status->macVtepFloodListTable())) {
      changes.emplace_back([status, mac] { status->macVtepFloodListTableDel(mac); });
    }
    return;
  }
  Changes settings;
  for (const auto& [mac, member] : membersByKey(place, objectAt(place, patch), macKey)) {
    const Place at(place, member.first);
    if (member.second->is_null()) {
      changes.emplace_back([status, mac = mac] { status->macVtepFloodListTableDel(mac); });
    } else if (const Kel::Ptr<MacVtepFloodListV2> present = status->macVtepFloodListTable(mac)) {
      planFloodListAddresses(at, objectAt(at, *member.second), present, settings);
    } else {
      const auto list = Kel::make<MacVtepFloodListV2>();
      Changes filling;
      planFloodListAddresses(at, objectAt(at, *member.second), list, filling);
      settings.emplace_back([status, mac = mac, list, filling] {
        for (const auto& change : filling) {
          change.make();
        }
        status->macVtepFloodListTableIs(mac, list);
      });
    }
  }
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

void planTables(const Place& place, const nlohmann::json& patch, const Kel::Ptr<VniFdbStatusV2>& status,
                Changes& changes) {
  using Plan = void (*)(const Place&, const nlohmann::json&, const Kel::Ptr<VniFdbStatusV2>&, Changes&);
  static const std::vector<std::pair<std::string, Plan>> tables = {{"macVtepTable", planHosts},
                                                                   {"macVtepMultiPathTable", planMultiPaths},
                                                                   {"macVtepFloodListTable", planFloodLists}};
  for (auto member = patch.begin(); member != patch.end(); ++member) {
    if (std::none_of(tables.begin(), tables.end(),
                     [&](const auto& table) { return table.first == member.key(); })) {
      unknownMember(Place(place, member.key()));
    }
  }
  for (const auto& [name, plan] : tables) {
    if (const auto member = patch.find(name); member != patch.end()) {
      plan(Place(place, name), *member, status, changes);
    }
  }
}

void planVni(World& world, const Place& place, const nlohmann::json& patch, Vxlan::VniExt vni,
             Changes& changes) {
  const Kel::Ptr<Dir> dir = world.fdb;
  const Kel::Name name(std::to_string(vni.value()));
  if (announces(place, patch, dir->entryState(name))) {
    changes.emplace_back([dir, name] { dir->entryIs(name); });
    return;
  }
  entryObject(place, patch);
  if (const auto present = Kel::ptrCast<VniFdbStatusV2>(dir->entityPtr(name))) {
    planTables(place, patch, present, changes);
    return;
  }
  const auto status = Kel::make<VniFdbStatusV2>();
  Changes filling;
  planTables(place, patch, status, filling);
  changes.emplace_back([dir, name, status, filling] {
    for (const auto& change : filling) {
      change.make();
    }
    dir->entityPtrIs(name, status);
  });
}

// The members of the state entry; there is one.
std::function<void(RmxStateV2&)> readState(const Place& place, const nlohmann::json& patch) {
  std::optional<bool> converging;
  for (auto member = entryObject(place, patch).begin(); member != patch.end(); ++member) {
    const Place at(place, member.key());
    if (member.key() != "convergenceInProgress") {
      unknownMember(at);
    }
    converging = !member->is_null() && boolAt(at, *member);
  }
  return [converging](RmxStateV2& state) {
    if (converging) {
      state.convergenceInProgressIs(*converging);
    }
  };
}

void planState(World& world, const Place& place, const nlohmann::json& patch, const Kel::Name& name,
               Changes& changes) {
  const Kel::Ptr<Dir> dir = world.controllerState;
  if (announces(place, patch, dir->entryState(name))) {
    changes.emplace_back([dir, name] { dir->entryIs(name); });
    return;
  }
  const auto set = readState(place, patch);
  if (const auto present = Kel::ptrCast<RmxStateV2>(dir->entityPtr(name))) {
    changes.emplace_back([present, set] { set(*present); });
    return;
  }
  changes.emplace_back([dir, name, set] {
    const auto state = Kel::make<RmxStateV2>();
    set(*state);
    dir->entityPtrIs(name, state);
  });
}

// There is one controller state: no patch leaves two entries instantiated.
void refuseSecondState(const World& world, const Place& place, const nlohmann::json& patch) {
  std::optional<std::string> instantiated;
  for (auto&& entry : *world.controllerState) {
    if (entry.value && !patch.contains(entry.key.text())) {
      instantiated = entry.key.text();
    }
  }
  for (auto member = patch.begin(); member != patch.end(); ++member) {
    if (!member->is_object()) {
      continue;
    }
    if (instantiated) {
      Place(place, member.key())
          .refuse("the controller has one state; \"" + *instantiated + "\" is instantiated");
    }
    instantiated = member.key();
  }
}

}  // namespace

void planControllerState(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  const Kel::Ptr<Dir> dir = world.controllerState;
  if (patch.is_null()) {
    for (auto&& entry : *dir) {
      changes.emplace_back([dir, name = Kel::Name(entry.key)] { dir->entryDel(name); });
    }
    return;
  }
  Changes settings;
  for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
    const Place at(place, member.key());
    const Kel::Name name(member.key());
    if (member->is_null()) {
      changes.emplace_back([dir, name] { dir->entryDel(name); });
    } else {
      planState(world, at, *member, name, settings);
    }
  }
  refuseSecondState(world, place, patch);
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

void planControllerFdb(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  const Kel::Ptr<Dir> dir = world.fdb;
  if (patch.is_null()) {
    std::map<unsigned long, Kel::Name> names;
    for (auto&& entry : *dir) {
      names.emplace(std::stoul(entry.key.text()), entry.key);
    }
    for (const auto& [vni, name] : names) {
      changes.emplace_back([dir, name = name] { dir->entryDel(name); });
    }
    return;
  }
  Changes settings;
  for (const auto& [vni, member] : membersByKey(place, objectAt(place, patch), vniKey)) {
    if (member.second->is_null()) {
      changes.emplace_back([dir, name = Kel::Name(std::to_string(vni.value()))] { dir->entryDel(name); });
    } else {
      planVni(world, Place(place, member.first), *member.second, vni, settings);
    }
  }
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

}  // namespace Agent
