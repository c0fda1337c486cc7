#pragma once

#include "Agent/Monitor/MetricBuilder.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

// Adds every statistic of a group under a name that follows Prometheus' rules: base units, counters
// that end in _total. Statistics that are not known here, those of other stages for example, come
// under a name made of theirs, without a type. A text becomes a label of a metric that is 1.
void AddPublished(const WindowsAgentCommon::StatisticsGroupSnapshot& group, MetricBuilder& builder);

}  // namespace OrloAgent
