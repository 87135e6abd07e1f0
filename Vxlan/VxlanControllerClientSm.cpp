// The top state machine.
#include <limits>

#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode VxlanControllerClientSm::type{"Vxlan::VxlanControllerClientSm",
                                                  &VxlanControllerMacAddrSmBase::type};

namespace {
[[maybe_unused]] const bool registered = Kel::typeNodeIs(VxlanControllerClientSm::type);
}  // namespace

// The reactors: which handler each change of an input runs.

struct VxlanControllerClientSm::KelRmxStateBaseDir final : Kel::Reacts<Kel::Dir, VxlanControllerClientSm> {
  using Reacts::Reacts;
  void onEntityPtr(Kel::Name name) override { owner().handleRmxStateBaseDir(name); }
  void onEntityPtrkelImmediate() override { owner().handleRmxStateBaseDir(); }
};

struct VxlanControllerClientSm::KelVlanVniMaps final : Kel::Reacts<VlanVniMaps, VxlanControllerClientSm> {
  using Reacts::Reacts;
  void onVlanVniMap(Qnet::IntfId vti) override { owner().handleVlanVniMapVti(vti); }
  void onVlanVniMapkelImmediate() override { owner().handleVlanVniMapVti(); }
};

VxlanControllerClientSm::VxlanControllerClientSm(VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir,
                                                 ClientViewRef rmxStateClientView,
                                                 HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus,
                                                 MlagVxlanStatusRef mlagVxlanStatus, DirRef rmxStateBaseDir,
                                                 VlanVniMapsRef vlanVniMaps, SourceRef rmxSde,
                                                 HostInputRef l2RibRmxInput,
                                                 ConvergenceStatusRef rmxConvergenceStatus)
    : VxlanControllerMacAddrSmBase(vtiStatusDir, controllerStatusBaseDir, rmxStateClientView,
                                   vxlanHwStatusDir, mlagStatus, mlagVxlanStatus),
      rmxSde_(*this, "rmxSde", rmxSde),
      l2RibRmxInput_(*this, "l2RibRmxInput", l2RibRmxInput),
      rmxConvergenceStatus_(*this, "rmxConvergenceStatus", rmxConvergenceStatus) {
  client_ = this;
  rmxStateBaseDir_.is(rmxStateBaseDir);
  vlanVniMaps_.is(vlanVniMaps);
  VxlanControllerClientSm::handleInitialized();
}

Kel::Ptr<VxlanControllerClientSm> VxlanControllerClientSm::VxlanControllerClientSmIs(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus,
    DirRef rmxStateBaseDir, VlanVniMapsRef vlanVniMaps, SourceRef rmxSde, HostInputRef l2RibRmxInput,
    ConvergenceStatusRef rmxConvergenceStatus) {
  return Kel::live<VxlanControllerClientSm>(vtiStatusDir, controllerStatusBaseDir, rmxStateClientView,
                                            vxlanHwStatusDir, mlagStatus, mlagVxlanStatus, rmxStateBaseDir,
                                            vlanVniMaps, rmxSde, l2RibRmxInput, rmxConvergenceStatus);
}

VxlanControllerClientSm::~VxlanControllerClientSm() {
  // Nothing is called back any more; then the children go, before what they point back to.
  kelDoZombieReactors(true);
  receivedHostTableToL2RibHostInputSm_.del();
  rmxMlagBumStatusSmShadow_.del();
  rmxMlagBumStatusSmDel();
  vlanVniMapSmDelAll();
  vlanVniMapSmShadowDelAll();
  vccPerVniFdbStatusSmShadowDelAll();
  rmxPerVniFdbStatusSmDelAll();
  rmxStateSm_.del();
}

void VxlanControllerClientSm::handleInitialized() {
  vccRlHandleInit();
  VCC_TRACE(traceOrdinary, " Init? ", initialized());
  initializedIs(true);
  unicastDeferredDeleteClock()->timeMinIs(std::numeric_limits<double>::infinity());
  bumDeferredDeleteClock()->timeMinIs(std::numeric_limits<double>::infinity());
  hostTableIs(Kel::Name("hostTable"));
  const Kel::Ptr<const ReceivedHostTable> table = hostTable();
  receivedHostTableToL2RibHostInputSm_.shadowIs(table, l2RibRmxInput_.get());
  handleControllerVniBaseDir();
  handleRmxStateBaseDir();
  // Before the client mode, so that a VTI that has learning off from the start is noticed.
  handleDatapathLearningMode();
  handleControllerClientMode();
  for (const Qnet::IntfId& vti : std::vector<Qnet::IntfId>(getVtiIterator())) {
    createVlanVniMapSm(vti);
  }
}

// The modes.

void VxlanControllerClientSm::handleControllerClientMode() {
  VCC_TRACE(traceOrdinary, " init? ", initialized(), " vxlanControllerClientMode is ",
            vxlanControllerClientMode());
  bool mode = false;
  if (vtiStatusDir()) {
    for (auto&& vti : vtiStatusDir()->vtiStatus()) {
      mode = mode || vti.value->controllerClientMode();
    }
  }
  vxlanControllerClientModeIs(mode);
  updateControllerClientMode();
}

void VxlanControllerClientSm::handleDatapathLearningMode() {
  VCC_TRACE(traceOrdinary, " init? ", initialized(), " datapathLearningMode is ", datapathLearningMode());
  bool learning = true;
  if (vtiStatusDir()) {
    for (auto&& vti : vtiStatusDir()->vtiStatus()) {
      learning = learning && vti.value->datapathLearning();
    }
  }
  datapathLearningModeIs(learning);
  updateControllerClientMode();
}

void VxlanControllerClientSm::updateControllerClientMode() {
  VCC_TRACE(traceOrdinary, " init? ", initialized(), " datapathLearning is ", datapathLearningMode(),
            " vxlanControllerClientMode is ", vxlanControllerClientMode());
  handleRmxStateBaseDir();
  if (!vxlanControllerClientMode()) {
    cleanupRmxPerVniFdbStatusSm();
    for (const VniExt vni : rmxPerVniFdbStatusSm().keys()) {
      deleteRmxPerVniFdbStatusSm(vni);
    }
    handleMlagState();
    return;
  }
  if (datapathLearningMode()) {
    deleteRemoteMacsOfMappedVlans(__PRETTY_FUNCTION__);
  }
  handleControllerVniBaseDir();
  handleMlagState();
}

void VxlanControllerClientSm::deleteRemoteMacsOfMappedVlans(const char* operation) {
  VCC_LINE_OF(operation, traceOrdinary, " Deleting remote MACs learnt from RMX");
  for (const Qnet::IntfId& vti : getVtiIterator()) {
    const Kel::Ptr<const VlanVniMap> map = vlanVniMaps()->vlanVniMap(vti);
    for (auto&& mapping : map->vlanToVsp()) {
      deleteRemoteMacFromController(mapping.key, false);
    }
  }
}

// The VLAN-VNI maps.

void VxlanControllerClientSm::handleVlanVniMapVti(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " intf: ", vti);
  if (vlanVniMaps_ && vlanVniMaps_->vlanVniMap(vti)) {
    createVlanVniMapSm(vti);
  } else {
    deleteVlanVniMapSm(vti);
  }
}

// The maps as a whole changed: trackers whose VTI has none go, then each VTI that has one gets its own.
void VxlanControllerClientSm::handleVlanVniMapVti() {
  VCC_TRACE(traceOrdinary);
  for (const Qnet::IntfId& vti : vlanVniMapSm().keys()) {
    if (!vlanVniMaps_ || !vlanVniMaps_->vlanVniMap(vti)) {
      handleVlanVniMapVti(vti);
    }
  }
  for (const Qnet::IntfId& vti : std::vector<Qnet::IntfId>(getVtiIterator())) {
    handleVlanVniMapVti(vti);
  }
}

void VxlanControllerClientSm::createVlanVniMapSm(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " vti ", vti);
  const Kel::Ptr<const VlanVniMap> map = vlanVniMaps_ ? vlanVniMaps_->vlanVniMap(vti) : nullptr;
  if (map) {
    vlanVniMapSmIs(vlanVniMapSmShadowIs(vti, this, map));
  }
}

void VxlanControllerClientSm::deleteVlanVniMapSm(Qnet::IntfId vti) {
  VCC_TRACE(traceOrdinary, " vti ", vti);
  vlanVniMapSmDel(vti);
  vlanVniMapSmShadowDel(vti);
}

Kel::Ptr<VtiVlanVniMapSm> VxlanControllerClientSm::vlanVniMapSmShadowIs(Qnet::IntfId vti,
                                                                        VxlanControllerMacAddrSmBase* owner,
                                                                        VlanVniMapRef map) {
  return vlanVniMapSmShadow_.shadowIs(vti, owner, map);
}

const std::vector<Qnet::IntfId>& VxlanControllerClientSm::getVtiIterator() const {
  const VlanVniMaps* maps = vlanVniMaps().get();
  const std::uint64_t version = maps == nullptr ? 0 : maps->vlanVniMap().version();
  if (maps != vtisOf_ || version != vtisVersion_) {
    vtis_.clear();
    if (maps != nullptr) {
      for (auto&& map : maps->vlanVniMap()) {
        vtis_.push_back(map.key);
      }
    }
    vtisOf_ = maps;
    vtisVersion_ = version;
  }
  return vtis_;
}

void VxlanControllerClientSm::resolveVtis(std::uint64_t maps, std::uint64_t statuses) const {
  views_.clear();
  if (vlanVniMaps_) {
    for (auto&& map : vlanVniMaps_->vlanVniMap()) {
      const Kel::Ptr<VtiStatus>* status =
          vtiStatusDir() ? vtiStatusDir()->vtiStatus().find(map.key) : nullptr;
      views_.push_back({map.key, map.value.get(), status == nullptr ? nullptr : status->get()});
    }
  }
  viewMaps_ = maps;
  viewStatuses_ = statuses;
}

Bridging::VlanIdOrNone VxlanControllerClientSm::vlanForVni(Qnet::IntfId vti, VniExt vni) const {
  const Kel::Ptr<VlanVniMap>* map = vlanVniMaps_ ? vlanVniMaps_->vlanVniMap().find(vti) : nullptr;
  return map == nullptr ? Bridging::VlanIdOrNone() : (*map)->vniToVlan(vni);
}

VniExtOrNone VxlanControllerClientSm::vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const {
  const Kel::Ptr<VlanVniMap>* map = vlanVniMaps_ ? vlanVniMaps_->vlanVniMap().find(vti) : nullptr;
  return map == nullptr ? VniExtOrNone() : (*map)->vlanToVsp(vlan).vni;
}

void VxlanControllerClientSm::rmxStateBaseDirIs(DirRef dir) {
  rmxStateBaseDir_.is(dir);
}
void VxlanControllerClientSm::rmxStateBaseDirDel() {
  rmxStateBaseDir_.del();
}
void VxlanControllerClientSm::vlanVniMapsIs(VlanVniMapsRef maps) {
  vtis_.clear();  // other maps may come to lie where the old ones lay
  vtisOf_ = nullptr;
  vlanVniMaps_.is(maps);
}
void VxlanControllerClientSm::vlanVniMapsDel() {
  vlanVniMapsIs(nullptr);
}

// The machines of the VNIs.

void VxlanControllerClientSm::createRmxPerVniFdbStatusSm(
    VniExt vni, Kel::Ptr<const VxlanController::VniFdbStatusV2> status) {
  VCC_TRACE(traceOrdinary, "createRmxPerVniFdbStatusSm ", vni);
  rmxPerVniFdbStatusSmIs(
      vccPerVniFdbStatusSmShadowIs(vni, status, vtiStatusDir(), vxlanHwStatusDir(), this, rmxSde()));
}

void VxlanControllerClientSm::deleteRmxPerVniFdbStatusSm(VniExt vni) {
  VCC_TRACE(traceOrdinary, "deleteRmxPerVniFdbStatusSm ", vni);
  vccPerVniFdbStatusSmShadowDel(vni);
  rmxPerVniFdbStatusSmDel(vni);
}

Kel::Ptr<VccPerVniFdbStatusSm> VxlanControllerClientSm::vccPerVniFdbStatusSmShadowIs(
    VniExt vni, VniStatusRef status, VtiStatusDirRef dir, HwStatusDirRef hwStatusDir,
    VxlanControllerMacAddrSmBase* owner, SourceRef sde) {
  return vccPerVniFdbStatusSmShadow_.shadowIs(vni, status, dir, hwStatusDir, owner, sde);
}

// The received hosts.

Kel::Ptr<ReceivedHostTable> VxlanControllerClientSm::hostTableIs(const Kel::Name& name) {
  if (!hostTable_) {
    hostTable_ = Kel::make<ReceivedHostTable>(name);
  }
  return hostTable_.get();
}

Kel::Ptr<ReceivedHostTable> VxlanControllerClientSm::getHostTable() const {
  return hostTable_.get();
}

void VxlanControllerClientSm::setUnicastDeferredDeletionInProgress(bool inProgress) {
  if (rmxConvergenceStatus_) {
    rmxConvergenceStatus_->unicastDeferredDeletionInProgressIs(inProgress);
  }
}

// The MLAG pair.

void VxlanControllerClientSm::createRmxMlagBumStatusSm() {
  VCC_TRACE(traceOrdinary);
  rmxMlagBumStatusSmIs(rmxMlagBumStatusSmShadowIs(mlagVxlanStatus(), vxlanHwStatusDir(), vlanVniMaps()));
}

void VxlanControllerClientSm::deleteRmxMlagBumStatusSm() {
  VCC_TRACE(traceOrdinary);
  rmxMlagBumStatusSmShadowDel();
  rmxMlagBumStatusSmDel();
}

Kel::Ptr<RmxMlagBumStatusSm> VxlanControllerClientSm::rmxMlagBumStatusSmShadowIs(MlagVxlanStatusRef status,
                                                                                 HwStatusDirRef hwStatusDir,
                                                                                 VlanVniMapsRef maps) {
  return rmxMlagBumStatusSmShadow_.shadowIs(status, hwStatusDir, maps);
}

Kel::Ptr<VxlanControllerClientSm> vxlanControllerClientSmFactory(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus,
    DirRef rmxStateBaseDir, VlanVniMapsRef vlanVniMaps, SourceRef rmxSde, HostInputRef l2RibRmxInput,
    ConvergenceStatusRef rmxConvergenceStatus) {
  return VxlanControllerClientSm::VxlanControllerClientSmIs(
      vtiStatusDir, controllerStatusBaseDir, rmxStateClientView, vxlanHwStatusDir, mlagStatus,
      mlagVxlanStatus, rmxStateBaseDir, vlanVniMaps, rmxSde, l2RibRmxInput, rmxConvergenceStatus);
}

}  // namespace Vxlan
