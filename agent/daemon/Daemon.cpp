#include "agent/daemon/Daemon.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <utility>

#include "Kel/Activity.h"
#include "Kel/System.h"
#include "Kel/TraceHelper.h"
#include "Vxlan/framework/Trace.h"
#include "agent/daemon/Render.h"
#include "agent/daemon/Settings.h"
#include "agent/state/ReplayTables.h"

namespace Agent {

namespace {

using nlohmann::json;

// Of the client's paced deletions. What a slice deletes is exported when it ends, which takes as long again.
constexpr double clientSlice = 0.004;

// Sends the formatted lines of the trace, which KEL_TRACE asks for, to a log.
class TraceTo {
 public:
  explicit TraceTo(Log& log) {
    Kel::traceSinkIs([&log](std::string_view line) { log.trace(line); });
  }
  ~TraceTo() { Kel::traceSinkIs(nullptr); }
  TraceTo(const TraceTo&) = delete;
  TraceTo& operator=(const TraceTo&) = delete;
};

}  // namespace

class Daemon::Activity final : public Service::EventLoop::Embedded {
 public:
  explicit Activity(Incidents& incidents) : incidents_(incidents) {}
  bool turn() override {
    incidents_.guarded("a turn", [] { Kel::ActivityLoop::instance().turn(); });
    return !Kel::ActivityLoop::instance().idle();
  }
  double nextWakeup() override {
    const Kel::ActivityLoop& loop = Kel::ActivityLoop::instance();
    return loop.pending() != 0 ? 0 : loop.nextWakeup() - Kel::System::loopTime();
  }

 private:
  Incidents& incidents_;
};

Daemon::Daemon(const RunOptions& options, std::vector<std::string> arguments, Log& log)
    : options_(options),
      log_(log),
      incidents_(log),
      world_(hostTableOf(options)),
      refused_(loop_, world_.hosts, [this](const Bridging::MacVlanPair& key) { return isWanted(key); }),
      activity_(std::make_unique<Activity>(incidents_)),
      repair_(world_,
              [this](const std::string& text) { incidents_.note("table-damaged", options_.table, text); }),
      sweep_(loop_, world_.hosts),
      patches_(loop_, world_,
               {[this] {
                  if (feed_ != nullptr) {
                    feed_->finishPatch();
                  }
                },
                [this](const std::function<void()>& change) { incidents_.guarded("a patch", change); },
                [this](const json& patch) { record(patch); }}),
      recorder_(options.record, Kel::System::loopTime(), std::time(nullptr)),
      report_({loop_, world_, refused_, incidents_, log_, options.table}) {
  loop_.containErrors(
      [this](std::string_view where, std::string_view what) { incidents_.error(where, what); });
  loop_.onSignal(SIGTERM, [this] { loop_.stop(); });
  loop_.onSignal(SIGINT, [this] { loop_.stop(); });
  loop_.onSignal(SIGHUP, [this] { reload_->run(); });
  loop_.embed(*activity_);
  reportRecorderProblem();
  openControl();
  openKernel();
  openDatabase();
  openMetrics();
  reload_ = std::make_unique<Reload>(options_, std::move(arguments), log_, *server_, feed_.get());
  sync_ = std::make_unique<InitialSync>(loop_, world_, incidents_, feed_.get(), kernel_.get());
  report_.syncIs(sync_.get());
  if (sync_->adopting()) {
    log_.line("the host table has " + std::to_string(world_.hosts->hosts()) +
              " hosts of an earlier run; they stay until the controller's state is in");
  }
  world_.client->maxProcessTimeIs(clientSlice);
  loop_.addTurnHook([this] { everyTurn(); });
  everySecond();
}

// The followers end before the state does, so that what was forwarded stays.
Daemon::~Daemon() {
  metrics_ = nullptr;
  reload_ = nullptr;
  sync_ = nullptr;
  feed_ = nullptr;
  server_ = nullptr;
  kernel_ = nullptr;
  loop_.unembed(*activity_);
  world_.clientDel();
}

void Daemon::run() {
  ::sd_notify(0, "READY=1");
  log_.line("ready");
  loop_.run();
  ::sd_notify(0, "STOPPING=1");
  recorder_.ends();
  log_.line("ends; the forwarding state stays");
}

void Daemon::openControl() {
  AgentService::Hooks hooks;
  hooks.carryOut = [this](json patch, PatchQueue::Done done) {
    patches_.add(std::move(patch), std::move(done));
  };
  hooks.finishPatches = [this] { patches_.finish(); };
  hooks.agentSection = [this] { return report_.section(); };
  hooks.problems = [this] { return report_.problems(); };
  service_ = std::make_unique<AgentService>(world_, options_.table, std::move(hooks));
  service_->refusedWritesAre(&refused_);
  Control::ServerOptions server;
  server.path = options_.socket;
  server.access = accessOf(options_);
  server.log = [this](std::string_view text) { log_.line(text); };
  server.failed = [this](std::string_view where, std::string_view text) {
    incidents_.error("a request of " + std::string(where), text);
  };
  server_ = std::make_unique<Control::Server>(loop_, *service_, std::move(server));
  report_.serverIs(server_.get());
}

void Daemon::openKernel() {
  if (!options_.kernel) {
    return;
  }
  Kernel::Options kernel;
  kernel.lockFolder = options_.kernelLockDir;
  kernel_ = std::make_unique<KernelDriver>(loop_, world_, kernel, portsOf(options_));
  service_->kernelIs(&kernel_->adapter());
  report_.kernelIs(kernel_.get());
}

void Daemon::openDatabase() {
  if (options_.ovsdb.empty()) {
    return;
  }
  feed_ = std::make_unique<DatabaseFeed>(loop_, world_, databaseOf(options_), incidents_, log_,
                                         [this](const json& patch) { record(patch); });
  for (const std::string& pointer : Vtep::Adapter::ownedPointers()) {
    service_->ownership().claim(pointer, "ovsdb");
  }
  service_->databaseIs(&feed_->adapter());
  report_.databaseIs(feed_.get());
}

void Daemon::openMetrics() {
  if (options_.metrics.empty()) {
    return;
  }
  metrics_ = std::make_unique<Service::MetricsEndpoint>(loop_, options_.metrics, [this] {
    Metrics numbers;
    incidents_.guarded("the metrics", [&] { numbers = report_.metrics(); });
    return render(numbers);
  });
}

void Daemon::record(const json& patch) {
  recorder_.patch(patch, Kel::System::loopTime());
  reportRecorderProblem();
}

void Daemon::reportRecorderProblem() {
  if (!recorder_.problem().empty()) {
    incidents_.note("recording", options_.record, recorder_.problem());
  }
}

// Whether the client still wants a host in the table that the table has refused.
bool Daemon::isWanted(const Bridging::MacVlanPair& key) const {
  const Kel::Ptr<const Vxlan::ReceivedHostTable> received =
      world_.client ? world_.client->hostTable() : nullptr;
  return received && received->receivedEntry().contains(key);
}

void Daemon::everyTurn() {
  sync_->advance();
  const std::uint64_t delivered = Kel::ActivityLoop::instance().delivered();
  if (std::exchange(lastNotified_, delivered) == delivered) {
    return;
  }
  service_->changed();
  if (kernel_ != nullptr) {
    kernel_->run();
  }
}

void Daemon::everySecond() {
  loop_.after(std::chrono::seconds(1), [this] { everySecond(); });  // first, whatever is thrown below
  incidents_.guarded("the damaged host table",
                     [this] { repair_.look(!sync_->adopting() && sync_->controllerSettled()); });
  sweep_.look();
  ::sd_notify(0, "WATCHDOG=1");
  log_.flush();
  if (!world_.client) {
    refused_.clear();
  }
  const bool waiting = refused_.waiting() != 0;
  if (std::exchange(refusedLogged_, waiting) != waiting) {
    log_.line(waiting ? std::string(refused_.kind()) + " in " + options_.table + ": " + refused_.text()
                      : "every host has its place in the table again");
  }
}

int runDaemon(const RunOptions& options, const std::vector<std::string>& arguments) {
  Log log(STDERR_FILENO);
  const TraceTo trace(log);
  if (!options.traceDir.empty()) {
    Vxlan::vccRlDirectoryIs(options.traceDir);
  }
  L2Rib::HostInput::endOnTruncation("vxlan-agent");
  removeTablesOfDeadReplays();
  try {
    Daemon daemon(options, arguments, log);
    daemon.run();
    return 0;
  } catch (const std::exception& error) {
    log.line(error.what());
    return 2;
  }
}

}  // namespace Agent
