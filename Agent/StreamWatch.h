#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "Agent/Options.h"
#include "Agent/StallWatch.h"
#include "Agent/StreamAccount.h"
#include "StoreAndForward/Schedule.h"
#include "WindowsAgentCommon/EnvironmentBlockHelper.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

// Watches one stream for a stall: says so in one Warn line with the oldest chunk's path and what is
// wrong with it, repeated while it lasts, and publishes the statistics "Stalled" (0 or 1) and
// "StalledSeconds" in the group "StreamWatch" of the stream. Where it is asked to, it also says
// every so often in one Info line where the stream's events are. Control thread only.
class StreamWatch {
 public:
  // `stage` is the stream's store-and-forward stage, whose send schedule tells a closed schedule
  // from a stall.
  StreamWatch(const WatchOptions& options, std::string streamName, const StageOptions& stage,
              const std::filesystem::path& dataDirectory,
              WindowsAgentCommon::StatisticsServer& statistics);

  // From the next look on.
  void SetOptions(const WatchOptions& options);

  void Look(const StreamReport& report, StallWatch::Clock::time_point now);

  // By the stage's send schedule, now.
  bool IsSendingAllowed();

 private:
  void Warn(StallWatch::Clock::time_point now) const;
  void Publish(StallWatch::Clock::time_point now);
  void ReportIfDue(const StreamReport& report, StallWatch::Clock::time_point now);

  const std::string m_streamName;
  const std::filesystem::path m_cacheDirectory;
  const WindowsAgentCommon::EnvironmentBlock m_settings;
  const WindowsAgentCommon::Log m_log;
  StallWatch m_watch;
  std::chrono::milliseconds m_reportPeriod;
  // When the last report was made; at first when the stream was first looked at.
  std::optional<StallWatch::Clock::time_point> m_reported;
  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> m_group;
  // Read when something is cached for the first time: a bad setting is reported by whoever uses it,
  // and a stream that never needs its cache should report it once.
  std::optional<std::shared_ptr<OrloStoreAndForward::Schedule>> m_schedule;
};

}  // namespace OrloAgent
