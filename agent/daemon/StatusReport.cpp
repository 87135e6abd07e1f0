#include "agent/daemon/StatusReport.h"

#include <unistd.h>

#include "Kel/Activity.h"
#include "Vxlan/framework/Trace.h"

namespace Agent {

using nlohmann::json;

namespace {

constexpr std::size_t mostKernelProblems = 100;

}  // namespace

json StatusReport::section() const {
  const Service::LoopStall& stall = parts_.loop.stall();
  json section = {{"pid", ::getpid()},
                  {"uptime", Kel::System::loopTime() - started_},
                  {"table",
                   {{"name", parts_.table},
                    {"hosts", parts_.world.hosts->hosts()},
                    {"limit", parts_.world.hosts->limit()},
                    {"waiting", parts_.refused.waiting()}}},
                  {"trace", Vxlan::vccRlHandle ? Vxlan::vccRlHandle->path() : ""},
                  {"waitingForController", sync_ != nullptr && sync_->adopting()},
                  {"outOfService", !parts_.world.client},
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
  if (feed_ != nullptr) {
    const Vtep::AdapterStatus status = feed_->adapter().status();
    section["convergence"] = {{"reason", status.convergenceCause}, {"seconds", status.convergingFor}};
  }
  return section;
}

json StatusReport::problems() const {
  json all = json::array();
  if (feed_ != nullptr) {
    for (const Vtep::Problem& problem : feed_->adapter().problems(Incidents::mostKept)) {
      all.push_back({{"kind", std::string(Vtep::nameOf(problem.kind))},
                     {"where", problem.row.text()},
                     {"text", problem.text}});
    }
    const Vtep::AdapterStatus status = feed_->adapter().status();
    if (!status.problem.empty()) {
      all.push_back({{"kind", "session"}, {"where", status.remote}, {"text", status.problem}});
    }
  }
  if (kernel_ != nullptr) {
    const auto [listed, count] = kernel_->adapter().problems(mostKernelProblems);
    for (const Kernel::Problem& problem : listed) {
      all.push_back({{"kind", "kernel"}, {"where", problem.what}, {"text", problem.why}});
    }
    if (count > listed.size()) {
      all.push_back({{"kind", "kernel"},
                     {"where", std::to_string(count - listed.size()) + " more"},
                     {"text", "not listed"}});
    }
  }
  if (parts_.refused.waiting() != 0) {
    all.push_back(
        {{"kind", parts_.refused.kind()}, {"where", parts_.table}, {"text", parts_.refused.text()}});
  }
  for (const json& problem : parts_.incidents.kept()) {
    all.push_back(problem);
  }
  return all;
}

Metrics StatusReport::metrics() const {
  Metrics numbers;
  if (parts_.world.client && parts_.world.client->hostTable()) {
    numbers.hosts = parts_.world.client->hostTable()->receivedEntrys();
    numbers.hostsMarked = parts_.world.client->hostTable()->markedForDelCount();
  }
  numbers.vnis = parts_.world.fdb->entries();
  for (auto&& vlan : parts_.world.floodSets->vlanFloodSet()) {
    for (auto&& set : vlan.value->floodSet()) {
      ++numbers.floodSets;
      numbers.floodDestinations += set.value->destSets();
    }
  }
  numbers.converging = parts_.world.clientView->convergenceInProgress();
  numbers.slices = Kel::ActivityLoop::instance().clocksFired();
  numbers.notifications = Kel::ActivityLoop::instance().delivered();
  numbers.loop = parts_.loop.stall();
  numbers.tableRecords = parts_.world.hosts->hosts();
  numbers.tableLimit = parts_.world.hosts->limit();
  numbers.tableWaiting = parts_.refused.waiting();
  numbers.tableRefused = parts_.refused.refused();
  numbers.errors = parts_.incidents.errors();
  numbers.logLeftOut = parts_.log.leftOut();
  if (parts_.refused.waiting() != 0) {
    numbers.problems[parts_.refused.kind()] = parts_.refused.waiting();
  }
  if (feed_ != nullptr) {
    const Vtep::AdapterStatus status = feed_->adapter().status();
    numbers.sessions["ovsdb"] = {status.session == Ovsdb::SessionState::following, status.reconnects};
    numbers.convergenceSeconds = status.convergingFor;
    numbers.longestSliceSeconds = static_cast<double>(status.longestSlice.count()) * 1e-9;
    for (const auto& [kind, count] : status.problems) {
      numbers.problems[kind] = count;
    }
  }
  for (const json& problem : parts_.incidents.kept()) {
    ++numbers.problems[problem.at("kind").get<std::string>()];
  }
  if (server_ != nullptr) {
    const Control::ServerStats stats = server_->stats();
    numbers.controlClients = server_->clients();
    numbers.controlRequests = stats.requests;
    numbers.controlRefused = stats.refused;
    numbers.controlCut = stats.cut;
  }
  return numbers;
}

}  // namespace Agent
