#pragma once

#include <prometheus/metric_family.h>

#include <string>
#include <vector>

#include "Agent/Monitor/MonitorState.h"

namespace OrloAgent {

// The state as families of metrics: every published statistic with its description as help, and
// what else the state holds. docs/monitoring.md lists them. Families come in a fixed order, each
// once.
std::vector<prometheus::MetricFamily> MakeMetrics(const AgentState& state);

// The same in Prometheus' text format.
std::string MakeMetricsText(const AgentState& state);

}  // namespace OrloAgent
