// The end of a start: what an earlier run left, and the controller does not confirm, goes.
#pragma once

#include <memory>

#include "agent/daemon/Adoption.h"
#include "agent/daemon/DatabaseFeed.h"
#include "agent/daemon/Incidents.h"
#include "agent/daemon/KernelDriver.h"
#include "agent/state/World.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// Waits until the controller's state is in and settled. Then the hosts of an earlier run that were not
// confirmed leave the host table, some at a time; and when the client's paced jobs have ended as well, the
// kernel adapter is told that what is beyond the desired state is stale. Without a database the state counts
// as settled at once.
class InitialSync {
 public:
  // `feed` and `kernel` are null where there is none. All outlive this. Hosts that are in the table are
  // adopted if there is a database to confirm them; otherwise the client begins with what it has.
  InitialSync(Service::EventLoop& loop, World& world, Incidents& incidents, const DatabaseFeed* feed,
              KernelDriver* kernel);
  ~InitialSync();
  InitialSync(const InitialSync&) = delete;
  InitialSync& operator=(const InitialSync&) = delete;

  // Whether hosts of an earlier run wait to be confirmed.
  bool adopting() const { return adoption_ != nullptr; }
  // Whether the controller's state is in, and nothing of it waits to be carried out.
  bool controllerSettled() const { return feed_ == nullptr || feed_->settled(); }
  // Goes on if it can; after each turn of the loop.
  void advance();

 private:
  void cleanAdopted();

  Service::EventLoop& loop_;
  World& world_;
  Incidents& incidents_;
  const DatabaseFeed* feed_;
  KernelDriver* kernel_;
  std::unique_ptr<Adoption> adoption_;
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
  bool kernelTold_ = false;
};

}  // namespace Agent
