#include "agent/daemon/SlotSweep.h"

namespace Agent {

void SlotSweep::look() {
  if (!sweeping() && hosts_->sweep(0) > 0) {
    work_ = loop_.addWork([this] { return slice(); });
  }
}

// Ends when nothing waits, or what waits must wait for the end of its turn.
bool SlotSweep::slice() {
  bool more = true;
  do {
    const std::size_t before = hosts_->sweep(0);
    const std::size_t waiting = hosts_->sweep(atOnce);
    more = waiting > 0 && waiting < before;
  } while (more && loop_.works() == 1 && loop_.budgetLeft());
  if (!more) {
    work_ = Service::EventLoop::WorkId::none;
  }
  return more;
}

}  // namespace Agent
