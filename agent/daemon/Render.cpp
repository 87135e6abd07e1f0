#include "agent/daemon/Render.h"

#include <limits>
#include <utility>

namespace Agent {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

double seconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double>(time).count();
}

// Collects families one after the other.
class Sheet {
 public:
  template <typename Number>
  void gauge(const char* name, const char* help, Number value) {
    family(name, help, MetricType::Gauge).metric.emplace_back().gauge.value = static_cast<double>(value);
  }

  void counter(const char* name, const char* help, std::uint64_t value) {
    family(name, help, MetricType::Counter).metric.emplace_back().counter.value = static_cast<double>(value);
  }

  // One metric for each entry of a map, told apart by `label`.
  template <typename Map, typename ValueOf>
  void each(const char* name, const char* help, MetricType type, const char* label, const Map& map,
            ValueOf valueOf) {
    MetricFamily& into = family(name, help, type);
    for (const auto& [key, entry] : map) {
      ClientMetric& metric = into.metric.emplace_back();
      metric.label.push_back({label, key});
      (type == MetricType::Gauge ? metric.gauge.value : metric.counter.value) =
          static_cast<double>(valueOf(entry));
    }
  }

  void stall(const char* name, const char* help, const Service::LoopStall& stall) {
    ClientMetric::Histogram& histogram =
        family(name, help, MetricType::Histogram).metric.emplace_back().histogram;
    histogram.sample_count = stall.turns;
    histogram.sample_sum = seconds(stall.total);
    std::uint64_t below = 0;
    for (std::size_t i = 0; i < stall.counts.size(); ++i) {
      below += stall.counts.at(i);
      const bool bounded = i < Service::LoopStall::bounds.size();
      histogram.bucket.push_back({below, bounded ? seconds(Service::LoopStall::bounds.at(i))
                                                 : std::numeric_limits<double>::infinity()});
    }
  }

  std::vector<MetricFamily> take() { return std::move(families_); }

 private:
  MetricFamily& family(const char* name, const char* help, MetricType type) {
    MetricFamily& added = families_.emplace_back();
    added.name = std::string("vxlan_agent_") + name;
    added.help = help;
    added.type = type;
    return added;
  }

  std::vector<MetricFamily> families_;
};

void renderNetwork(Sheet& sheet, const Metrics& metrics) {
  sheet.gauge("hosts", "Hosts received from the controller", metrics.hosts);
  sheet.gauge("hosts_marked", "Received hosts that are marked for deletion", metrics.hostsMarked);
  sheet.gauge("vnis", "VNIs that the controller publishes", metrics.vnis);
  sheet.gauge("flood_sets", "Flood sets", metrics.floodSets);
  sheet.gauge("flood_destinations", "Destinations of all flood sets together", metrics.floodDestinations);
  sheet.gauge("converging", "1 while the controller converges", metrics.converging);
  sheet.gauge("convergence_seconds", "How long the convergence has lasted, or the last one did",
              metrics.convergenceSeconds);
  sheet.gauge("table_records", "Records in the shared-memory table", metrics.tableRecords);
  sheet.gauge("table_limit", "Records that the shared-memory table may hold", metrics.tableLimit);
}

void renderTrouble(Sheet& sheet, const Metrics& metrics) {
  sheet.gauge("table_waiting", "Hosts that the shared-memory table refused and that wait to be tried again",
              metrics.tableWaiting);
  sheet.counter("table_refused_total", "Writes that the shared-memory table refused", metrics.tableRefused);
  sheet.counter("errors_total", "Errors of the agent that were contained", metrics.errors);
  sheet.counter("log_left_out_total", "Lines of the log that were left out", metrics.logLeftOut);
}

void renderWork(Sheet& sheet, const Metrics& metrics) {
  sheet.counter("slices_total", "Slices that long work was cut into", metrics.slices);
  sheet.gauge("slice_longest_seconds", "The longest slice", metrics.longestSliceSeconds);
  sheet.counter("notifications_total", "Notifications delivered", metrics.notifications);
  sheet.stall("loop_stall_seconds", "Time between two polls of the event loop", metrics.loop);
  sheet.gauge("loop_stall_longest_seconds", "The longest time between two polls of the event loop",
              seconds(metrics.loop.longest));
}

void renderPeers(Sheet& sheet, const Metrics& metrics) {
  sheet.each("session_up", "1 while the session is connected", MetricType::Gauge, "session", metrics.sessions,
             [](const SessionMetrics& session) { return session.connected; });
  sheet.each("session_reconnects_total", "Times that the session was connected again", MetricType::Counter,
             "session", metrics.sessions, [](const SessionMetrics& session) { return session.reconnects; });
  sheet.each("problems", "Rows and settings that were left out, by kind", MetricType::Gauge, "kind",
             metrics.problems, [](std::uint64_t count) { return count; });
  sheet.gauge("control_clients", "Clients at the control socket", metrics.controlClients);
  sheet.counter("control_requests_total", "Requests answered at the control socket", metrics.controlRequests);
  sheet.counter("control_refused_total", "Requests answered by an error", metrics.controlRefused);
  sheet.counter("control_cut_total", "Subscriptions ended because their reader was too slow",
                metrics.controlCut);
}

}  // namespace

std::vector<MetricFamily> render(const Metrics& metrics) {
  Sheet sheet;
  renderNetwork(sheet, metrics);
  renderTrouble(sheet, metrics);
  renderWork(sheet, metrics);
  renderPeers(sheet, metrics);
  return sheet.take();
}

}  // namespace Agent
