// The echo of the controller's convergence flag, and how its two owners, the stand-alone one and the client,
// keep it.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode RmxStateSm::type{"Vxlan::RmxStateSm"};
const Kel::TypeNode RmxStateSmWrapper::type{"Vxlan::RmxStateSmWrapper"};

namespace {
[[maybe_unused]] const bool registered =
    Kel::typeNodeIs(RmxStateSm::type) && Kel::typeNodeIs(RmxStateSmWrapper::type);

// Keeps an owner's echo in line with one entry of the controller's state directory.
template <class Owner>
void handleEntry(Owner& owner, const Kel::Name& name, const char* operation) {
  if (!owner.initialized() || !owner.rmxStateBaseDir()) {
    return;
  }
  if (!owner.rmxStateBaseDir()->hasEntry(name) || !owner.vxlanControllerClientMode()) {
    VCC_LINE_OF(operation, traceOrdinary, "handleRmxStateBaseDir", " entry subdir deleted for ");
    owner.rmxStateSmDel();
    return;
  }
  const Kel::Ptr<Kel::Entity> entity = owner.rmxStateBaseDir()->entityPtr(name);
  if (!entity) {
    VCC_LINE_OF(operation, traceOrdinary, "handleRmxStateBaseDir",
                " entry subdir added, but not instantiated ");
    return;
  }
  VCC_LINE_OF(operation, traceOrdinary, "handleRmxStateBaseDir", " entry subdir added ");
  if (const auto state = Kel::ptrCast<VxlanController::RmxStateV2>(entity)) {
    owner.rmxStateSmIs(state, owner.rmxStateClientView());
  }
}

// The same for every entry.
template <class Owner>
void handleEntries(Owner& owner) {
  if (!owner.initialized() || !owner.rmxStateBaseDir()) {
    return;
  }
  const Kel::Ptr<const Kel::Dir> dir = owner.rmxStateBaseDir();
  for (auto&& entry : *dir) {
    owner.handleRmxStateBaseDir(entry.key);
  }
}

}  // namespace

// The reactors: which handler each change of an input runs.

struct RmxStateSmWrapper::KelVtiStatusDir final : Kel::Reacts<VtiStatusDir, RmxStateSmWrapper> {
  using Reacts::Reacts;
  void onVtiStatus(Qnet::IntfId vti) override { owner().vtiStatus_.handle(vti); }
  void onVtiStatuskelImmediate() override { owner().vtiStatus_.handle(); }
};

struct RmxStateSmWrapper::KelVtiStatus final : Kel::Reacts<VtiStatus, RmxStateSmWrapper> {
  using Reacts::Reacts;
  void onControllerClientMode() override { owner().handleRmxStateBaseDir(); }
};

RmxStateSm::RmxStateSm(RmxStateRef rmxState, ClientViewRef rmxStateClientView)
    : rmxStateClientView_(*this, "rmxStateClientView", rmxStateClientView) {
  rmxState_.is(rmxState);
  handleInitialized();
}

Kel::Ptr<RmxStateSm> RmxStateSm::RmxStateSmIs(RmxStateRef rmxState, ClientViewRef rmxStateClientView) {
  return Kel::live<RmxStateSm>(rmxState, rmxStateClientView);
}

RmxStateSm::~RmxStateSm() {
  cleanup();
  kelDoZombieReactors(true);
}

void RmxStateSm::handleInitialized() {
  initialized_ = true;
  handleConvergenceInProgress();
}

void RmxStateSm::handleConvergenceInProgress() {
  VCC_TRACE(traceOrdinary, "handleConvergenceInProgress", " init ", initialized());
  if (!initialized() || !rmxState_) {
    return;
  }
  const bool converging = rmxState_->convergenceInProgress();
  VCC_LINE(traceOrdinary, "handleConvergenceInProgress", " init ", initialized(), " convergence state ",
           converging);
  VCC_RECORD(traceOrdinary, "handleConvergenceInProgress", " echo convergence state ", converging);
  if (rmxStateClientView_) {
    rmxStateClientView_->convergenceInProgressIs(converging);
  }
}

void RmxStateSm::cleanup() {
  VCC_TRACE(traceOrdinary, "cleanup", " convergence window ",
            rmxStateClientView_ && rmxStateClientView_->convergenceInProgress());
  if (rmxStateClientView_) {
    rmxStateClientView_->convergenceInProgressIs(false);
  }
}

RmxStateSmWrapper::RmxStateSmWrapper(VtiStatusDirRef vtiStatusDir, DirRef rmxStateBaseDir,
                                     ClientViewRef rmxStateClientView)
    : rmxStateClientView_(*this, "rmxStateClientView", rmxStateClientView) {
  vtiStatusDir_.is(vtiStatusDir);
  rmxStateBaseDir_.is(rmxStateBaseDir);
  vtiStatus_.handle();
  handleInitialized();
}

Kel::Ptr<RmxStateSmWrapper> RmxStateSmWrapper::RmxStateSmWrapperIs(VtiStatusDirRef vtiStatusDir,
                                                                   DirRef rmxStateBaseDir,
                                                                   ClientViewRef rmxStateClientView) {
  vccRlHandleInit();
  return Kel::live<RmxStateSmWrapper>(vtiStatusDir, rmxStateBaseDir, rmxStateClientView);
}

RmxStateSmWrapper::~RmxStateSmWrapper() {
  rmxStateSmDel();
  kelDoZombieReactors(true);
}

void RmxStateSmWrapper::handleInitialized() {
  VCC_TRACE(traceOrdinary, "handleInitialized");
  initialized_ = true;
  handleRmxStateBaseDir();
}

void RmxStateSmWrapper::handleRmxStateBaseDir() {
  VCC_TRACE(traceOrdinary, "handleRmxStateBaseDir", " init ", initialized());
  handleEntries(*this);
}

void RmxStateSmWrapper::handleRmxStateBaseDir(Kel::Name name) {
  VCC_TRACE(traceOrdinary, "handleRmxStateBaseDir", " init ", initialized());
  handleEntry(*this, name, __PRETTY_FUNCTION__);
}

bool RmxStateSmWrapper::vxlanControllerClientMode() const {
  if (!vtiStatusDir_) {
    return false;
  }
  for (auto&& vti : vtiStatusDir_->vtiStatus()) {
    if (vti.value->controllerClientMode()) {
      return true;
    }
  }
  return false;
}

void RmxStateSmWrapper::rmxStateSmIs(RmxStateRef rmxState, ClientViewRef rmxStateClientView) {
  rmxStateSm_.shadowIs(rmxState, rmxStateClientView);
}

void RmxStateSmWrapper::rmxStateSmDel() {
  rmxStateSm_.del();
}

void RmxStateSmWrapper::vtiStatusDirIs(VtiStatusDirRef dir) {
  vtiStatus_.inputIs(dir);
}

void RmxStateSmWrapper::vtiStatusDirDel() {
  vtiStatus_.inputIs(nullptr);
}

Kel::Ptr<RmxStateSmWrapper> rmxStateSmWrapperFactory(VtiStatusDirRef vtiStatusDir, DirRef rmxStateBaseDir,
                                                     ClientViewRef rmxStateClientView) {
  return RmxStateSmWrapper::RmxStateSmWrapperIs(vtiStatusDir, rmxStateBaseDir, rmxStateClientView);
}

// The client.

void VxlanControllerClientSm::handleRmxStateBaseDir() {
  VCC_TRACE(traceOrdinary, "handleRmxStateBaseDir", " init ", initialized());
  handleEntries(*this);
}

void VxlanControllerClientSm::handleRmxStateBaseDir(Kel::Name name) {
  VCC_TRACE(traceOrdinary, "handleRmxStateBaseDir", " init ", initialized());
  handleEntry(*this, name, __PRETTY_FUNCTION__);
}

void VxlanControllerClientSm::rmxStateSmIs(RmxStateRef rmxState, ClientViewRef rmxStateClientView) {
  rmxStateSm_.shadowIs(rmxState, rmxStateClientView);
}

void VxlanControllerClientSm::rmxStateSmDel() {
  rmxStateSm_.del();
}

}  // namespace Vxlan
