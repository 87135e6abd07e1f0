#include "agent/daemon/InitialSync.h"

namespace Agent {

namespace {

constexpr std::size_t adoptedPerSlice = 256;

}  // namespace

InitialSync::InitialSync(Service::EventLoop& loop, World& world, Incidents& incidents,
                         const DatabaseFeed* feed, KernelDriver* kernel)
    : loop_(loop), world_(world), incidents_(incidents), feed_(feed), kernel_(kernel) {
  if (world_.hosts->hosts() != 0 && feed_ != nullptr) {
    adoption_ = std::make_unique<Adoption>(world_);
  } else {
    world_.clientIs();
  }
}

InitialSync::~InitialSync() {
  loop_.dropWork(work_);
}

void InitialSync::advance() {
  if ((adoption_ == nullptr && (kernel_ == nullptr || kernelTold_)) || !controllerSettled()) {
    return;
  }
  if (adoption_ != nullptr) {
    cleanAdopted();
    return;
  }
  const bool cleaned = !world_.convergenceStatus->unicastDeferredDeletionInProgress() &&
                       !world_.convergenceStatus->bumDeferredDeletionInProgress();
  if (cleaned) {
    kernelTold_ = true;
    kernel_->settled();
  }
}

void InitialSync::cleanAdopted() {
  if (work_ != Service::EventLoop::WorkId::none) {
    return;
  }
  work_ = loop_.addWork([this] {
    bool more = true;
    while (more && loop_.budgetLeft()) {
      incidents_.guarded("the end of the adoption", [&] { more = adoption_->clean(adoptedPerSlice); });
    }
    if (!more) {
      work_ = Service::EventLoop::WorkId::none;
      adoption_ = nullptr;
    }
    return more;
  });
}

}  // namespace Agent
