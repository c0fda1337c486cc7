#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "WindowsAgentCommon/AggregatedStatistics.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloStream {

// What every stage publishes about itself, and the base of a stage's own profile, which declares
// its statistics in the same group after the base's. Owned through shared pointers by the stage and
// the stream manager. Updates may come from several threads at once.
class StreamStageBaseStatisticsProfile {
 public:
  virtual WindowsAgentCommon::IStatisticsServer* GetStatisticsServer();

  // Declares and publishes the statistics and registers the group. The statistics service must be
  // there. Called once, by the stream manager, before the first message is posted.
  virtual void Initialize();

  // Declares the statistics; publishes them if asked. Called again, it keeps the group.
  virtual void InitializeStatistics(bool publish);

  // Messages that put() gave back as failed.
  void UpdateMessagesRejected(std::int64_t amount, bool flag);

 protected:
  // Never deleted through the base: shared pointers know the real type.
  ~StreamStageBaseStatisticsProfile() = default;

  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> m_group;
  std::map<std::string, std::int64_t> m_declared;
  std::map<std::string, std::shared_ptr<std::int64_t>> m_counters;
  std::map<std::string, std::int64_t> m_reservedDeclared;
  std::map<std::string, std::shared_ptr<WindowsAgentCommon::AggregatedStatistics>> m_aggregates;
  std::map<std::string, std::shared_ptr<std::int64_t>> m_reservedCounters;
};

}  // namespace OrloStream
