#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Agent/EndCounter.h"
#include "Agent/Options.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/OrloTask.h"

namespace OrloAgent {

// The end of a stream. put is called by the stage's sending thread; everything else by the control
// thread, but for what asks something, which any thread may call.
//
// put takes over the block in any case. 0: the event is taken. 0x40000000: it can't be taken now
// and is forgotten; it must be offered again before any other.
class Destination : public WindowsAgentCommon::OrloTask {
 public:
  // From now on no event is taken, so that a sender that works on a large backlog comes to an end.
  virtual void Refuse() = 0;

  // Events that were taken and have not left yet.
  virtual std::uint64_t GetUnsentEvents() const = 0;

  // Events that have left for good: what its receiver has acknowledged, or, where receivers
  // acknowledge nothing, what the system has taken. Never goes down.
  virtual std::uint64_t GetSentEvents() const = 0;

  // Events that were taken and can never be sent.
  virtual std::uint64_t GetLostEvents() const { return 0; }

  // What it has counted since it was made. Any thread.
  virtual std::vector<EndCounter> GetCounters() const;

  // The two that a destination with a fallback is made of. They live as long as it does.
  struct Parts {
    const Destination& first;
    const Destination& fallback;
    // Since when the fallback gets the events; nothing while the first does.
    std::optional<std::chrono::system_clock::time_point> usedSince;
  };
  // Nothing where there is no fallback. Any thread.
  virtual std::optional<Parts> GetParts() const { return std::nullopt; }

  // Events among the unsent ones that an earlier stream of the name has left. They count for this
  // stream from its beginning.
  virtual std::uint64_t GetInheritedEvents() const { return 0; }

  // After Stop: the events that were taken and have not left, oldest first. They are the caller's
  // then, and no longer unsent. An event of which only a part has left is among them.
  virtual std::vector<WindowsAgentCommon::MessageBlockPtr> TakeUnsent() { return {}; }
};

// The stream's destination, with its fallback if it has one. Throws as MakeDestination.
std::unique_ptr<Destination> MakeDestinationOfStream(const StreamOptions& stream);

// The destination that the options describe; `streamName` is for its messages. Throws
// InitializationException if it can never work, for want of a file of certificates for example.
std::unique_ptr<Destination> MakeDestination(const DestinationOptions& options,
                                             const std::string& streamName);

}  // namespace OrloAgent
