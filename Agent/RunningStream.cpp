#include "Agent/RunningStream.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Agent/Destination.h"
#include "Agent/Monitor/Monitor.h"
#include "Agent/PathText.h"
#include "Agent/SourceFactory.h"
#include "Agent/Units.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr char kStoreAndForward[] = "StoreAndForwardStage";

// The value that the stage will use for one of its numbers.
std::uint64_t GetStageNumber(const StageOptions& stage, const char* setting, std::uint64_t standard,
                             std::uint64_t smallest) {
  constexpr std::uint64_t kLargest = 0x7fffffff;
  for (const auto& [name, value] : stage.settings) {
    if (name == setting) {
      const auto number = ParseWholeNumber(value);
      return number && *number <= kLargest ? std::max(*number, smallest) : standard;
    }
  }
  return standard;
}

// How long the stage may take until it decides about its newest events.
std::chrono::seconds GetChunkPeriod(const StageOptions& stage) {
  return std::chrono::seconds(GetStageNumber(stage, "DataChunkPeriod", 10, 5));
}

// How often the stages look for a cached chunk that can be sent.
std::chrono::milliseconds FindProcessingPeriod(const std::vector<StageOptions>& stages) {
  std::uint64_t microseconds = 0;
  for (const StageOptions& stage : stages) {
    microseconds =
        std::max(microseconds, GetStageNumber(stage, "DataProcessingPeriod", 500'000, 500'000));
  }
  return std::chrono::milliseconds(microseconds / 1000);
}

milliseconds GetPatience(const DestinationOptions& options) {
  return std::visit(
      [](const auto& destination) {
        milliseconds patience = destination.sendTimeout;
        if constexpr (requires { destination.connectTimeout; }) {
          patience += destination.connectTimeout;
        }
        return patience;
      },
      options);
}

milliseconds GetPatience(const StreamOptions& stream) {
  return GetPatience(stream.destination) +
         (stream.fallback ? GetPatience(stream.fallback->destination) : milliseconds(0));
}

milliseconds FindChunkPeriod(const StreamOptions& stream) {
  milliseconds period{0};
  for (const StageOptions& stage : stream.stages) {
    period += GetChunkPeriod(stage);
  }
  return period;
}

// Far longer than a thread that works ever takes, so that no busy machine is taken for a thread
// that hangs.
StreamPulse::Limits GetPulseLimits(const StreamOptions& stream) {
  constexpr std::chrono::minutes kMargin{2};
  StreamPulse::Limits limits{kMargin, kMargin};
  limits.decide += FindChunkPeriod(stream);
  limits.send += GetPatience(stream);
  return limits;
}

// A destination that has sent nothing for so long will not send the rest soon, and the stream that
// follows can have it.
constexpr std::chrono::seconds kAway{5};

}  // namespace

RunningStream::RunningStream(const StreamOptions& options, const AgentOptions& common,
                             const StreamSurroundings& surroundings, Leftover& left)
    : m_options(options),
      m_surroundings(surroundings),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent")),
      m_account(surroundings.statistics, options.name, surroundings.dataDirectory),
      m_pulse(GetPulseLimits(options)),
      m_processingPeriod(FindProcessingPeriod(options.stages)) {
  if (const CacheContents& found = m_account.GetContentsAtStart(); found.chunks > 0) {
    LogFacade::Info(m_log, "Stream %s: %d events in %d chunks are cached from earlier runs.",
                    GetName(), found.events, found.chunks);
  }
  WarnOfShortDrain(common.shutdown);
  // What can fail comes before the stages: a chunk that they have taken from the cache is gone when
  // they are stopped at once.
  std::vector<FoundSource> sources = FindSources(left.sources);
  Create(left);
  try {
    for (const StageOptions& stage : m_options.stages) {
      if (stage.module == kStoreAndForward) {
        m_watch =
            std::make_unique<StreamWatch>(common.watch, GetName(), stage,
                                          m_surroundings.dataDirectory, m_surroundings.statistics);
      }
    }
    TakeSources(std::move(sources), left.sources);
  } catch (...) {
    m_surroundings.manager.Remove(*m_stream);
    throw;
  }
  m_destination->Open(std::move(left.destination), std::exchange(left.events, {}));
}

RunningStream::~RunningStream() {
  if (m_stream == nullptr) {
    return;
  }
  HideFromMonitor();
  m_destination->Refuse();
  // Sources that are with us post to the stream as long as they live.
  m_sources.clear();
  m_surroundings.manager.Remove(*m_stream);
}

void RunningStream::WarnOfShortDrain(const ShutdownOptions& shutdown) const {
  for (const StageOptions& stage : m_options.stages) {
    const std::chrono::seconds period = GetChunkPeriod(stage);
    if (stage.module == kStoreAndForward && shutdown.drainTimeout <= period) {
      LogFacade::Warn(m_log,
                      "Stream %s: shutdown.drain_timeout (%d ms) is not longer than "
                      "DataChunkPeriod (%d s); the newest events can be lost at a stop.",
                      GetName(), shutdown.drainTimeout.count(), period.count());
    }
  }
}

void RunningStream::Create(const Leftover& left) {
  OrloStream::StreamDefinition definition;
  definition.name = WindowsAgentCommon::ToWide(GetName());
  for (const StageOptions& stage : m_options.stages) {
    definition.stages.push_back({stage.module, {stage.settings.begin(), stage.settings.end()}});
  }
  auto destination = std::make_unique<DestinationGate>(
      left.destination ? nullptr : MakeDestinationOfStream(m_options), GetName());
  DestinationGate* const made = destination.get();
  definition.destination = std::move(destination);
  m_stream = &m_surroundings.manager.Create(std::move(definition));
  m_destination = made;
}

// In the order of the options.
std::vector<RunningStream::FoundSource> RunningStream::FindSources(
    std::vector<MadeSource>& left) const {
  std::vector<FoundSource> found;
  for (const SourceOptions& options : m_options.sources) {
    const auto same = std::find_if(left.begin(), left.end(), [&](const MadeSource& one) {
      return one.options == options && std::none_of(found.begin(), found.end(),
                                                    [&](const auto& f) { return f.left == &one; });
    });
    if (same == left.end()) {
      found.push_back({MakeNewSource(options), nullptr});
    } else {
      found.push_back({MadeSource(), &*same});
    }
  }
  return found;
}

void RunningStream::TakeSources(std::vector<FoundSource> found, std::vector<MadeSource>& left) {
  for (const FoundSource& one : found) {
    const MadeSource& made = one.left != nullptr ? *one.left : one.made;
    m_notMadeBefore += made.source->GetNotMade();
    m_sourceStatistics.emplace_back(m_surroundings.statistics, GetName(),
                                    DescribeSource(made.options), *made.source);
  }
  for (FoundSource& one : found) {
    m_sources.push_back(std::move(one.left != nullptr ? *one.left : one.made));
  }
  std::erase_if(left, [](const MadeSource& one) { return !one.owner; });
}

MadeSource RunningStream::MakeNewSource(const SourceOptions& options) const {
  MadeSource made;
  made.options = options;
  auto source = MakeSource(
      options, m_surroundings.dataDirectory / "Positions" / ToPath(GetName()),
      [post = m_surroundings.post, told = m_surroundings.inputEnded, ended = made.ended] {
        post([told, ended] {
          *ended = true;
          told();
        });
      });
  made.source = source.get();
  made.owner = std::move(source);
  return made;
}

void RunningStream::StartSources() {
  std::vector<std::unique_ptr<OrloStream::IStreamSource>> owners;
  // New ones first: should one fail, those that wait have noticed nothing.
  for (const bool begun : {false, true}) {
    for (MadeSource& made : m_sources) {
      if (made.owner && made.source->HasBegun() == begun) {
        owners.push_back(std::move(made.owner));
      }
    }
  }
  m_surroundings.manager.SetSources(*m_stream, std::move(owners));
  m_surroundings.manager.StartSources(*m_stream);
  ShowToMonitor();
}

void RunningStream::ShowToMonitor() {
  if (m_surroundings.monitor == nullptr) {
    return;
  }
  std::vector<const Source*> sources;
  for (const MadeSource& made : m_sources) {
    sources.push_back(made.source);
  }
  m_surroundings.monitor->AddStream(m_options, std::move(sources), *m_destination, m_notMadeBefore);
}

void RunningStream::HideFromMonitor() {
  if (m_surroundings.monitor != nullptr) {
    m_surroundings.monitor->RemoveStream(GetName());
  }
}

void RunningStream::StopSources() { m_surroundings.manager.StopSources(*m_stream); }

void RunningStream::BeginToLeave(const StreamOptions* successor, const ShutdownOptions& shutdown) {
  for (auto& owner : m_surroundings.manager.TakeSources(*m_stream)) {
    const auto made = std::find_if(m_sources.begin(), m_sources.end(),
                                   [&](const auto& one) { return one.source == owner.get(); });
    made->owner = std::move(owner);
  }
  std::vector<SourceOptions> wanted;
  if (successor != nullptr) {
    wanted = successor->sources;
  }
  m_paused.assign(m_sources.size(), false);
  for (std::size_t i = 0; i < m_sources.size(); ++i) {
    const auto same = std::find(wanted.begin(), wanted.end(), m_sources[i].options);
    if (same != wanted.end() && m_sources[i].source->HasBegun()) {
      wanted.erase(same);
      m_sources[i].source->Pause();
      m_paused[i] = true;
    }
  }
  for (std::size_t i = 0; i < m_sources.size(); ++i) {
    if (!m_paused[i]) {
      m_sources[i].source->Stop();
    }
  }
  const bool goesOn = successor != nullptr && HasSameDestination(m_options, *successor);
  // A destination that goes on sends the rest later; one that is gone for good gets all the time.
  Departure::Limits limits;
  limits.chunkPeriod = FindChunkPeriod(m_options);
  limits.processingPeriod = m_processingPeriod;
  limits.patience = GetPatience(m_options);
  limits.deliver = shutdown.drainTimeout;
  limits.away = goesOn                 ? milliseconds(0)
                : successor != nullptr ? milliseconds(kAway)
                                       : shutdown.drainTimeout;
  m_departure.emplace(limits, Departure::Clock::now());
  m_destination->Hold();
}

bool RunningStream::Depart(Departure::Clock::time_point now) {
  switch (m_departure->Look(Look(), m_destination->IsSenderHeld(), now)) {
    case Departure::Step::Deliver:
      return false;
    case Departure::Step::Keep:
      if (!std::exchange(m_keeps, true)) {
        m_destination->Keep();
      }
      return false;
    case Departure::Step::Leave:
      break;
  }
  if (m_departure->IsLate()) {
    LogFacade::Warn(m_log, "Stream %s did not come to rest in time.", GetName());
  }
  return true;
}

void RunningStream::StayAndStopSources() {
  m_keeps = false;
  m_destination->Pass();
  for (std::size_t i = 0; i < m_paused.size(); ++i) {
    if (m_paused[i]) {
      m_sources[i].source->Start(*m_stream);
      m_sources[i].source->Stop();
    }
  }
  m_paused.clear();
}

Leftover RunningStream::TakeLeftover() {
  Leftover left;
  for (std::size_t i = 0; i < m_paused.size(); ++i) {
    if (m_paused[i]) {
      left.sources.push_back(std::move(m_sources[i]));
    }
  }
  m_paused.clear();
  m_sources.clear();
  left.madeFrom = m_options;
  left.destination = m_destination->TakeLeft(left.events);
  return left;
}

bool RunningStream::HasInputEnded() const {
  return std::all_of(m_sources.begin(), m_sources.end(),
                     [](const MadeSource& made) { return *made.ended; });
}

void RunningStream::ReloadCertificates() {
  for (const MadeSource& made : m_sources) {
    made.source->Reload();
  }
}

void RunningStream::SetWatch(const WatchOptions& options) {
  if (m_watch) {
    m_watch->SetOptions(options);
  }
}

void RunningStream::Watch(std::chrono::steady_clock::time_point now) {
  for (std::size_t i = 0; i < m_sources.size(); ++i) {
    m_sourceStatistics[i].Publish(*m_sources[i].source);
  }
  if (m_watch) {
    m_watch->Look(Look(), now);
  }
}

StreamPulse::State RunningStream::LookAtPulse(StreamPulse::Clock::time_point now) {
  return m_pulse.Look(Look(), now);
}

StreamReport RunningStream::Look() {
  return m_account.Look([this] { return AskEnds(); });
}

EndCounts RunningStream::AskEnds() const {
  EndCounts counts;
  for (const MadeSource& made : m_sources) {
    counts.notMade += made.source->GetNotMade();
  }
  counts.notMade -= m_notMadeBefore;
  counts.unsent = m_destination->GetUnsentEvents();
  counts.refused = m_destination->GetLostEvents();
  counts.inherited = m_destination->GetInheritedEvents();
  counts.refusals = m_destination->GetRefusals();
  return counts;
}

void RunningStream::Refuse() { m_destination->Refuse(); }

StreamReport RunningStream::Close() {
  HideFromMonitor();
  m_surroundings.manager.StopStages(*m_stream);
  // One reading: the destination may go on.
  EndCounts ends;
  StreamReport report = m_account.Look([&] { return ends = AskEnds(); });
  if (m_keeps) {
    report.held -= static_cast<std::int64_t>(ends.unsent);
  }
  LogFacade::Info(m_log, "Stream %s: %d events delivered, %d cached, %d lost, %d held.", GetName(),
                  report.delivered, report.cached, report.lost + report.failed,
                  std::max<std::int64_t>(0, report.held));
  return report;
}

}  // namespace OrloAgent
