// A hashed table of hosts that also knows the hosts of each VLAN.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "Kel/HashIndex.h"
#include "Kel/Table.h"
#include "Vxlan/types/Bridging.h"

namespace Vxlan {

// A Kel::Table whose keys have a VLAN. The pairs of one VLAN are linked with each other through their slot
// numbers (8 bytes a host), so that walking one VLAN costs what that VLAN holds, not what the table holds.
template <class K, class V>
class VlanTable : private Kel::Table<K, V> {
  using Base = Kel::Table<K, V>;
  static constexpr std::uint32_t none = Kel::HashIndex::none;

 public:
  using Base::at;
  using Base::begin;
  using Base::contains;
  using Base::empty;
  using Base::end;
  using Base::find;
  using Base::size;
  using Base::valueIn;
  using typename Base::Entered;
  using typename Base::Iterator;
  using typename Base::Pair;

  VlanTable() { vlans_.fill({none, none}); }

  template <class... Args>
  std::pair<Iterator, bool> emplace(const K& key, Args&&... args) {
    const Entered entered = enter(key, std::forward<Args>(args)...);
    return {this->atSlot(entered.slot), entered.added};
  }
  template <class... Args>
  Entered enter(const K& key, Args&&... args) {
    const Entered entered = Base::enter(key, std::forward<Args>(args)...);
    if (entered.added) {
      link(key.vlan, entered.slot);
    }
    return entered;
  }

  bool erase(const K& key) {
    const Iterator place = Base::at(key);
    if (!place) {
      return false;
    }
    unlink(key.vlan, place.slot());
    return Base::erase(key);
  }

  // The keys of one VLAN, in the order in which they came, to be walked once. The pair that the walk is at
  // may be removed.
  class VlanKeys {
   public:
    VlanKeys(const VlanTable& table, Bridging::VlanId vlan) : table_(table) {
      standAt(table.vlans_[vlan.value()].first);
    }
    VlanKeys begin() const { return *this; }
    std::default_sentinel_t end() const { return {}; }
    const K& operator*() const { return key_; }
    VlanKeys& operator++() {
      standAt(next_);
      return *this;
    }
    bool operator==(std::default_sentinel_t) const { return slot_ == none; }

   private:
    void standAt(std::uint32_t slot) {
      slot_ = slot;
      if (slot != none) {
        key_ = table_.atSlot(slot)->key;
        next_ = table_.linkAt(slot).next;
      }
    }

    const VlanTable& table_;
    std::uint32_t slot_ = none;
    std::uint32_t next_ = none;
    K key_;
  };
  VlanKeys ofVlan(Bridging::VlanId vlan) const { return VlanKeys(*this, vlan); }

 private:
  struct Ends {
    std::uint32_t first;
    std::uint32_t last;
  };
  struct Link {
    std::uint32_t previous;
    std::uint32_t next;
  };

  void link(Bridging::VlanId vlan, std::uint32_t slot) {
    if (slot / blockLinks >= links_.size()) [[unlikely]] {
      links_.resize(slot / blockLinks + 1);
    }
    if (links_[slot / blockLinks] == nullptr) [[unlikely]] {
      links_[slot / blockLinks].reset(new Link[blockLinks]);
    }
    Ends& ends = vlans_[vlan.value()];
    linkAt(slot) = {ends.last, none};
    (ends.last == none ? ends.first : linkAt(ends.last).next) = slot;
    ends.last = slot;
  }
  void unlink(Bridging::VlanId vlan, std::uint32_t slot) {
    Ends& ends = vlans_[vlan.value()];
    const Link link = linkAt(slot);
    (link.previous == none ? ends.first : linkAt(link.previous).next) = link.next;
    (link.next == none ? ends.last : linkAt(link.next).previous) = link.previous;
  }
  Link& linkAt(std::uint32_t slot) const { return links_[slot / blockLinks][slot % blockLinks]; }

  static constexpr std::uint32_t blockLinks = 2048;  // 16 KiB

  std::array<Ends, Bridging::VlanId::max + 1> vlans_;
  std::vector<std::unique_ptr<Link[]>>
      links_;  // by slot number, in blocks; each link is written before it is read
};

}  // namespace Vxlan
