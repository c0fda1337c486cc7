#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Agent/EndCounter.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Statistics.h"

// What the monitor knows of the agent at one moment, as plain values. Made by the Sampler; never
// changed afterwards, so that any thread may read it.
namespace OrloAgent {

// One source, or the destination of a stream.
struct EndState {
  // "syslog", "file", ...
  std::string type;
  // What tells it from others of its type: an address, a path.
  std::string name;
  std::vector<EndCounter> counters;
  // Of a destination: what it has taken and not sent.
  std::optional<std::uint64_t> unsent{};
};

// Minutes of a week, counted from Monday 00:00, the first one included and the last one not.
using WeekSpan = std::pair<int, int>;
constexpr int kMinutesOfWeek = 7 * 24 * 60;

struct ScheduleState {
  bool open = true;
  // Seconds since 1970; nothing if it stays as it is for a week and a day.
  std::optional<std::int64_t> nextChange;
  // The IANA zone of the schedule, in whose local time the following are.
  std::string zone;
  std::vector<WeekSpan> openSpans;
  int nowMinute = 0;
};

// What has gone one way through the stage.
struct WayState {
  std::uint64_t chunks = 0;
  std::uint64_t events = 0;
};

struct StreamState {
  std::string name;

  // Events since the stream's start, as StreamReport has them.
  std::uint64_t posted = 0;
  std::uint64_t failed = 0;
  std::uint64_t lost = 0;
  std::uint64_t accepted = 0;
  std::uint64_t sent = 0;
  std::uint64_t delivered = 0;
  std::uint64_t refusals = 0;

  // Since the stream's start: handed over to the sender straight from memory, handed over from the
  // disk, and written to it.
  WayState fromMemory;
  WayState fromDisk;
  WayState toDisk;
  // How many the disk has refused.
  std::uint64_t chunksRefused = 0;

  // What lies in memory now.
  std::uint64_t queueBytes = 0;
  std::uint64_t queueEvents = 0;
  std::uint64_t chunkEvents = 0;
  double chunkAgeSeconds = 0.0;
  std::uint64_t pendingEvents = 0;
  std::uint64_t unsentEvents = 0;

  // What lies in the cache directory.
  std::uint64_t cachedEvents = 0;
  std::uint64_t cachedChunks = 0;
  std::uint64_t cachedBytes = 0;
  // Since its oldest chunk was written; 0 without one.
  double oldestSeconds = 0.0;

  // Nothing where sending is not restricted.
  std::optional<ScheduleState> schedule;

  bool stalled = false;
  std::uint64_t stalledSeconds = 0;
  // For how long the destination has taken nothing though it was offered something; 0: it takes.
  double refusingSeconds = 0.0;

  std::vector<EndState> sources;
  EndState destination;
  // Nothing where there is none.
  std::optional<EndState> fallback;
  // Since when it gets the events, in seconds since 1970; nothing while the destination does.
  std::optional<std::int64_t> fallbackSince;

  // What keeps the stream from being healthy, each in words.
  std::vector<std::string> problems;

  std::uint64_t GetEventsInMemory() const {
    return queueEvents + chunkEvents + pendingEvents + unsentEvents;
  }
};

struct DiskState {
  std::uint64_t used = 0;
  std::uint64_t quota = 0;  // 0: no limit
  // Of the file system; nothing if it can't be asked.
  std::optional<std::uint64_t> available;
  std::uint64_t keepFree = 0;
};

// A message that the agent has logged.
struct LoggedMessage {
  std::int64_t time = 0;  // milliseconds since 1970
  WindowsAgentCommon::LogLevel level = WindowsAgentCommon::LogLevel::Warn;
  std::string logger;
  std::string text;
};

struct AgentState {
  std::string version;
  std::int64_t started = 0;  // milliseconds since 1970
  std::int64_t sampled = 0;  // the same
  // When that was, by a clock that nobody sets.
  std::chrono::steady_clock::time_point looked{};
  DiskState disk;
  std::vector<StreamState> streams;
  std::vector<WindowsAgentCommon::StatisticsGroupSnapshot> statistics;
  // Warnings and errors, the newest last, and how many there were in all.
  std::vector<LoggedMessage> messages;
  std::uint64_t warnings = 0;
  std::uint64_t errors = 0;
  // Whether all of the configuration file, as it was last read, is in use; and how many of its
  // streams do not run at all.
  bool isConfigurationTaken = true;
  std::uint64_t streamsNotRunning = 0;
  // What concerns no single stream.
  std::vector<std::string> problems;

  bool IsHealthy() const;
};

// One point of a stream's history.
struct HistoryPoint {
  std::int64_t time = 0;  // milliseconds since 1970
  std::uint64_t posted = 0;
  std::uint64_t delivered = 0;
  std::uint64_t lost = 0;
  std::uint64_t inMemory = 0;
  std::uint64_t cached = 0;
  std::uint64_t cachedBytes = 0;
  double oldestSeconds = 0.0;
  bool open = true;
};

// The last hour of each stream, oldest point first.
using History = std::map<std::string, std::deque<HistoryPoint>>;

}  // namespace OrloAgent
