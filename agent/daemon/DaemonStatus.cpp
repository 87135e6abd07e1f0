// What the daemon tells of itself.
#include <unistd.h>

#include "Kel/Activity.h"
#include "Kel/System.h"
#include "Vxlan/framework/Trace.h"
#include "agent/daemon/Daemon.h"

namespace Agent {
namespace {

using nlohmann::json;

constexpr std::size_t mostKernelProblems = 100;

}  // namespace

json Daemon::agentSection() const {
  const Service::LoopStall& stall = loop_.stall();
  json section = {{"pid", ::getpid()},
                  {"uptime", Kel::System::loopTime() - started_},
                  {"table",
                   {{"name", options_.table},
                    {"hosts", world_.hosts->hosts()},
                    {"limit", world_.hosts->limit()},
                    {"waiting", refused_.waiting()}}},
                  {"trace", Vxlan::vccRlHandle ? Vxlan::vccRlHandle->path() : ""},
                  {"waitingForController", adoption_ != nullptr},
                  {"outOfService", !world_.client},
                  {"loop",
                   {{"turns", stall.turns},
                    {"longestStall", static_cast<double>(stall.longest.count()) * 1e-9},
                    {"notifications", Kel::ActivityLoop::instance().delivered()}}}};
  if (server_ != nullptr) {
    const Control::ServerStats stats = server_->stats();
    section["control"] = {
        {"clients", server_->clients()}, {"requests", stats.requests}, {"refused", stats.refused},
        {"failed", stats.failed},        {"cut", stats.cut},           {"dropped", stats.dropped},
        {"mostItems", stats.mostItems}};
  }
  if (database_ != nullptr) {
    const Vtep::AdapterStatus status = database_->status();
    section["convergence"] = {{"reason", status.convergenceCause}, {"seconds", status.convergingFor}};
  }
  return section;
}

json Daemon::problems() const {
  json all = json::array();
  if (database_ != nullptr) {
    for (const Vtep::Problem& problem : database_->problems(mostProblems)) {
      all.push_back({{"kind", std::string(Vtep::nameOf(problem.kind))},
                     {"where", problem.row.text()},
                     {"text", problem.text}});
    }
    const Vtep::AdapterStatus status = database_->status();
    if (!status.problem.empty()) {
      all.push_back({{"kind", "session"}, {"where", status.remote}, {"text", status.problem}});
    }
  }
  if (kernel_ != nullptr) {
    const auto [listed, count] = kernel_->problems(mostKernelProblems);
    for (const Kernel::Problem& problem : listed) {
      all.push_back({{"kind", "kernel"}, {"where", problem.what}, {"text", problem.why}});
    }
    if (count > listed.size()) {
      all.push_back({{"kind", "kernel"},
                     {"where", std::to_string(count - listed.size()) + " more"},
                     {"text", "not listed"}});
    }
  }
  if (refused_.waiting() != 0) {
    all.push_back({{"kind", refused_.kind()}, {"where", options_.table}, {"text", refused_.text()}});
  }
  for (const json& problem : problems_) {
    all.push_back(problem);
  }
  return all;
}

Metrics Daemon::metrics() const {
  Metrics numbers;
  if (world_.client && world_.client->hostTable()) {
    numbers.hosts = world_.client->hostTable()->receivedEntrys();
    numbers.hostsMarked = world_.client->hostTable()->markedForDelCount();
  }
  numbers.vnis = world_.fdb->entries();
  for (auto&& vlan : world_.floodSets->vlanFloodSet()) {
    for (auto&& set : vlan.value->floodSet()) {
      ++numbers.floodSets;
      numbers.floodDestinations += set.value->destSets();
    }
  }
  numbers.converging = world_.clientView->convergenceInProgress();
  numbers.slices = Kel::ActivityLoop::instance().clocksFired();
  numbers.notifications = Kel::ActivityLoop::instance().delivered();
  numbers.loop = loop_.stall();
  numbers.tableRecords = world_.hosts->hosts();
  numbers.tableLimit = world_.hosts->limit();
  numbers.tableWaiting = refused_.waiting();
  numbers.tableRefused = refused_.refused();
  numbers.errors = errors_;
  numbers.logLeftOut = log_.leftOut();
  if (refused_.waiting() != 0) {
    numbers.problems[refused_.kind()] = refused_.waiting();
  }
  if (database_ != nullptr) {
    const Vtep::AdapterStatus status = database_->status();
    numbers.sessions["ovsdb"] = {status.session == Ovsdb::SessionState::following, status.reconnects};
    numbers.convergenceSeconds = status.convergingFor;
    numbers.longestSliceSeconds = static_cast<double>(status.longestSlice.count()) * 1e-9;
    for (const auto& [kind, count] : status.problems) {
      numbers.problems[kind] = count;
    }
  }
  for (const json& problem : problems_) {
    ++numbers.problems[problem.at("kind").get<std::string>()];
  }
  numbers.controlClients = server_->clients();
  numbers.controlRequests = server_->stats().requests;
  numbers.controlRefused = server_->stats().refused;
  numbers.controlCut = server_->stats().cut;
  return numbers;
}

}  // namespace Agent
