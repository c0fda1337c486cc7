#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Agent/EndCounter.h"
#include "Agent/Options.h"
#include "WindowsAgentCommon/OrloTask.h"

namespace OrloAgent {

// The end of a stream. put is called by the stage's sending thread; everything else by the control
// thread, but for the three that ask something, which any thread may call.
//
// put takes over the block in any case. 0: the event is taken. 0x40000000: it can't be taken now
// and is forgotten; it must be offered again before any other.
class Destination : public WindowsAgentCommon::OrloTask {
 public:
  // From now on no event is taken, so that a sender that works on a large backlog comes to an end.
  virtual void Refuse() = 0;

  // Events that were taken and have not left yet.
  virtual std::uint64_t GetUnsentEvents() const = 0;

  // Events that were taken and can never be sent.
  virtual std::uint64_t GetLostEvents() const { return 0; }

  // What else it has counted. Any thread.
  virtual std::vector<EndCounter> GetCounters() const { return {}; }
};

// The stream's destination, with its fallback if it has one. Throws as MakeDestination.
std::unique_ptr<Destination> MakeDestinationOfStream(const StreamOptions& stream);

// The destination that the options describe; `streamName` is for its messages. Throws
// InitializationException if it can never work, for want of a file of certificates for example.
std::unique_ptr<Destination> MakeDestination(const DestinationOptions& options,
                                             const std::string& streamName);

}  // namespace OrloAgent
