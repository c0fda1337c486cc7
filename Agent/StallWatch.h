#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "Agent/Options.h"

namespace OrloAgent {

// What the watch is told about a stream at one moment.
struct StreamMotion {
  // Chunk files in the cache directory.
  std::uint64_t cachedChunks = 0;
  // Events that the stage has handed to its sender, and that the sender is rid of.
  std::uint64_t accepted = 0;
  std::uint64_t delivered = 0;
  // How often the destination has refused an event.
  std::uint64_t refusals = 0;
  // What the send schedule says; true without one.
  bool sendingAllowed = true;
};

// Tells a stream that is stuck from one that waits for its destination or its schedule: something
// is cached, the sender has nothing left to deliver and was refused nothing, sending is allowed,
// and still nothing has moved for a while. A queue in that state looks healthy from outside. One
// thread.
class StallWatch {
 public:
  using Clock = std::chrono::steady_clock;

  explicit StallWatch(const WatchOptions& options) : m_options(options) {}

  void SetOptions(const WatchOptions& options) { m_options = options; }

  // Takes a look; true when a warning is due.
  bool Look(const StreamMotion& motion, Clock::time_point now);

  bool IsStalled() const { return m_stalled; }

  // For how long nothing has moved; 0 while the stream is not stalled.
  std::chrono::seconds GetStalledTime(Clock::time_point now) const;

 private:
  WatchOptions m_options;
  std::optional<StreamMotion> m_last;
  Clock::time_point m_since{};
  Clock::time_point m_warned{};
  bool m_stalled = false;
};

// The oldest chunk file of a cache directory, by the order in which a stage drains it, and why it
// can't be read.
struct OldestChunk {
  std::filesystem::path path;  // empty: there is none
  std::string error;           // empty: it can be opened and read
};
OldestChunk FindOldestChunk(const std::filesystem::path& cacheDirectory);

}  // namespace OrloAgent
