#include "agent/state/OutputDocument.h"

#include <algorithm>

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

json OutputDocument::host(const Bridging::MacVlanPair& key) {
  if (reader_) {
    const auto value = reader_->find(key);
    return value ? printed(*value) : json();
  }
  const auto host = world_.hosts->host(key);
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
  if (world_.client && world_.client->hostTable()) {
    for (auto&& entry : world_.client->hostTable()->receivedEntry()) {
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
    return world_.client && world_.client->hostTable() ? world_.client->hostTable()->markedForDelCount() : 0;
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
  const json::json_pointer pointer(text);
  if (pointer.empty()) {
    return whole();
  }
  const std::size_t slash = text.find('/', 1);
  const std::string name = text.substr(1, slash == std::string::npos ? slash : slash - 1);
  const json part = {{name, section(name)}};
  return part.contains(pointer) ? part.at(pointer) : json();
}

// Whether the layer-2 RIB has a host in the VLAN: a look at every host.
bool OutputDocument::hasHostIn(Bridging::VlanId vlan) {
  bool found = false;
  eachHost([&](const L2Rib::Host& host) { found = found || host.key.vlan == vlan; });
  return found;
}

// One VLAN with the hosts that are asked for by name; nothing if the VLAN has no host at all.
json OutputDocument::vlanLike(Bridging::VlanId vlan, const json& expected, bool l2Rib) {
  const Kel::Ptr<Vxlan::ReceivedHostTable> table = world_.client ? world_.client->hostTable() : nullptr;
  json hosts = json::object();
  for (auto host = expected.begin(); expected.is_object() && host != expected.end(); ++host) {
    const auto mac = Qnet::EthAddr::parse(host.key());
    if (!mac) {
      continue;
    }
    const Bridging::MacVlanPair key{*mac, vlan};
    const Vxlan::ReceivedEntry* entry = !l2Rib && table ? table->receivedEntry().find(key) : nullptr;
    json value = l2Rib ? this->host(key) : entry != nullptr ? printed(*entry) : json();
    if (!value.is_null()) {
      hosts[host.key()] = std::move(value);
    }
  }
  bool there = !hosts.empty();
  if (!there && l2Rib) {
    there = hasHostIn(vlan);
  } else if (!there && table) {
    table->eachOfVlan(vlan, [&](const Bridging::MacVlanPair&) { there = true; });
  }
  return there ? hosts : json();
}

json OutputDocument::hostsLike(const json& expected, bool l2Rib) {
  json vlans = json::object();
  for (auto vlan = expected.begin(); expected.is_object() && vlan != expected.end(); ++vlan) {
    const auto number = Bridging::VlanId::parse(vlan.key());
    json hosts = number ? vlanLike(*number, *vlan, l2Rib) : json();
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
