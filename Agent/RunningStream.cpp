#include "Agent/RunningStream.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "Agent/Destination.h"
#include "Agent/Monitor/Monitor.h"
#include "Agent/PathText.h"
#include "Agent/SourceFactory.h"
#include "Agent/StagePeriods.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using WindowsAgentCommon::LogFacade;

namespace {

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

// Far longer than a thread that works ever takes, so that no busy machine is taken for a thread
// that hangs.
StreamPulse::Limits GetPulseLimits(const StreamOptions& stream) {
  constexpr std::chrono::minutes kMargin{2};
  StreamPulse::Limits limits{kMargin, kMargin};
  limits.decide += GetChunkPeriod(stream);
  limits.send += GetPatience(stream);
  return limits;
}

// A destination that has sent nothing for so long will not send the rest soon, and the stream that
// follows can have it.
constexpr std::chrono::seconds kAway{5};

// How long a sender may take, on a busy machine, to begin with what it was handed.
constexpr std::chrono::seconds kSenderBegins{10};

}  // namespace

RunningStream::RunningStream(const StreamOptions& options, const AgentOptions& common,
                             const StreamSurroundings& surroundings, const Leftover& left)
    : m_options(options),
      m_surroundings(surroundings),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent")),
      m_account(surroundings.statistics, options.name, surroundings.dataDirectory),
      m_pulse(GetPulseLimits(options)),
      m_processingPeriod(FindProcessingPeriod(options)) {
  if (const CacheContents& found = m_account.GetContentsAtStart(); found.chunks > 0) {
    LogFacade::Info(m_log, "Stream %s: %d events in %d chunks are cached from earlier runs.",
                    GetName(), found.events, found.chunks);
  }
  WarnOfShortDrain(common.shutdown);
  FindSources(left.sources);
  Prepare(left);
  try {
    for (const StageOptions& stage : m_options.stages) {
      if (IsStoreAndForward(stage)) {
        m_watch =
            std::make_unique<StreamWatch>(common.watch, GetName(), stage,
                                          m_surroundings.dataDirectory, m_surroundings.statistics);
      }
    }
    for (const MadeSource& made : m_sources) {
      m_sourceStatistics.emplace_back(m_surroundings.statistics, GetName(),
                                      DescribeSource(made.options), *made.source);
    }
  } catch (...) {
    m_surroundings.manager.Remove(*m_stream);
    throw;
  }
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
    if (IsStoreAndForward(stage) && shutdown.drainTimeout <= period) {
      LogFacade::Warn(m_log,
                      "Stream %s: shutdown.drain_timeout (%d ms) is not longer than "
                      "DataChunkPeriod (%d s); the newest events can be lost at a stop.",
                      GetName(), shutdown.drainTimeout.count(), period.count());
    }
  }
}

void RunningStream::Prepare(const Leftover& left) {
  OrloStream::StreamDefinition definition;
  definition.name = WindowsAgentCommon::ToWide(GetName());
  for (const StageOptions& stage : m_options.stages) {
    definition.stages.push_back({stage.module, {stage.settings.begin(), stage.settings.end()}});
  }
  auto destination = std::make_unique<DestinationGate>(
      left.destination ? nullptr : MakeDestinationOfStream(m_options), GetName());
  DestinationGate* const made = destination.get();
  definition.destination = std::move(destination);
  m_stream = &m_surroundings.manager.Prepare(std::move(definition));
  m_destination = made;
}

// In the order of the options. Those that are left stay there until nothing can fail any more.
void RunningStream::FindSources(const std::vector<MadeSource>& left) {
  for (const SourceOptions& options : m_options.sources) {
    const auto same = std::find_if(left.begin(), left.end(), [&](const MadeSource& one) {
      return one.options == options &&
             std::none_of(m_sources.begin(), m_sources.end(),
                          [&](const auto& found) { return found.source == one.source; });
    });
    if (same == left.end()) {
      m_sources.push_back(MakeNewSource(options));
    } else {
      m_sources.push_back({nullptr, same->source, same->options, same->ended});
    }
    m_notMadeBefore += m_sources.back().source->GetNotMade();
  }
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

void RunningStream::BeginSources() {
  for (const MadeSource& made : m_sources) {
    try {
      made.source->Prepare(GetName());
    } catch (const WindowsAgentCommon::OrloException& error) {
      throw WindowsAgentCommon::InitializationException(
          error.GetFile(), error.GetFunction(), error.GetLine(),
          "Stream \"" + GetName() + "\": " + error.GetText());
    }
  }
}

void RunningStream::StartStages(Leftover& left) {
  try {
    m_surroundings.manager.StartStages(*m_stream);
  } catch (...) {
    GiveUp(left);
    throw;
  }
}

void RunningStream::GiveUp(Leftover& left) {
  // The gate keeps what the sender brings. One that is stopped before it has begun with a chunk
  // takes that with it.
  const auto until = std::chrono::steady_clock::now() + kSenderBegins;
  const auto hasToBegin = [this] {
    const StreamReport report = Look();
    return report.accepted != report.sent && !m_destination->IsSenderHeld();
  };
  while (hasToBegin() && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  m_surroundings.manager.StopStages(*m_stream);
  WarnOfLoss(Look().held - static_cast<std::int64_t>(m_destination->GetUnsentEvents()));
  m_destination->TakeLeft(left);
}

void RunningStream::Open(Leftover& left) {
  for (MadeSource& made : m_sources) {
    const auto same = std::find_if(left.sources.begin(), left.sources.end(),
                                   [&](const auto& one) { return one.source == made.source; });
    if (same != left.sources.end()) {
      made.owner = std::move(same->owner);
      left.sources.erase(same);
    }
  }
  m_destination->Open(left);
  std::vector<std::unique_ptr<OrloStream::IStreamSource>> owners;
  for (MadeSource& made : m_sources) {
    owners.push_back(std::move(made.owner));
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

void RunningStream::HoldSender() { m_destination->Hold(); }

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
  limits.chunkPeriod = GetChunkPeriod(m_options);
  limits.processingPeriod = m_processingPeriod;
  limits.patience = GetPatience(m_options);
  limits.deliver = shutdown.drainTimeout;
  limits.away = goesOn                 ? milliseconds(0)
                : successor != nullptr ? milliseconds(kAway)
                                       : shutdown.drainTimeout;
  m_departure.emplace(limits, Departure::Clock::now());
}

bool RunningStream::Depart(Departure::Clock::time_point now) {
  const bool maySend = m_watch && m_watch->IsSendingAllowed();
  const auto step = m_departure->Look(Look(), m_destination->IsSenderHeld(), maySend, now);
  if (step == Departure::Step::Keep) {
    m_destination->Keep();
  }
  return step == Departure::Step::Leave;
}

void RunningStream::StayAndStopSources() {
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
  m_destination->TakeLeft(left);
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
  StreamReport report = Look();
  std::string handedOn;
  if (m_destination->IsKeeping()) {
    const std::uint64_t left = m_destination->GetUnsentEvents();
    report.held -= static_cast<std::int64_t>(left);
    handedOn = "; " + std::to_string(left) + " handed on";
  }
  const std::int64_t held = std::max<std::int64_t>(0, report.held);
  LogFacade::Info(m_log, "Stream %s: %d events delivered, %d cached, %d lost, %d held%s.",
                  GetName(), report.delivered, report.cached, report.lost + report.failed, held,
                  handedOn);
  if (m_destination->IsKeeping()) {
    WarnOfLoss(held);
  }
  return report;
}

// What the stages still held when they were stopped.
void RunningStream::WarnOfLoss(std::int64_t held) const {
  if (m_departure && m_departure->IsLate()) {
    LogFacade::Warn(m_log,
                    "Stream %s did not come to rest in time. It ends all the same, and %d events "
                    "that its stages still held are lost.",
                    GetName(), held);
  } else if (held > 0) {
    LogFacade::Warn(m_log,
                    "Stream %s: %d events were on their way through its stages when it ended, and "
                    "are lost.",
                    GetName(), held);
  }
}

}  // namespace OrloAgent
