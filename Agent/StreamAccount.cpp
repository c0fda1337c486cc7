#include "Agent/StreamAccount.h"

#include <algorithm>

#include "Agent/PathText.h"

namespace OrloAgent {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{100};

// How much later than its period a chunk may come.
constexpr std::chrono::milliseconds kTolerance{500};

std::uint64_t GetCounter(const WindowsAgentCommon::StatisticsGroupSnapshot& group,
                         const char* name) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(0, group.GetInteger(name)));
}

}  // namespace

StreamAccount::StreamAccount(const WindowsAgentCommon::StatisticsServer& statistics,
                             std::string streamName, const std::filesystem::path& dataDirectory)
    : m_statistics(statistics),
      m_streamName(std::move(streamName)),
      m_inventory(dataDirectory / "Events" / ToPath(m_streamName)),
      m_atStart(m_inventory.Look()) {}

StreamReport StreamAccount::Look(const std::function<EndCounts()>& askEnds) {
  StreamReport report;
  for (const auto& group : m_statistics.GetSnapshot()) {
    if (group.instance != m_streamName) {
      continue;
    }
    if (group.name == "StoreAndForwardStage") {
      report.posted = GetCounter(group, "TotalEventsPosted");
      report.failed = GetCounter(group, "TotalEventsFailedToQueue");
    } else if (group.name == "StoreAndForwardIncoming") {
      report.lost = GetCounter(group, "MessagesLost");
    } else if (group.name == "StoreAndForwardOutgoing") {
      report.accepted = GetCounter(group, "EventsIncoming");
      report.sent = GetCounter(group, "EventsOutgoing");
      report.refusals = GetCounter(group, "NumberOfRequeues");
    }
  }
  const EndCounts ends = askEnds();
  report.refusals += ends.refusals;
  report.inherited = ends.inherited;
  const std::uint64_t taken = report.sent + ends.inherited;
  report.delivered = taken - std::min(taken, ends.unsent + ends.refused);
  report.cachedAtStart = m_atStart.events;
  const CacheContents contents = m_inventory.Look();
  report.cached = contents.events;
  report.cachedChunks = contents.chunks;
  report.undecided =
      static_cast<std::int64_t>(report.posted + report.cachedAtStart - report.failed - report.lost -
                                report.accepted - report.cached);
  report.lost += ends.refused;
  report.held =
      static_cast<std::int64_t>(report.posted + report.cachedAtStart + report.inherited -
                                report.failed - report.lost - report.delivered - report.cached);
  report.posted += ends.notMade;
  report.lost += ends.notMade;
  return report;
}

RestDetector::RestDetector(std::chrono::milliseconds processingPeriod, bool emptyCache)
    : m_quietLooks(static_cast<unsigned>((processingPeriod + kTolerance) / kBetweenLooks)),
      m_emptyCache(emptyCache) {}

bool RestDetector::IsAtRest(const StreamReport& report) {
  const bool changed = m_first || report != m_last;
  m_moved = m_moved || (!m_first && changed);
  m_first = false;
  m_last = report;
  m_unchanged = changed || report.held != 0 ? 0 : m_unchanged + 1;
  const bool mustBeQuiet = report.cached > 0 && (m_emptyCache || !m_moved);
  return m_unchanged >= (mustBeQuiet ? m_quietLooks : 1);
}

}  // namespace OrloAgent
