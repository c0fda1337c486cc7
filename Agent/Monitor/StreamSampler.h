#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Agent/CacheInventory.h"
#include "Agent/Monitor/MonitorState.h"
#include "Agent/Monitor/ScheduleView.h"
#include "Agent/Options.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

// What the sources and the destination of a stream have to say at one moment.
struct EndsReading {
  std::vector<EndState> sources;
  EndState destination;
  std::optional<EndState> fallback;
  std::optional<std::int64_t> fallbackSince;
  std::uint64_t notMade = 0;
  std::uint64_t unsent = 0;
  std::uint64_t refused = 0;
  // Of what was delivered or is unsent, what an earlier stream of the name has left.
  std::uint64_t inherited = 0;
};

// Makes the state of one stream out of its published statistics, the gauges of its stage, its cache
// directory and its ends, again and again. One thread.
class StreamSampler {
 public:
  using Clock = std::chrono::steady_clock;

  StreamSampler(const StreamOptions& options, const std::filesystem::path& dataDirectory,
                std::chrono::milliseconds refusedAfter);

  const std::string& GetName() const { return m_name; }

  StreamState Look(const std::vector<WindowsAgentCommon::StatisticsGroupSnapshot>& statistics,
                   EndsReading ends, Clock::time_point now);

 private:
  void ReadStatistics(const std::vector<WindowsAgentCommon::StatisticsGroupSnapshot>& statistics,
                      StreamState& state) const;
  void ReadGauges(StreamState& state) const;
  void LookIntoCache(StreamState& state, Clock::time_point now);
  void LookForRefusal(StreamState& state, Clock::time_point now);
  void LookForLoss(StreamState& state, Clock::time_point now);
  void FindProblems(StreamState& state) const;

  const std::string m_name;
  const std::chrono::milliseconds m_refusedAfter;
  CacheInventory m_inventory;
  // What the last look into the cache found, and when the next one is due: a large cache takes time
  // to walk, and most of the time is to be left to others.
  CacheContents m_cache;
  Clock::time_point m_nextCacheLook{};
  ScheduleView m_schedule;

  bool m_first = true;
  StreamState m_last;
  std::optional<Clock::time_point> m_refusingSince;
  // When the cache last refused a chunk.
  std::optional<Clock::time_point> m_lostAt;
  // How many events were lost until then, and before the first loss of this series.
  std::uint64_t m_lostBefore = 0;
};

}  // namespace OrloAgent
