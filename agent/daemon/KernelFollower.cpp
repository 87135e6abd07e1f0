#include "agent/daemon/KernelFollower.h"

#include <utility>

namespace Agent {
namespace {

Kernel::Mac kernelMac(const Qnet::EthAddr& mac) {
  return {mac.value()};
}
Kernel::Ip4 kernelIp(Qnet::IpAddr address) {
  return {address.value()};
}

// Drops the reactors of a collection whose keys are gone.
template <class Reactors, class Gone>
void dropIf(Reactors& reactors, const Gone& gone) {
  for (auto at = reactors.begin(); at != reactors.end();) {
    if (gone(at->first)) {
      at->second->notifierIs(nullptr);
      at = reactors.erase(at);
    } else {
      ++at;
    }
  }
}

}  // namespace

class KernelFollower::HostReactor final : public Kel::Follows<L2Rib::HostInput> {
 public:
  explicit HostReactor(KernelFollower& follower) : follower_(follower) {}
  void onHost(Bridging::MacVlanPair key) override { follower_.host(key); }

 private:
  KernelFollower& follower_;
};

class KernelFollower::MapsReactor final : public Kel::Follows<Vxlan::VlanVniMaps> {
 public:
  explicit MapsReactor(KernelFollower& follower) : follower_(follower) {}
  void onVlanVniMap(Qnet::IntfId vti) override { follower_.map(vti); }
  void onVlanVniMapkelImmediate() override {
    for (auto&& map : notifier()->vlanVniMap()) {
      follower_.map(map.key);
    }
  }

 private:
  KernelFollower& follower_;
};

class KernelFollower::MapReactor final : public Kel::Follows<Vxlan::VlanVniMap> {
 public:
  MapReactor(KernelFollower& follower, const Qnet::IntfId& vti) : follower_(follower), vti_(vti) {}
  void onNotifyingVlan(Bridging::VlanId vlan) override { follower_.vni(vti_, vlan); }
  void onNotifyingVlankelImmediate() override { follower_.vti(vti_); }

 private:
  KernelFollower& follower_;
  Qnet::IntfId vti_;
};

class KernelFollower::StatusDirReactor final : public Kel::Follows<Vxlan::VtiStatusDir> {
 public:
  explicit StatusDirReactor(KernelFollower& follower) : follower_(follower) {}
  void onVtiStatus(Qnet::IntfId vti) override { follower_.vti(vti); }
  void onVtiStatuskelImmediate() override {
    for (auto&& status : notifier()->vtiStatus()) {
      follower_.vti(status.key);
    }
  }

 private:
  KernelFollower& follower_;
};

class KernelFollower::StatusReactor final : public Kel::Follows<Vxlan::VtiStatus> {
 public:
  StatusReactor(KernelFollower& follower, const Qnet::IntfId& vti) : follower_(follower), vti_(vti) {}
  void onLocalVtepAddr() override { follower_.vti(vti_); }

 private:
  KernelFollower& follower_;
  Qnet::IntfId vti_;
};

KernelFollower::KernelFollower(const World& world, Kernel::Adapter& kernel, Ports ports)
    : world_(world), kernel_(kernel), ports_(std::move(ports)) {
  statusDir_ = Kel::make<StatusDirReactor>(*this);
  statusDir_->notifierIs(world.vtiStatusDir);
  maps_ = Kel::make<MapsReactor>(*this);
  maps_->notifierIs(world.vlanVniMaps);
  for (auto host = world.hosts->firstHost(); host; host = world.hosts->nextHost(host->key)) {
    this->host(host->key);
  }
  hosts_ = Kel::make<HostReactor>(*this);
  hosts_->notifierIs(world.hosts);
  floods_ = std::make_unique<FloodFollower>(world, static_cast<FloodFollower::Sink&>(*this));
}

KernelFollower::~KernelFollower() {
  const auto always = [](const auto&) { return true; };
  hosts_->notifierIs(nullptr);
  floods_ = nullptr;
  maps_->notifierIs(nullptr);
  statusDir_->notifierIs(nullptr);
  dropIf(vtiMaps_, always);
  dropIf(statuses_, always);
}

void KernelFollower::host(const Bridging::MacVlanPair& key) {
  const auto host = world_.hosts->findHost(key);
  if (host) {
    kernel_.hostIs(key.vlan.value(), kernelMac(key.mac),
                   kernelIp(host->dest.vtepAddr(L2Rib::CiVtepIndex::First).v4()));
  } else {
    kernel_.hostDel(key.vlan.value(), kernelMac(key.mac));
  }
}

void KernelFollower::floodIs(Bridging::VlanId vlan, const Qnet::EthAddr& mac, L2Rib::FloodSetType type,
                             std::vector<Qnet::IpAddr> vteps) {
  std::vector<Kernel::Ip4> addresses;
  addresses.reserve(vteps.size());
  for (const Qnet::IpAddr vtep : vteps) {
    addresses.push_back(kernelIp(vtep));
  }
  const bool any = type == L2Rib::FloodSetType::SendToAny;
  kernel_.floodIs(vlan.value(), kernelMac(mac), any ? Kernel::FloodType::any : Kernel::FloodType::all,
                  std::move(addresses));
}

void KernelFollower::floodDel(Bridging::VlanId vlan, const Qnet::EthAddr& mac) {
  kernel_.floodDel(vlan.value(), kernelMac(mac));
}

void KernelFollower::map(const Qnet::IntfId& intf) {
  const Kel::Ptr<Vxlan::VlanVniMap> map = world_.vlanVniMaps->vlanVniMap(intf);
  if (map) {
    auto& reactor = vtiMaps_[intf];
    if (!reactor) {
      reactor = Kel::make<MapReactor>(*this, intf);
    }
    reactor->notifierIs(map);
  } else {
    dropIf(vtiMaps_, [&](const Qnet::IntfId& gone) { return gone == intf; });
  }
  vti(intf);
}

// Evaluates one VTI again: its VLANs of before, and those that it maps now.
void KernelFollower::vti(const Qnet::IntfId& intf) {
  const Kel::Ptr<Vxlan::VtiStatus> status = world_.vtiStatusDir->vtiStatus(intf);
  if (status) {
    auto& reactor = statuses_[intf];
    if (!reactor) {
      reactor = Kel::make<StatusReactor>(*this, intf);
    }
    if (reactor->notifier() != status.get()) {
      reactor->notifierIs(status);
    }
  } else {
    dropIf(statuses_, [&](const Qnet::IntfId& gone) { return gone == intf; });
  }
  std::set<Bridging::VlanId> vlans;
  for (auto at = mapped_.lower_bound({intf, Bridging::VlanId()}); at != mapped_.end() && at->first == intf;
       ++at) {
    vlans.insert(at->second);
  }
  if (const Kel::Ptr<Vxlan::VlanVniMap> map = world_.vlanVniMaps->vlanVniMap(intf)) {
    for (auto&& mapping : map->vlanToVsp()) {
      vlans.insert(mapping.key);
    }
  }
  for (const Bridging::VlanId vlan : vlans) {
    vni(intf, vlan);
  }
}

void KernelFollower::vni(const Qnet::IntfId& intf, Bridging::VlanId vlan) {
  const Kel::Ptr<Vxlan::VlanVniMap> map = world_.vlanVniMaps->vlanVniMap(intf);
  const Vxlan::VniExtOrNone vni = map ? map->vlanToVsp(vlan).vni : Vxlan::VniExtOrNone();
  if (vni) {
    const Kel::Ptr<Vxlan::VtiStatus> status = world_.vtiStatusDir->vtiStatus(intf);
    const auto ports = ports_.find(vlan.value());
    kernel_.vniIs(vni.value(), vlan.value(), intf.text(),
                  kernelIp(status ? status->localVtepAddr() : Qnet::IpAddr()),
                  ports == ports_.end() ? std::vector<std::string>() : ports->second);
    mapped_.emplace(intf, vlan);
  } else if (mapped_.erase({intf, vlan}) != 0) {
    kernel_.vniDel(vlan.value(), intf.text());
  }
  if (floods_) {
    floods_->mappingChanged(vlan);
  }
}

}  // namespace Agent
