// The flood lists of one VNI, mirrored into the layer-2 RIB.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode MacVtepFloodListTableSmBase::type{"Vxlan::MacVtepFloodListTableSmBase"};
const Kel::TypeNode VccMacVtepFloodListTableSm::type{"Vxlan::VccMacVtepFloodListTableSm",
                                                     &MacVtepFloodListTableSmBase::type};

namespace {
[[maybe_unused]] const bool registered =
    Kel::typeNodeIs(MacVtepFloodListTableSmBase::type) && Kel::typeNodeIs(VccMacVtepFloodListTableSm::type);
}  // namespace

// The reactors: which handler each change of an input runs.

struct MacVtepFloodListTableSmBase::KelMacVtepFloodListTable final
    : Kel::Reacts<VxlanController::MacVtepFloodListV2, MacVtepFloodListTableSmBase> {
  using Reacts::Reacts;
  void onVtepIpFloodList(Qnet::IpAddr ip) override { owner().handleVtepIpFloodList(ip); }
  void onVtepIpFloodList() override { owner().handleVtepIpFloodList(); }
};

MacVtepFloodListTableSmBase::MacVtepFloodListTableSmBase(const Qnet::EthAddr& macAddr,
                                                         FloodListRef macVtepFloodListTable,
                                                         RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm)
    : macAddr_(*this, "macAddr", macAddr), rmxPerVniFdbStatusSm_(rmxPerVniFdbStatusSm) {
  macVtepFloodListTable_.is(macVtepFloodListTable);
}

MacVtepFloodListTableSmBase::~MacVtepFloodListTableSmBase() = default;

void MacVtepFloodListTableSmBase::hasNotificationActiveIs(bool active) {
  StateMachine::hasNotificationActiveIs(active);
}

bool MacVtepFloodListTableSmBase::mayWrite(const char* operation) const {
  if (!owner().checkBumStatus()) {
    return false;
  }
  if (owner().rmxVniFdbStatusV2()->hasMultiPath(macAddr())) {
    VCC_LINE_OF(operation, traceOrdinary, " mac ", macAddr(), " found in macVtepMultiPathTable");
    return false;
  }
  return true;
}

// Past the gating there is nothing that the base may do.
void MacVtepFloodListTableSmBase::actInBase(const char* operation) const {
  if (mayWrite(operation)) {
    const std::vector<Qnet::IntfId>& vtis = owner().vtis();
    Kel::fatalUnless(vtis.empty() || !owner().floodVlan(vtis.front(), operation), "false");
  }
}

void MacVtepFloodListTableSmBase::handleVtepIpFloodList(Qnet::IpAddr) {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  actInBase(__PRETTY_FUNCTION__);
}

void MacVtepFloodListTableSmBase::cleanup() {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  actInBase(__PRETTY_FUNCTION__);
}

void MacVtepFloodListTableSmBase::handleInitialized() {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  actInBase(__PRETTY_FUNCTION__);
}

void MacVtepFloodListTableSmBase::handleVtepIpFloodList() {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  if (!mayWrite(__PRETTY_FUNCTION__) || !macVtepFloodListTable_) {
    return;
  }
  const Kel::Ptr<const VxlanController::MacVtepFloodListV2> list = macVtepFloodListTable();
  for (auto&& vtep : list->vtepIpFloodList()) {
    handleVtepIpFloodList(vtep.key);
  }
}

void MacVtepFloodListTableSmBase::macVtepFloodListTableDel() {
  macVtepFloodListTable_.del();
}

void MacVtepFloodListTableSmBase::macVtepFloodListTableIs(FloodListRef list) {
  macVtepFloodListTable_.is(list);
}

VccMacVtepFloodListTableSm::VccMacVtepFloodListTableSm(const Qnet::EthAddr& macAddr,
                                                       FloodListRef macVtepFloodListTable,
                                                       RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm,
                                                       SourceRef rmxSde)
    : MacVtepFloodListTableSmBase(macAddr, macVtepFloodListTable, rmxPerVniFdbStatusSm),
      rmxSde_(*this, "rmxSde", rmxSde) {
  VccMacVtepFloodListTableSm::handleInitialized();
}

Kel::Ptr<VccMacVtepFloodListTableSm> VccMacVtepFloodListTableSm::VccMacVtepFloodListTableSmIs(
    const Qnet::EthAddr& macAddr, FloodListRef macVtepFloodListTable,
    RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm, SourceRef rmxSde) {
  return Kel::live<VccMacVtepFloodListTableSm>(macAddr, macVtepFloodListTable, rmxPerVniFdbStatusSm, rmxSde);
}

VccMacVtepFloodListTableSm::~VccMacVtepFloodListTableSm() {
  kelDoZombieReactors(true);
}

// The flood set of the MAC in this VLAN, made if needed, sending to all of its destinations.
Kel::Ptr<L2Rib::FloodSet> VccMacVtepFloodListTableSm::floodSetOfAll(Bridging::VlanId vlan) {
  Kel::Ptr<L2Rib::FloodSet> set = rmxSde_->vlanFloodSetIs(vlan)->floodSetIs(macAddr());
  set->floodSetTypeIs(L2Rib::FloodSetType::SendToAll);
  return set;
}

void VccMacVtepFloodListTableSm::handleInitialized() {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  if (!mayWrite(__PRETTY_FUNCTION__) || !rmxSde_ || !macVtepFloodListTable()) {
    return;
  }
  for (const Qnet::IntfId& vti : owner().vtis()) {
    const std::optional<Bridging::VlanId> vlan = owner().floodVlan(vti, __PRETTY_FUNCTION__);
    if (!vlan) {
      return;
    }
    writeList(*vlan, __PRETTY_FUNCTION__);
  }
  initializedIs(true);
}

// Brings the flood set of one VLAN in line with the whole list.
void VccMacVtepFloodListTableSm::writeList(Bridging::VlanId vlan, const char* operation) {
  const VxlanController::MacVtepFloodListV2& list = *macVtepFloodListTable();
  const Kel::Ptr<L2Rib::FloodSet> set = floodSetOfAll(vlan);
  VCC_LINE_OF(operation, traceOrdinary, "listType: sendToAll", " vtepAddr len ", list.vtepIpFloodLists());
  if (!owner().converging()) {
    for (auto&& dest : set->destSet()) {
      if (!list.vtepIpFloodList(dest.key.vxlan().vtepAddr().v4())) {
        set->destSetDel(L2Rib::Dest(dest.key));
      }
    }
  }
  // An address is added regardless of its value: one whose value is false is removed above and added back
  // here, until its own change.
  for (auto&& vtep : list.vtepIpFloodList()) {
    set->destSetIs(L2Rib::Dest::ofVtep(vtep.key), true);
  }
}

void VccMacVtepFloodListTableSm::handleVtepIpFloodList(Qnet::IpAddr ip) {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  if (!mayWrite(__PRETTY_FUNCTION__) || !rmxSde_ || !macVtepFloodListTable()) {
    return;
  }
  const L2Rib::Dest dest = L2Rib::Dest::ofVtep(ip);
  for (const Qnet::IntfId& vti : owner().vtis()) {
    const std::optional<Bridging::VlanId> vlan = owner().floodVlan(vti, __PRETTY_FUNCTION__);
    if (!vlan) {
      return;
    }
    const Kel::Ptr<L2Rib::FloodSet> set = floodSetOfAll(*vlan);
    if (macVtepFloodListTable()->vtepIpFloodList(ip)) {
      VCC_LINE(traceOrdinary, " adding ", ip, " to remoteVtepAddr");
      set->destSetIs(dest, true);
    } else if (set->hasDest(dest)) {
      VCC_LINE(traceOrdinary, " removing ", ip, " from flood set");
      set->destSetDel(dest);
    }
  }
}

void VccMacVtepFloodListTableSm::cleanup() {
  VCC_TRACE(traceOrdinary, " init? ", owner().initialized());
  if (!mayWrite(__PRETTY_FUNCTION__) || !rmxSde_) {
    return;
  }
  for (const Qnet::IntfId& vti : owner().vtis()) {
    const std::optional<Bridging::VlanId> vlan = owner().floodVlan(vti, __PRETTY_FUNCTION__);
    if (!vlan) {
      return;
    }
    const Kel::Ptr<L2Rib::VlanFloodSet> vlanSet = rmxSde_->vlanFloodSet(*vlan);
    if (!vlanSet) {
      continue;
    }
    if (vlanSet->floodSet(macAddr())) {
      VCC_LINE(traceOrdinary, " deleting ", macAddr(), " from vlan ", *vlan);
      vlanSet->floodSetDel(macAddr());
    }
    if (vlanSet->floodSets() == 0) {
      rmxSde_->vlanFloodSetDel(*vlan);
    }
  }
  initializedIs(false);
}

}  // namespace Vxlan
