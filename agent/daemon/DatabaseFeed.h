// The controller database, on its way into the state database.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "agent/daemon/Incidents.h"
#include "agent/state/InputPatch.h"
#include "agent/vtep/Adapter.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// Carries out what the controller database publishes, patch by patch, a few changes at a time in the loop's
// bulk work. A patch is recorded when it has passed the checks. One that is refused is a problem, and the
// next goes on.
class DatabaseFeed {
 public:
  // `record` gets each patch before its first change. All that is given outlives the feed.
  DatabaseFeed(Service::EventLoop& loop, World& world, const Vtep::Adapter::Options& options,
               Incidents& incidents, Log& log, std::function<void(const nlohmann::json&)> record);
  ~DatabaseFeed();
  DatabaseFeed(const DatabaseFeed&) = delete;
  DatabaseFeed& operator=(const DatabaseFeed&) = delete;

  Vtep::Adapter& adapter() { return adapter_; }
  const Vtep::Adapter& adapter() const { return adapter_; }

  // Carries out the rest of a patch that is half done, so that another one can be checked.
  void finishPatch();
  // Whether the controller's state is in, nothing of it waits to be carried out, and the controller has
  // converged.
  bool settled() const;

 private:
  bool slice();
  bool nextPatch();
  void step();

  Service::EventLoop& loop_;
  World& world_;
  Incidents& incidents_;
  std::function<void(const nlohmann::json&)> record_;
  nlohmann::json patchText_;
  std::optional<InputPatch> patch_;  // being carried out, of patchText_
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
  Vtep::Adapter adapter_;
};

}  // namespace Agent
