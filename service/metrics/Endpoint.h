#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <prometheus/metric_family.h>

#include "service/loop/EventLoop.h"
#include "service/loop/UniqueFd.h"

namespace Service {

// The page that Prometheus scrapes, at http://ADDRESS/metrics, served from the agent's own loop: one request,
// one answer, and the connection is closed. A client has a bounded time for all of it, and a request a
// bounded size; where more come than there are places, the one that has been there longest goes, so that
// those who only hold a connection keep nobody out.
class MetricsEndpoint {
 public:
  // The metrics, by name.
  using Families = std::function<std::vector<prometheus::MetricFamily>()>;

  // The limits of a client.
  struct Limits {
    std::size_t clients = 16;
    std::size_t request = 8'192;                              // bytes, of a request's head
    std::chrono::nanoseconds time = std::chrono::seconds(5);  // from the connection to the end of the answer
  };

  // Listens at `address`, "HOST:PORT" or "PORT" (of all interfaces); port 0 takes any. `families` gives the
  // numbers of the moment, for each answer. `loop` outlives this. Raises std::runtime_error, with the
  // address, when it cannot be had.
  MetricsEndpoint(EventLoop& loop, const std::string& address, Families families)
      : MetricsEndpoint(loop, address, std::move(families), Limits()) {}
  MetricsEndpoint(EventLoop& loop, const std::string& address, Families families, const Limits& limits);
  ~MetricsEndpoint();
  MetricsEndpoint(const MetricsEndpoint&) = delete;
  MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

  int port() const;
  std::size_t clients() const { return clients_.size(); }

 private:
  struct Client {
    UniqueFd fd;
    std::string request{};
    std::string answer{};
    std::size_t sent = 0;
    EventLoop::TimerId end = EventLoop::TimerId::none;
  };
  using ClientId = std::uint64_t;

  void accept();
  void admit(UniqueFd fd);
  void onReady(ClientId id);
  bool read(Client& client) const;
  bool write(Client& client);
  std::string answer(const std::string& request) const;
  void drop(ClientId id);

  EventLoop& loop_;
  Families families_;
  Limits limits_;
  UniqueFd listener_;
  ClientId lastClient_ = 0;
  std::map<ClientId, Client> clients_;  // the oldest first
  EventLoop::TimerId resting_ = EventLoop::TimerId::none;
};

}  // namespace Service
