#pragma once

#include <cstdint>

#include "Agent/Monitor/MonitorState.h"

namespace OrloAgent {

// An hour of history, made of one state after the other. One thread at a time.
class HistoryKeeper {
 public:
  // Takes a point of each stream whose last one is old enough, and forgets what is too old. What
  // lies behind the state was seen before the system's clock was put back; it is forgotten, too.
  void Add(const AgentState& state);

  // The points of all streams that are younger than `since` (milliseconds since 1970).
  History Get(std::int64_t since) const;

 private:
  History m_history;
};

}  // namespace OrloAgent
