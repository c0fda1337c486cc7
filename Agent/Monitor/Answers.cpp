#include "Agent/Monitor/Answers.h"

#include "Agent/Monitor/Metrics.h"
#include "Agent/Monitor/Page.h"
#include "Agent/Monitor/StateJson.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace {

constexpr char kJson[] = "application/json";

std::int64_t GetSince(const std::string& query) {
  constexpr std::string_view kSince = "since=";
  const auto since = query.starts_with(kSince)
                         ? ParseWholeNumber(std::string_view(query).substr(kSince.size()))
                         : std::nullopt;
  return static_cast<std::int64_t>(since.value_or(0));
}

}  // namespace

std::shared_ptr<const AgentState> JudgeAge(std::shared_ptr<const AgentState> state,
                                           std::chrono::steady_clock::time_point now) {
  const auto age = now - state->looked;
  if (age <= kStateLasts) {
    return state;
  }
  auto late = std::make_shared<AgentState>(*state);
  late->problems.insert(late->problems.begin(),
                        "the agent has not been able to look at itself for " +
                            std::to_string(age / std::chrono::seconds(1)) +
                            " s; what is shown is as old as that");
  return late;
}

HttpAnswer AnswerRequest(const std::string& path, const std::string& query, const AgentState& state,
                         const HistoryReader& readHistory) {
  if (path == "/") {
    return {200, "text/html; charset=utf-8", std::string(GetPage())};
  }
  if (path == "/metrics") {
    return {200, "text/plain; version=0.0.4; charset=utf-8", MakeMetricsText(state)};
  }
  if (path == "/statistics") {
    return {200, kJson, MakeStatisticsJson(state)};
  }
  if (path == "/status") {
    return {200, kJson, MakeStatusJson(state)};
  }
  if (path == "/history") {
    return {200, kJson, MakeHistoryJson(readHistory(GetSince(query)))};
  }
  if (path == "/healthz") {
    return {state.IsHealthy() ? 200U : 503U, kJson, MakeHealthJson(state)};
  }
  return {404, "text/plain; charset=utf-8",
          "There are: / /metrics /statistics /status /history /healthz\n"};
}

}  // namespace OrloAgent
