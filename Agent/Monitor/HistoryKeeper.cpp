#include "Agent/Monitor/HistoryKeeper.h"

#include <algorithm>
#include <chrono>
#include <iterator>

namespace OrloAgent {

namespace {

constexpr std::chrono::milliseconds kBetweenPoints = std::chrono::seconds(5);
// A look comes once in a second, and now and then a little early.
constexpr std::chrono::milliseconds kEarly{100};
constexpr std::chrono::milliseconds kHistory = std::chrono::hours(1);

HistoryPoint MakePoint(const StreamState& stream, std::int64_t time) {
  HistoryPoint point;
  point.time = time;
  point.posted = stream.posted;
  point.delivered = stream.delivered;
  point.lost = stream.lost + stream.failed;
  point.inMemory = stream.GetEventsInMemory();
  point.cached = stream.cachedEvents;
  point.cachedBytes = stream.cachedBytes;
  point.oldestSeconds = stream.oldestSeconds;
  point.open = !stream.schedule || stream.schedule->open;
  return point;
}

}  // namespace

void HistoryKeeper::Add(const AgentState& state) {
  for (auto& [name, points] : m_history) {
    while (!points.empty() && points.back().time > state.sampled) {
      points.pop_back();
    }
    while (!points.empty() && points.front().time < state.sampled - kHistory.count()) {
      points.pop_front();
    }
  }
  for (const StreamState& stream : state.streams) {
    auto& points = m_history[stream.name];
    if (points.empty() || state.sampled - points.back().time >= (kBetweenPoints - kEarly).count()) {
      points.push_back(MakePoint(stream, state.sampled));
    }
  }
  std::erase_if(m_history, [](const auto& one) { return one.second.empty(); });
}

History HistoryKeeper::Get(std::int64_t since) const {
  History history;
  for (const auto& [name, points] : m_history) {
    auto& chosen = history[name];
    std::copy_if(points.begin(), points.end(), std::back_inserter(chosen),
                 [&](const HistoryPoint& point) { return point.time > since; });
  }
  return history;
}

}  // namespace OrloAgent
