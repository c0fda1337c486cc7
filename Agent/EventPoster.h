#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>

#include "Agent/EventHeader.h"
#include "OrloStream/Stream.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// Makes events of messages and posts them to a stream: a head block with the event header, and the
// message as its continuation. What the stream does not take is counted and logged, and the source
// goes on. Posting belongs to one thread; the count may be read from any.
class EventPoster {
 public:
  // The stream outlives the poster.
  EventPoster(OrloStream::Stream& stream, WindowsAgentCommon::Log log);

  // Blocks while the stream's first stage is above its high-water mark.
  void Post(const EventHeaderTemplate& header, std::uint8_t flags, std::uint64_t receiveTime,
            std::string_view message);

  std::uint64_t GetPosted() const { return m_posted.load(std::memory_order_relaxed); }

  // Events that could not be made for want of memory; the stream never saw them.
  std::uint64_t GetNotMade() const { return m_notMade.load(std::memory_order_relaxed); }

 private:
  void ReportFailure(const char* reason);

  OrloStream::Stream& m_stream;
  WindowsAgentCommon::Log m_log;
  // Written by the posting thread only.
  std::atomic<std::uint64_t> m_posted{0};
  std::atomic<std::uint64_t> m_notMade{0};
  std::uint64_t m_failedSinceReport = 0;
  std::chrono::steady_clock::time_point m_nextReport{};
};

}  // namespace OrloAgent
