#include "agent/state/Branches.h"

namespace Agent {
namespace {

using Key = HostTable::Key;

constexpr std::size_t fewHosts = 1'000;  // of a VLAN, are collected at once

// One VLAN, of which the keys are known.
class KnownVlan final : public Branch {
 public:
  KnownVlan(std::shared_ptr<HostTable> table, Bridging::VlanId vlan, std::vector<Key> keys)
      : table_(std::move(table)), vlan_(vlan), keys_(std::move(keys)) {}

  Walked next(std::string& name, Part& part) override {
    if (at_ == keys_.size()) {
      return Walked::end;
    }
    const Key& key = keys_[at_++];
    part = Part(table_->record(key));
    name = key.mac.text();
    return part.there() ? Walked::member : Walked::search;
  }
  Part find(const std::string& name) override { return findIn(*table_, vlan_, name); }
  bool shownEmpty() const override { return false; }

  static Part findIn(HostTable& table, Bridging::VlanId vlan, const std::string& name) {
    const auto mac = Qnet::EthAddr::parse(name);
    return mac ? Part(table.record({*mac, vlan})) : Part();
  }

 private:
  std::shared_ptr<HostTable> table_;
  Bridging::VlanId vlan_;
  std::vector<Key> keys_;
  std::size_t at_ = 0;
};

// One VLAN, found by a walk of the whole table unless it has few hosts.
class SoughtVlan final : public Branch {
 public:
  SoughtVlan(std::unique_ptr<HostTable> table, Bridging::VlanId vlan)
      : table_(std::move(table)), vlan_(vlan) {}

  Walked next(std::string& name, Part& part) override {
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
      return Walked::end;
    }
    if (key->vlan != vlan_) {
      return Walked::search;
    }
    part = Part(table_->record(*key));
    name = key->mac.text();
    return part.there() ? Walked::member : Walked::search;
  }
  Part find(const std::string& name) override { return KnownVlan::findIn(*table_, vlan_, name); }
  std::uint64_t stamp() const override { return table_->stamp(); }
  bool shownEmpty() const override { return false; }

 private:
  std::shared_ptr<HostTable> table_;
  Bridging::VlanId vlan_;
  bool begun_ = false;
  std::unique_ptr<KnownVlan> known_;
};

}  // namespace

Walked DirBranch::next(std::string& name, Part& part) {
  if (!begun_) {
    at_ = dir_->begin();
    begun_ = true;
  } else if (at_) {
    ++at_;
  }
  if (!at_) {
    return Walked::end;
  }
  name = at_->key.text();
  part = partOf_(at_->value);
  return Walked::member;
}

Part DirBranch::find(const std::string& name) {
  const Kel::Name key(name);
  return dir_->hasEntry(key) ? partOf_(dir_->entityPtr(key)) : Part();
}

Walked VlansBranch::next(std::string& name, Part& part) {
  if (!collected_) {
    if (const auto key = table_->next()) {
      vlans_[key->vlan].push_back(*key);
    } else {
      collected_ = true;
    }
    return Walked::search;
  }
  if (vlans_.empty()) {
    return Walked::end;
  }
  auto vlan = vlans_.extract(vlans_.begin());
  name = nameOfKey(vlan.key());
  part = Part(std::make_unique<KnownVlan>(table_, vlan.key(), std::move(vlan.mapped())));
  return Walked::member;
}

Part VlansBranch::find(const std::string& name) {
  const auto vlan = Bridging::VlanId::parse(name);
  return vlan ? Part(std::make_unique<SoughtVlan>(make_(), *vlan)) : Part();
}

}  // namespace Agent
