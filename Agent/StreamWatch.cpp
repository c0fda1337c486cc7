#include "Agent/StreamWatch.h"

#include <algorithm>
#include <utility>

#include "Agent/PathText.h"
#include "StoreAndForward/ScheduleSettings.h"

namespace OrloAgent {

using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::StatisticValue;

namespace {

constexpr std::int64_t kNumberKind = 7;

const std::string& StalledName() {
  static const std::string name = "Stalled";
  return name;
}

const std::string& StalledSecondsName() {
  static const std::string name = "StalledSeconds";
  return name;
}

}  // namespace

StreamWatch::StreamWatch(const WatchOptions& options, std::string streamName,
                         const StageOptions& stage, const std::filesystem::path& dataDirectory,
                         WindowsAgentCommon::StatisticsServer& statistics)
    : m_streamName(std::move(streamName)),
      m_cacheDirectory(dataDirectory / "Events" / ToPath(m_streamName)),
      m_settings(stage.settings.begin(), stage.settings.end()),
      m_log(LoggerFactory::GetLog("Code.StreamWatch." + m_streamName)),
      m_watch(options),
      m_reportPeriod(options.report) {
  const WindowsAgentCommon::StatisticsInstanceScope scope(m_streamName);
  statistics.CreateGroup("StreamWatch", "AgentCore/StreamManager/Streams", m_group);
  m_group->DeclareStatistic(StalledName(),
                            "Whether the event cache is not emptied though it could be (1) or not",
                            StatisticValue(kNumberKind, std::int64_t{0}));
  m_group->DeclareStatistic(StalledSecondsName(),
                            "The number of seconds for which the stalled cache has not moved",
                            StatisticValue(kNumberKind, std::int64_t{0}));
  m_group->Publish();
  statistics.RegisterGroup(m_group);
}

void StreamWatch::SetOptions(const WatchOptions& options) {
  m_watch.SetOptions(options);
  m_reportPeriod = options.report;
}

void StreamWatch::Look(const StreamReport& report, StallWatch::Clock::time_point now) {
  StreamMotion motion;
  motion.cachedChunks = report.cachedChunks;
  motion.accepted = report.accepted;
  motion.delivered = report.sent;
  motion.refusals = report.refusals;
  motion.sendingAllowed = report.cachedChunks == 0 || IsSendingAllowed();
  const bool wasStalled = m_watch.IsStalled();
  if (m_watch.Look(motion, now)) {
    Warn(now);
  } else if (wasStalled && !m_watch.IsStalled()) {
    LogFacade::Info(m_log, "The event cache is being emptied again.");
  }
  Publish(now);
  ReportIfDue(report, now);
}

bool StreamWatch::IsSendingAllowed() {
  if (!m_schedule) {
    m_schedule = OrloStoreAndForward::ReadSchedule(m_settings, WindowsAgentCommon::Log());
  }
  return *m_schedule == nullptr || (*m_schedule)->IsSendingAllowed();
}

void StreamWatch::Warn(StallWatch::Clock::time_point now) const {
  const OldestChunk oldest = FindOldestChunk(m_cacheDirectory);
  const std::string reason =
      oldest.path.empty() ? "no chunk file is left in " + ToText(m_cacheDirectory)
      : oldest.error.empty()
          ? "the oldest chunk file, " + ToText(oldest.path) +
                ", can be read, but the stage does not get to it: an older one is "
                "gone or unreadable; restarting the agent skips what is gone"
          : "the oldest chunk file, " + ToText(oldest.path) + ", can't be read (" + oldest.error +
                "); nothing behind it is sent until it can be or is moved away "
                "and the agent restarted";
  LogFacade::Warn(m_log, "The event cache has not moved for %d s though sending is possible: %s.",
                  m_watch.GetStalledTime(now).count(), reason);
}

void StreamWatch::Publish(StallWatch::Clock::time_point now) {
  m_group->UpdateStatistic(
      StalledName(), StatisticValue(kNumberKind, std::int64_t{m_watch.IsStalled() ? 1 : 0}), false);
  m_group->UpdateStatistic(
      StalledSecondsName(),
      StatisticValue(kNumberKind, static_cast<std::int64_t>(m_watch.GetStalledTime(now).count())),
      false);
}

void StreamWatch::ReportIfDue(const StreamReport& report, StallWatch::Clock::time_point now) {
  if (!m_reported) {
    m_reported = now;
  }
  if (m_reportPeriod.count() == 0 || now - *m_reported < m_reportPeriod) {
    return;
  }
  m_reported = now;
  LogFacade::Info(
      m_log, "%d events delivered, %d cached in %d chunks, %d lost, %d held; stalled for %d s.",
      report.delivered, report.cached, report.cachedChunks, report.lost + report.failed,
      std::max<std::int64_t>(0, report.held), m_watch.GetStalledTime(now).count());
}

}  // namespace OrloAgent
