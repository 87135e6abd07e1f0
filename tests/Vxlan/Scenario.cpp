#include "Scenario.h"

#include <map>
#include <sstream>

#include "Kel/TraceHelper.h"

namespace scenario {
namespace {

// The lines of a text, each with a word in front.
std::string prefixed(std::string_view word, const std::string& text) {
  std::string all;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    all += std::string(word) + ' ' + line + '\n';
  }
  return all;
}

std::string typeText(L2Rib::FloodSetType type) {
  switch (type) {
    case L2Rib::FloodSetType::SendToAll:
      return "all";
    case L2Rib::FloodSetType::SendToAny:
      return "any";
    case L2Rib::FloodSetType::None:
      break;
  }
  return "none";
}

}  // namespace

Scenario::Scenario() {
  Kel::System::timeSourceIs(&time);
  Kel::tableSeedIs(0);
}

void Scenario::traceFromNow() {
  lines.clear();
  Kel::traceLevelsIs("VxlanController=*");
  Kel::traceSinkIs([this](std::string_view line) { lines.emplace_back(line); });
}

Scenario::~Scenario() {
  client = nullptr;
  Kel::traceLevelsIs("");
  Kel::traceSinkIs(nullptr);
  Kel::System::timeSourceIs(nullptr);
}

void Scenario::start() {
  client = Vxlan::vxlanControllerClientSmFactory(
      handles.vtiStatusDir, handles.controllerStatusBaseDir, handles.rmxStateClientView,
      handles.vxlanHwStatusDir, handles.mlagStatus, handles.mlagVxlanStatus, handles.rmxStateBaseDir,
      handles.vlanVniMaps, handles.rmxSde, handles.l2RibRmxInput, handles.rmxConvergenceStatus);
}

void Scenario::turnsUntilIdle() {
  constexpr std::uint64_t bound = 100000;
  ASSERT_TRUE(Kel::ActivityLoop::instance().runUntilIdle(bound)) << "the loop does not come to rest";
}

void Scenario::givenVti(std::string_view name, const Vti& is) {
  auto status = Kel::make<Vxlan::VtiStatus>(vti(name));
  status->controllerClientModeIs(is.client);
  status->datapathLearningIs(is.learning);
  status->localVtepAddrIs(ip(is.local));
  status->dgwVtepAddrIs(ip(is.gateway));
  handles.vtiStatusDir->vtiStatusIs(status);
}

void Scenario::givenMap(std::string_view name) {
  handles.vlanVniMaps->vlanVniMapIs(vti(name), Kel::make<Vxlan::VlanVniMap>());
}

void Scenario::mapVlan(std::string_view name, std::uint32_t vlanNumber, std::uint32_t vniNumber) {
  if (!map(name)) {
    givenMap(name);
  }
  map(name)->mappingIs(vlan(vlanNumber), vni(vniNumber));
}

void Scenario::givenVni(std::uint32_t number) {
  handles.controllerStatusBaseDir->entityPtrIs(Name(std::to_string(number)),
                                               Kel::make<VxlanController::VniFdbStatusV2>());
}

Ptr<VxlanController::VniFdbStatusV2> Scenario::vniStatus(std::uint32_t number) {
  const Name name(std::to_string(number));
  if (!handles.controllerStatusBaseDir->entityPtr(name)) {
    givenVni(number);
  }
  return Kel::ptrCast<VxlanController::VniFdbStatusV2>(handles.controllerStatusBaseDir->entityPtr(name));
}

void Scenario::publish(std::uint32_t vniNumber, std::uint64_t macNumber, const Host& host) {
  vniStatus(vniNumber)->macVtepTableIs(
      {mac(macNumber), ip(host.vtep), host.moves, static_cast<VxlanController::HostAttr>(host.attr)});
}

void Scenario::publishFloodList(std::uint32_t vniNumber, std::uint64_t macNumber, Texts vteps) {
  const auto status = vniStatus(vniNumber);
  Ptr<VxlanController::MacVtepFloodListV2> list = status->macVtepFloodListTable(mac(macNumber));
  if (!list) {
    list = Kel::make<VxlanController::MacVtepFloodListV2>();
    for (const std::string_view vtep : vteps) {
      list->vtepIpFloodListIs(ip(vtep), true);
    }
    status->macVtepFloodListTableIs(mac(macNumber), list);
    return;
  }
  Kel::ActivityLoop::instance().asHandler([&] {
    std::set<Qnet::IpAddr> wanted;
    for (const std::string_view vtep : vteps) {
      wanted.insert(ip(vtep));
      list->vtepIpFloodListIs(ip(vtep), true);
    }
    for (auto&& vtep : list->vtepIpFloodList()) {
      if (!wanted.contains(vtep.key)) {
        list->vtepIpFloodListDel(Qnet::IpAddr(vtep.key));
      }
    }
  });
}

void Scenario::publishMultiPath(std::uint32_t vniNumber, std::uint64_t macNumber, Texts vteps) {
  VxlanController::MacVtepMultiPathV2 entry{mac(macNumber), {}};
  for (const std::string_view vtep : vteps) {
    entry.vtepIpList.emplace(ip(vtep), true);
  }
  vniStatus(vniNumber)->macVtepMultiPathTableIs(entry);
}

void Scenario::controllerConverges(bool converging) {
  const Name name("controller");
  if (!handles.rmxStateBaseDir->hasEntry(name)) {
    auto fresh = Kel::make<VxlanController::RmxStateV2>();
    fresh->convergenceInProgressIs(converging);
    handles.rmxStateBaseDir->entityPtrIs(name, fresh);
    return;
  }
  Kel::ptrCast<VxlanController::RmxStateV2>(handles.rmxStateBaseDir->entityPtr(name))
      ->convergenceInProgressIs(converging);
}

void Scenario::bumReplicationMode(Vxlan::BumReplicationMode mode) {
  if (!handles.vxlanHwStatusDir->bumStatus()) {
    auto fresh = Kel::make<Vxlan::BumStatus>();
    fresh->bumReplicationModeIs(mode);
    handles.vxlanHwStatusDir->bumStatusIs(fresh);
    return;
  }
  handles.vxlanHwStatusDir->bumStatus()->bumReplicationModeIs(mode);
}

void Scenario::peerBumReplicationMode(Vxlan::BumReplicationMode mode) {
  if (!handles.mlagVxlanStatus->bumStatus()) {
    auto fresh = Kel::make<Vxlan::BumStatus>();
    fresh->bumReplicationModeIs(mode);
    handles.mlagVxlanStatus->bumStatusIs(fresh);
    return;
  }
  handles.mlagVxlanStatus->bumStatus()->bumReplicationModeIs(mode);
}

void Scenario::peerLists(std::uint64_t macNumber, std::uint32_t vlanNumber, Texts vteps) {
  if (!handles.mlagVxlanStatus->bumStatus()) {
    peerBumReplicationMode(Vxlan::BumReplicationMode::Controller);
  }
  Kel::ActivityLoop::instance().asHandler([&] {
    const auto list = handles.mlagVxlanStatus->bumStatus()->bumVtepListIs(key(macNumber, vlanNumber));
    std::set<Qnet::IpAddr> wanted;
    for (const std::string_view vtep : vteps) {
      wanted.insert(ip(vtep));
      list->remoteVtepAddrIs(ip(vtep), true);
    }
    for (auto&& vtep : list->remoteVtepAddr()) {
      if (!wanted.contains(vtep.key)) {
        list->remoteVtepAddrDel(Qnet::IpAddr(vtep.key));
      }
    }
  });
}

std::string Scenario::received() const {
  if (!client || !client->hostTable()) {
    return "";
  }
  std::map<Bridging::MacVlanPair, std::string> sorted;
  for (auto&& entry : client->hostTable()->receivedEntry()) {
    std::ostringstream line;
    line << entry.key << ' ' << entry.value.intf << ' ' << entry.value.vtepIp << " moves "
         << entry.value.moveCount << (entry.value.markedForDel ? " marked" : "") << '\n';
    sorted[entry.key] = line.str();
  }
  std::string all;
  for (const auto& [at, line] : sorted) {
    all += line;
  }
  return all;
}

std::string Scenario::exported() const {
  if (!handles.l2RibRmxInput) {
    return "";
  }
  std::map<Bridging::MacVlanPair, std::string> sorted;
  for (auto host = handles.l2RibRmxInput->firstHost(); host;
       host = handles.l2RibRmxInput->nextHost(host->key)) {
    std::ostringstream line;
    line << host->key << ' ' << host->dest.intf().text() << ' '
         << host->dest.vtepAddr(L2Rib::CiVtepIndex::First) << " moves " << host->moveCount << '\n';
    sorted[host->key] = line.str();
  }
  std::string all;
  for (const auto& [at, line] : sorted) {
    all += line;
  }
  return all;
}

std::string Scenario::floods() const {
  std::ostringstream all;
  if (handles.rmxSde) {
    for (auto&& vlanSet : handles.rmxSde->vlanFloodSet()) {
      if (vlanSet.value->floodSets() == 0) {
        all << vlanSet.key << " empty\n";
      }
      for (auto&& set : vlanSet.value->floodSet()) {
        all << vlanSet.key << ' ' << set.key << ' ' << typeText(set.value->floodSetType());
        for (auto&& dest : set.value->destSet()) {
          all << ' ' << dest.key.vxlan().vtepAddr();
        }
        all << '\n';
      }
    }
  }
  return all.str();
}

std::string Scenario::bumLists() const {
  std::ostringstream all;
  if (handles.vxlanHwStatusDir && handles.vxlanHwStatusDir->bumStatus()) {
    for (auto&& list : handles.vxlanHwStatusDir->bumStatus()->bumVtepList()) {
      all << list.key;
      for (auto&& address : list.value->remoteVtepAddr()) {
        all << ' ' << address.key << (address.value ? "" : "(false)");
      }
      if (list.value->bumVtepIpListType() != Vxlan::BumVtepIpListType::None) {
        all << " type " << static_cast<std::uint32_t>(list.value->bumVtepIpListType());
      }
      all << '\n';
    }
  }
  return all.str();
}

std::string Scenario::machines() const {
  std::set<std::uint32_t> sorted;
  if (client) {
    for (auto&& machine : client->rmxPerVniFdbStatusSm()) {
      sorted.insert(machine.key.value());
    }
  }
  std::string all;
  for (const std::uint32_t number : sorted) {
    all += std::to_string(number) + ' ';
  }
  return all;
}

std::string Scenario::trackers() const {
  std::string all;
  if (client) {
    for (auto&& tracker : client->vlanVniMapSm()) {
      all += tracker.key.text() + (tracker.value->initialized() ? " " : "(inert) ");
    }
  }
  return all;
}

std::string Scenario::state() const {
  std::string all;
  if (client) {
    all += std::string("client ") + (client->vxlanControllerClientMode() ? "on" : "off") + ", learning " +
           (client->datapathLearningMode() ? "on" : "off") + '\n';
  }
  if (handles.rmxStateClientView && handles.rmxStateClientView->convergenceInProgress()) {
    all += "view converging\n";
  }
  if (handles.rmxConvergenceStatus) {
    const std::string jobs =
        std::string(handles.rmxConvergenceStatus->unicastDeferredDeletionInProgress() ? " unicast" : "") +
        (handles.rmxConvergenceStatus->bumDeferredDeletionInProgress() ? " bum" : "");
    all += jobs.empty() ? "" : "jobs" + jobs + '\n';
  }
  const auto inOneLine = [](const char* word, std::string list) {
    if (list.empty()) {
      return list;
    }
    list.back() = '\n';
    return std::string(word) + ' ' + list;
  };
  all += inOneLine("machines", machines());
  all += inOneLine("trackers", trackers());
  if (client && client->rmxMlagBumStatusSm()) {
    all += "mlag machine\n";
  }
  return all + prefixed("received", received()) + prefixed("exported", exported()) +
         prefixed("flood", floods()) + prefixed("bum", bumLists());
}

std::size_t Scenario::tracedLines(std::string_view text) const {
  std::size_t count = 0;
  for (const std::string& line : lines) {
    count += line.find(text) != std::string::npos ? 1U : 0U;
  }
  return count;
}

}  // namespace scenario
