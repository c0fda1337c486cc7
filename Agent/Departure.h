#pragma once

#include <chrono>
#include <optional>

#include "Agent/StreamAccount.h"

namespace OrloAgent {

// Decides, from looks at a stream that is to give way to another and whose sources post no more,
// how far it has come:
//
// Deliver: its destination still gets events. This ends when the stream is at rest, when the
//   destination takes nothing, or when the time is over.
// Keep: the destination gets nothing more, and the stage still has to decide about what is in its
//   queue and its chunk, or its sender has not come back yet with what it holds.
// Leave: the stages can be stopped, and nothing is lost by that.
//
// One thread.
class Departure {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    // Of the stages: how long they may take to decide about an event, and to bring a chunk back
    // from the disk.
    std::chrono::milliseconds chunkPeriod{0};
    std::chrono::milliseconds processingPeriod{0};
    // How long the destination may take for one event.
    std::chrono::milliseconds patience{0};
    // How long events are delivered while that goes on.
    std::chrono::milliseconds deliver{0};
    // How long nothing may have been delivered until the destination counts as away.
    std::chrono::milliseconds away{0};
  };

  enum class Step { Deliver, Keep, Leave };

  Departure(const Limits& limits, Clock::time_point now);

  // To be called every 100 ms. `isHeld`: the sender waits in the destination's gate, because of the
  // step that the last look gave. `maySend`: the stage may bring a chunk back from its cache now.
  Step Look(const StreamReport& report, bool isHeld, bool maySend, Clock::time_point now);

  // Whether the time was over before the stream could leave without a loss.
  bool IsLate() const { return m_late; }

 private:
  void Keep(Clock::time_point now);
  bool MayLeave(const StreamReport& report, bool isHeld, bool maySend, Clock::time_point now);

  Limits m_limits;
  Clock::time_point m_deliverUntil;
  // When the stage has decided about what was posted before, if it is in time.
  Clock::time_point m_decided;
  RestDetector m_rest;
  StreamReport m_last;
  bool m_first = true;
  Clock::time_point m_movedAt;
  // From the first step Keep on: since when, and the ends of both waits that may follow.
  std::optional<Clock::time_point> m_keptSince;
  Clock::time_point m_decideUntil;
  Clock::time_point m_sendUntil;
  // When the schedule was last seen to let a chunk come from the cache, but not before m_keptSince.
  Clock::time_point m_couldSendAt;
  bool m_late = false;
};

}  // namespace OrloAgent
