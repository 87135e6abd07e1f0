// The input document, printed from the state database.
#include "agent/state/InputDocument.h"

#include "agent/state/Branches.h"

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

json mlagAddresses(const World& world) {
  json addresses = json::object();
  for (auto&& address : world.mlagVxlanStatus->vtepAddr()) {
    addresses[address.key.text()] = address.value.text();
  }
  return addresses;
}

Service::Part peerStatus(const World& world) {
  auto members = std::make_unique<Service::Members>();
  members->add("bumReplicationMode", [&world] {
    return Service::recordOf(
        static_cast<std::uint32_t>(world.mlagVxlanStatus->bumStatus()->bumReplicationMode()));
  });
  members->add("bumVtepList", [&world] {
    return Service::Part(std::make_unique<VlansBranch>([&world] {
      return std::make_unique<BumVtepLists>(
          world.mlagVxlanStatus->bumStatus(),
          [](const Vxlan::BumVtepList& list) { return addressSet(list.remoteVtepAddr()); });
    }));
  });
  return Service::Part(std::move(members));
}

Service::Part mlag(const World& world) {
  auto members = std::make_unique<Service::Members>();
  members->add("bumStatus", [&world] { return peerStatus(world); });
  members->add("mlagState", [&world] {
    return Service::recordOf(static_cast<std::uint32_t>(world.mlagStatus->mlagState()));
  });
  members->add("vtepAddr", [&world] { return Service::recordOf(mlagAddresses(world)); });
  return Service::Part(std::move(members));
}

json hardware(const World& world) {
  return {{"bumStatus",
           {{"bumReplicationMode",
             static_cast<std::uint32_t>(world.hwStatus->bumStatus()->bumReplicationMode())}}}};
}

Service::Part hostRecord(const VxlanController::MacVtepV2& host) {
  return Service::Part("{\"hostAttr\":" + std::to_string(static_cast<unsigned>(host.hostAttr)) +
                       ",\"moveCount\":" + std::to_string(host.moveCount) + ",\"vtepIp\":\"" +
                       host.vtepIp.text() + "\"}");
}

Service::Part multiPathRecord(const VxlanController::MacVtepMultiPathV2& entry) {
  json vteps = json::object();
  for (const auto& [vtep, value] : entry.vtepIpList) {
    vteps[vtep.text()] = value;
  }
  return Service::recordOf(vteps);
}

Service::Part vniTables(const Kel::Ptr<VxlanController::VniFdbStatusV2>& status) {
  using List = Kel::Ptr<VxlanController::MacVtepFloodListV2>;
  auto members = std::make_unique<Service::Members>();
  members->add("macVtepFloodListTable", [status] {
    const auto record = [](const List& list) {
      return Service::recordOf(addressSet(list->vtepIpFloodList()));
    };
    return Service::Part(
        collectionBranch(status, status->macVtepFloodListTable(), &Qnet::EthAddr::parse, record));
  });
  members->add("macVtepMultiPathTable", [status] {
    return Service::Part(
        collectionBranch(status, status->macVtepMultiPathTable(), &Qnet::EthAddr::parse, &multiPathRecord));
  });
  members->add("macVtepTable", [status] {
    return Service::Part(
        collectionBranch(status, status->macVtepTable(), &Qnet::EthAddr::parse, &hostRecord));
  });
  return Service::Part(std::move(members));
}

Service::Part controller(const World& world) {
  auto members = std::make_unique<Service::Members>();
  members->add("fdb", [&world] {
    return Service::Part(std::make_unique<DirBranch>(world.fdb, [](const Kel::Ptr<Kel::Entity>& entity) {
      const auto status = Kel::ptrCast<VxlanController::VniFdbStatusV2>(entity);
      return status ? vniTables(status) : Service::recordOf("announced");
    }));
  });
  members->add("state", [&world] {
    return Service::Part(
        std::make_unique<DirBranch>(world.controllerState, [](const Kel::Ptr<Kel::Entity>& entity) {
          const auto status = Kel::ptrCast<VxlanController::RmxStateV2>(entity);
          return Service::recordOf(status ? json{{"convergenceInProgress", status->convergenceInProgress()}}
                                          : json("announced"));
        }));
  });
  return Service::Part(std::move(members));
}

}  // namespace

Service::Part inputPart(const World& world) {
  auto members = std::make_unique<Service::Members>();
  members->add("controller", [&world] { return controller(world); });
  members->add("hardware", [&world] { return Service::recordOf(hardware(world)); });
  members->add("mlag", [&world] { return mlag(world); });
  members->add("vlanVniMap", [&world] { return Service::recordOf(vlanVniMap(world)); });
  members->add("vtiStatus", [&world] { return Service::recordOf(vtiStatus(world)); });
  return Service::Part(std::move(members));
}

}  // namespace Agent
