#include "StoreAndForward/IncomingGauges.h"

#include <algorithm>

namespace OrloStoreAndForward {

IncomingGauges::IncomingGauges(const std::string& streamName,
                               ACE_Message_Queue<ACE_MT_SYNCH>& queue)
    : m_runningGauge(streamName, "IncomingRunning",
                     [this] { return m_running.load(std::memory_order_acquire); }),
      m_queueBytes(streamName, "QueueBytes",
                   [&queue] { return static_cast<std::int64_t>(queue.message_length()); }),
      m_queueEvents(streamName, "QueueEvents",
                    [&queue] { return static_cast<std::int64_t>(queue.message_count()); }),
      m_chunkEvents(streamName, "ChunkEvents",
                    [this] { return m_events.load(std::memory_order_relaxed); }),
      m_chunkAge(streamName, "ChunkAgeMilliseconds", [this] { return GetAgeMilliseconds(); }),
      m_near(streamName, "Near"),
      m_far(streamName, "Far"),
      m_spilled(streamName, "Spilled") {}

IncomingGauges::Way::Way(const std::string& streamName, const std::string& name)
    : chunksGauge(streamName, "Chunks" + name,
                  [this] { return chunks.load(std::memory_order_relaxed); }),
      eventsGauge(streamName, "Events" + name,
                  [this] { return events.load(std::memory_order_relaxed); }) {}

void IncomingGauges::Way::Count(std::size_t count) {
  chunks.store(chunks.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  events.store(events.load(std::memory_order_relaxed) + static_cast<std::int64_t>(count),
               std::memory_order_relaxed);
}

std::int64_t IncomingGauges::GetAgeMilliseconds() const {
  if (m_events.load(std::memory_order_acquire) == 0) {
    return 0;
  }
  const Clock::time_point since{Clock::duration(m_since.load(std::memory_order_relaxed))};
  const auto age =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
  return std::max<std::int64_t>(0, age);
}

}  // namespace OrloStoreAndForward
