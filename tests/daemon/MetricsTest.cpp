#include "agent/daemon/Metrics.h"

#include <gmock/gmock.h>
#include <prometheus/text_serializer.h>

#include <chrono>

#include "agent/daemon/Render.h"

namespace {

using namespace std::chrono_literals;
using Agent::Metrics;
using testing::HasSubstr;

std::string page(const Metrics& metrics) {
  return prometheus::TextSerializer().Serialize(Agent::render(metrics));
}

TEST(Metrics, TellTheStateOfTheNetwork) {
  Metrics metrics;
  metrics.hosts = 1'000'000;
  metrics.hostsMarked = 12;
  metrics.vnis = 3;
  metrics.floodSets = 4;
  metrics.floodDestinations = 5;
  metrics.converging = true;
  metrics.convergenceSeconds = 2.5;
  metrics.tableRecords = 6;
  metrics.tableLimit = 7;
  const std::string text = page(metrics);
  EXPECT_THAT(text, HasSubstr("# TYPE vxlan_agent_hosts gauge\nvxlan_agent_hosts 1000000\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_hosts_marked 12\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_vnis 3\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_flood_sets 4\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_flood_destinations 5\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_converging 1\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_convergence_seconds 2.5\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_table_records 6\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_table_limit 7\n"));
}

TEST(Metrics, TellTheStallOfTheLoopAsACumulativeHistogram) {
  Metrics metrics;
  metrics.loop.add(50us);
  metrics.loop.add(4ms);
  metrics.loop.add(4ms);
  metrics.loop.add(3s);
  const std::string text = page(metrics);
  EXPECT_THAT(text, HasSubstr("# TYPE vxlan_agent_loop_stall_seconds histogram\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_loop_stall_seconds_count 4\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"0.0001\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"0.0025"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"1\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"+Inf\"} 4\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_loop_stall_longest_seconds 3\n"));
}

TEST(Metrics, TellSessionsAndProblemsApart) {
  Metrics metrics;
  metrics.sessions["ovsdb"] = {true, 3};
  metrics.sessions["other"] = {false, 0};
  metrics.problems = {{"vlan-out-of-range", 2}};
  metrics.slices = 9;
  const std::string text = page(metrics);
  EXPECT_THAT(text, HasSubstr("vxlan_agent_session_up{session=\"ovsdb\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("vxlan_agent_session_up{session=\"other\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("vxlan_agent_session_reconnects_total{session=\"ovsdb\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("vxlan_agent_problems{kind=\"vlan-out-of-range\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("# TYPE vxlan_agent_slices_total counter\nvxlan_agent_slices_total 9\n"));
}

TEST(Metrics, TellWhatWentWrong) {
  Metrics metrics;
  metrics.tableWaiting = 5;
  metrics.tableRefused = 6;
  metrics.errors = 7;
  metrics.logLeftOut = 8;
  const std::string text = page(metrics);
  EXPECT_THAT(text, HasSubstr("# TYPE vxlan_agent_table_waiting gauge\nvxlan_agent_table_waiting 5\n"));
  EXPECT_THAT(
      text, HasSubstr("# TYPE vxlan_agent_table_refused_total counter\nvxlan_agent_table_refused_total 6\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_errors_total 7\n"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_log_left_out_total 8\n"));
}

}  // namespace
