#include "agent/metrics/Endpoint.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "agent/metrics/Render.h"

namespace Agent {

// The copy that both sides share.
class MetricsEndpoint::Page : public prometheus::Collectable {
 public:
  void set(Metrics metrics) {
    const std::lock_guard lock(mutex_);
    metrics_ = std::move(metrics);
  }

  std::vector<prometheus::MetricFamily> Collect() const override {
    Metrics metrics;
    {
      const std::lock_guard lock(mutex_);
      metrics = metrics_;
    }
    return render(metrics);
  }

 private:
  mutable std::mutex mutex_;
  Metrics metrics_;
};

MetricsEndpoint::MetricsEndpoint(const std::string& address) : page_(std::make_shared<Page>()) {
  constexpr std::size_t threads = 1;
  try {
    exposer_ = std::make_unique<prometheus::Exposer>(address, threads);
  } catch (const std::exception& error) {
    throw std::runtime_error("metrics endpoint " + address + ": " + error.what());
  }
  exposer_->RegisterCollectable(page_);
}

MetricsEndpoint::~MetricsEndpoint() = default;

void MetricsEndpoint::publish(Metrics metrics) {
  page_->set(std::move(metrics));
}

int MetricsEndpoint::port() const {
  return exposer_->GetListeningPorts().at(0);
}

}  // namespace Agent
