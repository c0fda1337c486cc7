#include "StoreAndForward/StoreAndForwardStatisticsProfile.h"

#include <limits>

#include "OrloStream/StatisticsTables.h"

namespace OrloStoreAndForward {

using OrloStream::DeclareCounter;
using OrloStream::DeclareStatistic;
using OrloStream::GetDeclaredKind;
using OrloStream::kCounterKind;
using OrloStream::StatisticDeclaration;
using OrloStream::StatisticUpdateSite;
using OrloStream::UpdateCounter;
using OrloStream::UpdateSerialCounter;
using WindowsAgentCommon::AggregatedStatistics;
using WindowsAgentCommon::IStatisticsServer;
using WindowsAgentCommon::StatisticValue;
using WindowsAgentCommon::StatisticVariant;

namespace {

constexpr std::int64_t kSettingKind = 0x4106;
constexpr std::int64_t kDerivedKind = 9;
constexpr std::int64_t kTextKind = 1;
constexpr unsigned kChunkSizeWindow = 64;

constexpr const char* kFile = "StoreAndForward/StoreAndForwardStatisticsProfile";
constexpr const char* kStagesCategory = "AgentCore/StreamManager/Stages";

StatisticDeclaration Counter(const char* name, const char* description, int line) {
  return {name, description, kCounterKind, std::int64_t{0}, line};
}

StatisticDeclaration Setting(const char* name, const char* description, int line) {
  return {name, description, kSettingKind, std::int64_t{0}, line};
}

const std::string kChunkSizeDescription =
    "The number of events in a single chunk of incoming event data that were accepted by the "
    "outgoing processor";

StatisticDeclaration ChunkSizeFigure(const char* name, const char* figure, double initial,
                                     int line) {
  return {name, kChunkSizeDescription + figure, kDerivedKind, initial, line};
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// The declarations, in the order in which they are declared to the server.

const StatisticDeclaration kTotalEventsPosted =
    Counter("TotalEventsPosted", "The number of events posted to this stage", __LINE__);
const StatisticDeclaration kTotalEventsFailedToQueue =
    Counter("TotalEventsFailedToQueue",
            "The number of events posted to this stage that failed to be queued", __LINE__);

const StatisticDeclaration kInputQueueLowWaterMark =
    Setting("InputQueueLowWaterMark",
            "The drain point (in bytes) that the queue must reach in order to accept events again",
            __LINE__);
const StatisticDeclaration kInputQueueHighWaterMark =
    Setting("InputQueueHighWaterMark",
            "The number of bytes the queue can accept until insertion blocking occurs", __LINE__);
const StatisticDeclaration kDataProcessingPeriod = Setting(
    "DataProcessingPeriod",
    "The number of microseconds between disk checks for event data ready to be sent", __LINE__);
const StatisticDeclaration kDataChunkingPeriod = Setting(
    "DataChunkingPeriod",
    "The number of seconds worth of data stored in one interval of on-disk event data", __LINE__);
const StatisticDeclaration kChunkSize = {"ChunkSize", kChunkSizeDescription, kCounterKind,
                                         std::int64_t{0}, __LINE__};
const StatisticDeclaration kChunkSizeMinimum =
    ChunkSizeFigure("ChunkSizeMinimum", " (minimum)", kNaN, __LINE__);
const StatisticDeclaration kChunkSizeMaximum =
    ChunkSizeFigure("ChunkSizeMaximum", " (maximum)", kNaN, __LINE__);
const StatisticDeclaration kChunkSizeAverage =
    ChunkSizeFigure("ChunkSizeAverage", " (average)", kNaN, __LINE__);
const StatisticDeclaration kChunkSizeRollingAverage =
    ChunkSizeFigure("ChunkSizeRollingAverage", " (rolling average)", kNaN, __LINE__);
const StatisticDeclaration kChunkSizeTotal =
    ChunkSizeFigure("ChunkSizeTotal", " (total)", 0.0, __LINE__);
const StatisticDeclaration kChunkSizeTrendCoeff1 =
    ChunkSizeFigure("ChunkSizeTrendCoeff1", " (trend line slope)", kNaN, __LINE__);
const StatisticDeclaration kChunkSizeTrendCoeff2 =
    ChunkSizeFigure("ChunkSizeTrendCoeff2", " (trend line intercept)", kNaN, __LINE__);
const StatisticDeclaration kChunkSizeTrend = {"ChunkSizeTrend", kChunkSizeDescription + " (trend)",
                                              kTextKind, std::string("N/A"), __LINE__};
const StatisticDeclaration kOutgoingHandlerAccepts = Counter(
    "OutgoingHandlerAccepts",
    "The number of times the outgoing processor successfully accepted event data", __LINE__);
const StatisticDeclaration kOutgoingHandlerRejects = Counter(
    "OutgoingHandlerRejects",
    "The number of times the outgoing processor rejected event data due to being busy", __LINE__);
const StatisticDeclaration kEventDiskCacheAccepts =
    Counter("EventDiskCacheAccepts",
            "The number of times the on-disk cache accepted data to be written to disk", __LINE__);
const StatisticDeclaration kEventDiskCacheRejects = Counter(
    "EventDiskCacheRejects",
    "The number of times the on-disk cache rejected event data to be written to disk", __LINE__);
const StatisticDeclaration kMessagesLost =
    Counter("MessagesLost",
            "The number of events lost due to the on-disk cache rejecting event data", __LINE__);

const StatisticDeclaration kEventsIncoming =
    Counter("EventsIncoming", "The number of events posted to the outgoing queue", __LINE__);
const StatisticDeclaration kEventsOutgoing =
    Counter("EventsOutgoing", "The number of events written to the destination", __LINE__);
const StatisticDeclaration kNumberOfRequeues =
    Counter("NumberOfRequeues",
            "The number of times the destination rejected the event due to backpressure", __LINE__);

IStatisticsServer* FindStatisticsServer() {
  return dynamic_cast<IStatisticsServer*>(
      WindowsAgentCommon::_getService(IStatisticsServer::GetServiceName()));
}

}  // namespace

// ---- Stage --------------------------------------------------------------------------------------

void StoreAndForwardStatisticsProfile::InitializeStatistics(bool publish) {
  if (!m_group) {
    GetStatisticsServer()->CreateGroup("StoreAndForwardStage",
                                       "AgentCore/DestinationManager/Destinations", m_group);
  }
  StreamStageBaseStatisticsProfile::InitializeStatistics(false);
  DeclareCounter(*m_group, m_declared, m_counters, kTotalEventsPosted, m_totalEventsPosted);
  DeclareCounter(*m_group, m_declared, m_counters, kTotalEventsFailedToQueue);
  if (publish) {
    m_group->Publish();
  }
}

void StoreAndForwardStatisticsProfile::UpdateTotalEventsPosted(std::int64_t amount, bool flag) {
  UpdateCounter(m_group.get(), m_totalEventsPosted, kTotalEventsPosted, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardStatisticsProfile::"
                 "UpdateTotalEventsPosted"});
}

void StoreAndForwardStatisticsProfile::UpdateTotalEventsFailedToQueue(std::int64_t amount,
                                                                      bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kTotalEventsFailedToQueue, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardStatisticsProfile::"
                 "UpdateTotalEventsFailedToQueue"});
}

// ---- Incoming -----------------------------------------------------------------------------------

IStatisticsServer* StoreAndForwardIncomingStatisticsProfile::GetStatisticsServer() {
  return FindStatisticsServer();
}

void StoreAndForwardIncomingStatisticsProfile::Initialize() {
  InitializeStatistics(true);
  GetStatisticsServer()->RegisterGroup(m_group);
}

void StoreAndForwardIncomingStatisticsProfile::InitializeStatistics(bool publish) {
  if (!m_group) {
    GetStatisticsServer()->CreateGroup("StoreAndForwardIncoming", kStagesCategory, m_group);
  }
  for (const StatisticDeclaration* setting : {&kInputQueueLowWaterMark, &kInputQueueHighWaterMark,
                                              &kDataProcessingPeriod, &kDataChunkingPeriod}) {
    DeclareStatistic(*m_group, m_declared, *setting);
  }
  const auto chunkSize = std::make_shared<AggregatedStatistics>(kChunkSize.name, kChunkSizeWindow);
  for (const StatisticDeclaration* figure :
       {&kChunkSize, &kChunkSizeMinimum, &kChunkSizeMaximum, &kChunkSizeAverage,
        &kChunkSizeRollingAverage, &kChunkSizeTotal, &kChunkSizeTrendCoeff1, &kChunkSizeTrendCoeff2,
        &kChunkSizeTrend}) {
    DeclareStatistic(*m_group, m_declared, *figure);
  }
  m_aggregates[kChunkSize.name] = chunkSize;
  for (const StatisticDeclaration* counter :
       {&kOutgoingHandlerAccepts, &kOutgoingHandlerRejects, &kEventDiskCacheAccepts,
        &kEventDiskCacheRejects, &kMessagesLost}) {
    DeclareCounter(*m_group, m_declared, m_counters, *counter);
  }
  if (publish) {
    m_group->Publish();
  }
}

namespace {

void UpdateSetting(WindowsAgentCommon::IStatisticsGroup* group,
                   const OrloStream::DeclaredStatistics& declared,
                   const StatisticDeclaration& statistic, int value, bool flag,
                   const StatisticUpdateSite& site) {
  const std::int64_t kind = GetDeclaredKind(declared, statistic, site);
  group->UpdateStatistic(statistic.name, StatisticValue(kind, std::int64_t{value}), flag);
}

}  // namespace

void StoreAndForwardIncomingStatisticsProfile::UpdateInputQueueLowWaterMark(const int& value,
                                                                            bool flag) {
  UpdateSetting(m_group.get(), m_declared, kInputQueueLowWaterMark, value, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateInputQueueLowWaterMark"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateInputQueueHighWaterMark(const int& value,
                                                                             bool flag) {
  UpdateSetting(m_group.get(), m_declared, kInputQueueHighWaterMark, value, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateInputQueueHighWaterMark"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateDataProcessingPeriod(const int& value,
                                                                          bool flag) {
  UpdateSetting(m_group.get(), m_declared, kDataProcessingPeriod, value, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateDataProcessingPeriod"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateDataChunkingPeriod(const int& value,
                                                                        bool flag) {
  UpdateSetting(m_group.get(), m_declared, kDataChunkingPeriod, value, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateDataChunkingPeriod"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateChunkSize(const std::int64_t& size,
                                                               bool flag) {
  const std::int64_t kind =
      GetDeclaredKind(m_declared, kChunkSize,
                      {kFile,
                       "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                       "UpdateChunkSize"});
  const auto found = m_aggregates.find(kChunkSize.name);
  if (found == m_aggregates.end()) {
    return;
  }
  AggregatedStatistics& aggregate = *found->second;
  const StatisticValue sample(kind, size);
  aggregate.Update(sample);
  std::string tendency;
  AggregatedStatistics::TrendToText(aggregate.GetTrending(), tendency);

  const auto publish = [&](const StatisticDeclaration& statistic, double value) {
    m_group->UpdateStatistic(statistic.name, StatisticValue(kDerivedKind, value), flag);
  };
  m_group->UpdateStatistic(kChunkSize.name, sample, flag);
  publish(kChunkSizeMinimum, aggregate.GetMinimum());
  publish(kChunkSizeMaximum, aggregate.GetMaximum());
  publish(kChunkSizeAverage, aggregate.GetAverage());
  publish(kChunkSizeRollingAverage, aggregate.GetRollingAverage());
  publish(kChunkSizeTotal, aggregate.GetTotal());
  publish(kChunkSizeTrendCoeff1, aggregate.GetTrendRegressionLine().first);
  publish(kChunkSizeTrendCoeff2, aggregate.GetTrendRegressionLine().second);
  m_group->UpdateStatistic(kChunkSizeTrend.name, StatisticValue(kTextKind, tendency), flag);
}

void StoreAndForwardIncomingStatisticsProfile::UpdateOutgoingHandlerAccepts(std::int64_t amount,
                                                                            bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kOutgoingHandlerAccepts, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateOutgoingHandlerAccepts"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateOutgoingHandlerRejects(std::int64_t amount,
                                                                            bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kOutgoingHandlerRejects, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateOutgoingHandlerRejects"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateEventDiskCacheAccepts(std::int64_t amount,
                                                                           bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kEventDiskCacheAccepts, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateEventDiskCacheAccepts"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateEventDiskCacheRejects(std::int64_t amount,
                                                                           bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kEventDiskCacheRejects, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateEventDiskCacheRejects"});
}

void StoreAndForwardIncomingStatisticsProfile::UpdateMessagesLost(std::int64_t amount, bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kMessagesLost, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardIncomingStatisticsProfile::"
                 "UpdateMessagesLost"});
}

// ---- Outgoing -----------------------------------------------------------------------------------

IStatisticsServer* StoreAndForwardOutgoingStatisticsProfile::GetStatisticsServer() {
  return FindStatisticsServer();
}

void StoreAndForwardOutgoingStatisticsProfile::Initialize() {
  InitializeStatistics(true);
  GetStatisticsServer()->RegisterGroup(m_group);
}

void StoreAndForwardOutgoingStatisticsProfile::InitializeStatistics(bool publish) {
  if (!m_group) {
    GetStatisticsServer()->CreateGroup("StoreAndForwardOutgoing", kStagesCategory, m_group);
  }
  DeclareCounter(*m_group, m_declared, m_counters, kEventsIncoming);
  DeclareCounter(*m_group, m_declared, m_counters, kEventsOutgoing, m_eventsOutgoing);
  DeclareCounter(*m_group, m_declared, m_counters, kNumberOfRequeues);
  if (publish) {
    m_group->Publish();
  }
}

void StoreAndForwardOutgoingStatisticsProfile::UpdateEventsIncoming(std::int64_t amount,
                                                                    bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kEventsIncoming, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardOutgoingStatisticsProfile::"
                 "UpdateEventsIncoming"});
}

void StoreAndForwardOutgoingStatisticsProfile::UpdateEventsOutgoing(std::int64_t amount,
                                                                    bool flag) {
  UpdateSerialCounter(m_group.get(), m_eventsOutgoing, kEventsOutgoing, amount, flag,
                      {kFile,
                       "OrloStoreAndForward::StoreAndForwardOutgoingStatisticsProfile::"
                       "UpdateEventsOutgoing"});
}

void StoreAndForwardOutgoingStatisticsProfile::UpdateNumberOfRequeues(std::int64_t amount,
                                                                      bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, kNumberOfRequeues, amount, flag,
                {kFile,
                 "OrloStoreAndForward::StoreAndForwardOutgoingStatisticsProfile::"
                 "UpdateNumberOfRequeues"});
}

}  // namespace OrloStoreAndForward
