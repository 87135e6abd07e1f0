#include "agent/state/OutputDocument.h"

#include <algorithm>

#include "service/json/Text.h"

namespace Agent {
namespace {

using nlohmann::json;

std::string number(double value) {
  return json(value).dump();
}

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

// The common members of a received host and one of the layer-2 RIB, as the beginning of an object. Written by
// hand, since it is printed for each of a hundred thousand hosts.
std::string hostRecord(std::string_view intf, unsigned entryType, std::string_view vtepIp,
                       std::uint32_t moveCount, unsigned hostAttr, double lastUpdateTime) {
  std::string text = "{\"entryType\":" + std::to_string(entryType);
  text += ",\"hostAttr\":" + std::to_string(hostAttr);
  text += ",\"intf\":";
  Service::appendQuoted(text, intf);
  text += ",\"lastUpdateTime\":" + number(lastUpdateTime);
  text += ",\"moveCount\":" + std::to_string(moveCount);
  text += ",\"vtepIp\":\"";
  text += vtepIp;
  text += '"';
  return text;
}

std::string recordOf(const Vxlan::ReceivedEntry& entry) {
  return hostRecord(entry.intf.text(), static_cast<unsigned>(entry.entryType), entry.vtepIp.text(),
                    entry.moveCount, static_cast<unsigned>(entry.hostAttr), entry.lastUpdateTime) +
         (entry.markedForDel ? ",\"markedForDel\":true}" : ",\"markedForDel\":false}");
}

std::string recordOf(const L2Rib::HostValue& host) {
  return hostRecord(host.dest.intf().text(), static_cast<unsigned>(host.entryType),
                    host.dest.vtepAddr(L2Rib::CiVtepIndex::First).v4().text(), host.moveCount,
                    static_cast<unsigned>(host.hostAttr), host.lastUpdateTime) +
         '}';
}

class ReceivedHosts final : public HostTable {
 public:
  explicit ReceivedHosts(Kel::Ptr<Vxlan::ReceivedHostTable> table) : table_(std::move(table)) {}

  std::optional<Key> next() override {
    if (!table_) {
      return std::nullopt;
    }
    if (!begun_) {
      at_ = table_->receivedEntry().begin();
      begun_ = true;
    } else if (at_) {
      ++at_;
    }
    return at_ ? std::optional(at_->key) : std::nullopt;
  }
  std::string record(const Key& key) override {
    const Vxlan::ReceivedEntry* entry = table_ ? table_->receivedEntry().find(key) : nullptr;
    return entry != nullptr ? recordOf(*entry) : std::string();
  }
  std::optional<std::vector<Key>> fewOf(Bridging::VlanId vlan, std::size_t most) override {
    std::vector<Key> keys;
    if (table_) {
      for (const Key& key : table_->receivedEntryOfVlan(vlan)) {
        if (keys.size() == most) {
          return std::nullopt;
        }
        keys.push_back(key);
      }
    }
    return keys;
  }
  std::uint64_t stamp() const override { return table_ ? 1 + table_->receivedEntry().version() : 0; }

 private:
  Kel::Ptr<Vxlan::ReceivedHostTable> table_;
  Vxlan::ReceivedHostTable::Entries::Iterator at_{};
  bool begun_ = false;
};

// Its keys come from the writer, whose walk can pause; its records from the reader, if there is one.
class L2RibHosts final : public HostTable {
 public:
  using Reader = Memtab::Reader<Bridging::MacVlanPair, L2Rib::HostValue>;

  L2RibHosts(Kel::Ptr<L2Rib::HostInput> hosts, Reader* reader) : hosts_(std::move(hosts)), reader_(reader) {}

  std::optional<Key> next() override {
    const auto host = last_ ? hosts_->nextHost(*last_) : hosts_->firstHost();
    if (!host) {
      return std::nullopt;
    }
    last_ = host->key;
    return last_;
  }
  std::string record(const Key& key) override {
    if (reader_ != nullptr) {
      const auto value = reader_->find(key);
      return value ? recordOf(*value) : std::string();
    }
    const auto host = hosts_->findHost(key);
    return host ? recordOf(*host) : std::string();
  }

 private:
  Kel::Ptr<L2Rib::HostInput> hosts_;
  Reader* reader_;
  std::optional<Key> last_;
};

Service::Part floodSetRecord(const L2Rib::FloodSet& set) {
  std::vector<Qnet::IpAddr> addresses;
  for (auto&& dest : set.destSet()) {
    addresses.push_back(dest.key.vxlan().vtepAddr().v4());
  }
  std::sort(addresses.begin(), addresses.end());
  json dests = json::array();
  for (const Qnet::IpAddr address : addresses) {
    dests.push_back(address.text());
  }
  return Service::recordOf(
      {{"floodSetType", static_cast<std::uint32_t>(set.floodSetType())}, {"dests", std::move(dests)}});
}

// A VLAN without a flood set is not shown.
class FloodSetsOfVlan final : public Service::Branch {
 public:
  explicit FloodSetsOfVlan(std::unique_ptr<Service::Branch> sets) : sets_(std::move(sets)) {}
  Service::Walked next(std::string& name, Service::Part& part) override { return sets_->next(name, part); }
  Service::Part find(const std::string& name) override { return sets_->find(name); }
  bool shownEmpty() const override { return false; }

 private:
  std::unique_ptr<Service::Branch> sets_;
};

Service::Part floodSets(const World& world) {
  const auto ofVlan = [](const Kel::Ptr<L2Rib::VlanFloodSet>& vlan) {
    const auto ofMac = [](const Kel::Ptr<L2Rib::FloodSet>& set) { return floodSetRecord(*set); };
    return Service::Part(std::make_unique<FloodSetsOfVlan>(
        collectionBranch(vlan, vlan->floodSet(), &Qnet::EthAddr::parse, ofMac)));
  };
  return Service::Part(
      collectionBranch(world.floodSets, world.floodSets->vlanFloodSet(), &Bridging::VlanId::parse, ofVlan));
}

json addressList(const Vxlan::BumVtepList& list) {
  json addresses = json::array();
  for (auto&& address : list.remoteVtepAddr()) {
    if (address.value) {
      addresses.push_back(address.key.text());
    }
  }
  return addresses;
}

Service::Part hardware(const World& world) {
  auto members = std::make_unique<Service::Members>();
  members->add("bumReplicationMode", [&world] {
    return Service::recordOf(static_cast<std::uint32_t>(world.hwStatus->bumStatus()->bumReplicationMode()));
  });
  members->add("bumVtepList", [&world] {
    return Service::Part(std::make_unique<VlansBranch>(
        [&world] { return std::make_unique<BumVtepLists>(world.hwStatus->bumStatus(), &addressList); }));
  });
  return Service::Part(std::move(members));
}

json convergenceStatus(const World& world) {
  return {{"unicastDeferredDeletionInProgress", world.convergenceStatus->unicastDeferredDeletionInProgress()},
          {"bumDeferredDeletionInProgress", world.convergenceStatus->bumDeferredDeletionInProgress()}};
}

Kel::Ptr<Vxlan::ReceivedHostTable> receivedTable(const World& world) {
  return world.client ? world.client->hostTable() : nullptr;
}

}  // namespace

OutputDocument::OutputDocument(const World& world, const std::string& hostTable) : world_(world) {
  if (!hostTable.empty()) {
    reader_ = std::make_unique<Reader>(hostTable, L2Rib::hostSchema);
  }
}

Service::Part OutputDocument::l2RibHosts() {
  return Service::Part(std::make_unique<VlansBranch>(
      [this] { return std::make_unique<L2RibHosts>(world_.hosts, reader_.get()); }));
}

Service::Part OutputDocument::receivedHosts() {
  return Service::Part(std::make_unique<VlansBranch>(
      [this] { return std::make_unique<ReceivedHosts>(receivedTable(world_)); }));
}

Service::Part OutputDocument::l2Rib() {
  auto members = std::make_unique<Service::Members>();
  members->add("floodSets", [this] { return floodSets(world_); });
  members->add("hosts", [this] { return l2RibHosts(); });
  return Service::Part(std::move(members));
}

Service::Part OutputDocument::part() {
  auto members = std::make_unique<Service::Members>();
  members->add("client", [this] { return Service::recordOf(clientSection(world_)); });
  members->add("clientView", [this] {
    return Service::recordOf({{"convergenceInProgress", world_.clientView->convergenceInProgress()}});
  });
  members->add("convergenceStatus", [this] { return Service::recordOf(convergenceStatus(world_)); });
  members->add("hardware", [this] { return hardware(world_); });
  members->add("l2Rib", [this] { return l2Rib(); });
  members->add("markedForDelCount", [this] {
    const Kel::Ptr<Vxlan::ReceivedHostTable> table = receivedTable(world_);
    return Service::recordOf(table ? table->markedForDelCount() : 0);
  });
  members->add("receivedHosts", [this] { return receivedHosts(); });
  return Service::Part(std::move(members));
}

// The hosts that are asked for by name; of a VLAN that is asked for as a whole, all.
json OutputDocument::hostsLike(const json& expected, Service::Part hosts) {
  if (!expected.is_object()) {
    return jsonOf(std::move(hosts));
  }
  json vlans = json::object();
  for (auto vlan = expected.begin(); vlan != expected.end(); ++vlan) {
    json& shown = vlans[vlan.key()] = json::object();
    Service::Part there = hosts.branch->find(vlan.key());
    for (auto host = vlan->begin(); vlan->is_object() && there.branch && host != vlan->end(); ++host) {
      if (const Service::Part record = there.branch->find(host.key()); record.there()) {
        shown[host.key()] = Service::parseJson(record.text);
      }
    }
    // A VLAN is absent if it has no host at all.
    if (shown.empty()) {
      json whole = jsonOf(std::move(there));
      if (whole.is_null()) {
        vlans.erase(vlan.key());
      } else if (!vlan->is_object()) {
        shown = std::move(whole);
      }
    }
  }
  return vlans;
}

json OutputDocument::shapedLike(const json& expected) {
  json document = json::object();
  for (auto member = expected.begin(); member != expected.end(); ++member) {
    const std::string& name = member.key();
    if (name == "receivedHosts") {
      document[name] = hostsLike(*member, receivedHosts());
    } else if (name == "l2Rib" && member->is_object()) {
      json& part = document[name] = json::object();
      part["hosts"] =
          member->contains("hosts") ? hostsLike(member->at("hosts"), l2RibHosts()) : json::object();
      part["floodSets"] = member->contains("floodSets") ? jsonOf(floodSets(world_)) : json::object();
    } else if (json value = jsonOf(part().branch->find(name)); !value.is_null()) {
      document[name] = std::move(value);
    }
  }
  return document;
}

}  // namespace Agent
