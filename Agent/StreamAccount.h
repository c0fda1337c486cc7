#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "Agent/CacheInventory.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

// Where a stream's events are at one moment. All are numbers of events since the agent's start,
// but for what is cached now and was cached then.
struct StreamReport {
  std::uint64_t posted = 0;
  // Refused by the stream's first stage.
  std::uint64_t failed = 0;
  // Given up by the stage because the cache refused them, or by the destination because they can't
  // be sent, and events that could not be made.
  std::uint64_t lost = 0;
  // Handed to the stage's sender, from the queue or from the cache.
  std::uint64_t accepted = 0;
  // Of those, what the sender is rid of, the destination's buffer included.
  std::uint64_t sent = 0;
  // What has left the destination's buffer too.
  std::uint64_t delivered = 0;
  // How often the destination refused an event for the moment.
  std::uint64_t refusals = 0;
  std::uint64_t cached = 0;
  std::uint64_t cachedChunks = 0;
  std::uint64_t cachedAtStart = 0;
  // What an earlier stream of the name has left in memory.
  std::uint64_t inherited = 0;
  // What the stage has neither handed to its sender nor cached nor lost: its queue and its chunk.
  // Below zero for a moment while a chunk goes from the disk to the sender.
  std::int64_t undecided = 0;
  // Everything else: in the stage's queue, chunk or pending events, or in the destination's buffer.
  // Below zero for a moment while a chunk goes from the disk to the destination.
  std::int64_t held = 0;

  bool operator==(const StreamReport&) const = default;
};

// What a stream's ends say at one moment.
struct EndCounts {
  // Waits in the destination's buffer, which the stage counts as delivered.
  std::uint64_t unsent = 0;
  // Was taken by the destination, which can never send it; the stage counts that as well.
  std::uint64_t refused = 0;
  // StreamReport::inherited.
  std::uint64_t inherited = 0;
  // Refusals that the stage does not see.
  std::uint64_t refusals = 0;
  // Events that the sources could not make.
  std::uint64_t notMade = 0;
};

// Reads a stream's account from the statistics of its stage and its cache directory. One thread.
class StreamAccount {
 public:
  // Looks into the cache at once, so it is made before the stage begins to work. The statistics
  // outlive the account.
  StreamAccount(const WindowsAgentCommon::StatisticsServer& statistics, std::string streamName,
                const std::filesystem::path& dataDirectory);

  const CacheContents& GetContentsAtStart() const { return m_atStart; }

  // The ends are asked after the stage: an event is in the destination's buffer before the stage
  // counts it as sent, so what is called delivered then is never more than what has left.
  StreamReport Look(const std::function<EndCounts()>& askEnds);

 private:
  const WindowsAgentCommon::StatisticsServer& m_statistics;
  const std::string m_streamName;
  CacheInventory m_inventory;
  CacheContents m_atStart;
};

// Tells from reports taken every 100 ms when a stream whose sources have stopped has come to rest:
// every event is delivered, cached or lost, and it stays that way.
//
// The stage brings back a cached chunk once in each of its processing periods. One that is under
// way when the stage is stopped would be gone, so a stream with a cache is at rest just after such
// a chunk was delivered, or when none has come for longer than the period.
class RestDetector {
 public:
  // `emptyCache`: the stream is not at rest either while its cache is being emptied.
  RestDetector(std::chrono::milliseconds processingPeriod, bool emptyCache);

  bool IsAtRest(const StreamReport& report);

 private:
  unsigned m_quietLooks;
  bool m_emptyCache;
  StreamReport m_last;
  bool m_first = true;
  // Events have moved since the first report.
  bool m_moved = false;
  unsigned m_unchanged = 0;
};

}  // namespace OrloAgent
