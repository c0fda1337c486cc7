#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>
#include <vector>

#include "Agent/EndCounter.h"

namespace OrloAgent {

// Where a BufferedWriter's bytes go: a connection, a file, the standard output. Every call is made
// under the writer's lock, so a channel needs none. A channel tells its administrator itself what
// happened to it, once per change of state.
class IChannel {
 public:
  virtual ~IChannel() = default;

  enum class Readiness {
    Ready,
    // Ready, and what was written before went elsewhere: a frame that was not completely written
    // must start again from its beginning.
    ReadyAnew,
    // Not now. Attempts that cost time are the channel's to limit.
    NotReady
  };

  // Makes the channel ready to write, or finds that it still is: connects, opens, looks whether the
  // peer has gone or the file was renamed. Called before every Write. `atFrameStart`: nothing of
  // the next frame has been written, so the bytes may as well go on elsewhere.
  virtual Readiness Prepare(bool atFrameStart) = 0;

  struct WriteResult {
    // How many of the bytes were taken; may be fewer than offered.
    std::size_t written = 0;
    // The channel has broken after them and must be prepared again.
    bool broken = false;
  };

  // Writes what can be written at once. If that is nothing, waits up to `patience` for it to be
  // more.
  virtual WriteResult Write(std::string_view bytes, std::chrono::milliseconds patience) = 0;

  // No more is written. What was written is on its way to its place.
  virtual void Close() = 0;

  // What it has counted. Any thread, without the writer's lock.
  virtual std::vector<EndCounter> GetCounters() const { return {}; }
};

}  // namespace OrloAgent
