// The mirror of the MLAG peer's BUM status.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode RmxMlagBumStatusSmBase::type{"Vxlan::RmxMlagBumStatusSmBase"};
const Kel::TypeNode RmxMlagBumStatusSm::type{"Vxlan::RmxMlagBumStatusSm", &RmxMlagBumStatusSmBase::type};

namespace {
[[maybe_unused]] const bool registered =
    Kel::typeNodeIs(RmxMlagBumStatusSmBase::type) && Kel::typeNodeIs(RmxMlagBumStatusSm::type);
}  // namespace

// The reactors: which handler each change of an input runs.

struct RmxMlagBumStatusSmBase::KelMlagVxlanStatus final
    : Kel::Reacts<Mlag::VxlanStatus, RmxMlagBumStatusSmBase> {
  using Reacts::Reacts;
  void onBumStatus() override { owner().rebindRemote(); }
};

struct RmxMlagBumStatusSmBase::KelVxlanHwStatusDir final
    : Kel::Reacts<VxlanHwStatusDir, RmxMlagBumStatusSmBase> {
  using Reacts::Reacts;
  void onBumStatus() override { owner().rebindLocal(); }
};

struct RmxMlagBumStatusSmBase::KelRemoteBumStatus final : Kel::Reacts<BumStatus, RmxMlagBumStatusSmBase> {
  using Reacts::Reacts;
  void onBumReplicationMode() override { owner().handleBumReplicationMode(); }
  void onBumVtepList(MacVlanPair key) override { owner().handleBumVtepList(key); }
  void onBumVtepListkelImmediate() override { owner().handleBumVtepList(); }
};

struct RmxMlagBumStatusSmBase::KelLocalBumStatus final : Kel::Reacts<BumStatus, RmxMlagBumStatusSmBase> {
  using Reacts::Reacts;
  void onBumReplicationMode() override { owner().handleBumReplicationMode(); }
};

struct RmxMlagBumStatusSm::KelVlanVniMaps final : Kel::Reacts<VlanVniMaps, RmxMlagBumStatusSm> {
  using Reacts::Reacts;
  void onVlanVniMap(Qnet::IntfId vti) override { owner().vtiVlanVniMap_.handle(vti); }
  void onVlanVniMapkelImmediate() override { owner().vtiVlanVniMap_.handle(); }
};

struct RmxMlagBumStatusSm::KelVtiVlanVniMap final : Kel::Reacts<VlanVniMap, RmxMlagBumStatusSm> {
  KelVtiVlanVniMap(RmxMlagBumStatusSm& owner, const Qnet::IntfId& vti) : Reacts(owner), vti_(vti) {}
  void onNotifyingVlan(Bridging::VlanId vlan) override { owner().handleVlanVniMapUpdate(vti_, vlan); }
  void onNotifyingVlankelImmediate() override { owner().handleVtiUpdate(vti_); }

 private:
  Qnet::IntfId vti_;
};

RmxMlagBumStatusSmBase::RmxMlagBumStatusSmBase(MlagVxlanStatusRef mlagVxlanStatus,
                                               HwStatusDirRef vxlanHwStatusDir) {
  mlagVxlanStatus_.is(mlagVxlanStatus);
  vxlanHwStatusDir_.is(vxlanHwStatusDir);
  if (mlagVxlanStatus) {
    remoteBumStatus_.is(mlagVxlanStatus->bumStatus());
  }
  if (vxlanHwStatusDir) {
    localBumStatus_.is(vxlanHwStatusDir->bumStatus());
  }
}

Kel::Ptr<RmxMlagBumStatusSmBase> RmxMlagBumStatusSmBase::RmxMlagBumStatusSmBaseIs(
    MlagVxlanStatusRef mlagVxlanStatus, HwStatusDirRef vxlanHwStatusDir) {
  vccRlHandleInit();
  return Kel::live<RmxMlagBumStatusSmBase>(mlagVxlanStatus, vxlanHwStatusDir);
}

RmxMlagBumStatusSmBase::~RmxMlagBumStatusSmBase() {
  kelDoZombieReactors(true);
  bumVtepListSmDelAll();
}

std::vector<Qnet::IntfId> RmxMlagBumStatusSmBase::getVtiIterator() const {
  return {};
}

std::vector<Bridging::VlanId> RmxMlagBumStatusSmBase::getVlanIterator(Qnet::IntfId) const {
  return {};
}

VniExtOrNone RmxMlagBumStatusSmBase::vniForVlan(Qnet::IntfId, Bridging::VlanId) const {
  return {};
}

void RmxMlagBumStatusSmBase::handleInitialized() {
  VCC_TRACE(traceOrdinary, "inited: ", initialized());
  initializedIs(true);
  handleBumVtepList();
  handleBumReplicationMode();
  sweepMappedVlans();
}

void RmxMlagBumStatusSmBase::handleBumVtepList(MacVlanPair key) {
  VCC_TRACE(traceOrdinary, "handleBumVtepList ", key.mac, ":", key.vlan);
  if (!remoteBumStatus_) {
    return;  // the peer has not reported yet
  }
  if (const Kel::Ptr<const BumVtepList> list = remoteBumStatus_->bumVtepList(key)) {
    VCC_LINE(traceOrdinary, "Creating local bumVtepList");
    bumVtepListSmIs(key, list, this);
    return;
  }
  bumVtepListSmDel(key);
  VCC_LINE(traceOrdinary, "Deleting local bumVtepList");
  if (localBumStatus_) {
    localBumStatus_->bumVtepListDel(key);
  }
}

void RmxMlagBumStatusSmBase::handleBumVtepList() {
  VCC_TRACE(traceOrdinary, "handleBumVtepList");
  if (!remoteBumStatus_) {
    return;
  }
  const Kel::Ptr<const BumStatus> remote = remoteBumStatus_.get();
  for (auto&& list : remote->bumVtepList()) {
    handleBumVtepList(list.key);
  }
}

void RmxMlagBumStatusSmBase::handleBumReplicationMode() {
  VCC_TRACE(traceOrdinary, "handleBumReplicationMode", "inited: ", initialized());
  if (!initialized()) {
    return;
  }
  const auto controls = [](const auto& status) {
    return status && status->bumReplicationMode() == BumReplicationMode::Controller;
  };
  if (!controls(remoteBumStatus_) || !controls(localBumStatus_)) {
    bumRepModeIs(BumReplicationMode::None);
    return;
  }
  bumRepModeIs(BumReplicationMode::Controller);
  for (auto&& member : bumVtepListSm_) {
    VCC_LINE(traceOrdinary, "handling vtep ", member.key.mac, ":", member.key.vlan);
    member.value->handleInit();
  }
}

void RmxMlagBumStatusSmBase::markAndSweep(Bridging::VlanId vlan) {
  VCC_TRACE(traceOrdinary, "markAndSweep", " vlan=", vlan);
  if (!remoteBumStatus_ || !localBumStatus_) {
    return;
  }
  const Kel::Ptr<BumStatus> local = localBumStatus_.get();
  for (auto&& list : local->bumVtepList()) {
    if (list.key.vlan == vlan) {
      sweepList(list.key, __PRETTY_FUNCTION__);
    }
  }
}

// Makes one local list a subset of the peer's. Nothing is added here: that is the work of the list's own
// machine.
void RmxMlagBumStatusSmBase::sweepList(const MacVlanPair& listKey, const char* operation) {
  const MacVlanPair key = listKey;
  const Kel::Ptr<const BumVtepList> remote = remoteBumStatus_->bumVtepList(key);
  if (!remote) {
    VCC_LINE_OF(operation, traceOrdinary, "Sweeping ", key.mac, ":", key.vlan);
    bumVtepListSmDel(key);
    localBumStatus_->bumVtepListDel(key);
    return;
  }
  const Kel::Ptr<BumVtepList> local = localBumStatus_->bumVtepList(key);
  for (auto&& address : local->remoteVtepAddr()) {
    const Qnet::IpAddr ip = address.key;
    if (!remote->remoteVtepAddr(ip)) {
      VCC_LINE_OF(operation, traceOrdinary, "Sweeping ", ip, " from ", key.mac, ":", key.vlan);
      local->remoteVtepAddrDel(ip);
    }
  }
}

void RmxMlagBumStatusSmBase::sweepMappedVlans() {
  for (const Qnet::IntfId& vti : getVtiIterator()) {
    for (const Bridging::VlanId vlan : getVlanIterator(vti)) {
      markAndSweep(vlan);
    }
  }
}

void RmxMlagBumStatusSmBase::handleVlanVniMapUpdate(Qnet::IntfId vti, Bridging::VlanId vlan) {
  VCC_TRACE(traceOrdinary, "handleVlanVniMapUpdate", " vlan ", vlan);
  for (auto&& member : bumVtepListSm_) {
    if (member.key.vlan != vlan) {
      continue;
    }
    // Only the VTI that reported the change is asked; a gain looks at all of them again.
    if (vniForVlan(vti, vlan)) {
      member.value->handleInit();
    } else {
      member.value->vlanVniMapExistsIs(false);
    }
  }
}

void RmxMlagBumStatusSmBase::handleVtiUpdate(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, "handleVtiUpdate", " vti ", vti);
  for (const Bridging::VlanId vlan : getVlanIterator(vti)) {
    handleVlanVniMapUpdate(vti, vlan);
  }
}

Kel::Ptr<BumVtepListSm> RmxMlagBumStatusSmBase::bumVtepListSmIs(const MacVlanPair& key,
                                                                BumVtepListRef remoteList,
                                                                RmxMlagBumStatusSmBase* owner) {
  return bumVtepListSm_.shadowIs(key, remoteList, owner);
}

// The peer's BUM status came, went or was replaced: what followed the old one goes first.
void RmxMlagBumStatusSmBase::rebindRemote() {
  bumVtepListSmDelAll();
  remoteBumStatus_.is(mlagVxlanStatus_ ? mlagVxlanStatus_->bumStatus() : nullptr);
  handleBumReplicationMode();
  handleBumVtepList();
  if (initialized()) {
    sweepMappedVlans();
  }
}

// The hardware's BUM status came, went or was replaced: it may hold lists from before.
void RmxMlagBumStatusSmBase::rebindLocal() {
  localBumStatus_.is(vxlanHwStatusDir_ ? vxlanHwStatusDir_->bumStatus() : nullptr);
  handleBumReplicationMode();
  if (initialized()) {
    sweepMappedVlans();
  }
}

// In a live machine binding counts as a change of the BUM status; binding to none is made to.

void RmxMlagBumStatusSmBase::mlagVxlanStatusIs(MlagVxlanStatusRef status) {
  mlagVxlanStatus_.is(status);
  if (!status) {
    rebindRemote();
  }
}

void RmxMlagBumStatusSmBase::mlagVxlanStatusDel() {
  mlagVxlanStatusIs(nullptr);
}

void RmxMlagBumStatusSmBase::vxlanHwStatusDirIs(HwStatusDirRef dir) {
  vxlanHwStatusDir_.is(dir);
  if (!dir) {
    rebindLocal();
  }
}

void RmxMlagBumStatusSmBase::vxlanHwStatusDirDel() {
  vxlanHwStatusDirIs(nullptr);
}

Kel::Ptr<RmxMlagBumStatusSmBase> rmxMlagBumStatusSmBaseFactory(MlagVxlanStatusRef mlagVxlanStatus,
                                                               HwStatusDirRef vxlanHwStatusDir) {
  return RmxMlagBumStatusSmBase::RmxMlagBumStatusSmBaseIs(mlagVxlanStatus, vxlanHwStatusDir);
}

RmxMlagBumStatusSm::RmxMlagBumStatusSm(MlagVxlanStatusRef mlagVxlanStatus, HwStatusDirRef vxlanHwStatusDir,
                                       VlanVniMapsRef vlanVniMaps)
    : RmxMlagBumStatusSmBase(mlagVxlanStatus, vxlanHwStatusDir) {
  vlanVniMaps_.is(vlanVniMaps);
  vtiVlanVniMap_.handle();
}

Kel::Ptr<RmxMlagBumStatusSm> RmxMlagBumStatusSm::RmxMlagBumStatusSmIs(MlagVxlanStatusRef mlagVxlanStatus,
                                                                      HwStatusDirRef vxlanHwStatusDir,
                                                                      VlanVniMapsRef vlanVniMaps) {
  return Kel::live<RmxMlagBumStatusSm>(mlagVxlanStatus, vxlanHwStatusDir, vlanVniMaps);
}

RmxMlagBumStatusSm::~RmxMlagBumStatusSm() {
  kelDoZombieReactors(true);
  bumVtepListSmDelAll();
}

void RmxMlagBumStatusSm::vlanVniMapsIs(VlanVniMapsRef maps) {
  vtiVlanVniMap_.inputIs(maps);
}

void RmxMlagBumStatusSm::vlanVniMapsDel() {
  vlanVniMapsIs(nullptr);
}

std::vector<Qnet::IntfId> RmxMlagBumStatusSm::getVtiIterator() const {
  std::vector<Qnet::IntfId> vtis;
  if (vlanVniMaps_) {
    for (auto&& map : vlanVniMaps_->vlanVniMap()) {
      vtis.push_back(map.key);
    }
  }
  return vtis;
}

std::vector<Bridging::VlanId> RmxMlagBumStatusSm::getVlanIterator(Qnet::IntfId vti) const {
  std::vector<Bridging::VlanId> vlans;
  if (const Kel::Ptr<const VlanVniMap> map = vlanVniMaps_ ? vlanVniMaps_->vlanVniMap(vti) : nullptr) {
    for (auto&& mapping : map->vlanToVsp()) {
      vlans.push_back(mapping.key);
    }
  }
  return vlans;
}

VniExtOrNone RmxMlagBumStatusSm::vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const {
  const Kel::Ptr<const VlanVniMap> map = vlanVniMaps_ ? vlanVniMaps_->vlanVniMap(vti) : nullptr;
  return map ? map->vlanToVsp(vlan).vni : VniExtOrNone();
}

}  // namespace Vxlan
