// The common part of every controller client.
#include <charconv>
#include <limits>

#include "Kel/System.h"
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode VxlanControllerMacAddrSmBase::type{"Vxlan::VxlanControllerMacAddrSmBase"};

namespace {

[[maybe_unused]] const bool registered = Kel::typeNodeIs(VxlanControllerMacAddrSmBase::type);
constexpr const char* className = "Vxlan::VxlanControllerMacAddrSmBase";

// The VNI that an entry's name is in decimal; anything that is none converts to all ones, which is no VNI and
// raises the range error.
VniExt vniOf(const Kel::Name& name) {
  const std::string& text = name.text();
  std::uint32_t value = VniExtOrNone::none;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    value = VniExtOrNone::none;
  }
  return VniExt(value);
}

}  // namespace

// The reactors: which handler each change of an input runs.

struct VxlanControllerMacAddrSmBase::KelVtiStatusDir final
    : Kel::Reacts<VtiStatusDir, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onVtiStatus(Qnet::IntfId vti) override {
    if (const Kel::Ptr<const VtiStatus> status = notifier()->vtiStatus(vti)) {
      owner().vtiStatusIs(status);
    } else {
      owner().vtiStatusDel(vti);
    }
  }
  void onVtiStatuskelImmediate() override { owner().vtiStatusReconcile(); }
};

struct VxlanControllerMacAddrSmBase::KelControllerStatusBaseDir final
    : Kel::Reacts<Kel::Dir, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onEntityPtr(Kel::Name name) override { owner().handleControllerVniBaseDir(name); }
  void onEntityPtrkelImmediate() override { owner().handleControllerVniBaseDir(); }
};

struct VxlanControllerMacAddrSmBase::KelRmxStateClientView final
    : Kel::Reacts<VxlanController::RmxStateClientViewV2, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onConvergenceInProgress() override { owner().handleConvergenceInProgress(); }
};

struct VxlanControllerMacAddrSmBase::KelVxlanHwStatusDir final
    : Kel::Reacts<VxlanHwStatusDir, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onBumStatus() override { owner().kel_BumStatusInRebind(); }
};

struct VxlanControllerMacAddrSmBase::KelKel_BumStatusIn final
    : Kel::Reacts<BumStatus, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onBumReplicationMode() override { owner().handleBumReplicationMode(); }
};

struct VxlanControllerMacAddrSmBase::KelMlagStatus final
    : Kel::Reacts<Mlag::Status, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onMlagState() override { owner().handleMlagState(); }
};

struct VxlanControllerMacAddrSmBase::KelUnicastDeferredDeleteClock final
    : Kel::Reacts<Kel::Clock, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onTime() override { owner().processUnicastDeferredDeletes(); }
};

struct VxlanControllerMacAddrSmBase::KelBumDeferredDeleteClock final
    : Kel::Reacts<Kel::Clock, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onTime() override { owner().processBumDeferredDeletes(); }
};

struct VxlanControllerMacAddrSmBase::KelVtiStatus final
    : Kel::Reacts<VtiStatus, VxlanControllerMacAddrSmBase> {
  using Reacts::Reacts;
  void onControllerClientMode() override { owner().handleControllerClientMode(); }
  void onDatapathLearning() override { owner().handleDatapathLearningMode(); }
};

VxlanControllerMacAddrSmBase::VxlanControllerMacAddrSmBase(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus) {
  vtiStatusDir_.is(vtiStatusDir);
  controllerStatusBaseDir_.is(controllerStatusBaseDir);
  rmxStateClientView_.is(rmxStateClientView);
  if (rmxStateClientView_) {
    // The one reactor whose binding at construction counts as a change: it is delivered when the factory
    // drains the queue, and schedules both jobs unless the controller is found to be converging.
    rmxStateClientView_.reactor()->countAsBound();
  }
  vxlanHwStatusDir_.is(vxlanHwStatusDir);
  mlagStatus_.is(mlagStatus);
  mlagVxlanStatus_ = mlagVxlanStatus;
  unicastDeferredDeleteClock_.is(Kel::ActivityFacility::clock());
  bumDeferredDeleteClock_.is(Kel::ActivityFacility::clock());
  vtiStatusReconcile();
  if (vxlanHwStatusDir) {
    kel_BumStatusIn_.is(vxlanHwStatusDir->bumStatus());
  }
}

Kel::Ptr<VxlanControllerMacAddrSmBase> VxlanControllerMacAddrSmBase::VxlanControllerMacAddrSmBaseIs(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus) {
  return Kel::live<VxlanControllerMacAddrSmBase>(vtiStatusDir, controllerStatusBaseDir, rmxStateClientView,
                                                 vxlanHwStatusDir, mlagStatus, mlagVxlanStatus);
}

VxlanControllerMacAddrSmBase::~VxlanControllerMacAddrSmBase() {
  kelDoZombieReactors(true);
}

// The operations that a client overrides: here they trace.

void VxlanControllerMacAddrSmBase::deleteBumVtepListTable(Bridging::VlanId vlan) {
  VCC_TRACE(traceOrdinary, " vlanId ", vlan);
}
void VxlanControllerMacAddrSmBase::deleteBumVtepListTable() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::updateControllerClientMode() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::handleControllerClientMode() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::handleDatapathLearningMode() {
  VCC_TRACE(traceOrdinary);
}
// The hook takes a pointer to keep; this version has no use for it.
// NOLINTBEGIN(performance-unnecessary-value-param)
void VxlanControllerMacAddrSmBase::createRmxPerVniFdbStatusSm(
    VniExt vni, Kel::Ptr<const VxlanController::VniFdbStatusV2> /*status*/) {
  // NOLINTEND(performance-unnecessary-value-param)
  VCC_TRACE(traceOrdinary, "createRmxPerVniFdbStatusSm ", vni);
}
void VxlanControllerMacAddrSmBase::deleteRmxPerVniFdbStatusSm(VniExt vni) {
  VCC_TRACE(traceOrdinary, "deleteRmxPerVniFdbStatusSm ", vni);
}
void VxlanControllerMacAddrSmBase::createRmxMlagBumStatusSm() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::deleteRmxMlagBumStatusSm() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::handleBumReplicationMode() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::createVlanVniMapSm(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " vti ", vti);
}
void VxlanControllerMacAddrSmBase::deleteVlanVniMapSm(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " vti ", vti);
}

void VxlanControllerMacAddrSmBase::processBumDeferredDeletes() {
  VCC_TRACE(traceOrdinary, " init: ", initialized(), " convergence in progress: ", converging(),
            " bum vtep list count: ", kel_BumStatusIn_ ? kel_BumStatusIn_->bumVtepList().size() : 0,
            " bum replication mode: ", bumReplicationMode());
  if (converging()) {
    VCC_LINE(traceOrdinary, " called but nothing to do - nexo rebooted again?");
  }
}

Kel::Ptr<ReceivedHostTable> VxlanControllerMacAddrSmBase::getHostTable() const {
  VCC_TRACE(traceOrdinary);
  return nullptr;
}
const std::vector<Qnet::IntfId>& VxlanControllerMacAddrSmBase::getVtiIterator() const {
  static const std::vector<Qnet::IntfId> none;
  VCC_TRACE(traceOrdinary);
  return none;
}
Bridging::VlanIdOrNone VxlanControllerMacAddrSmBase::vlanForVni(Qnet::IntfId vti, VniExt vni) const {
  VCC_TRACE(traceOrdinary, " vti ", vti, " vni ", vni);
  return {};
}
VniExtOrNone VxlanControllerMacAddrSmBase::vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const {
  VCC_TRACE(traceOrdinary, " vti ", vti, " vlan ", vlan);
  return {};
}
void VxlanControllerMacAddrSmBase::setBumDeferredDeletionInProgress(bool) {
  Kel::fatalUnless(false, "false");
}
void VxlanControllerMacAddrSmBase::setUnicastDeferredDeletionInProgress(bool) {
  Kel::fatalUnless(false, "false");
}

// Hooks for derived machines.

void VxlanControllerMacAddrSmBase::handleActivatedVti(Qnet::IntfId) {
  VCC_TRACE(traceOrdinary, " Init? ", initialized());
}
void VxlanControllerMacAddrSmBase::handleActivatedVti() {
  VCC_TRACE(traceOrdinary);
}
void VxlanControllerMacAddrSmBase::handleVtiUp(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " vti ", vti, " activated");
}
void VxlanControllerMacAddrSmBase::handleVtiDown(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " vti ", vti);
}

void VxlanControllerMacAddrSmBase::handleInitialized() {
  vccRlHandleInit();
  VCC_TRACE(traceOrdinary, " Init? ", initialized());
  initializedIs(true);
}

void VxlanControllerMacAddrSmBase::handleMlagState() {
  if (!initialized()) {
    return;
  }
  Kel::fatalUnless(static_cast<bool>(mlagStatus_), "mlagStatus");
  VCC_TRACE(traceOrdinary, " ", mlagStatus_->mlagState());
  if (mlagStatus_->mlagState() == Mlag::MlagState::Active && vxlanControllerClientMode()) {
    createRmxMlagBumStatusSm();
    if (const Kel::Ptr<RmxMlagBumStatusSmBase> machine = rmxMlagBumStatusSm()) {
      machine->handleInitialized();
    }
  } else {
    deleteRmxMlagBumStatusSm();
  }
}

void VxlanControllerMacAddrSmBase::handleConvergenceInProgress() {
  VCC_TRACE(traceOrdinary, "handleConvergenceInProgress", " init ", initialized());
  if (!initialized()) {
    return;
  }
  VCC_TRACE(traceOrdinary, "handleConvergenceInProgress", " init ", initialized(), " convergence state ",
            converging());
  if (converging()) {
    setUnicastDeferredDeletionInProgress(false);
    setBumDeferredDeletionInProgress(false);
    return;
  }
  const double now = Kel::System::currentTime();
  VCC_LINE(traceOrdinary, "handleConvergenceInProgress", " schedule deferred deletes");
  setUnicastDeferredDeletionInProgress(true);
  setBumDeferredDeletionInProgress(true);
  unicastDeferredDeleteClock_->timeMinIs(now);
  bumDeferredDeleteClock_->timeMinIs(now);
}

bool VxlanControllerMacAddrSmBase::converging() const {
  return rmxStateClientView_ && rmxStateClientView_->convergenceInProgress();
}

BumReplicationMode VxlanControllerMacAddrSmBase::bumReplicationMode() const {
  const Kel::Ptr<BumStatus> status = vxlanHwStatusDir_ ? vxlanHwStatusDir_->bumStatus() : nullptr;
  return status ? status->bumReplicationMode() : BumReplicationMode::None;
}

// The controller's directory of VNIs.

void VxlanControllerMacAddrSmBase::handleControllerVniBaseDir() {
  if (!initialized() || !controllerStatusBaseDir_) {
    return;
  }
  VCC_TRACE(traceOrdinary, " dir ", static_cast<const void*>(controllerStatusBaseDir_.get().get()));
  const Kel::Ptr<const Kel::Dir> dir = controllerStatusBaseDir();
  for (auto&& entry : *dir) {
    handleControllerVniBaseDir(entry.key);
  }
}

void VxlanControllerMacAddrSmBase::handleControllerVniBaseDir(Kel::Name name) {
  VCC_TRACE(traceOrdinary, " name ", name);
  if (!initialized()) {
    return;
  }
  if (controllerStatusBaseDir_ && controllerStatusBaseDir_->hasEntry(name) && vxlanControllerClientMode()) {
    addVni(name, __PRETTY_FUNCTION__);
    return;
  }
  VCC_LINE(traceOrdinary, " entry subdir deleted for ", name);
  const VniExt vni = vniOf(name);
  if (rmxPerVniFdbStatusSm_.contains(vni)) {
    removeVni(vni, __PRETTY_FUNCTION__);
  }
}

void VxlanControllerMacAddrSmBase::addVni(const Kel::Name& name, const char* operation) {
  const Kel::Ptr<Kel::Entity> entity = controllerStatusBaseDir_->entityPtr(name);
  if (!entity) {
    VCC_LINE_OF(operation, traceOrdinary, name, " entry subdir added, but not instantiated ");
    return;
  }
  VCC_LINE_OF(operation, traceOrdinary, name, " entry subdir added ");
  const Kel::Ptr<const VxlanController::VniFdbStatusV2> status =
      Kel::ptrCast<VxlanController::VniFdbStatusV2>(entity);
  if (!status) {
    return;
  }
  const VniExt vniId = vniOf(name);
  Kel::fatalUnless(!!vniId.value(), "!!vniId");
  const Kel::Ptr<RmxPerVniFdbStatusSmBase> present = rmxPerVniFdbStatusSm(vniId);
  if (present && present->rmxVniFdbStatusV2() != status) {
    removeVni(vniId, operation);  // the machine follows an entity that was replaced
  }
  for (const Qnet::IntfId& vti : getVtiIterator()) {
    const Bridging::VlanIdOrNone vlan = vlanForVni(vti, vniId);
    VCC_LINE_OF(operation, traceOrdinary, "vniId: ", vniId, " localmap: ", vlan);
    if (!vlan) {
      continue;
    }
    VCC_LINE_OF(operation, traceOrdinary, " vni-vlan map found for vni ", vniId);
    if (const Kel::Ptr<RmxPerVniFdbStatusSmBase> machine = rmxPerVniFdbStatusSm(vniId)) {
      machine->handleRmxHostTable();
    } else {
      createRmxPerVniFdbStatusSm(vniId, status);
    }
  }
}

void VxlanControllerMacAddrSmBase::removeVni(VniExt vni, const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, " Deleting the corresponding SM");
  cleanupRmxPerVniFdbStatusSm(vni, true);
  deleteRmxPerVniFdbStatusSm(vni);
}

void VxlanControllerMacAddrSmBase::cleanupRmxPerVniFdbStatusSm(VniExt vni, bool deferIfConverging) {
  VCC_TRACE(traceOrdinary, " Delete remote mac entries for vni ", vni);
  bool deferDel = false;
  for (const Qnet::IntfId& vti : getVtiIterator()) {
    const Bridging::VlanIdOrNone mapped = vlanForVni(vti, vni);
    if (!mapped) {
      VCC_LINE(traceOrdinary, "Missing vlan-to-vni mapping");
      return;
    }
    const Bridging::VlanId vlan(mapped);
    if (deferIfConverging && vxlanControllerClientMode() && converging()) {
      deferDel = true;
    }
    deleteRemoteMacFromController(vlan, deferDel);
    if (deferDel) {
      continue;  // flood state is left to the paced job
    }
    deleteBumVtepListTable(vlan);
    if (const Kel::Ptr<RmxMlagBumStatusSmBase> machine = rmxMlagBumStatusSm()) {
      machine->markAndSweep(vlan);
    }
  }
}

void VxlanControllerMacAddrSmBase::cleanupRmxPerVniFdbStatusSm() {
  VCC_TRACE(traceOrdinary);
  for (const VniExt vni : rmxPerVniFdbStatusSm_.keys()) {
    cleanupRmxPerVniFdbStatusSm(vni, true);
  }
}

void VxlanControllerMacAddrSmBase::vxlanControllerScanVniStatus(VniExt vni) {
  VCC_TRACE(traceOrdinary, " Scanning VniStatus for vni ", vni);
  if (const Kel::Ptr<RmxPerVniFdbStatusSmBase> machine = rmxPerVniFdbStatusSm(vni)) {
    machine->handleInitialized();
    return;
  }
  VCC_LINE(traceOrdinary, "creating vniStatusSm");
  handleControllerVniBaseDir(Kel::Name(std::to_string(vni.value())));
}

// The status of a VTI, null where it has none; in a client, that of a VTI with a map is known.
const VtiStatus* VxlanControllerMacAddrSmBase::statusOf(const Qnet::IntfId& vti) const {
  if (client_ != nullptr) {
    for (const VxlanControllerClientSm::VtiView& view : client_->vtiViews()) {
      if (view.intf == vti) {
        return view.status;
      }
    }
  }
  const Kel::Ptr<VtiStatus>* status = vtiStatusDir_ ? vtiStatusDir_->vtiStatus().find(vti) : nullptr;
  return status == nullptr ? nullptr : status->get();
}

bool VxlanControllerMacAddrSmBase::isVtepIpMine(VniExt vni, Qnet::IpAddr vtepIp, Qnet::IntfId vti) const {
  VCC_TRACE(traceOrdinary, " vni ", vni, " vtepIp ", vtepIp, " vti ", vti);
  const VtiStatus* const status = statusOf(vti);
  if (status == nullptr) {
    return false;
  }
  VCC_LINE(traceOrdinary, "local vtepIp: ", status->localVtepAddr(),
           " local dgw vtepIp: ", status->dgwVtepAddr());
  if (vtepIp == status->localVtepAddr() || vtepIp == status->dgwVtepAddr()) {
    return true;
  }
  if (mlagVxlanStatus_) {
    for (auto&& address : mlagVxlanStatus_->vtepAddr()) {
      if (address.value == vtepIp) {
        VCC_LINE(traceOrdinary, "vtepIp: ", vtepIp);
        return true;
      }
    }
  }
  return false;
}

// Mutators of inputs and children.

void VxlanControllerMacAddrSmBase::vtiStatusReconcile() {
  vtiStatus_.handle();
}

void VxlanControllerMacAddrSmBase::vtiStatusDel(Qnet::IntfId vti) {
  vtiStatus_.del(vti);
}

void VxlanControllerMacAddrSmBase::vtiStatusIs(const Kel::Ptr<const VtiStatus>& status) {
  if (!status) {
    Kel::throwNullParameter(className, "vtiStatus");
  }
  vtiStatus_.is(status->intfId(), status);
}

void VxlanControllerMacAddrSmBase::vtiStatusDirIs(VtiStatusDirRef dir) {
  if (dir) {
    vtiStatus_.inputIs(dir);
  } else {
    vtiStatusDirDel();
  }
}

void VxlanControllerMacAddrSmBase::vtiStatusDirDel() {
  vtiStatus_.inputIs(nullptr);
}

void VxlanControllerMacAddrSmBase::controllerStatusBaseDirIs(DirRef dir) {
  controllerStatusBaseDir_.is(dir);
}
void VxlanControllerMacAddrSmBase::controllerStatusBaseDirDel() {
  controllerStatusBaseDir_.del();
}
void VxlanControllerMacAddrSmBase::rmxStateClientViewIs(ClientViewRef view) {
  rmxStateClientView_.is(view);
}
void VxlanControllerMacAddrSmBase::rmxStateClientViewDel() {
  rmxStateClientView_.del();
}
void VxlanControllerMacAddrSmBase::vxlanHwStatusDirIs(HwStatusDirRef dir) {
  vxlanHwStatusDir_.is(dir);
  if (!dir) {
    kel_BumStatusInRebind();
  }
}
void VxlanControllerMacAddrSmBase::vxlanHwStatusDirDel() {
  vxlanHwStatusDirIs(nullptr);
}
void VxlanControllerMacAddrSmBase::mlagStatusIs(MlagStatusRef status) {
  mlagStatus_.is(status);
}
void VxlanControllerMacAddrSmBase::mlagStatusDel() {
  mlagStatus_.del();
}
void VxlanControllerMacAddrSmBase::unicastDeferredDeleteClockIs(ClockRef clock) {
  if (!clock) {
    Kel::throwNullParameter(className, "unicastDeferredDeleteClock");
  }
  unicastDeferredDeleteClock_.is(clock);
}
void VxlanControllerMacAddrSmBase::bumDeferredDeleteClockIs(ClockRef clock) {
  if (!clock) {
    Kel::throwNullParameter(className, "bumDeferredDeleteClock");
  }
  bumDeferredDeleteClock_.is(clock);
}

// Follows the hardware's BUM status that is there now; a new one counts as a change, and so does losing it.
void VxlanControllerMacAddrSmBase::kel_BumStatusInRebind() {
  const Kel::Ptr<BumStatus> status = vxlanHwStatusDir_ ? vxlanHwStatusDir_->bumStatus() : nullptr;
  kel_BumStatusIn_.is(status);
  if (!status) {
    handleBumReplicationMode();
  }
}

void VxlanControllerMacAddrSmBase::rmxPerVniFdbStatusSmIs(const Kel::Ptr<RmxPerVniFdbStatusSmBase>& sm) {
  if (!sm) {
    Kel::throwNullParameter(className, "rmxPerVniFdbStatusSm");
  }
  rmxPerVniFdbStatusSm_.is(sm->vni(), sm);
  enteredVnis_.add(sm->vni());
}

void VxlanControllerMacAddrSmBase::vlanVniMapSmIs(const Kel::Ptr<VtiVlanVniMapSmBase>& sm) {
  if (!sm) {
    Kel::throwNullParameter(className, "vlanVniMapSm");
  }
  vlanVniMapSm_.is(sm->vtiIntfId(), sm);
}

Kel::Ptr<VxlanControllerMacAddrSmBase> vxlanControllerMacAddrSmBaseFactory(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus) {
  return VxlanControllerMacAddrSmBase::VxlanControllerMacAddrSmBaseIs(vtiStatusDir, controllerStatusBaseDir,
                                                                      rmxStateClientView, vxlanHwStatusDir,
                                                                      mlagStatus, mlagVxlanStatus);
}

}  // namespace Vxlan
