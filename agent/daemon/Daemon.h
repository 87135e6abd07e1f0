// The daemon: everything of `vxlan-agent run`, put together on one event loop.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/daemon/AgentService.h"
#include "agent/daemon/DatabaseFeed.h"
#include "agent/daemon/Incidents.h"
#include "agent/daemon/InitialSync.h"
#include "agent/daemon/KernelDriver.h"
#include "agent/daemon/Log.h"
#include "agent/daemon/PatchQueue.h"
#include "agent/daemon/Recorder.h"
#include "agent/daemon/RefusedWrites.h"
#include "agent/daemon/Reload.h"
#include "agent/daemon/RunOptions.h"
#include "agent/daemon/SlotSweep.h"
#include "agent/daemon/StatusReport.h"
#include "agent/daemon/TableRepair.h"
#include "agent/state/World.h"
#include "service/control/Server.h"
#include "service/loop/EventLoop.h"
#include "service/metrics/Endpoint.h"

namespace Agent {

// One thread, one loop: the control socket, the controller database, the kernel, signals and timers around
// the client's own activity loop. Patches come from the control socket and from the database, and are carried
// out a few changes at a time, so that the loop answers while a hundred thousand rows are read. The daemon
// makes the parts, hands each what it needs, and has the work that comes around every turn and every second.
//
// State stays when the daemon ends. Where the host table has hosts of an earlier run and a database is
// configured, they are adopted: until the controller's state is in and settled they go on forwarding, and
// then what is stale goes, some at a time.
class Daemon {
 public:
  // Raises std::exception for what cannot be had: the host table, the socket, the recording. `log` outlives
  // this.
  Daemon(const RunOptions& options, std::vector<std::string> arguments, Log& log);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Runs until SIGTERM or SIGINT.
  void run();

 private:
  // The client's activity loop as a guest of the event loop.
  class Activity;

  void openControl();
  void openKernel();
  void openDatabase();
  void openMetrics();
  void record(const nlohmann::json& patch);
  void reportRecorderProblem();
  bool isWanted(const Bridging::MacVlanPair& key) const;
  void everyTurn();
  void everySecond();

  RunOptions options_;
  Log& log_;
  Service::EventLoop loop_;
  Incidents incidents_;
  World world_;
  RefusedWrites refused_;
  std::unique_ptr<Activity> activity_;
  TableRepair repair_;
  SlotSweep sweep_;
  PatchQueue patches_;  // from the control socket
  Recorder recorder_;
  StatusReport report_;
  std::unique_ptr<AgentService> service_;
  std::unique_ptr<Control::Server> server_;
  std::unique_ptr<KernelDriver> kernel_;
  std::unique_ptr<DatabaseFeed> feed_;
  std::unique_ptr<InitialSync> sync_;
  std::unique_ptr<Reload> reload_;
  std::unique_ptr<Service::MetricsEndpoint> metrics_;
  bool refusedLogged_ = false;  // that hosts wait for a place in the table
  std::uint64_t lastNotified_ =
      0;  // notifications delivered when the followers of the document were called last
};

}  // namespace Agent
