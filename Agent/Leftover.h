#pragma once

#include <memory>
#include <vector>

#include "Agent/Destination.h"
#include "Agent/Options.h"
#include "Agent/Source.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

// A source that was made, with the section it was made from.
struct MadeSource {
  std::unique_ptr<OrloStream::IStreamSource> owner;
  Source* source = nullptr;
  SourceOptions options;
  // Set on the control thread when its input has ended.
  std::shared_ptr<bool> ended = std::make_shared<bool>(false);
};

// What a stream leaves to the one of its name that follows.
struct Leftover {
  // Paused.
  std::vector<MadeSource> sources;
  // Running, or null.
  std::unique_ptr<Destination> destination;
  // What the destination was made from.
  StreamOptions madeFrom;
  // Events that were not sent, oldest first. All that is in the stream's cache is younger.
  std::vector<WindowsAgentCommon::MessageBlockPtr> events;

  // Stops those that are not in the options; null: all. What waits in them is counted as not made.
  void StopSources(const StreamOptions* wanted);

  // Ends the destination, unless the options have the same one, and takes what it has not sent;
  // reports what it could not give back for want of memory.
  void StopDestination(const StreamOptions* wanted);
};

// Whether the destination of one goes on as that of the other.
bool HasSameDestination(const StreamOptions& one, const StreamOptions& other);

}  // namespace OrloAgent
