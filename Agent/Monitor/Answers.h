#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Agent/Monitor/HttpServer.h"
#include "Agent/Monitor/MonitorState.h"

namespace OrloAgent {

// How old a state may grow before that is a problem: the agent has not been able to look at itself,
// most likely because the disk hangs.
constexpr std::chrono::seconds kStateLasts{60};

// The state as it is to be shown at the time `now`: one that has grown old has a problem more,
// which says so, whatever its figures are. A system clock that is set does not matter.
std::shared_ptr<const AgentState> JudgeAge(std::shared_ptr<const AgentState> state,
                                           std::chrono::steady_clock::time_point now);

// The points that are younger than a time in milliseconds since 1970.
using HistoryReader = std::function<History(std::int64_t since)>;

// What the monitor answers to a GET of the path: docs/monitoring.md lists them. Any thread.
HttpAnswer AnswerRequest(const std::string& path, const std::string& query, const AgentState& state,
                         const HistoryReader& readHistory);

}  // namespace OrloAgent
