// The daemon: everything of `vxlan-agent run`, put together on one event loop.
#pragma once

#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "agent/daemon/Adoption.h"
#include "agent/daemon/AgentService.h"
#include "agent/daemon/KernelFollower.h"
#include "agent/daemon/Log.h"
#include "agent/daemon/Metrics.h"
#include "agent/daemon/PatchQueue.h"
#include "agent/daemon/Recorder.h"
#include "agent/daemon/RefusedWrites.h"
#include "agent/daemon/RunOptions.h"
#include "agent/daemon/SlotSweep.h"
#include "agent/daemon/TableRepair.h"
#include "agent/state/World.h"
#include "service/control/Server.h"
#include "service/loop/EventLoop.h"
#include "service/metrics/Endpoint.h"

namespace Agent {

// One thread, one loop: the control socket, the controller database, the kernel, signals and timers around
// the client's own activity loop. Patches come from the control socket and from the database adapter, and are
// carried out a few changes at a time, so that the loop answers while a hundred thousand rows are taken in.
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

  void openDatabase();
  void openKernel();
  void openControl();
  void record(const nlohmann::json& patch);
  void tellOfRecording();
  bool takeFromDatabase();
  bool nextDatabasePatch();
  void stepPatch();
  void finishPatch();
  void guarded(const char* what, const std::function<void()>& work);
  void noteError(std::string_view where, std::string_view what);
  bool isWanted(const Bridging::MacVlanPair& key) const;
  void noteProblem(const std::string& kind, const std::string& where, const std::string& text);
  bool settled() const;
  void settleStart();
  void repairTable();
  void cleanAdopted();
  void runKernel();
  void armKernel();
  void everySecond();
  void readConfigurationAgain();
  void takeUp(const RunOptions& fresh);
  nlohmann::json agentSection() const;
  nlohmann::json problems() const;
  Metrics metrics() const;

  static constexpr std::size_t mostProblems = 200;  // that are remembered, or told of an adapter's

  RunOptions options_;
  std::vector<std::string> arguments_;
  Log& log_;
  Service::EventLoop loop_;
  World world_;
  RefusedWrites refused_;
  std::unique_ptr<Adoption> adoption_;  // while hosts of an earlier run may be stale
  std::unique_ptr<Activity> activity_;
  TableRepair repair_;
  SlotSweep sweep_;
  PatchQueue patches_;  // from the control socket
  Recorder recorder_;
  std::unique_ptr<AgentService> service_;
  std::unique_ptr<Control::Server> server_;
  std::unique_ptr<Vtep::Adapter> database_;
  std::unique_ptr<Kernel::Adapter> kernel_;
  std::unique_ptr<KernelFollower> follower_;
  std::unique_ptr<Service::MetricsEndpoint> metrics_;

  std::optional<InputPatch> patch_;  // of the database, being carried out
  nlohmann::json patchText_;
  Service::EventLoop::WorkId databaseWork_ = Service::EventLoop::WorkId::none;
  Service::EventLoop::WorkId adoptionWork_ = Service::EventLoop::WorkId::none;
  Service::EventLoop::WorkId kernelWork_ = Service::EventLoop::WorkId::none;
  Service::EventLoop::TimerId kernelTimer_ = Service::EventLoop::TimerId::none;
  bool kernelSettled_ = false;
  bool toldRefused_ = false;  // that hosts wait for a place in the table
  std::uint64_t errors_ = 0;  // exceptions that were contained
  std::uint64_t toldOf_ = 0;  // notifications delivered when the listeners were told last
  std::deque<nlohmann::json> problems_;
  double started_;
  bool readyTold_ = false;
};

}  // namespace Agent
