#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "OrloStream/StreamStageBaseStatisticsProfile.h"

// What the stage and its two processors publish about themselves. A profile is created and
// initialised by its owner and then only updated; an update before that throws
// OrloStatisticsException. The statistics service must be registered before a profile is
// initialised. Profiles have no lock: UpdateChunkSize belongs to one thread, the Outgoing profile
// is used under its processor's lock, other counters and settings may be updated from several
// threads at once.
namespace OrloStoreAndForward {

// Posting threads update it through StoreAndForwardStage::ProcessMessage.
class StoreAndForwardStatisticsProfile final : public OrloStream::StreamStageBaseStatisticsProfile {
 public:
  void InitializeStatistics(bool publish) override;

  void UpdateTotalEventsPosted(std::int64_t amount, bool flag);
  void UpdateTotalEventsFailedToQueue(std::int64_t amount, bool flag);

 private:
  std::int64_t* m_totalEventsPosted = nullptr;  // in m_counters, once it is declared
};

// Updated by the Incoming thread; the four settings by the thread that initialises it.
class StoreAndForwardIncomingStatisticsProfile final {
 public:
  virtual WindowsAgentCommon::IStatisticsServer* GetStatisticsServer();
  virtual void Initialize();
  virtual void InitializeStatistics(bool publish);

  void UpdateInputQueueLowWaterMark(const int& value, bool flag);
  void UpdateInputQueueHighWaterMark(const int& value, bool flag);
  void UpdateDataProcessingPeriod(const int& value, bool flag);
  void UpdateDataChunkingPeriod(const int& value, bool flag);

  // Publishes the sample and the eight figures derived from it.
  void UpdateChunkSize(const std::int64_t& size, bool flag);

  void UpdateOutgoingHandlerAccepts(std::int64_t amount, bool flag);
  void UpdateOutgoingHandlerRejects(std::int64_t amount, bool flag);
  void UpdateEventDiskCacheAccepts(std::int64_t amount, bool flag);
  void UpdateEventDiskCacheRejects(std::int64_t amount, bool flag);
  void UpdateMessagesLost(std::int64_t amount, bool flag);

 private:
  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> m_group;
  std::map<std::string, std::int64_t> m_declared;
  std::map<std::string, std::shared_ptr<std::int64_t>> m_counters;
  std::map<std::string, std::int64_t> m_reservedDeclared;
  std::map<std::string, std::shared_ptr<WindowsAgentCommon::AggregatedStatistics>> m_aggregates;
  std::map<std::string, std::shared_ptr<std::int64_t>> m_reservedCounters;
};

// Updated by the Incoming and the Outgoing thread, both under the Outgoing processor's lock.
class StoreAndForwardOutgoingStatisticsProfile final {
 public:
  virtual WindowsAgentCommon::IStatisticsServer* GetStatisticsServer();
  virtual void Initialize();
  virtual void InitializeStatistics(bool publish);

  void UpdateEventsIncoming(std::int64_t amount, bool flag);
  void UpdateEventsOutgoing(std::int64_t amount, bool flag);
  void UpdateNumberOfRequeues(std::int64_t amount, bool flag);

 private:
  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> m_group;
  std::map<std::string, std::int64_t> m_declared;
  std::map<std::string, std::shared_ptr<std::int64_t>> m_counters;
  std::map<std::string, std::int64_t> m_reservedDeclared;
  std::map<std::string, std::shared_ptr<WindowsAgentCommon::AggregatedStatistics>> m_aggregates;
  std::map<std::string, std::shared_ptr<std::int64_t>> m_reservedCounters;
  std::int64_t* m_eventsOutgoing = nullptr;  // in m_counters, once it is declared
};

}  // namespace OrloStoreAndForward
