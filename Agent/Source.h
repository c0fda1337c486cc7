#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Agent/EndCounter.h"
#include "OrloStream/Stream.h"

namespace OrloAgent {

// A source of the agent: what the stream manager starts and stops, and what the agent asks it.
class Source : public OrloStream::IStreamSource {
 public:
  // Events that this source has received and could not even offer to its stream. Any thread.
  virtual std::uint64_t GetNotMade() const = 0;

  // What it has counted since it was made. Any thread, from the end of Start on.
  virtual std::vector<EndCounter> GetCounters() const = 0;

  // Reads again what the administrator may have replaced without a change of the configuration:
  // certificates and keys. Control thread.
  virtual void Reload() {}
};

// Called once, on the source's thread, when its input has ended and its last event is posted.
using EndOfInput = std::function<void()>;

}  // namespace OrloAgent
