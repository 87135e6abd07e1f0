#include "agent/state/Branches.h"

#include <nlohmann/json.hpp>

namespace Agent {
namespace {

using Key = HostTable::Key;

constexpr std::size_t fewHosts = 1'000;  // of a VLAN, are collected at once

// One VLAN, of which the keys are known.
class KnownVlan final : public Service::Branch {
 public:
  KnownVlan(std::shared_ptr<HostTable> table, Bridging::VlanId vlan, std::vector<Key> keys)
      : table_(std::move(table)), vlan_(vlan), keys_(std::move(keys)) {}

  Service::Walked next(std::string& name, Service::Part& part) override {
    if (at_ == keys_.size()) {
      return Service::Walked::end;
    }
    const Key& key = keys_[at_++];
    part = Service::Part(table_->record(key));
    name = key.mac.text();
    return part.there() ? Service::Walked::member : Service::Walked::search;
  }
  Service::Part find(const std::string& name) override { return findIn(*table_, vlan_, name); }
  bool shownEmpty() const override { return false; }

  static Service::Part findIn(HostTable& table, Bridging::VlanId vlan, const std::string& name) {
    const auto mac = Qnet::EthAddr::parse(name);
    return mac ? Service::Part(table.record({*mac, vlan})) : Service::Part();
  }

 private:
  std::shared_ptr<HostTable> table_;
  Bridging::VlanId vlan_;
  std::vector<Key> keys_;
  std::size_t at_ = 0;
};

// One VLAN, found by a walk of the whole table unless it has few hosts.
class SoughtVlan final : public Service::Branch {
 public:
  SoughtVlan(std::unique_ptr<HostTable> table, Bridging::VlanId vlan)
      : table_(std::move(table)), vlan_(vlan) {}

  Service::Walked next(std::string& name, Service::Part& part) override {
    if (!begun_) {
      begun_ = true;
      if (auto keys = table_->fewOf(vlan_, fewHosts)) {
        known_ = std::make_unique<KnownVlan>(table_, vlan_, std::move(*keys));
      }
    }
    if (known_) {
      return known_->next(name, part);
    }
    const auto key = table_->next();
    if (!key) {
      return Service::Walked::end;
    }
    if (key->vlan != vlan_) {
      return Service::Walked::search;
    }
    part = Service::Part(table_->record(*key));
    name = key->mac.text();
    return part.there() ? Service::Walked::member : Service::Walked::search;
  }
  Service::Part find(const std::string& name) override { return KnownVlan::findIn(*table_, vlan_, name); }
  std::uint64_t stamp() const override { return table_->stamp(); }
  bool shownEmpty() const override { return false; }

 private:
  std::shared_ptr<HostTable> table_;
  Bridging::VlanId vlan_;
  bool begun_ = false;
  std::unique_ptr<KnownVlan> known_;
};

}  // namespace

std::optional<Key> BumVtepLists::next() {
  if (!begun_) {
    at_ = status_->bumVtepList().begin();
    begun_ = true;
  } else if (at_) {
    ++at_;
  }
  return at_ ? std::optional(Key{at_->key.mac, at_->key.vlan}) : std::nullopt;
}

std::string BumVtepLists::record(const Key& key) {
  const Kel::Ptr<Vxlan::BumVtepList> list = status_->bumVtepList({key.mac, key.vlan});
  if (!list) {
    return {};
  }
  return Service::recordOf({{"bumVtepIpListType", static_cast<std::uint32_t>(list->bumVtepIpListType())},
                            {"remoteVtepAddr", addressesOf_(*list)}})
      .text;
}

Service::Walked DirBranch::next(std::string& name, Service::Part& part) {
  if (!begun_) {
    at_ = dir_->begin();
    begun_ = true;
  } else if (at_) {
    ++at_;
  }
  if (!at_) {
    return Service::Walked::end;
  }
  name = at_->key.text();
  part = partOf_(at_->value);
  return Service::Walked::member;
}

Service::Part DirBranch::find(const std::string& name) {
  const Kel::Name key(name);
  return dir_->hasEntry(key) ? partOf_(dir_->entityPtr(key)) : Service::Part();
}

Service::Walked VlansBranch::next(std::string& name, Service::Part& part) {
  if (!collected_) {
    if (const auto key = table_->next()) {
      vlans_[key->vlan].push_back(*key);
    } else {
      collected_ = true;
    }
    return Service::Walked::search;
  }
  if (vlans_.empty()) {
    return Service::Walked::end;
  }
  auto vlan = vlans_.extract(vlans_.begin());
  name = nameOfKey(vlan.key());
  part = Service::Part(std::make_unique<KnownVlan>(table_, vlan.key(), std::move(vlan.mapped())));
  return Service::Walked::member;
}

Service::Part VlansBranch::find(const std::string& name) {
  const auto vlan = Bridging::VlanId::parse(name);
  return vlan ? Service::Part(std::make_unique<SoughtVlan>(make_(), *vlan)) : Service::Part();
}

}  // namespace Agent
