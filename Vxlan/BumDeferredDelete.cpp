// The top machine's flood state: the replication mode, and the paced job that removes stale flood sets after
// a convergence. Its states stand at VxlanControllerMacAddrSmBase, beside those of UnicastDeferredDelete.cpp.
#include <functional>

#include "Kel/System.h"
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {
namespace {

// What the controller publishes for one flood set, and the texts of the two assertions about it.
struct Published {
  std::size_t count;
  std::function<bool(Qnet::IpAddr)> lists;
  const char* notFewer;
  const char* equal;
};

Published publishedBy(const VxlanController::MacVtepMultiPathV2& entry) {
  return {entry.vtepIpLists(), [&entry](Qnet::IpAddr vtep) { return entry.vtepIpList.contains(vtep); },
          "fsIter->destSets() >= vniFdbStatus->macVtepMultiPathTable( macAddr ).vtepIpLists()",
          "fsIter->destSets() == vniFdbStatus->macVtepMultiPathTable( macAddr ) .vtepIpLists()"};
}

Published publishedBy(const VxlanController::MacVtepFloodListV2& list) {
  std::size_t count = 0;
  for (auto&& vtep : list.vtepIpFloodList()) {
    count += vtep.value ? 1U : 0U;  // an address whose value is false is not published
  }
  return {count, [&list](Qnet::IpAddr vtep) { return list.vtepIpFloodList(vtep); },
          "fsIter->destSets() >= vniFdbStatus->macVtepFloodListTable( macAddr ) ->vtepIpFloodLists()",
          "fsIter->destSets() == vniFdbStatus->macVtepFloodListTable( macAddr ) ->vtepIpFloodLists()"};
}

// Removes what the controller does not list any more. Returns whether anything went.
bool pruneFloodSet(L2Rib::FloodSet& set, const Published& published, const char* operation) {
  if (set.destSets() == published.count) {
    return false;
  }
  VCC_LINE_OF(operation, traceOrdinary, " flood dest count mismatch ", set.destSets(), " > ",
              published.count);
  Kel::fatalUnless(set.destSets() >= published.count, published.notFewer);
  bool pruned = false;
  for (auto&& dest : set.destSet()) {
    if (!published.lists(dest.key.vxlan().vtepAddr().v4())) {
      set.destSetDel(L2Rib::Dest(dest.key));
      pruned = true;
    }
  }
  Kel::fatalUnless(set.destSets() == published.count, published.equal);
  return pruned;
}

}  // namespace

void VxlanControllerClientSm::deleteBumVtepListTable(Bridging::VlanId vlan) {
  VCC_TRACE(traceOrdinary, " vlanId ", vlan);
  if (rmxSde_) {
    rmxSde_->vlanFloodSetDel(vlan);
  }
}

void VxlanControllerClientSm::deleteBumVtepListTable() {
  VCC_TRACE(traceOrdinary);
  if (rmxSde_) {
    rmxSde_->vlanFloodSetDelAll();
  }
}

void VxlanControllerClientSm::setBumDeferredDeletionInProgress(bool inProgress) {
  if (rmxConvergenceStatus_) {
    rmxConvergenceStatus_->bumDeferredDeletionInProgressIs(inProgress);
  }
}

void VxlanControllerClientSm::handleBumReplicationMode() {
  VCC_TRACE(traceOrdinary, " init? ", initialized());
  if (!initialized()) {
    return;
  }
  if (bumReplicationMode() != BumReplicationMode::Controller) {
    VCC_LINE(traceOrdinary, " Replication Mode is not rmx ");
    deleteBumVtepListTable();
    return;
  }
  for (auto&& machine : rmxPerVniFdbStatusSm()) {
    const Kel::Ptr<RmxPerVniFdbStatusSmBase> vni = machine.value;
    vni->handleMacVtepMultiPathTable();
    for (auto&& list : vni->macVtepFloodListTableSm()) {
      list.value->handleInitialized();
    }
  }
}

void VxlanControllerClientSm::processBumDeferredDeletes() {
  if (!initialized()) {
    return;
  }
  const std::size_t vlans = rmxSde_ ? rmxSde_->vlanFloodSets() : 0;
  VCC_TRACE(traceOrdinary, " init: ", initialized(), " convergence in progress: ", converging(),
            " vlan flood list count: ", vlans, " bum replication mode: ", bumReplicationMode());
  if (vlans == 0 || bumReplicationMode() != BumReplicationMode::Controller) {
    VCC_LINE(traceOrdinary, " no bumDeferredDeletion ");
    bumDeferredDeleteBookmarkValidIs(false);
    setBumDeferredDeletionInProgress(false);
    return;
  }
  if (converging()) {
    VCC_LINE(traceOrdinary, " called but nothing to do - nexo rebooted again?");
    return;
  }
  const double deadline = Kel::System::currentTime() + maxProcessTime();
  Bridging::VlanIdOrNone startKey;
  std::size_t deleted = 0;
  for (auto at = bumStartPosition(__PRETTY_FUNCTION__);;) {
    const Bridging::VlanId vlan = at->key;
    VCC_LINE(traceOrdinary, " iter vlan ", vlan);
    if (!startKey) {
      startKey = Bridging::VlanIdOrNone(vlan.value());
      VCC_LINE(traceOrdinary, " startKey vlan ", startKey);
    }
    deleted += pruneVlanFloodSet(vlan, __PRETTY_FUNCTION__);
    if (startKey.value() == vlan.value() && !rmxSde_->vlanFloodSet(vlan)) {
      // The start key was erased: restart the loop detection at the next one.
      startKey = Bridging::VlanIdOrNone();
    }
    ++at;
    if (!at) {
      VCC_LINE(traceOrdinary, " reached end, resume from first entry");
      at = rmxSde_->vlanFloodSet().begin();
    }
    if (!at || at->key.value() == startKey.value()) {
      finishBumDeferredDeletes(deleted, __PRETTY_FUNCTION__);
      return;
    }
    if (deleted == 0) {
      continue;
    }
    const double now = Kel::System::currentTime();
    if (now >= deadline) {
      bumDeferredDeleteBookmark_ = Bridging::VlanId(at->key);
      bumDeferredDeleteBookmarkValidIs(true);
      bumDeferredDeleteClock()->timeMinIs(now);
      VCC_LINE(traceOrdinary, " reschedule, resume later from vlan ", bumDeferredDeleteBookmark(),
               " Deleted count ", deleted);
      return;
    }
  }
}

void VxlanControllerClientSm::finishBumDeferredDeletes(std::size_t deleted, const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, " flood list deferred delete complete. Deleted ", deleted);
  bumDeferredDeleteBookmarkValidIs(false);
  setBumDeferredDeletionInProgress(false);
}

L2Rib::SourceDirEntry::VlanFloodSets::Iterator VxlanControllerClientSm::bumStartPosition(
    const char* operation) const {
  if (bumDeferredDeleteBookmarkValid()) {
    if (const auto at = rmxSde_->vlanFloodSet().at(bumDeferredDeleteBookmark())) {
      VCC_LINE_OF(operation, traceOrdinary, " starting at bookmark vlan ", bumDeferredDeleteBookmark());
      return at;
    }
  } else {
    VCC_LINE_OF(operation, traceOrdinary, " no bookmark. start fresh");
  }
  return rmxSde_->vlanFloodSet().begin();
}

// The machine of the VNI that the first VTI to map the VLAN maps it to, or none.
Kel::Ptr<RmxPerVniFdbStatusSmBase> VxlanControllerClientSm::machineOfVlan(Bridging::VlanId vlan) const {
  for (const Qnet::IntfId& vti : getVtiIterator()) {
    if (const VniExtOrNone vni = vniForVlan(vti, vlan)) {
      return rmxPerVniFdbStatusSm(VniExt(vni));
    }
  }
  return nullptr;
}

// Removes from one VLAN what the controller does not publish. Returns how many MACs lost their flood set, or
// destinations of it.
std::size_t VxlanControllerClientSm::pruneVlanFloodSet(Bridging::VlanId vlan, const char* operation) {
  const Kel::Ptr<L2Rib::VlanFloodSet> vlanSet = rmxSde_->vlanFloodSet(vlan);
  const Kel::Ptr<RmxPerVniFdbStatusSmBase> machine = machineOfVlan(vlan);
  if (!machine || !machine->rmxVniFdbStatusV2()) {
    const std::size_t count = vlanSet->floodSets();
    rmxSde_->vlanFloodSetDel(vlan);
    return count;
  }
  const VxlanController::VniFdbStatusV2& vniFdbStatus = *machine->rmxVniFdbStatusV2();
  std::size_t deleted = 0;
  for (auto&& floodSet : vlanSet->floodSet()) {
    const Qnet::EthAddr macAddr = floodSet.key;
    const Kel::Ptr<L2Rib::FloodSet> set = floodSet.value;
    const VxlanController::MacVtepMultiPathV2 multiPath = vniFdbStatus.macVtepMultiPathTable(macAddr);
    const Kel::Ptr<VxlanController::MacVtepFloodListV2> floodList =
        vniFdbStatus.macVtepFloodListTable(macAddr);
    if (multiPath.vtepIpLists() != 0) {
      deleted += pruneFloodSet(*set, publishedBy(multiPath), operation) ? 1U : 0U;
    } else if (floodList) {
      deleted += pruneFloodSet(*set, publishedBy(*floodList), operation) ? 1U : 0U;
    } else {
      VCC_LINE_OF(operation, traceOrdinary, " deleting vlan ", vlan, " mac ", macAddr, " flood set");
      vlanSet->floodSetDel(macAddr);
      ++deleted;
    }
  }
  return deleted;
}

}  // namespace Vxlan
