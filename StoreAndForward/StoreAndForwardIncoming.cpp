#include "StoreAndForward/StoreAndForwardIncoming.h"

#include <ace/OS_NS_sys_time.h>

#include "StoreAndForward/StoreAndForwardOutgoing.h"
#include "StoreAndForward/StoreAndForwardStage.h"
#include "StoreAndForward/StreamNameText.h"
#include "StoreAndForward/TaskThread.h"
#include "WindowsAgentCommon/EnvironmentBlockHelper.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloStoreAndForward {

using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::EnvironmentBlockHelper;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::LoggerFactory;

namespace {

constexpr int kDefaultLowWaterMark = 975000;
constexpr int kDefaultHighWaterMark = 1000000;
constexpr long kMinimumProcessingPeriod = 500000;
constexpr int kDefaultChunkPeriod = 10;
constexpr int kMinimumChunkPeriod = 5;

}  // namespace

StoreAndForwardIncoming::StoreAndForwardIncoming(StoreAndForwardStage* stage,
                                                 StoreAndForwardOutgoing* outgoing)
    : m_stage(stage), m_outgoing(outgoing) {}

StoreAndForwardIncoming::~StoreAndForwardIncoming() = default;

void StoreAndForwardIncoming::Initialize(const EnvironmentBlock& environment) {
  m_log = LoggerFactory::GetLog("Code.StoreAndForwardIncoming." +
                                StreamNameText(m_stage->GetParentStreamName()));
  const EnvironmentBlockHelper helper(environment);
  int lowWaterMark = 0;
  helper.GetIntegerValue("QueueLowWaterMark", lowWaterMark, kDefaultLowWaterMark);
  msg_queue()->low_water_mark(static_cast<std::size_t>(lowWaterMark));
  int highWaterMark = 0;
  helper.GetIntegerValue("QueueHighWaterMark", highWaterMark, kDefaultHighWaterMark);
  msg_queue()->high_water_mark(static_cast<std::size_t>(highWaterMark));
  ReadPeriods(environment);

  OpenEventCache();

  m_statistics = std::make_shared<StoreAndForwardIncomingStatisticsProfile>();
  m_statistics->Initialize();
  PublishSettings(lowWaterMark, highWaterMark);
  m_gauges = std::make_unique<IncomingGauges>(StreamNameText(m_stage->GetParentStreamName()),
                                              *msg_queue());

  ActivateOneThread(*this);
  m_started = true;
  LogFacade::Info(m_log, "Started");
}

void StoreAndForwardIncoming::ReadPeriods(const EnvironmentBlock& environment) {
  const EnvironmentBlockHelper helper(environment);
  helper.GetIntegerValue("DataProcessingPeriod", m_dataProcessingPeriod, kMinimumProcessingPeriod);
  if (m_dataProcessingPeriod < kMinimumProcessingPeriod) {
    m_dataProcessingPeriod = kMinimumProcessingPeriod;
    LogFacade::Info(m_log, "Data processing period too small.  Reverting to minimum (%d).",
                    m_dataProcessingPeriod);
  }
  // The key says "Chunk", the statistic that reports the value "Chunking": both names are in use.
  helper.GetIntegerValue("DataChunkPeriod", m_dataChunkingPeriod, kDefaultChunkPeriod);
  if (m_dataChunkingPeriod < kMinimumChunkPeriod) {
    m_dataChunkingPeriod = kMinimumChunkPeriod;
    LogFacade::Info(m_log, "Data chunking period too small.  Reverting to minimum (%d).",
                    m_dataChunkingPeriod);
  }
}

void StoreAndForwardIncoming::OpenEventCache() {
  const std::uint32_t error = CreateEventCache(m_stage->GetParentStreamName(), m_eventCache);
  if (error == 0) {
    return;
  }
  // The wording stands twice in the message; those who search logs for it know it that way.
  std::string text;
  WindowsAgentCommon::GetLastErrorText(error, text);
  text = WindowsAgentCommon::Format("Failed to create event cache (%s)", text);
  constexpr int kReportedLine = 75;
  throw WindowsAgentCommon::InitializationException(
      "StoreAndForwardIncoming", "OrloStoreAndForward::StoreAndForwardIncoming::Initialize",
      kReportedLine, "Failed to create event cache (" + text + ")");
}

void StoreAndForwardIncoming::PublishSettings(int lowWaterMark, int highWaterMark) {
  m_statistics->UpdateInputQueueLowWaterMark(lowWaterMark, false);
  m_statistics->UpdateInputQueueHighWaterMark(highWaterMark, false);
  m_statistics->UpdateDataProcessingPeriod(static_cast<int>(m_dataProcessingPeriod), false);
  m_statistics->UpdateDataChunkingPeriod(m_dataChunkingPeriod, false);
}

void StoreAndForwardIncoming::Stop() {
  if (!m_started) {
    return;
  }
  LogFacade::Info(m_log, "Stopping...");
  HangUpAndWait(*this);
  m_started = false;
}

int StoreAndForwardIncoming::svc() {
  Chunk chunk;
  Chunk farChunk;
  try {
    // The time is read once in a pass, and again after one that has done something.
    ACE_Time_Value now = ACE_OS::gettimeofday();
    ACE_Time_Value deadline = now + ACE_Time_Value(m_dataChunkingPeriod);
    bool running = true;
    while (running) {
      m_gauges->SetChunk(chunk.size());
      running = TakeBlock(chunk, now);
      now = ACE_OS::gettimeofday();
      const bool due = IsChunkDue(chunk, now, deadline);

      if (running && m_eventCache->Empty()) {
        if (!due) {
          continue;
        }
        if (!HandOverChunk(chunk)) {
          m_statistics->UpdateOutgoingHandlerRejects(1, false);
          Spill(chunk);
        }
      } else {
        if (running) {
          HandOverOldestCachedChunk(farChunk);
        }
        // Behind what was cached before the pass, even if that has just been handed over; and, at
        // the end, to where the next run finds it.
        if (due) {
          Spill(chunk);
        }
      }
      now = ACE_OS::gettimeofday();
    }
    m_gauges->SetChunk(chunk.size());
  } catch (int error) {
    LogFacade::Debug(m_log, "Stage thread exception %d.", error);
  }
  m_gauges->SetEnded();
  LogFacade::Debug(m_log, "Thread exiting (StoreAndForwardIncoming).");
  return 0;
}

// Waits for one block and adds it to the chunk. False if it was the hang-up block.
bool StoreAndForwardIncoming::TakeBlock(Chunk& chunk, const ACE_Time_Value& now) {
  ACE_Time_Value deadline =
      now + ACE_Time_Value(0, static_cast<suseconds_t>(m_dataProcessingPeriod));
  ACE_Message_Block* block = nullptr;
  if (getq(block, &deadline) == -1) {
    return true;
  }
  if (block->msg_type() == ACE_Message_Block::MB_HANGUP) {
    block->release();
    return false;
  }
  chunk.push_back(block);
  return true;
}

// Moves the deadline on when it has passed, also for an empty chunk, so that a silent period does
// not carry over.
bool StoreAndForwardIncoming::IsChunkDue(const Chunk& chunk, const ACE_Time_Value& now,
                                         ACE_Time_Value& deadline) const {
  if (!(deadline < now)) {
    return false;
  }
  deadline = now + ACE_Time_Value(m_dataChunkingPeriod);
  return !chunk.empty();
}

bool StoreAndForwardIncoming::HandOverChunk(Chunk& chunk) {
  if (!m_outgoing->CanAccept()) {
    return false;
  }
  LogFacade::Debug(m_log, "Processing accepted for message block (near). (%d records)",
                   chunk.size());
  m_outgoing->Accept(chunk);
  CountHandOver(chunk);
  m_gauges->CountNear(chunk.size());
  chunk.clear();
  return true;
}

void StoreAndForwardIncoming::HandOverOldestCachedChunk(Chunk& farChunk) {
  if (!m_outgoing->CanAccept() || !m_eventCache->Front(farChunk)) {
    return;
  }
  LogFacade::Debug(m_log, "Processing accepted for message block (far). (%d records)",
                   farChunk.size());
  m_outgoing->Accept(farChunk);
  CountHandOver(farChunk);
  m_gauges->CountFar(farChunk.size());
  m_eventCache->Pop();
  if (m_eventCache->Empty()) {
    LogFacade::Debug(m_log, "No remaining cached data.");
  }
}

void StoreAndForwardIncoming::CountHandOver(const Chunk& chunk) {
  m_statistics->UpdateOutgoingHandlerAccepts(1, false);
  m_statistics->UpdateChunkSize(static_cast<std::int64_t>(chunk.size()), false);
}

void StoreAndForwardIncoming::Spill(Chunk& chunk) {
  const std::size_t records = chunk.size();
  LogFacade::Debug(m_log, "Processing rejected for message block. Pushing to disk. (%d records)",
                   records);
  if (m_eventCache->Push(chunk)) {
    m_statistics->UpdateEventDiskCacheAccepts(1, false);
    m_gauges->CountSpilled(records);
  } else {
    LogFacade::Warn(
        m_log, "Event cache rejected message block for persistance.  Messages lost (%d).", records);
    // None is left if the cache failed after it had released them.
    for (ACE_Message_Block* event : chunk) {
      event->release();
    }
    m_statistics->UpdateEventDiskCacheRejects(1, false);
    m_statistics->UpdateMessagesLost(static_cast<std::int64_t>(records), false);
  }
  chunk.clear();
}

}  // namespace OrloStoreAndForward
