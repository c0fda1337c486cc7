#include "Agent/Monitor/StreamSampler.h"

#include <algorithm>
#include <map>

#include "Agent/Monitor/UtcTime.h"
#include "Agent/PathText.h"
#include "WindowsAgentCommon/Gauges.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using WindowsAgentCommon::Format;
using WindowsAgentCommon::StatisticsGroupSnapshot;

namespace {

using std::chrono::duration;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr char kStoreAndForward[] = "StoreAndForwardStage";

constexpr std::chrono::seconds kBetweenCacheLooks{1};
// A look into the cache may take this part of the time.
constexpr int kPartOfTime = 20;

// How long a loss counts as a present problem.
constexpr std::chrono::minutes kLossIsRecent{5};

WindowsAgentCommon::EnvironmentBlock GetStageSettings(const StreamOptions& options) {
  for (const StageOptions& stage : options.stages) {
    if (stage.module == kStoreAndForward) {
      return {stage.settings.begin(), stage.settings.end()};
    }
  }
  return {};
}

std::uint64_t GetCount(const StatisticsGroupSnapshot& group, const char* name) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(0, group.GetInteger(name)));
}

std::uint64_t Minus(std::uint64_t left, std::uint64_t right) {
  return left - std::min(left, right);
}

}  // namespace

bool AgentState::IsHealthy() const {
  return problems.empty() && std::all_of(streams.begin(), streams.end(),
                                         [](const auto& one) { return one.problems.empty(); });
}

StreamSampler::StreamSampler(const StreamOptions& options,
                             const std::filesystem::path& dataDirectory, milliseconds refusedAfter)
    : m_name(options.name),
      m_refusedAfter(refusedAfter),
      m_inventory(dataDirectory / "Events" / ToPath(options.name)),
      m_schedule(GetStageSettings(options)) {}

StreamState StreamSampler::Look(const std::vector<StatisticsGroupSnapshot>& statistics,
                                EndsReading ends, Clock::time_point now) {
  StreamState state;
  state.name = m_name;
  state.unsentEvents = ends.unsent;
  ReadStatistics(statistics, state);
  // An event is in the destination's buffer before the stage counts it, so this can be less than
  // what was seen before.
  state.delivered =
      std::max(m_last.delivered, Minus(state.sent + ends.inherited, ends.unsent + ends.refused));
  state.posted += ends.notMade;
  state.lost += ends.notMade + ends.refused;
  state.sources = std::move(ends.sources);
  state.destination = std::move(ends.destination);
  state.fallback = std::move(ends.fallback);
  state.fallbackSince = ends.fallbackSince;
  ReadGauges(state);
  LookIntoCache(state, now);
  state.schedule = m_schedule.Look();
  LookForRefusal(state, now);
  LookForLoss(state, now);
  FindProblems(state);
  m_first = false;
  m_last = state;
  return state;
}

void StreamSampler::ReadStatistics(const std::vector<StatisticsGroupSnapshot>& statistics,
                                   StreamState& state) const {
  for (const StatisticsGroupSnapshot& group : statistics) {
    if (group.instance != m_name) {
      continue;
    }
    if (group.name == "StoreAndForwardStage") {
      state.posted = GetCount(group, "TotalEventsPosted");
      state.failed = GetCount(group, "TotalEventsFailedToQueue");
    } else if (group.name == "StoreAndForwardIncoming") {
      state.lost = GetCount(group, "MessagesLost");
      state.chunksRefused = GetCount(group, "EventDiskCacheRejects");
    } else if (group.name == "StoreAndForwardOutgoing") {
      state.accepted = GetCount(group, "EventsIncoming");
      state.sent = GetCount(group, "EventsOutgoing");
      state.refusals = GetCount(group, "NumberOfRequeues");
    } else if (group.name == "StreamWatch") {
      state.stalled = group.GetInteger("Stalled") != 0;
      state.stalledSeconds = GetCount(group, "StalledSeconds");
    }
  }
  state.pendingEvents = Minus(state.accepted, state.sent);
}

void StreamSampler::ReadGauges(StreamState& state) const {
  std::map<std::string, std::uint64_t> values;
  for (const auto& reading : WindowsAgentCommon::ReadGauges(m_name)) {
    values[reading.name] = static_cast<std::uint64_t>(std::max<std::int64_t>(0, reading.value));
  }
  state.queueBytes = values["QueueBytes"];
  state.queueEvents = values["QueueEvents"];
  state.chunkEvents = values["ChunkEvents"];
  state.chunkAgeSeconds = static_cast<double>(values["ChunkAgeMilliseconds"]) / 1000.0;
  state.fromMemory = {values["ChunksNear"], values["EventsNear"]};
  state.fromDisk = {values["ChunksFar"], values["EventsFar"]};
  state.toDisk = {values["ChunksSpilled"], values["EventsSpilled"]};
}

void StreamSampler::LookIntoCache(StreamState& state, Clock::time_point now) {
  if (now >= m_nextCacheLook) {
    const Clock::time_point begin = Clock::now();
    m_cache = m_inventory.Look();
    const Clock::duration taken = Clock::now() - begin;
    m_nextCacheLook = now + std::max<Clock::duration>(kBetweenCacheLooks, taken * kPartOfTime);
  }
  state.cachedEvents = m_cache.events;
  state.cachedChunks = m_cache.chunks;
  state.cachedBytes = m_cache.bytes;
  if (m_cache.oldest) {
    const duration<double> age = std::filesystem::file_time_type::clock::now() - *m_cache.oldest;
    state.oldestSeconds = std::max(0.0, age.count());
  }
}

// A destination refuses if it was offered something and took nothing: either it said so, or what it
// has taken into its buffer does not leave.
void StreamSampler::LookForRefusal(StreamState& state, Clock::time_point now) {
  if (!m_first) {
    const bool moved = state.delivered > m_last.delivered;
    const bool refused = state.refusals > m_last.refusals;
    const bool stuck = state.unsentEvents > 0 && m_last.unsentEvents > 0;
    const bool isRid = state.pendingEvents == 0 && state.unsentEvents == 0;
    if (moved || (isRid && !refused)) {
      m_refusingSince.reset();
    } else if ((refused || stuck) && !m_refusingSince) {
      m_refusingSince = now;
    }
  }
  state.refusingSeconds = m_refusingSince ? duration<double>(now - *m_refusingSince).count() : 0.0;
}

void StreamSampler::LookForLoss(StreamState& state, Clock::time_point now) {
  const bool wasRecent = m_lostAt && now - *m_lostAt < kLossIsRecent;
  if (!m_first && state.chunksRefused > m_last.chunksRefused) {
    if (!wasRecent) {
      m_lostBefore = m_last.lost;
    }
    m_lostAt = now;
  }
  if (m_lostAt && now - *m_lostAt < kLossIsRecent) {
    state.problems.push_back(
        Format("the cache has refused chunks within the last five minutes; %d events are lost",
               Minus(state.lost, m_lostBefore)));
  }
}

void StreamSampler::FindProblems(StreamState& state) const {
  if (state.stalled) {
    state.problems.push_back(
        Format("stalled: the cache has not moved for %d s though sending is possible",
               state.stalledSeconds));
  }
  if (state.fallbackSince) {
    state.problems.push_back(
        Format("events go to the fallback since %s: the destination sends none",
               UtcTime(*state.fallbackSince) + " UTC"));
  }
  const duration<double> refusing(state.refusingSeconds);
  if (refusing.count() > 0.0 && refusing >= m_refusedAfter) {
    state.problems.push_back(Format("the destination has refused events for %d s",
                                    duration_cast<std::chrono::seconds>(refusing).count()));
  }
}

}  // namespace OrloAgent
