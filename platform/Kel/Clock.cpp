#include "Kel/Clock.h"

namespace Kel {

Clock::~Clock() {
  ActivityLoop::instance().park(*this);
}

void Clock::attributes(Attributes& list) const {
  list("timeMin", time_);
}

Ptr<Clock> ActivityFacility::clock() {
  return make<Clock>();
}

}  // namespace Kel
