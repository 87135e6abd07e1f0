// What the agent says of itself: for the control socket and for Prometheus.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Kel/System.h"
#include "agent/daemon/DatabaseFeed.h"
#include "agent/daemon/Incidents.h"
#include "agent/daemon/InitialSync.h"
#include "agent/daemon/KernelDriver.h"
#include "agent/daemon/Log.h"
#include "agent/daemon/Metrics.h"
#include "agent/daemon/RefusedWrites.h"
#include "agent/state/World.h"
#include "service/control/Server.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// Reads the parts of the agent and changes none.
class StatusReport {
 public:
  // The parts that are always there, and those that may be: null where they are not. All outlive the report.
  struct Parts {
    const Service::EventLoop& loop;
    const World& world;
    const RefusedWrites& refused;
    const Incidents& incidents;
    const Log& log;
    std::string table;  // the name of the host table
  };
  explicit StatusReport(Parts parts) : parts_(std::move(parts)) {}

  void databaseIs(const DatabaseFeed* feed) { feed_ = feed; }
  void kernelIs(KernelDriver* kernel) { kernel_ = kernel; }
  void serverIs(const Control::Server* server) { server_ = server; }
  void syncIs(const InitialSync* sync) { sync_ = sync; }

  // The agent's own part of the section "agent".
  nlohmann::json section() const;
  // All problems: an array of kind, where, text.
  nlohmann::json problems() const;
  // The numbers of the moment.
  Metrics metrics() const;

 private:
  Parts parts_;
  double started_ = Kel::System::loopTime();
  const DatabaseFeed* feed_ = nullptr;
  KernelDriver* kernel_ = nullptr;
  const Control::Server* server_ = nullptr;
  const InitialSync* sync_ = nullptr;
};

}  // namespace Agent
