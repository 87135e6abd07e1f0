// The echo of the controller's convergence flag, and its stand-alone owner.
#include "Vxlan/VxlanControllerSm.h"
#include "Vxlan/framework/Trace.h"

namespace Vxlan {

const Kel::TypeNode RmxStateSm::type{"Vxlan::RmxStateSm"};
const Kel::TypeNode RmxStateSmWrapper::type{"Vxlan::RmxStateSmWrapper"};

namespace {
[[maybe_unused]] const bool registered =
    Kel::typeNodeIs(RmxStateSm::type) && Kel::typeNodeIs(RmxStateSmWrapper::type);
}  // namespace

RmxStateSm::RmxStateSm(const Kel::Ptr<const VxlanController::RmxStateV2>& rmxState,
                       const Kel::Ptr<VxlanController::RmxStateClientViewV2>& rmxStateClientView)
    : rmxStateClientView_(*this, "rmxStateClientView", rmxStateClientView) {
  rmxState_.is(rmxState);
  handleInitialized();
}

Kel::Ptr<RmxStateSm> RmxStateSm::RmxStateSmIs(
    const Kel::Ptr<const VxlanController::RmxStateV2>& rmxState,
    const Kel::Ptr<VxlanController::RmxStateClientViewV2>& rmxStateClientView) {
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

RmxStateSmWrapper::RmxStateSmWrapper(
    const Kel::Ptr<const VtiStatusDir>& vtiStatusDir, const Kel::Ptr<const Kel::Dir>& rmxStateBaseDir,
    const Kel::Ptr<VxlanController::RmxStateClientViewV2>& rmxStateClientView)
    : rmxStateClientView_(*this, "rmxStateClientView", rmxStateClientView) {
  vtiStatusDir_.is(vtiStatusDir);
  rmxStateBaseDir_.is(rmxStateBaseDir);
  if (vtiStatusDir) {
    vtiStatus_.reconcile(vtiStatusDir->vtiStatus());
  }
  handleInitialized();
}

Kel::Ptr<RmxStateSmWrapper> RmxStateSmWrapper::RmxStateSmWrapperIs(
    const Kel::Ptr<const VtiStatusDir>& vtiStatusDir, const Kel::Ptr<const Kel::Dir>& rmxStateBaseDir,
    const Kel::Ptr<VxlanController::RmxStateClientViewV2>& rmxStateClientView) {
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
  if (!initialized() || !rmxStateBaseDir_) {
    return;
  }
  for (auto&& entry : *rmxStateBaseDir_.get()) {
    handleRmxStateBaseDir(entry.key);
  }
}

void RmxStateSmWrapper::handleRmxStateBaseDir(Kel::Name name) {
  VCC_TRACE(traceOrdinary, "handleRmxStateBaseDir", " init ", initialized());
  if (!initialized() || !rmxStateBaseDir_) {
    return;
  }
  if (!rmxStateBaseDir_->hasEntry(name) || !vxlanControllerClientMode()) {
    VCC_LINE(traceOrdinary, "handleRmxStateBaseDir", " entry subdir deleted for ");
    rmxStateSmDel();
    return;
  }
  const Kel::Ptr<Kel::Entity> entity = rmxStateBaseDir_->entityPtr(name);
  if (!entity) {
    VCC_LINE(traceOrdinary, "handleRmxStateBaseDir", " entry subdir added, but not instantiated ");
    return;
  }
  VCC_LINE(traceOrdinary, "handleRmxStateBaseDir", " entry subdir added ");
  if (const auto state = Kel::ptrCast<VxlanController::RmxStateV2>(entity)) {
    rmxStateSmIs(state, rmxStateClientView_.get());
  }
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

void RmxStateSmWrapper::rmxStateSmIs(
    const Kel::Ptr<const VxlanController::RmxStateV2>& rmxState,
    const Kel::Ptr<VxlanController::RmxStateClientViewV2>& rmxStateClientView) {
  rmxStateSm_.shadowIs(rmxState, rmxStateClientView);
}

void RmxStateSmWrapper::rmxStateSmDel() {
  rmxStateSm_.del();
}

void RmxStateSmWrapper::vtiStatusDirIs(const Kel::Ptr<const VtiStatusDir>& dir) {
  if (dir) {
    vtiStatusDir_.is(dir);
  } else {
    vtiStatusDirDel();
  }
}

void RmxStateSmWrapper::vtiStatusDirDel() {
  vtiStatusDir_.del();
  vtiStatus_.delAll();
}

Kel::Ptr<RmxStateSmWrapper> rmxStateSmWrapperFactory(
    const Kel::Ptr<const VtiStatusDir>& vtiStatusDir, const Kel::Ptr<const Kel::Dir>& rmxStateBaseDir,
    const Kel::Ptr<VxlanController::RmxStateClientViewV2>& rmxStateClientView) {
  return RmxStateSmWrapper::RmxStateSmWrapperIs(vtiStatusDir, rmxStateBaseDir, rmxStateClientView);
}

}  // namespace Vxlan
