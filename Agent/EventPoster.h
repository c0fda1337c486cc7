#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>

#include "Agent/EventHeader.h"
#include "Agent/StreamGate.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// What a source has done with what it received. Written by the posting thread only, read by any.
// Neither ever goes down.
struct PostCounts {
  // Events that a stream has taken or refused for good. One that waits is not among them, so for a
  // moment its stream may have counted an event that this does not hold yet.
  std::atomic<std::uint64_t> posted{0};

  // Events that no stream saw: for want of memory, or because there was no stream any more.
  std::atomic<std::uint64_t> notMade{0};
};

// What becomes of an event that its stream does not take.
enum class Untaken {
  // It is gone: it is counted, and reported as lost.
  Lost,
  // Its source still has it and offers it again: it counts as if it had not been posted.
  OfferedAgain
};

// Makes events of messages and posts them to a source's stream: a head block with the event header,
// and the message as its continuation. What the stream does not take is logged, and the source goes
// on. One thread.
class EventPoster {
 public:
  // The gate and the counts outlive the poster.
  EventPoster(StreamGate& gate, PostCounts& counts, WindowsAgentCommon::Log log,
              Untaken untaken = Untaken::Lost);

  // Whether the stream has taken the event. Blocks while the gate is closed, and while the stream's
  // first stage is above its high-water mark.
  bool Post(const EventHeaderTemplate& header, std::uint8_t flags, std::uint64_t receiveTime,
            std::string_view message);

  // No more events come for now: reports what has not been reported yet.
  void Finish();

 private:
  void OnFailure(const char* reason);
  void ReportLost();

  StreamGate& m_gate;
  PostCounts& m_counts;
  WindowsAgentCommon::Log m_log;
  const Untaken m_untaken;
  // Lost, and not reported yet.
  std::uint64_t m_lost = 0;
  const char* m_reason = "";
  std::chrono::steady_clock::time_point m_nextReport{};
};

}  // namespace OrloAgent
