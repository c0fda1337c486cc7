#include "Agent/SourceStatistics.h"

#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::StatisticValue;

namespace {

constexpr std::int64_t kTextKind = 1;
constexpr std::int64_t kNumberKind = 7;

const std::string& PostedName() {
  static const std::string name = "EventsPosted";
  return name;
}

const std::string& NotMadeName() {
  static const std::string name = "EventsNotMade";
  return name;
}

StatisticValue Number(std::uint64_t value) {
  return {kNumberKind, static_cast<std::int64_t>(value)};
}

}  // namespace

SourceStatistics::SourceStatistics(WindowsAgentCommon::StatisticsServer& statistics,
                                   const std::string& streamName, const std::string& sourceName,
                                   const Source& source) {
  const WindowsAgentCommon::StatisticsInstanceScope scope(streamName);
  statistics.CreateGroup("Source", "AgentCore/StreamManager/Streams", m_group);
  m_group->DeclareStatistic("SourceName", "What tells the source from the others of its stream",
                            StatisticValue(kTextKind, LoggerFactory::WithoutSecrets(sourceName)));
  m_group->DeclareStatistic(PostedName(), "The number of events that the source has posted",
                            Number(source.GetPosted()));
  m_group->DeclareStatistic(NotMadeName(), "The number of events that could not be posted",
                            Number(source.GetNotMade()));
  m_group->Publish();
  statistics.RegisterGroup(m_group);
}

void SourceStatistics::Publish(const Source& source) {
  m_group->UpdateStatistic(PostedName(), Number(source.GetPosted()), false);
  m_group->UpdateStatistic(NotMadeName(), Number(source.GetNotMade()), false);
}

}  // namespace OrloAgent
