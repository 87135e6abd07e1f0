#pragma once

#include <memory>
#include <string>

#include "agent/metrics/Metrics.h"

namespace prometheus {
class Exposer;
}

namespace Agent {

// The page that Prometheus scrapes, at http://ADDRESS/metrics. It is served by threads of its own, which see
// nothing but the numbers that the loop's thread publishes: never the state itself.
class MetricsEndpoint {
 public:
  // Listens at `address`, "HOST:PORT" or "PORT" (of all interfaces); port 0 takes any. Its threads inherit
  // the signal mask, so signals are blocked before. Raises std::runtime_error, with the address, when it
  // cannot be had.
  explicit MetricsEndpoint(const std::string& address);
  ~MetricsEndpoint();
  MetricsEndpoint(const MetricsEndpoint&) = delete;
  MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

  // What is served from now on; called as often as the numbers shall be fresh.
  void publish(Metrics metrics);
  int port() const;

 private:
  class Page;

  std::shared_ptr<Page> page_;
  std::unique_ptr<prometheus::Exposer> exposer_;
};

}  // namespace Agent
