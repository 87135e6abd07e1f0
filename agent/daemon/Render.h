#pragma once

#include <prometheus/metric_family.h>

#include <vector>

#include "agent/daemon/Metrics.h"

namespace Agent {

// The families that Prometheus scrapes, all named vxlan_agent_..., durations in seconds.
std::vector<prometheus::MetricFamily> render(const Metrics& metrics);

}  // namespace Agent
