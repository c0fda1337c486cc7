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

  // The accounts of the two streams meet in these; both rest on one reading, because the
  // destination goes on between them.
  //
  // How many events the stream has left: `events`, and what the destination had not sent then.
  std::uint64_t count = 0;
  // Of those, how many were given up since by a destination that has ended.
  std::uint64_t lost = 0;
  // What the destination had given up before, which is in the account of the stream that has ended.
  std::uint64_t lostBefore = 0;

  // Stops those that are not in the options; null: all. An event that waits in one of them is lost,
  // as Source::Stop says.
  void StopSources(const StreamOptions* wanted);

  // Ends the destination, unless the options have the same one, and takes what it has not sent;
  // reports what it could not give back for want of memory.
  void StopDestination(const StreamOptions* wanted);
};

// Whether the destination of one goes on as that of the other.
bool HasSameDestination(const StreamOptions& one, const StreamOptions& other);

}  // namespace OrloAgent
