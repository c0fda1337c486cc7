#pragma once

#include <chrono>
#include <cstdint>

#include "Agent/StreamAccount.h"

namespace OrloAgent {

// Tells whether the threads of a stream still do their work, from what the stream has achieved: a
// thread that hangs can't be asked. A stream that waits for its destination or its schedule is
// well, and so is one with nothing to do. One thread.
class StreamPulse {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    // Within this time the stage decides about an event that was posted: hands it to the sender,
    // puts it into the cache, or counts it as lost.
    std::chrono::milliseconds decide{0};
    // Within this time the sender is rid of an event that it has, or is refused it.
    std::chrono::milliseconds send{0};
  };

  enum class State { Well, NothingDecided, NothingSent };

  explicit StreamPulse(const Limits& limits) : m_limits(limits) {}

  State Look(const StreamReport& report, Clock::time_point now);

 private:
  bool IsDeciding(const StreamReport& report, Clock::time_point now);
  bool IsSending(const StreamReport& report, Clock::time_point now);

  const Limits m_limits;
  bool m_isFirst = true;
  StreamReport m_decided;
  Clock::time_point m_decidedAt{};
  StreamReport m_sent;
  Clock::time_point m_sentAt{};
};

}  // namespace OrloAgent
