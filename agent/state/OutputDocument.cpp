#include "agent/state/OutputDocument.h"

#include <algorithm>

#include "agent/json/Text.h"

namespace Agent {
namespace {

using nlohmann::json;

json clientSection(const World& world) {
  json vnis = json::array();
  json trackers = json::array();
  if (world.client) {
    std::vector<std::uint32_t> numbers;
    for (auto&& machine : world.client->rmxPerVniFdbStatusSm()) {
      numbers.push_back(machine.key.value());
    }
    std::sort(numbers.begin(), numbers.end());
    vnis = numbers;
    for (auto&& tracker : world.client->vlanVniMapSm()) {
      trackers.push_back(tracker.key.text());
    }
  }
  return {{"vxlanControllerClientMode", world.client && world.client->vxlanControllerClientMode()},
          {"datapathLearningMode", !world.client || world.client->datapathLearningMode()},
          {"perVni", std::move(vnis)},
          {"trackers", std::move(trackers)},
          {"mlagBumStatus", world.client && world.client->rmxMlagBumStatusSm()}};
}

json printed(const Vxlan::ReceivedEntry& entry) {
  return {{"intf", entry.intf.text()},
          {"entryType", static_cast<unsigned>(entry.entryType)},
          {"vtepIp", entry.vtepIp.text()},
          {"moveCount", entry.moveCount},
          {"hostAttr", static_cast<unsigned>(entry.hostAttr)},
          {"lastUpdateTime", entry.lastUpdateTime},
          {"markedForDel", entry.markedForDel}};
}

json printed(const L2Rib::HostValue& host) {
  return {{"intf", std::string(host.dest.intf().text())},
          {"entryType", static_cast<std::uint32_t>(host.entryType)},
          {"vtepIp", host.dest.vtepAddr(L2Rib::CiVtepIndex::First).v4().text()},
          {"moveCount", host.moveCount},
          {"hostAttr", static_cast<std::uint32_t>(host.hostAttr)},
          {"lastUpdateTime", host.lastUpdateTime}};
}

json floodSets(const World& world) {
  json vlans = json::object();
  for (auto&& vlan : world.floodSets->vlanFloodSet()) {
    for (auto&& set : vlan.value->floodSet()) {
      std::vector<Qnet::IpAddr> addresses;
      for (auto&& dest : set.value->destSet()) {
        addresses.push_back(dest.key.vxlan().vtepAddr().v4());
      }
      std::sort(addresses.begin(), addresses.end());
      json dests = json::array();
      for (const Qnet::IpAddr address : addresses) {
        dests.push_back(address.text());
      }
      vlans[std::to_string(vlan.key.value())][set.key.text()] = {
          {"floodSetType", static_cast<std::uint32_t>(set.value->floodSetType())},
          {"dests", std::move(dests)}};
    }
  }
  return vlans;
}

json hardware(const World& world) {
  const Vxlan::BumStatus& status = *world.hwStatus->bumStatus();
  json lists = json::object();
  for (auto&& list : status.bumVtepList()) {
    json addresses = json::array();
    for (auto&& address : list.value->remoteVtepAddr()) {
      if (address.value) {
        addresses.push_back(address.key.text());
      }
    }
    lists[std::to_string(list.key.vlan.value())][list.key.mac.text()] = {
        {"bumVtepIpListType", static_cast<std::uint32_t>(list.value->bumVtepIpListType())},
        {"remoteVtepAddr", std::move(addresses)}};
  }
  return {{"bumReplicationMode", static_cast<std::uint32_t>(status.bumReplicationMode())},
          {"bumVtepList", std::move(lists)}};
}

json convergenceStatus(const World& world) {
  return {{"unicastDeferredDeletionInProgress", world.convergenceStatus->unicastDeferredDeletionInProgress()},
          {"bumDeferredDeletionInProgress", world.convergenceStatus->bumDeferredDeletionInProgress()}};
}

const std::array<const char*, 7> sectionNames{"client",   "receivedHosts", "markedForDelCount", "l2Rib",
                                              "hardware", "clientView",    "convergenceStatus"};

}  // namespace

OutputDocument::OutputDocument(const World& world, const std::string& hostTable) : world_(world) {
  if (!hostTable.empty()) {
    reader_.emplace(hostTable, L2Rib::hostSchema);
  }
}

void OutputDocument::eachHost(const EachHost& call) {
  if (reader_) {
    reader_->walk([&](const Bridging::MacVlanPair& key, const L2Rib::HostValue& value) {
      L2Rib::Host host;
      static_cast<L2Rib::HostValue&>(host) = value;
      host.key = key;
      call(host);
    });
    return;
  }
  for (auto host = world_.hosts->firstHost(); host; host = world_.hosts->nextHost(host->key)) {
    call(*host);
  }
}

Kel::Ptr<Vxlan::ReceivedHostTable> OutputDocument::receivedTable() const {
  return world_.client ? world_.client->hostTable() : nullptr;
}

// One host as the layer-2 RIB or the received host table has it; null if it does not.
json OutputDocument::hostOf(const Bridging::MacVlanPair& key, bool l2Rib) {
  if (!l2Rib) {
    const Kel::Ptr<Vxlan::ReceivedHostTable> table = receivedTable();
    const Vxlan::ReceivedEntry* entry = table ? table->receivedEntry().find(key) : nullptr;
    return entry != nullptr ? printed(*entry) : json();
  }
  if (reader_) {
    const auto value = reader_->find(key);
    return value ? printed(*value) : json();
  }
  const auto host = world_.hosts->findHost(key);
  return host ? printed(*host) : json();
}

json OutputDocument::l2RibHosts() {
  json vlans = json::object();
  eachHost([&](const L2Rib::Host& host) {
    vlans[std::to_string(host.key.vlan.value())][host.key.mac.text()] = printed(host);
  });
  return vlans;
}

json OutputDocument::receivedHosts() {
  json vlans = json::object();
  if (const Kel::Ptr<Vxlan::ReceivedHostTable> table = receivedTable()) {
    for (auto&& entry : table->receivedEntry()) {
      vlans[std::to_string(entry.key.vlan.value())][entry.key.mac.text()] = printed(entry.value);
    }
  }
  return vlans;
}

json OutputDocument::section(const std::string& name) {
  if (name == "client") {
    return clientSection(world_);
  }
  if (name == "receivedHosts") {
    return receivedHosts();
  }
  if (name == "markedForDelCount") {
    const Kel::Ptr<Vxlan::ReceivedHostTable> table = receivedTable();
    return table ? table->markedForDelCount() : 0;
  }
  if (name == "l2Rib") {
    return {{"hosts", l2RibHosts()}, {"floodSets", floodSets(world_)}};
  }
  if (name == "hardware") {
    return hardware(world_);
  }
  if (name == "clientView") {
    return {{"convergenceInProgress", world_.clientView->convergenceInProgress()}};
  }
  if (name == "convergenceStatus") {
    return convergenceStatus(world_);
  }
  return {};
}

json OutputDocument::whole() {
  json document;
  for (const char* name : sectionNames) {
    document[name] = section(name);
  }
  return document;
}

json OutputDocument::at(const std::string& text) {
  if (text.empty()) {
    return whole();
  }
  const std::size_t slash = text.find('/', 1);
  const std::string name = text.substr(1, slash == std::string::npos ? slash : slash - 1);
  return partAt({{name, section(name)}}, text);
}

// Calls back with each host of one VLAN. For the layer-2 RIB that takes a look at every host.
void OutputDocument::eachHostIn(Bridging::VlanId vlan, bool l2Rib, const EachKey& call) {
  if (l2Rib) {
    eachHost([&](const L2Rib::Host& host) {
      if (host.key.vlan == vlan) {
        call(host.key);
      }
    });
  } else if (const Kel::Ptr<Vxlan::ReceivedHostTable> table = receivedTable()) {
    for (const Bridging::MacVlanPair& key : table->receivedEntryOfVlan(vlan)) {
      call(key);
    }
  }
}

// One VLAN with all its hosts; nothing if it has none.
json OutputDocument::wholeVlan(Bridging::VlanId vlan, bool l2Rib) {
  json hosts;
  eachHostIn(vlan, l2Rib,
             [&](const Bridging::MacVlanPair& key) { hosts[key.mac.text()] = hostOf(key, l2Rib); });
  return hosts;
}

// One VLAN with the hosts that are asked for by name; nothing if the VLAN has no host at all.
json OutputDocument::vlanLike(Bridging::VlanId vlan, const json& expected, bool l2Rib) {
  json hosts = json::object();
  for (auto host = expected.begin(); host != expected.end(); ++host) {
    const auto mac = Qnet::EthAddr::parse(host.key());
    json value = mac ? hostOf({*mac, vlan}, l2Rib) : json();
    if (!value.is_null()) {
      hosts[host.key()] = std::move(value);
    }
  }
  bool there = !hosts.empty();
  if (!there) {
    eachHostIn(vlan, l2Rib, [&](const Bridging::MacVlanPair&) { there = true; });
  }
  return there ? hosts : json();
}

json OutputDocument::hostsLike(const json& expected, bool l2Rib) {
  if (!expected.is_object()) {
    return l2Rib ? l2RibHosts() : receivedHosts();
  }
  json vlans = json::object();
  for (auto vlan = expected.begin(); vlan != expected.end(); ++vlan) {
    const auto number = Bridging::VlanId::parse(vlan.key());
    json hosts = !number             ? json()
                 : vlan->is_object() ? vlanLike(*number, *vlan, l2Rib)
                                     : wholeVlan(*number, l2Rib);
    if (!hosts.is_null()) {
      vlans[vlan.key()] = std::move(hosts);
    }
  }
  return vlans;
}

json OutputDocument::shapedLike(const json& expected) {
  json document = json::object();
  for (auto member = expected.begin(); member != expected.end(); ++member) {
    const std::string& name = member.key();
    if (name == "receivedHosts") {
      document[name] = hostsLike(*member, false);
    } else if (name == "l2Rib" && member->is_object()) {
      json& part = document[name] = json::object();
      part["hosts"] = member->contains("hosts") ? hostsLike(member->at("hosts"), true) : json::object();
      part["floodSets"] = member->contains("floodSets") ? floodSets(world_) : json::object();
    } else if (json value = section(name); !value.is_null()) {
      document[name] = std::move(value);
    }
  }
  return document;
}

}  // namespace Agent
