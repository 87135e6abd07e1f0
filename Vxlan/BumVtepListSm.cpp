// The mirror of one BUM VTEP list of the MLAG peer.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode BumVtepListSm::type{"Vxlan::BumVtepListSm"};

namespace {
[[maybe_unused]] const bool registered = Kel::typeNodeIs(BumVtepListSm::type);
}  // namespace

BumVtepListSm::BumVtepListSm(const MacVlanPair& macVlanPair, BumVtepListRef bumVtepList,
                             RmxMlagBumStatusSmBase* rmxMlagBumStatusSm)
    : macVlanPair_(*this, "macVlanPair", macVlanPair), rmxMlagBumStatusSm_(rmxMlagBumStatusSm) {
  bumVtepList_.is(bumVtepList);
  handleInit();
}

Kel::Ptr<BumVtepListSm> BumVtepListSm::BumVtepListSmIs(const MacVlanPair& macVlanPair,
                                                       BumVtepListRef bumVtepList,
                                                       RmxMlagBumStatusSmBase* rmxMlagBumStatusSm) {
  return Kel::live<BumVtepListSm>(macVlanPair, bumVtepList, rmxMlagBumStatusSm);
}

BumVtepListSm::~BumVtepListSm() {
  kelDoZombieReactors(true);
}

void BumVtepListSm::handleInit() {
  const MacVlanPair& key = macVlanPair();
  VCC_TRACE(traceOrdinary, "handleInit ", key.mac, ":", key.vlan);
  const RmxMlagBumStatusSmBase& pair = *rmxMlagBumStatusSm_;
  if (pair.bumRepMode() != BumReplicationMode::Controller || !pair.initialized()) {
    VCC_TRACE(traceGate, "handleInit ", " bumRepMode ", pair.bumRepMode(), " initialized ",
              pair.initialized());
    vlanVniMapExistsIs(false);
    return;
  }
  // No VTI that maps the VLAN leaves the flag as it was: clearing it is for the gate above and for the owner.
  for (const Qnet::IntfId& vti : pair.getVtiIterator()) {
    if (pair.vniForVlan(vti, key.vlan)) {
      VCC_TRACE(traceGate, "handleInit ", " vlan ", key.vlan, " is mapped on ", vti);
      vlanVniMapExistsIs(true);
      break;
    }
  }
  if (vlanVniMapExists()) {
    handleRemoteVtepAddr();
    handleListType();
  }
}

void BumVtepListSm::handleRemoteVtepAddr() {
  const MacVlanPair& key = macVlanPair();
  VCC_TRACE(traceOrdinary, "handleRemoteVtepAddr ", key.mac, ":", key.vlan);
  const Kel::Ptr<BumStatus> status = rmxMlagBumStatusSm_->localBumStatus();
  if (!status) {
    return;  // the hardware has not reported yet
  }
  Kel::Ptr<BumVtepList> local = status->bumVtepList(key);
  if (!local) {
    local = status->bumVtepListIs(key);
  } else {
    VCC_LINE(traceOrdinary, "bumVtepList of ", key.mac, ":", key.vlan,
             " pre-exists in vxlan h/w bum sts. Deleting obsolete remoteVtepAddrs");
    for (auto&& address : local->remoteVtepAddr()) {
      const Qnet::IpAddr ip = address.key;
      if (!bumVtepList_ || !bumVtepList_->remoteVtepAddr(ip)) {
        local->remoteVtepAddrDel(ip);
      }
    }
  }
  localBumVtepList_ = local;
  if (bumVtepList_) {
    for (auto&& address : bumVtepList_->remoteVtepAddr()) {
      handleRemoteVtepAddr(address.key);
    }
  }
}

void BumVtepListSm::handleRemoteVtepAddr(Qnet::IpAddr ip) {
  const MacVlanPair& key = macVlanPair();
  VCC_TRACE(traceOrdinary, "handleRemoteVtepAddr ", key.mac, ":", key.vlan, " ", ip);
  if (rmxMlagBumStatusSm_->bumRepMode() != BumReplicationMode::Controller || !vlanVniMapExists()) {
    VCC_LINE(traceOrdinary, "handleRemoteVtepAddr ", " bumRepMode ", rmxMlagBumStatusSm_->bumRepMode(),
             " vlanVniMapExists ", vlanVniMapExists());
    return;
  }
  // The gate makes sure that the local list is bound: the VLAN's flag becomes true only where it is bound
  // next.
  if (bumVtepList_ && bumVtepList_->remoteVtepAddr(ip)) {
    localBumVtepList_->remoteVtepAddrIs(ip, true);
  } else {
    localBumVtepList_->remoteVtepAddrDel(ip);
  }
}

void BumVtepListSm::handleListType() {
  const MacVlanPair& key = macVlanPair();
  VCC_TRACE(traceOrdinary, "handleListType ", key.mac, ":", key.vlan);
  if (localBumVtepList_ && bumVtepList_) {
    localBumVtepList_->bumVtepIpListTypeIs(bumVtepList_->bumVtepIpListType());
  }
}

}  // namespace Vxlan
