// Branches of the state document over the tables of the state database.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Dir.h"
#include "Kel/Ptr.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/BumStatus.h"
#include "service/json/Parts.h"

namespace Agent {

// The text of a key as a member's name.
template <class Key>
std::string nameOfKey(const Key& key) {
  if constexpr (requires { key.text(); }) {
    return key.text();
  } else {
    return std::to_string(key.value());
  }
}

// A collection of an entity, which is held while it is walked. `keyOf` makes a key of a member's name, if it
// is one; `partOf` prints a value.
template <class Owner, class Collection, class KeyOf, class PartOf>
class CollectionBranch final : public Service::Branch {
 public:
  CollectionBranch(Owner owner, const Collection& collection, KeyOf keyOf, PartOf partOf)
      : owner_(std::move(owner)), collection_(collection), keyOf_(keyOf), partOf_(partOf) {}

  Service::Walked next(std::string& name, Service::Part& part) override {
    if (!begun_) {
      at_ = collection_.begin();
      begun_ = true;
    } else if (at_ != collection_.end()) {
      ++at_;
    }
    if (at_ == collection_.end()) {
      return Service::Walked::end;
    }
    auto&& entry = *at_;
    part = partOf_(entry.value);
    name = nameOfKey(entry.key);
    return part.there() ? Service::Walked::member : Service::Walked::search;
  }
  Service::Part find(const std::string& name) override {
    const auto key = keyOf_(name);
    const auto* value = key ? collection_.find(*key) : nullptr;
    return value == nullptr ? Service::Part() : partOf_(*value);
  }

 private:
  Owner owner_;
  const Collection& collection_;
  KeyOf keyOf_;
  PartOf partOf_;
  typename Collection::Iterator at_{};
  bool begun_ = false;
};

template <class Owner, class Collection, class KeyOf, class PartOf>
auto collectionBranch(Owner owner, const Collection& collection, KeyOf keyOf, PartOf partOf) {
  return std::make_unique<CollectionBranch<Owner, Collection, KeyOf, PartOf>>(std::move(owner), collection,
                                                                              keyOf, partOf);
}

// The entries of a directory; `partOf` prints one, whose entity is null while it is announced.
class DirBranch final : public Service::Branch {
 public:
  using PartOf = std::function<Service::Part(const Kel::Ptr<Kel::Entity>&)>;

  DirBranch(Kel::Ptr<Kel::Dir> dir, PartOf partOf) : dir_(std::move(dir)), partOf_(std::move(partOf)) {}

  Service::Walked next(std::string& name, Service::Part& part) override;
  Service::Part find(const std::string& name) override;

 private:
  Kel::Ptr<Kel::Dir> dir_;
  PartOf partOf_;
  decltype(std::declval<const Kel::Dir&>().begin()) at_{};
  bool begun_ = false;
};

// A table with a record for a MAC in a VLAN, and a walk of it that may pause.
class HostTable {
 public:
  using Key = Bridging::MacVlanPair;

  virtual ~HostTable() = default;
  // The next key of the walk; nothing at its end.
  virtual std::optional<Key> next() = 0;
  // The record of a key; empty if there is none.
  virtual std::string record(const Key& key) = 0;
  // The keys of a VLAN, if they can be had at once and are no more than `most`.
  virtual std::optional<std::vector<Key>> fewOf(Bridging::VlanId /*vlan*/, std::size_t /*most*/) {
    return std::nullopt;
  }
  // As of a branch.
  virtual std::uint64_t stamp() const { return 0; }
};

using MakeHostTable = std::function<std::unique_ptr<HostTable>()>;

// The BUM VTEP lists of a status; `addressesOf` prints the addresses of one.
class BumVtepLists final : public HostTable {
 public:
  using AddressesOf = nlohmann::json (*)(const Vxlan::BumVtepList& list);

  BumVtepLists(Kel::Ptr<Vxlan::BumStatus> status, AddressesOf addressesOf)
      : status_(std::move(status)), addressesOf_(addressesOf) {}

  std::optional<Key> next() override;
  std::string record(const Key& key) override;

 private:
  Kel::Ptr<Vxlan::BumStatus> status_;
  AddressesOf addressesOf_;
  Vxlan::BumStatus::Lists::Iterator at_{};
  bool begun_ = false;
};

// Such a table as {VLAN: {MAC: record}}. Its keys are collected first, 8 bytes each, since a table is in no
// order of VLANs.
class VlansBranch final : public Service::Branch {
 public:
  explicit VlansBranch(MakeHostTable make) : make_(std::move(make)), table_(make_()) {}

  Service::Walked next(std::string& name, Service::Part& part) override;
  // A VLAN, which may turn out to be empty.
  Service::Part find(const std::string& name) override;
  std::uint64_t stamp() const override { return table_->stamp(); }

 private:
  MakeHostTable make_;
  std::shared_ptr<HostTable> table_;
  bool collected_ = false;
  std::map<Bridging::VlanId, std::vector<HostTable::Key>> vlans_;
};

}  // namespace Agent
