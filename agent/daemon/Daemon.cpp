#include "agent/daemon/Daemon.h"

#include <grp.h>
#include <sys/epoll.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <ctime>
#include <limits>

#include "Files/Owners.h"
#include "Kel/Activity.h"
#include "Kel/System.h"
#include "Kel/TraceHelper.h"
#include "Vxlan/framework/Trace.h"
#include "agent/daemon/Delivery.h"
#include "agent/daemon/Render.h"
#include "agent/state/JsonChecks.h"
#include "agent/state/ReplayTables.h"

namespace Agent {
namespace {

using nlohmann::json;

constexpr std::size_t hostsPerPatch = 128;
constexpr std::size_t adoptedPerSlice = 256;
constexpr std::chrono::milliseconds kernelSlice{4};
// Of the client's paced deletions. What a slice deletes is exported when it ends, which takes as long again.
constexpr double clientSlice = 0.004;

L2Rib::HostInput::Options hostTable(const RunOptions& options) {
  L2Rib::HostInput::Options hosts;
  hosts.name = options.table;
  hosts.limit = options.tableLimit;
  hosts.replaceDamaged = true;
  if (!options.tableOwner.empty()) {
    hosts.owner = Files::userOf(options.tableOwner);
    if (!hosts.owner) {
      throw std::invalid_argument("--table-owner: there is no user \"" + options.tableOwner + "\"");
    }
  }
  return hosts;
}

// "4000-4094"
std::pair<std::uint16_t, std::uint16_t> vlanRange(const std::string& text) {
  const std::size_t dash = text.find('-');
  const auto first = Bridging::VlanId::parse(text.substr(0, dash));
  const auto last = dash == std::string::npos ? first : Bridging::VlanId::parse(text.substr(dash + 1));
  if (!first || !last || *last < *first) {
    throw std::invalid_argument("--untagged-vlans: \"" + text +
                                "\" is not a range of VLANs such as 4000-4094");
  }
  return {first->value(), last->value()};
}

// "10:eth1"
KernelFollower::Ports portsOf(const std::vector<std::string>& texts) {
  KernelFollower::Ports ports;
  for (const std::string& text : texts) {
    const std::size_t colon = text.find(':');
    const auto vlan = Bridging::VlanId::parse(text.substr(0, colon));
    if (!vlan || colon == std::string::npos || colon + 1 == text.size()) {
      throw std::invalid_argument("--port: \"" + text + "\" is not VLAN:INTERFACE");
    }
    ports[vlan->value()].push_back(text.substr(colon + 1));
  }
  return ports;
}

std::optional<gid_t> groupOf(const std::string& name) {
  if (name.empty()) {
    return std::nullopt;
  }
  const group* found = ::getgrnam(name.c_str());
  if (found == nullptr) {
    throw std::invalid_argument("--socket-group: there is no group \"" + name + "\"");
  }
  return found->gr_gid;
}

Control::Access accessOf(const RunOptions& options) {
  Control::Access access;
  access.owner = ::geteuid();
  access.group = groupOf(options.socketGroup);
  access.othersRead = options.socketReadAll;
  return access;
}

std::vector<Ovsdb::Remote> remotesOf(const RunOptions& options) {
  std::vector<Ovsdb::Remote> remotes;
  for (const std::string& remote : options.ovsdb) {
    remotes.push_back(Ovsdb::Remote::parse(remote));
  }
  return remotes;
}

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

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

}  // namespace

class Daemon::Activity final : public Service::EventLoop::Embedded {
 public:
  explicit Activity(Daemon& daemon) : daemon_(daemon) {}
  bool turn() override {
    daemon_.guarded("a turn", [] { Kel::ActivityLoop::instance().turn(); });
    return !Kel::ActivityLoop::instance().idle();
  }
  double nextWakeup() override {
    const Kel::ActivityLoop& loop = Kel::ActivityLoop::instance();
    return loop.pending() != 0 ? 0 : loop.nextWakeup() - Kel::System::loopTime();
  }

 private:
  Daemon& daemon_;
};

Daemon::Daemon(const RunOptions& options, std::vector<std::string> arguments, Log& log)
    : options_(options),
      arguments_(std::move(arguments)),
      log_(log),
      world_(hostTable(options)),
      refused_(loop_, world_.hosts, [this](const Bridging::MacVlanPair& key) { return isWanted(key); }),
      activity_(std::make_unique<Activity>(*this)),
      repair_(world_,
              [this](const std::string& text) { noteProblem("table-damaged", options_.table, text); }),
      patches_(loop_, world_,
               {[this] { finishPatch(); },
                [this](const std::function<void()>& change) { guarded("a patch", change); },
                [this](const json& patch) { record(patch); }}),
      recorder_(options.record, Kel::System::loopTime(), std::time(nullptr)),
      started_(Kel::System::loopTime()) {
  loop_.containErrors([this](std::string_view where, std::string_view what) { noteError(where, what); });
  loop_.onSignal(SIGTERM, [this] { loop_.stop(); });
  loop_.onSignal(SIGINT, [this] { loop_.stop(); });
  loop_.onSignal(SIGHUP, [this] { readConfigurationAgain(); });
  loop_.embed(*activity_);
  tellOfRecording();
  openControl();
  openKernel();
  openDatabase();
  if (!options_.metrics.empty()) {
    metrics_ = std::make_unique<Service::MetricsEndpoint>(loop_, options_.metrics, [this] {
      Metrics numbers;
      guarded("the metrics", [&] { numbers = metrics(); });
      return render(numbers);
    });
  }
  if (world_.hosts->hosts() != 0 && database_ != nullptr) {
    log_.line("the host table has " + std::to_string(world_.hosts->hosts()) +
              " hosts of an earlier run; they stay until the controller's state is in");
    adoption_ = std::make_unique<Adoption>(world_);
  } else {
    world_.clientIs();
  }
  world_.client->maxProcessTimeIs(clientSlice);
  loop_.addTurnHook([this] {
    settleStart();
    const std::uint64_t delivered = Kel::ActivityLoop::instance().delivered();
    if (delivered != toldOf_) {
      toldOf_ = delivered;
      service_->changed();
      if (kernel_ != nullptr) {
        runKernel();
      }
    }
  });
  everySecond();
}

Daemon::~Daemon() {
  metrics_ = nullptr;
  database_ = nullptr;
  server_ = nullptr;
  follower_ = nullptr;
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
  hooks.agentSection = [this] { return agentSection(); };
  hooks.problems = [this] { return problems(); };
  service_ = std::make_unique<AgentService>(world_, options_.table, std::move(hooks));
  service_->refusedWritesAre(&refused_);
  Control::ServerOptions server;
  server.path = options_.socket;
  server.access = accessOf(options_);
  server.log = [this](std::string_view text) { log_.line(text); };
  server.failed = [this](std::string_view where, std::string_view text) {
    noteError("a request of " + std::string(where), text);
  };
  server_ = std::make_unique<Control::Server>(loop_, *service_, std::move(server));
}

void Daemon::openKernel() {
  if (!options_.kernel) {
    return;
  }
  Kernel::Options kernel;
  kernel.lockFolder = options_.kernelLockDir;
  kernel_ = std::make_unique<Kernel::Adapter>(kernel);
  follower_ = std::make_unique<KernelFollower>(world_, *kernel_, portsOf(options_.ports));
  service_->kernelIs(kernel_.get());
  for (const int fd : kernel_->fds()) {
    loop_.watch(fd, EPOLLIN, [this](std::uint32_t) { runKernel(); });
  }
  runKernel();
}

// Lets the kernel adapter work, in slices, until it has nothing to do at once.
void Daemon::runKernel() {
  if (kernelWork_ == Service::EventLoop::WorkId::none) {
    kernelWork_ = loop_.addWork([this] {
      const bool more = kernel_->run(kernelSlice);
      if (!more) {
        kernelWork_ = Service::EventLoop::WorkId::none;
        armKernel();
      }
      return more;
    });
  }
}

void Daemon::armKernel() {
  loop_.cancel(kernelTimer_);
  const Kernel::Time next = kernel_->nextWakeup();
  if (next != Kernel::Time::max()) {
    kernelTimer_ = loop_.after(next - Kernel::Adapter::now(), [this] { runKernel(); });
  }
}

void Daemon::openDatabase() {
  if (options_.ovsdb.empty()) {
    return;
  }
  if (options_.switchName.empty()) {
    throw std::invalid_argument("--ovsdb needs --switch, the name of this switch in the database");
  }
  Vtep::Adapter::Options adapter;
  adapter.session.remotes = remotesOf(options_);
  adapter.session.largestFirst = options_.maxMessage << 20;
  adapter.mapper.topology.switchName = options_.switchName;
  std::tie(adapter.mapper.topology.untaggedFirst, adapter.mapper.topology.untaggedLast) =
      vlanRange(options_.untaggedVlans);
  adapter.mapper.vti = options_.vti;
  adapter.mapper.convergence = {options_.convergeQuiet, options_.convergeMax};
  adapter.tls = {options_.ovsdbKey, options_.ovsdbCert, options_.ovsdbCa};
  database_ = std::make_unique<Vtep::Adapter>(
      loop_, adapter,
      [this] {
        if (databaseWork_ == Service::EventLoop::WorkId::none) {
          databaseWork_ = loop_.addWork([this] { return takeFromDatabase(); });
        }
      },
      [this](const std::string& text) { log_.line(text); });
  for (const std::string& pointer : Vtep::Adapter::ownedPointers()) {
    service_->ownership().claim(pointer, "ovsdb");
  }
  service_->databaseIs(database_.get());
}

// One slice of what the database publishes. Returns whether more is left.
bool Daemon::takeFromDatabase() {
  while (loop_.budgetLeft()) {
    if (!patch_ && !nextDatabasePatch()) {
      databaseWork_ = Service::EventLoop::WorkId::none;
      return false;
    }
    stepPatch();
  }
  return true;
}

// Carries out the next change of the database's patch, if there is one.
void Daemon::stepPatch() {
  guarded("a change of the database", [this] {
    if (patch_ && !patch_->step()) {
      patch_.reset();
    }
  });
}

bool Daemon::nextDatabasePatch() {
  std::optional<json> next = database_->next(hostsPerPatch);
  if (!next) {
    return false;
  }
  patchText_ = std::move(*next);
  try {
    patch_.emplace(world_, patchText_);
    record(patchText_);
  } catch (const Refused& refused) {
    noteProblem("refused", refused.pointer(), refused.what());
  } catch (const std::exception& error) {
    noteError("a patch of the database", error.what());
  }
  return true;
}

// A patch of the database that is half done is finished before another one is checked.
void Daemon::finishPatch() {
  while (patch_) {
    stepPatch();
  }
}

void Daemon::record(const json& patch) {
  recorder_.patch(patch, Kel::System::loopTime());
  tellOfRecording();
}

void Daemon::tellOfRecording() {
  if (!recorder_.problem().empty()) {
    noteProblem("recording", options_.record, recorder_.problem());
  }
}

// An error out of a handler is told, and the agent goes on: collections are consistent, the rest is
// delivered.
void Daemon::guarded(const char* what, const std::function<void()>& work) {
  carryThrough(work, [&](const std::exception& error) { noteError(what, error.what()); });
}

void Daemon::noteError(std::string_view where, std::string_view what) {
  ++errors_;
  noteProblem("error", std::string(where), std::string(what));
}

// Whether the client still wants a host in the table that the table has refused.
bool Daemon::isWanted(const Bridging::MacVlanPair& key) const {
  const Kel::Ptr<const Vxlan::ReceivedHostTable> received =
      world_.client ? world_.client->hostTable() : nullptr;
  return received && received->receivedEntry().contains(key);
}

void Daemon::noteProblem(const std::string& kind, const std::string& where, const std::string& text) {
  const json problem = {{"kind", kind}, {"where", where}, {"text", text}};
  if (std::find(problems_.begin(), problems_.end(), problem) != problems_.end()) {
    return;
  }
  log_.line(kind + " in " + where + ": " + text);
  problems_.push_back(problem);
  if (problems_.size() > mostProblems) {
    problems_.pop_front();
  }
}

// Whether the controller's state is in, and nothing of it waits to be carried out.
bool Daemon::settled() const {
  return database_ == nullptr || (database_->status().session == Ovsdb::SessionState::following && !patch_ &&
                                  databaseWork_ == Service::EventLoop::WorkId::none &&
                                  !database_->mapper().convergence().inProgress());
}

void Daemon::repairTable() {
  guarded("the damaged host table", [this] { repair_.look(adoption_ == nullptr && settled()); });
}

// When the controller's state is in and settled, what is stale goes: of the hosts of an earlier run, and then
// in the kernel.
void Daemon::settleStart() {
  if (adoption_ == nullptr && (kernel_ == nullptr || kernelSettled_)) {
    return;
  }
  if (!settled()) {
    return;
  }
  if (adoption_ != nullptr) {
    cleanAdopted();
    return;
  }
  const bool cleaned = !world_.convergenceStatus->unicastDeferredDeletionInProgress() &&
                       !world_.convergenceStatus->bumDeferredDeletionInProgress();
  if (cleaned) {
    kernelSettled_ = true;
    kernel_->initialSyncComplete();
    runKernel();
  }
}

void Daemon::cleanAdopted() {
  if (adoptionWork_ != Service::EventLoop::WorkId::none) {
    return;
  }
  adoptionWork_ = loop_.addWork([this] {
    bool more = true;
    while (more && loop_.budgetLeft()) {
      guarded("the end of the adoption", [&] { more = adoption_->clean(adoptedPerSlice); });
    }
    if (!more) {
      adoptionWork_ = Service::EventLoop::WorkId::none;
      adoption_ = nullptr;
    }
    return more;
  });
}

void Daemon::everySecond() {
  loop_.after(std::chrono::seconds(1), [this] { everySecond(); });  // first, whatever is thrown below
  repairTable();
  ::sd_notify(0, "WATCHDOG=1");
  log_.flush();
  if (!world_.client) {
    refused_.clear();
  }
  if ((refused_.waiting() != 0) != std::exchange(toldRefused_, refused_.waiting() != 0)) {
    log_.line(toldRefused_ ? std::string(refused_.kind()) + " in " + options_.table + ": " + refused_.text()
                           : "every host has its place in the table again");
  }
}

void Daemon::readConfigurationAgain() {
  try {
    const RunOptions fresh = readAgain(arguments_);
    const std::vector<std::string> now = differences(options_, fresh, Changeable::atRunTime);
    const std::vector<std::string> later = differences(options_, fresh, Changeable::atTheNextStart);
    if (now.empty() && later.empty()) {
      log_.line("the configuration is as it was");
      return;
    }
    takeUp(fresh);
    if (!now.empty()) {
      log_.line("the configuration has changed, in effect now: " + joined(now));
    }
    if (!later.empty()) {
      log_.line(
          "the configuration has changed, in effect at the next start, which keeps the forwarding state: " +
          joined(later));
    }
  } catch (const std::exception& error) {
    log_.line("the configuration cannot be: " + std::string(error.what()) +
              "; the agent goes on with the old one");
  }
}

// Takes up what can change while the agent runs; all of it is checked before.
void Daemon::takeUp(const RunOptions& fresh) {
  if (fresh.ovsdb.empty() != options_.ovsdb.empty()) {
    throw std::invalid_argument("--ovsdb: following a database begins and ends with the agent");
  }
  const std::vector<Ovsdb::Remote> remotes = remotesOf(fresh);
  const Control::Access access = accessOf(fresh);
  server_->accessIs(access);
  if (database_ != nullptr) {
    if (fresh.ovsdb != options_.ovsdb) {
      database_->remotesAre(remotes);
    }
    database_->convergenceOptionsAre({fresh.convergeQuiet, fresh.convergeMax});
  }
  options_.ovsdb = fresh.ovsdb;
  options_.convergeQuiet = fresh.convergeQuiet;
  options_.convergeMax = fresh.convergeMax;
  options_.socketGroup = fresh.socketGroup;
  options_.socketReadAll = fresh.socketReadAll;
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
