#pragma once

#include <ace/Message_Queue.h>
#include <ace/Synch.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "WindowsAgentCommon/Gauges.h"

namespace OrloStoreAndForward {

// What lies in the Incoming processor at the moment, for whoever watches the agent: the gauges
// "QueueBytes", "QueueEvents", "ChunkEvents" and "ChunkAgeMilliseconds" of the stream; and which
// way its events have gone, as totals: "ChunksNear", "EventsNear", "ChunksFar", "EventsFar",
// "ChunksSpilled" and "EventsSpilled". The gauge "IncomingRunning" is 1 until the processor's
// thread will touch no event any more, then 0. Owned by the processor.
class IncomingGauges {
 public:
  // The queue outlives it.
  IncomingGauges(const std::string& streamName, ACE_Message_Queue<ACE_MT_SYNCH>& queue);

  // So many events are in the chunk that is being gathered. Incoming thread.
  void SetChunk(std::size_t events) {
    const auto before = m_events.load(std::memory_order_relaxed);
    if (before == 0 && events != 0) {
      m_since.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    }
    // Whoever sees the events sees since when.
    m_events.store(static_cast<std::int64_t>(events), std::memory_order_release);
  }

  // The thread hands over and caches nothing from now on. Incoming thread.
  void SetEnded() { m_running.store(0, std::memory_order_release); }

  // A chunk of so many events was handed over straight from memory; handed over from the cache;
  // taken by the cache. Incoming thread.
  void CountNear(std::size_t events) { m_near.Count(events); }
  void CountFar(std::size_t events) { m_far.Count(events); }
  void CountSpilled(std::size_t events) { m_spilled.Count(events); }

 private:
  // Written by the Incoming thread only.
  struct Way {
    Way(const std::string& streamName, const std::string& name);
    void Count(std::size_t count);

    std::atomic<std::int64_t> chunks{0};
    std::atomic<std::int64_t> events{0};
    WindowsAgentCommon::Gauge chunksGauge;
    WindowsAgentCommon::Gauge eventsGauge;
  };

  using Clock = std::chrono::steady_clock;

  std::int64_t GetAgeMilliseconds() const;

  std::atomic<std::int64_t> m_running{1};
  std::atomic<std::int64_t> m_events{0};
  // When the chunk got its first event.
  std::atomic<Clock::rep> m_since{0};
  WindowsAgentCommon::Gauge m_runningGauge;
  WindowsAgentCommon::Gauge m_queueBytes;
  WindowsAgentCommon::Gauge m_queueEvents;
  WindowsAgentCommon::Gauge m_chunkEvents;
  WindowsAgentCommon::Gauge m_chunkAge;
  Way m_near;
  Way m_far;
  Way m_spilled;
};

}  // namespace OrloStoreAndForward
