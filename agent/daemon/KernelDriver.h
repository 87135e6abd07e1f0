// The kernel adapter on the agent's loop.
#pragma once

#include "agent/daemon/KernelFollower.h"
#include "agent/kernel/Adapter.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// Drives the kernel adapter: when its sockets have something, when a time of its own has come, and when the
// state has changed, it works in slices until it has nothing to do at once.
class KernelDriver {
 public:
  // Raises std::runtime_error when the namespace belongs to another agent. `loop` and `world` outlive this.
  KernelDriver(Service::EventLoop& loop, World& world, const Kernel::Options& options,
               KernelFollower::Ports ports);
  ~KernelDriver();
  KernelDriver(const KernelDriver&) = delete;
  KernelDriver& operator=(const KernelDriver&) = delete;

  Kernel::Adapter& adapter() { return adapter_; }
  // There may be something to do.
  void run();
  // The controller's state is complete: what the kernel has beyond it is stale.
  void settled();

 private:
  void arm();

  Service::EventLoop& loop_;
  Kernel::Adapter adapter_;
  KernelFollower follower_;
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
  Service::EventLoop::TimerId timer_ = Service::EventLoop::TimerId::none;
};

}  // namespace Agent
