#pragma once

#include <string>

#include "Agent/Monitor/MonitorState.h"

// The monitor's state as JSON. Text that is no UTF-8 is made so; numbers that are none (NaN) are
// null.
namespace OrloAgent {

// What the page and "orlo-agent status" show: health, disk, streams, messages.
std::string MakeStatusJson(const AgentState& state);

// Every published statistic by category path, stream, group and name, each with its value,
// description and kind.
std::string MakeStatisticsJson(const AgentState& state);

// The history as columns: for each stream the times, in milliseconds since 1970, and as many values
// of each kind.
std::string MakeHistoryJson(const History& history);

// {"status":"ok"}, or "degraded" with what is wrong.
std::string MakeHealthJson(const AgentState& state);

}  // namespace OrloAgent
