// The MLAG peer's status, and this switch's hardware status.
#include "agent/state/PatchSections.h"

namespace Agent {
namespace {

using Vxlan::BumStatus;
using Vxlan::BumVtepList;
using Vxlan::MacVlanPair;

void planMode(const Place& place, const nlohmann::json& patch, const Kel::Ptr<BumStatus>& status,
              Changes& changes) {
  const std::uint32_t mode = patch.is_null() ? 0 : integerAt(place, patch, UINT32_MAX);
  changes.emplace_back(
      [status, mode] { status->bumReplicationModeIs(static_cast<Vxlan::BumReplicationMode>(mode)); });
}

void planListType(const Place& place, const nlohmann::json& patch, const Kel::Ptr<BumVtepList>& list,
                  Changes& changes) {
  const std::uint32_t type = patch.is_null() ? 0 : integerAt(place, patch, UINT32_MAX);
  changes.emplace_back(
      [list, type] { list->bumVtepIpListTypeIs(static_cast<Vxlan::BumVtepIpListType>(type)); });
}

void planListAddresses(const Place& place, const nlohmann::json& patch, const Kel::Ptr<BumVtepList>& list,
                       Changes& changes) {
  planAddresses(
      place, patch, list->remoteVtepAddr(),
      [list](Qnet::IpAddr address) { list->remoteVtepAddrDel(address); },
      [list](Qnet::IpAddr address, bool value) { list->remoteVtepAddrIs(address, value); }, changes);
}

// The changes of one list: members that go first, then those that are set.
void planList(const Place& place, const nlohmann::json& patch, const Kel::Ptr<BumVtepList>& list,
              Changes& changes) {
  for (const bool removals : {true, false}) {
    for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
      const Place at(place, member.key());
      if (member.key() != "bumVtepIpListType" && member.key() != "remoteVtepAddr") {
        unknownMember(at);
      }
      if (member->is_null() != removals) {
        continue;
      }
      (member.key() == "remoteVtepAddr" ? planListAddresses : planListType)(at, *member, list, changes);
    }
  }
}

// A list that is filled before it is entered.
void planNewList(const Place& place, const nlohmann::json& patch, const MacVlanPair& key,
                 const Kel::Ptr<BumStatus>& status, Changes& changes) {
  const auto list = Kel::make<BumVtepList>();
  Changes filling;
  planList(place, patch, list, filling);
  changes.emplace_back([status, key, list, filling] {
    for (const auto& change : filling) {
      change.make();
    }
    status->bumVtepListIs(key, list);
  });
}

void removeLists(const Kel::Ptr<BumStatus>& status, Bridging::VlanId vlan, Changes& changes) {
  for (auto&& list : status->bumVtepList()) {
    if (list.key.vlan == vlan) {
      changes.emplace_back([status, key = MacVlanPair(list.key)] { status->bumVtepListDel(key); });
    }
  }
}

void planLists(const Place& place, const nlohmann::json& patch, const Kel::Ptr<BumStatus>& status,
               Changes& changes) {
  if (patch.is_null()) {
    std::map<Bridging::VlanId, bool> vlans;
    for (auto&& list : status->bumVtepList()) {
      vlans.emplace(list.key.vlan, true);
    }
    for (const auto& [vlan, there] : vlans) {
      removeLists(status, vlan, changes);
    }
    return;
  }
  const auto vlans = membersByKey(place, objectAt(place, patch), vlanKey);
  for (const auto& [vlan, member] : vlans) {
    if (member.second->is_null()) {
      removeLists(status, vlan, changes);
    }
  }
  for (const auto& [vlan, member] : vlans) {
    if (member.second->is_null()) {
      continue;
    }
    const Place at(place, member.first);
    const auto lists = membersByKey(at, objectAt(at, *member.second), macKey);
    for (const auto& [mac, list] : lists) {
      if (list.second->is_null()) {
        changes.emplace_back([status, key = MacVlanPair{mac, vlan}] { status->bumVtepListDel(key); });
      }
    }
    for (const auto& [mac, list] : lists) {
      const Place listAt(at, list.first);
      const MacVlanPair key{mac, vlan};
      if (list.second->is_null()) {
        continue;
      }
      if (const Kel::Ptr<BumVtepList> present = status->bumVtepList(key)) {
        planList(listAt, *list.second, present, changes);
      } else {
        planNewList(listAt, objectAt(listAt, *list.second), key, status, changes);
      }
    }
  }
}

void planVtepAddresses(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  const Kel::Ptr<Mlag::VxlanStatus> status = world.mlagVxlanStatus;
  if (patch.is_null()) {
    for (auto&& address : status->vtepAddr()) {
      changes.emplace_back([status, type = Kel::Name(address.key)] { status->vtepAddrDel(type); });
    }
    return;
  }
  Changes settings;
  for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
    const Kel::Name type(member.key());
    if (member->is_null()) {
      changes.emplace_back([status, type] { status->vtepAddrDel(type); });
    } else {
      const Qnet::IpAddr address = ipAt(Place(place, member.key()), *member);
      settings.emplace_back([status, type, address] { status->vtepAddrIs(type, address); });
    }
  }
  std::move(settings.begin(), settings.end(), std::back_inserter(changes));
}

// Calls the reader of each member that the patch names, in the order of the readers; null names them all.
using MemberPlan = std::function<void(const Place&, const nlohmann::json&)>;
void planMembers(const Place& place, const nlohmann::json& patch,
                 const std::vector<std::pair<std::string, MemberPlan>>& readers) {
  static const nlohmann::json none;
  if (!patch.is_null()) {
    for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
      const bool known = std::any_of(readers.begin(), readers.end(),
                                     [&](const auto& reader) { return reader.first == member.key(); });
      if (!known) {
        unknownMember(Place(place, member.key()));
      }
    }
  }
  for (const auto& [name, read] : readers) {
    const Place at(place, name);
    if (patch.is_null()) {
      read(at, none);
    } else if (const auto member = patch.find(name); member != patch.end()) {
      read(at, *member);
    }
  }
}

}  // namespace

void planMlag(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  const Kel::Ptr<BumStatus> peer = world.mlagVxlanStatus->bumStatus();
  const auto bumStatus = [&](const Place& at, const nlohmann::json& value) {
    planMembers(
        at, value,
        {{"bumVtepList", [&](const Place& p, const nlohmann::json& v) { planLists(p, v, peer, changes); }},
         {"bumReplicationMode",
          [&](const Place& p, const nlohmann::json& v) { planMode(p, v, peer, changes); }}});
  };
  const auto mlagState = [&](const Place& at, const nlohmann::json& value) {
    const std::uint32_t state = value.is_null() ? 0 : integerAt(at, value, UINT32_MAX);
    changes.emplace_back(
        [status = world.mlagStatus, state] { status->mlagStateIs(static_cast<Mlag::MlagState>(state)); });
  };
  planMembers(place, patch,
              {{"vtepAddr",
                [&](const Place& p, const nlohmann::json& v) { planVtepAddresses(world, p, v, changes); }},
               {"bumStatus", bumStatus},
               {"mlagState", mlagState}});
}

void planHardware(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  const Kel::Ptr<BumStatus> own = world.hwStatus->bumStatus();
  planMembers(place, patch, {{"bumStatus", [&](const Place& at, const nlohmann::json& value) {
                                planMembers(
                                    at, value,
                                    {{"bumReplicationMode", [&](const Place& p, const nlohmann::json& v) {
                                        planMode(p, v, own, changes);
                                      }}});
                              }}});
}

}  // namespace Agent
