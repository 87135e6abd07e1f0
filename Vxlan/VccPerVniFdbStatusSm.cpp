// The flood lists and multipath entries of one VNI.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode VccPerVniFdbStatusSm::type{"Vxlan::VccPerVniFdbStatusSm",
                                               &RmxPerVniFdbStatusSmBase::type};

namespace {
[[maybe_unused]] const bool registered = Kel::typeNodeIs(VccPerVniFdbStatusSm::type);
}  // namespace

VccPerVniFdbStatusSm::VccPerVniFdbStatusSm(const VniExt& vni, VniStatusRef rmxVniFdbStatusV2,
                                           VtiStatusDirRef vtiStatusDir, HwStatusDirRef vxlanHwStatusDir,
                                           VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm,
                                           SourceRef rmxSde)
    : RmxPerVniFdbStatusSmBase(vni, rmxVniFdbStatusV2, vtiStatusDir, vxlanHwStatusDir,
                               vxlanControllerMacAddrSm),
      rmxSde_(*this, "rmxSde", rmxSde) {
  handleInitialized();
}

Kel::Ptr<VccPerVniFdbStatusSm> VccPerVniFdbStatusSm::VccPerVniFdbStatusSmIs(
    const VniExt& vni, VniStatusRef rmxVniFdbStatusV2, VtiStatusDirRef vtiStatusDir,
    HwStatusDirRef vxlanHwStatusDir, VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm,
    SourceRef rmxSde) {
  return Kel::live<VccPerVniFdbStatusSm>(vni, rmxVniFdbStatusV2, vtiStatusDir, vxlanHwStatusDir,
                                         vxlanControllerMacAddrSm, rmxSde);
}

VccPerVniFdbStatusSm::~VccPerVniFdbStatusSm() {
  RmxPerVniFdbStatusSmBase::kelDoZombieReactors(true);
  // The flood list machines point back to this one; they go first, without cleaning up.
  vccMacVtepFloodListTableSmDelAll();
  macVtepFloodListTableSmDelAll();
}

void VccPerVniFdbStatusSm::hasNotificationActiveIs(bool active) {
  RmxPerVniFdbStatusSmBase::hasNotificationActiveIs(active);
}

void VccPerVniFdbStatusSm::handleMacVtepMultiPathTable(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " init? ", initialized());
  if (!checkBumStatus() || !rmxSde_) {
    return;
  }
  for (const Qnet::IntfId& vti : vtis()) {
    const std::optional<Bridging::VlanId> vlan = floodVlan(vti, __PRETTY_FUNCTION__);
    if (!vlan) {
      return;
    }
    if (rmxVniFdbStatusV2()->hasMultiPath(mac)) {
      writeMultiPath(*vlan, rmxVniFdbStatusV2()->macVtepMultiPathTable(mac), __PRETTY_FUNCTION__);
    } else {
      removeMultiPath(*vlan, mac, __PRETTY_FUNCTION__);
    }
  }
}

void VccPerVniFdbStatusSm::writeMultiPath(Bridging::VlanId vlan,
                                          const VxlanController::MacVtepMultiPathV2& entry,
                                          const char* operation) {
  const Kel::Ptr<L2Rib::FloodSet> set = rmxSde_->vlanFloodSetIs(vlan)->floodSetIs(entry.macAddr);
  set->floodSetTypeIs(L2Rib::FloodSetType::SendToAny);
  VCC_LINE_OF(operation, traceOrdinary, "(", set->floodSetType(), ") listType: sendToAny", " vtepAddr len ",
              entry.vtepIpLists());
  if (!converging()) {
    for (auto&& dest : set->destSet()) {
      if (!entry.vtepIpList.contains(dest.key.vxlan().vtepAddr().v4())) {
        set->destSetDel(L2Rib::Dest(dest.key));
      }
    }
  }
  for (const auto& [vtep, value] : entry.vtepIpList) {
    set->destSetIs(L2Rib::Dest::ofVtep(vtep), true);
  }
}

void VccPerVniFdbStatusSm::removeMultiPath(Bridging::VlanId vlan, const Qnet::EthAddr& mac,
                                           const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, " deleting ", mac, " from vlanFloodSet");
  if (const Kel::Ptr<L2Rib::VlanFloodSet> vlanSet = rmxSde_->vlanFloodSet(vlan)) {
    vlanSet->floodSetDel(mac);
    if (vlanSet->floodSets() == 0) {
      rmxSde_->vlanFloodSetDel(vlan);
    }
  }
  if (rmxVniFdbStatusV2()->macVtepFloodListTable(mac)) {
    VCC_LINE_OF(operation, traceOrdinary, " mac ", mac, " found in macVtepFloodListTable");
    // A machine that does not exist yet will initialize itself when it is made.
    if (const Kel::Ptr<MacVtepFloodListTableSmBase> machine = macVtepFloodListTableSm(mac)) {
      machine->handleInitialized();
    }
  }
}

void VccPerVniFdbStatusSm::createMacVtepFloodListTableSm(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " mac ", mac);
  const Kel::Ptr<VccMacVtepFloodListTableSm> present = vccMacVtepFloodListTableSm(mac);
  const Kel::Ptr<VccMacVtepFloodListTableSm> machine =
      vccMacVtepFloodListTableSmIs(mac, rmxVniFdbStatusV2()->macVtepFloodListTable(mac), this, rmxSde_.get());
  macVtepFloodListTableSmIs(machine);
  if (machine == present) {
    machine->handleInitialized();  // a VLAN may have come to the VNI since the list was evaluated
  }
}

Kel::Ptr<VccMacVtepFloodListTableSm> VccPerVniFdbStatusSm::vccMacVtepFloodListTableSmIs(
    const Qnet::EthAddr& mac, const Kel::Ptr<const VxlanController::MacVtepFloodListV2>& list,
    RmxPerVniFdbStatusSmBase* owner, const Kel::Ptr<L2Rib::SourceDirEntry>& sde) {
  const Kel::Ptr<VccMacVtepFloodListTableSm> present = vccMacVtepFloodListTableSm(mac);
  if (present && present->macVtepFloodListTable() != list) {
    VCC_TRACE(traceRebuilt, "Reinstantiating the pointer interface where constructor parameter attribute ",
              "_macVtepFloodListTable", " has a different value of ", static_cast<const void*>(list.get()),
              " than the current value of ", static_cast<const void*>(present->macVtepFloodListTable().get()),
              " not allowed");
    vccMacVtepFloodListTableSmDel(mac);
  }
  return vccMacVtepFloodListTableSm_.shadowIs(mac, list, owner, sde);
}

void VccPerVniFdbStatusSm::deleteMacVtepFloodListTableSm(Qnet::EthAddr mac) {
  VCC_TRACE(traceOrdinary, " mac ", mac);
  vccMacVtepFloodListTableSmDel(mac);
  macVtepFloodListTableSmDel(mac);
}

}  // namespace Vxlan
