#include "agent/metrics/Metrics.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <prometheus/text_serializer.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "agent/metrics/Endpoint.h"
#include "agent/metrics/Render.h"

namespace {

using namespace std::chrono_literals;
using Agent::Metrics;
using Agent::MetricsEndpoint;
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

std::string scrape(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string request = "GET /metrics HTTP/1.0\r\n\r\n";
  EXPECT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
  std::string text;
  std::array<char, 4096> buffer;
  for (ssize_t got = read(fd, buffer.data(), buffer.size()); got > 0;
       got = read(fd, buffer.data(), buffer.size())) {
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  close(fd);
  return text;
}

TEST(MetricsEndpoint, ServesWhatWasPublishedLast) {
  MetricsEndpoint endpoint("127.0.0.1:0");
  EXPECT_THAT(scrape(endpoint.port()), HasSubstr("\nvxlan_agent_hosts 0\n"));
  Metrics metrics;
  metrics.hosts = 42;
  endpoint.publish(metrics);
  const std::string text = scrape(endpoint.port());
  EXPECT_THAT(text, HasSubstr("HTTP/1.1 200 OK"));
  EXPECT_THAT(text, HasSubstr("\nvxlan_agent_hosts 42\n"));
}

TEST(MetricsEndpoint, SaysWhichAddressIsTaken) {
  const MetricsEndpoint first("127.0.0.1:0");
  const std::string taken = "127.0.0.1:" + std::to_string(first.port());
  EXPECT_THAT([&] { const MetricsEndpoint second(taken); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("metrics endpoint " + taken + ": ")));
}

}  // namespace
