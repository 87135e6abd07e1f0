#include "agent/daemon/FloodFollower.h"

#include <string>
#include <utility>

namespace Agent {

class FloodFollower::FloodReactor final : public Kel::Follows<L2Rib::SourceDirEntry> {
 public:
  explicit FloodReactor(FloodFollower& follower) : follower_(follower) {}
  void onVlanFloodSet(Bridging::VlanId vlan) override { follower_.vlanFloods(vlan); }
  void onVlanFloodSetkelImmediate() override {
    for (auto&& vlan : notifier()->vlanFloodSet()) {
      follower_.vlanFloods(vlan.key);
    }
  }

 private:
  FloodFollower& follower_;
};

class FloodFollower::VlanReactor final : public Kel::Follows<L2Rib::VlanFloodSet> {
 public:
  VlanReactor(FloodFollower& follower, Bridging::VlanId vlan) : follower_(follower), vlan_(vlan) {}
  void onFloodSet(Qnet::EthAddr mac) override { follower_.flood(vlan_, mac); }

 private:
  FloodFollower& follower_;
  Bridging::VlanId vlan_;
};

class FloodFollower::SetReactor final : public Kel::Follows<L2Rib::FloodSet> {
 public:
  SetReactor(FloodFollower& follower, Bridging::VlanId vlan, const Qnet::EthAddr& mac)
      : follower_(follower), vlan_(vlan), mac_(mac) {}
  void onFloodSetType() override { follower_.written(vlan_, mac_); }
  void onDestSet() override { follower_.written(vlan_, mac_); }

 private:
  FloodFollower& follower_;
  Bridging::VlanId vlan_;
  Qnet::EthAddr mac_;
};

class FloodFollower::ViewReactor final : public Kel::Follows<VxlanController::RmxStateClientViewV2> {
 public:
  explicit ViewReactor(FloodFollower& follower) : follower_(follower) {}
  void onConvergenceInProgress() override { follower_.convergenceChanged(); }

 private:
  FloodFollower& follower_;
};

class FloodFollower::DirReactor final : public Kel::Follows<Kel::Dir> {
 public:
  explicit DirReactor(FloodFollower& follower) : follower_(follower) {}
  void onEntityPtr(Kel::Name name) override { follower_.vniEntity(name); }

 private:
  FloodFollower& follower_;
};

class FloodFollower::VniReactor final : public Kel::Follows<VxlanController::VniFdbStatusV2> {
 public:
  VniReactor(FloodFollower& follower, Vxlan::VniExt vni) : follower_(follower), vni_(vni) {}
  // A set that waits is not affected when a collection goes as a whole.
  void onMacVtepFloodListTable() override {}
  void onMacVtepMultiPathTable() override {}
  void onMacVtepFloodListTable(Qnet::EthAddr mac) override { follower_.published(vni_, mac); }
  void onMacVtepMultiPathTable(Qnet::EthAddr mac) override { follower_.published(vni_, mac); }

 private:
  FloodFollower& follower_;
  Vxlan::VniExt vni_;
};

FloodFollower::FloodFollower(const World& world, Sink& sink) : world_(world), sink_(sink) {
  view_ = Kel::make<ViewReactor>(*this);
  view_->notifierIs(world.clientView);
  vnis_ = Kel::make<DirReactor>(*this);
  vnis_->notifierIs(world.fdb);
  floods_ = Kel::make<FloodReactor>(*this);
  floods_->notifierIs(world.floodSets);
}

FloodFollower::~FloodFollower() {
  view_->notifierIs(nullptr);
  vnis_->notifierIs(nullptr);
  floods_->notifierIs(nullptr);
  for (const auto& [vlan, reactor] : vlans_) {
    reactor->notifierIs(nullptr);
  }
  for (const auto& [vlan, sets] : sets_) {
    for (const auto& [mac, set] : sets) {
      set.reactor->notifierIs(nullptr);
    }
  }
  for (const auto& [vni, awaited] : awaited_) {
    awaited.reactor->notifierIs(nullptr);
  }
}

// The flood sets of a VLAN came, went or were replaced as a whole.
void FloodFollower::vlanFloods(Bridging::VlanId vlan) {
  const Kel::Ptr<L2Rib::VlanFloodSet> floods = world_.floodSets->vlanFloodSet(vlan);
  auto& reactor = vlans_[vlan];
  if (floods) {
    if (!reactor) {
      reactor = Kel::make<VlanReactor>(*this, vlan);
    }
    reactor->notifierIs(floods);
  } else {
    if (reactor) {
      reactor->notifierIs(nullptr);
    }
    vlans_.erase(vlan);
  }
  // Those of before that are not in the set that is there now.
  std::vector<Qnet::EthAddr> gone;
  if (const auto sets = sets_.find(vlan); sets != sets_.end()) {
    for (const auto& [mac, set] : sets->second) {
      if (!(floods && floods->floodSet(mac))) {
        gone.push_back(mac);
      }
    }
  }
  for (const Qnet::EthAddr& mac : gone) {
    flood(vlan, mac);
  }
}

// One flood set came, went or was replaced. The reactor that is bound to it hears it as written.
void FloodFollower::flood(Bridging::VlanId vlan, const Qnet::EthAddr& mac) {
  const Kel::Ptr<L2Rib::VlanFloodSet> floods = world_.floodSets->vlanFloodSet(vlan);
  const Kel::Ptr<L2Rib::FloodSet> entity = floods ? floods->floodSet(mac) : nullptr;
  if (entity) {
    Set& set = sets_[vlan][mac];
    if (!set.reactor) {
      set.reactor = Kel::make<SetReactor>(*this, vlan, mac);
    }
    set.reactor->notifierIs(entity);
    return;
  }
  const auto sets = sets_.find(vlan);
  if (sets == sets_.end()) {
    return;
  }
  if (const auto at = sets->second.find(mac); at != sets->second.end()) {
    drop(vlan, mac, at->second);
    sets->second.erase(at);
  }
  if (sets->second.empty()) {
    sets_.erase(sets);
  }
}

void FloodFollower::drop(Bridging::VlanId vlan, const Qnet::EthAddr& mac, Set& set) {
  set.reactor->notifierIs(nullptr);
  await(set, {});
  if (std::exchange(set.told, false)) {
    sink_.floodDel(vlan, mac);
  }
}

// The client writes a VLAN's sets for the VNI that the VLAN has, and for no other.
void FloodFollower::written(Bridging::VlanId vlan, const Qnet::EthAddr& mac) {
  const auto sets = sets_.find(vlan);
  if (sets == sets_.end()) {
    return;
  }
  if (const auto at = sets->second.find(mac); at != sets->second.end()) {
    at->second.writtenBy = vniOf(vlan);
    decide(vlan, mac, at->second);
  }
}

void FloodFollower::mappingChanged(Bridging::VlanId vlan) {
  if (const auto sets = sets_.find(vlan); sets != sets_.end()) {
    for (auto& [mac, set] : sets->second) {
      decide(vlan, mac, set);
    }
  }
}

// The controller publishes something of this address in a VNI that a set waits for.
void FloodFollower::published(Vxlan::VniExt vni, const Qnet::EthAddr& mac) {
  for (auto& [vlan, sets] : sets_) {
    const auto at = sets.find(mac);
    if (at != sets.end() && at->second.awaits && at->second.awaits.value() == vni.value()) {
      decide(vlan, mac, at->second);
    }
  }
}

// A VNI of the controller came, went or was replaced.
void FloodFollower::vniEntity(const Kel::Name& name) {
  for (const auto& [vni, awaited] : awaited_) {
    if (std::to_string(vni) == name.text()) {
      const Kel::Ptr<VniReactor> reactor = awaited.reactor;
      reactor->notifierIs(statusOf(Vxlan::VniExtOrNone(vni)));
      return;
    }
  }
}

void FloodFollower::convergenceChanged() {
  if (world_.clientView->convergenceInProgress()) {
    return;
  }
  for (auto& [vlan, sets] : sets_) {
    for (auto& [mac, set] : sets) {
      decide(vlan, mac, set);
    }
  }
}

void FloodFollower::decide(Bridging::VlanId vlan, const Qnet::EthAddr& mac, Set& set) {
  const Vxlan::VniExtOrNone now = vniOf(vlan);
  if (now && set.writtenBy != now && publishes(now, mac)) {
    set.writtenBy = now;  // written again as it was
  }
  if (now && set.writtenBy == now) {
    await(set, {});
    const L2Rib::FloodSet& entity = *set.reactor->notifier();
    std::vector<Qnet::IpAddr> vteps;
    for (auto&& dest : entity.destSet()) {
      vteps.push_back(dest.key.vxlan().vtepAddr().v4());
    }
    set.told = true;
    sink_.floodIs(vlan, mac, entity.floodSetType(), std::move(vteps));
    return;
  }
  await(set, now);
  if (set.told && !world_.clientView->convergenceInProgress()) {
    set.told = false;
    sink_.floodDel(vlan, mac);
  }
}

// Follows the VNI as long as a set waits for it.
void FloodFollower::await(Set& set, Vxlan::VniExtOrNone vni) {
  if (set.awaits == vni) {
    return;
  }
  if (set.awaits) {
    const auto at = awaited_.find(set.awaits.value());
    if (--at->second.sets == 0) {
      at->second.reactor->notifierIs(nullptr);
      awaited_.erase(at);
    }
  }
  set.awaits = vni;
  if (vni) {
    Awaited& awaited = awaited_[vni.value()];
    if (awaited.sets++ == 0) {
      awaited.reactor = Kel::make<VniReactor>(*this, Vxlan::VniExt(vni));
      awaited.reactor->notifierIs(statusOf(vni));
    }
  }
}

Vxlan::VniExtOrNone FloodFollower::vniOf(Bridging::VlanId vlan) const {
  for (auto&& map : world_.vlanVniMaps->vlanVniMap()) {
    if (const Vxlan::VniExtOrNone vni = map.value->vlanToVsp(vlan).vni) {
      return vni;
    }
  }
  return {};
}

Kel::Ptr<VxlanController::VniFdbStatusV2> FloodFollower::statusOf(Vxlan::VniExtOrNone vni) const {
  return Kel::ptrCast<VxlanController::VniFdbStatusV2>(
      world_.fdb->entityPtr(Kel::Name(std::to_string(vni.value()))));
}

bool FloodFollower::publishes(Vxlan::VniExtOrNone vni, const Qnet::EthAddr& mac) const {
  const Kel::Ptr<VxlanController::VniFdbStatusV2> status = statusOf(vni);
  return status && (status->macVtepFloodListTable(mac) || status->hasMultiPath(mac));
}

}  // namespace Agent
