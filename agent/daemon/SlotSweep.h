// The slots of removed hosts, swept while the loop is idle.
#pragma once

#include <cstddef>
#include <utility>

#include "Vxlan/types/HostInput.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// A host that is removed leaves its slot in the host table, and each later write sweeps two of these on top
// of its own work. After removals in bulk this sweeps them as work of the loop instead, so that no later
// write pays for them: as many as the budget allows while there is no other work, else a few a turn.
class SlotSweep {
 public:
  static constexpr std::size_t atOnce = 256;  // slots between two looks at the budget

  SlotSweep(Service::EventLoop& loop, Kel::Ptr<L2Rib::HostInput> hosts)
      : loop_(loop), hosts_(std::move(hosts)) {}
  SlotSweep(const SlotSweep&) = delete;
  SlotSweep& operator=(const SlotSweep&) = delete;
  ~SlotSweep() { loop_.dropWork(work_); }

  // Begins to sweep if slots wait for it; to be called now and then.
  void look();
  bool sweeping() const { return work_ != Service::EventLoop::WorkId::none; }

 private:
  bool slice();

  Service::EventLoop& loop_;
  Kel::Ptr<L2Rib::HostInput> hosts_;
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
};

}  // namespace Agent
