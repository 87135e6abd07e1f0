// The client's report on its clean-up after a convergence.
#pragma once

#include "Kel/Entity.h"

namespace Vxlan {

// Whether the two paced jobs that remove stale state are under way. Both are set when a convergence ends, and
// each is cleared when its job is done, or when a new convergence begins.
class KEL_API VxlanClientConvergenceStatus final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onUnicastDeferredDeletionInProgress() {}
    virtual void onBumDeferredDeletionInProgress() {}
  };

  bool unicastDeferredDeletionInProgress() const { return unicastDeferredDeletionInProgress_; }
  void unicastDeferredDeletionInProgressIs(bool inProgress) {
    unicastDeferredDeletionInProgress_ = inProgress;
  }
  bool bumDeferredDeletionInProgress() const { return bumDeferredDeletionInProgress_; }
  void bumDeferredDeletionInProgressIs(bool inProgress) { bumDeferredDeletionInProgress_ = inProgress; }

  const char* typeName() const override { return "Vxlan::VxlanClientConvergenceStatus"; }
  void attributes(Kel::Attributes& list) const override {
    list("unicastDeferredDeletionInProgress", unicastDeferredDeletionInProgress_);
    list("bumDeferredDeletionInProgress", bumDeferredDeletionInProgress_);
  }

 private:
  Kel::Attribute<bool, &Reactor::onUnicastDeferredDeletionInProgress> unicastDeferredDeletionInProgress_{
      *this, false};
  Kel::Attribute<bool, &Reactor::onBumDeferredDeletionInProgress> bumDeferredDeletionInProgress_{*this,
                                                                                                 false};
};

}  // namespace Vxlan
