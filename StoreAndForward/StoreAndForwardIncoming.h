#pragma once

#include <ace/Time_Value.h>

#include <memory>
#include <vector>

#include "StoreAndForward/EventCache.h"
#include "StoreAndForward/IncomingGauges.h"
#include "StoreAndForward/StoreAndForwardStatisticsProfile.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/OrloTask.h"

namespace OrloStoreAndForward {

class StoreAndForwardOutgoing;
class StoreAndForwardStage;

// The receiving side of the stage: gathers posted events into chunks, one per chunking period, and
// hands each chunk to the Outgoing processor ("near") or writes it to the event cache; while
// anything is cached, every chunk goes behind it, and cached chunks are read back and handed over
// oldest first ("far"). Owned by the stage, which outlives it, as does the Outgoing processor.
//
// Threads: the control thread calls Initialize and Stop; posting threads put blocks on the task's
// message queue and touch nothing else; svc is the Incoming thread, which alone uses the chunk and
// the event cache.
//
// Settings (signed 32-bit):
//   "QueueLowWaterMark"    bytes, default 975000
//   "QueueHighWaterMark"   bytes, default 1000000
//   "DataProcessingPeriod" microseconds, default and minimum 500000
//   "DataChunkPeriod"      seconds, default 10, minimum 5
// Water marks are taken as given. A period below its minimum is raised, with an Info line.
class StoreAndForwardIncoming : public WindowsAgentCommon::OrloTask {
 public:
  StoreAndForwardIncoming(StoreAndForwardStage* stage, StoreAndForwardOutgoing* outgoing);
  ~StoreAndForwardIncoming() override;

  // Reads the settings, opens the stream's event cache, publishes the statistics, starts the
  // thread. Throws InitializationException when the cache can't be made.
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;

  // Ends the thread ahead of whatever still waits in the queue, which stays there. The chunk that
  // is being gathered goes to the event cache if it was due already, else it is abandoned.
  void Stop() override;

  // The Incoming thread.
  int svc() override;

 private:
  using Chunk = std::vector<ACE_Message_Block*>;

  void ReadPeriods(const WindowsAgentCommon::EnvironmentBlock& environment);
  void OpenEventCache();
  void PublishSettings(int lowWaterMark, int highWaterMark);

  bool TakeBlock(Chunk& chunk, const ACE_Time_Value& now);
  bool IsChunkDue(const Chunk& chunk, const ACE_Time_Value& now, ACE_Time_Value& deadline) const;
  bool HandOverChunk(Chunk& chunk);
  void HandOverOldestCachedChunk(Chunk& farChunk);
  void Spill(Chunk& chunk);
  void CountHandOver(const Chunk& chunk);

  int m_dataChunkingPeriod = 10;         // seconds
  long m_dataProcessingPeriod = 500000;  // microseconds
  WindowsAgentCommon::Log m_log;
  std::shared_ptr<EventCache> m_eventCache;
  std::shared_ptr<StoreAndForwardIncomingStatisticsProfile> m_statistics;
  std::unique_ptr<IncomingGauges> m_gauges;  // there from Initialize on
  bool m_started = false;                    // control thread only
  StoreAndForwardStage* m_stage;
  StoreAndForwardOutgoing* m_outgoing;
};

}  // namespace OrloStoreAndForward
