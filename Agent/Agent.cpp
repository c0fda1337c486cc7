#include "Agent/Agent.h"

#include <algorithm>
#include <boost/asio/post.hpp>

#include "Agent/DataDirectoryLock.h"
#include "Agent/DatagramSource.h"
#include "Agent/Destination.h"
#include "Agent/FileSource.h"
#include "Agent/PathText.h"
#include "Agent/ProcessSignals.h"
#include "Agent/StdinSource.h"
#include "Agent/StreamPulse.h"
#include "Agent/StreamWatch.h"
#include "Agent/SyslogSource.h"
#include "Agent/Units.h"
#include "WindowsAgentCommon/EventMemory.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Statistics.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

namespace {

constexpr char kStoreAndForward[] = "StoreAndForwardStage";

constexpr std::chrono::milliseconds kBetweenLooks{100};

// How often a running stream is looked at for a stall, unless it is to be noticed sooner.
constexpr std::chrono::milliseconds kBetweenWatches{10'000};

// Absolute, and with the separators that both the agent and the stage take for separators.
std::filesystem::path MakeDataDirectory(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return std::filesystem::absolute(ToPath(path)).lexically_normal();
}

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
std::chrono::milliseconds GetProcessingPeriod(const std::vector<StageOptions>& stages) {
  std::uint64_t microseconds = 0;
  for (const StageOptions& stage : stages) {
    microseconds =
        std::max(microseconds, GetStageNumber(stage, "DataProcessingPeriod", 500'000, 500'000));
  }
  return std::chrono::milliseconds(microseconds / 1000);
}

// Far longer than a thread that works ever takes, so that no busy machine is taken for a thread
// that hangs.
StreamPulse::Limits GetPulseLimits(const StreamOptions& stream) {
  constexpr std::chrono::minutes kMargin{2};
  StreamPulse::Limits limits{kMargin, kMargin};
  for (const StageOptions& stage : stream.stages) {
    limits.decide += GetChunkPeriod(stage);
  }
  std::visit(
      [&limits](const auto& destination) {
        limits.send += destination.sendTimeout;
        if constexpr (requires { destination.connectTimeout; }) {
          limits.send += destination.connectTimeout;
        }
      },
      stream.destination);
  return limits;
}

}  // namespace

// The sources and the destination belong to the stream.
struct Agent::RunningStream {
  std::string name;
  StreamAccount account;
  OrloStream::Stream* stream = nullptr;
  std::vector<Source*> sources{};
  Destination* destination = nullptr;
  std::chrono::milliseconds processingPeriod{0};
  // Null where there is no store-and-forward stage.
  std::unique_ptr<StreamWatch> watch{};
  // Null as long as nobody wants to know.
  std::unique_ptr<StreamPulse> pulse{};
};

Agent::Agent(AgentOptions options, std::string moduleDirectory)
    : m_options(std::move(options)),
      m_moduleDirectory(std::move(moduleDirectory)),
      m_dataDirectory(MakeDataDirectory(m_options.dataDirectory)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent")) {}

Agent::~Agent() { TearDown(); }

void Agent::Start() {
  try {
    m_signals = std::make_unique<ProcessSignals>(
        m_control, [this](ProcessSignals::Request request, const std::string& name) {
          OnSignal(request, name);
        });
    StartServices();
    // Before anything moves: an address that is taken is found at once.
    m_monitor = MakeMonitor(m_options.monitor, {m_statistics, m_disk, m_dataDirectory});
    m_manager = std::make_unique<OrloStream::StreamManager>(m_moduleDirectory);
    for (StreamOptions& stream : m_options.streams) {
      CreateStream(stream);
    }
    for (const auto& running : m_streams) {
      m_sourcesRunning += running->sources.size();
    }
    for (std::size_t i = 0; i < m_streams.size(); ++i) {
      m_manager->StartSources(*m_streams[i]->stream);
      if (m_monitor) {
        m_monitor->AddStream(m_options.streams[i],
                             {m_streams[i]->sources.begin(), m_streams[i]->sources.end()},
                             *m_streams[i]->destination);
      }
    }
  } catch (const std::exception&) {
    TearDown();
    throw;
  }
}

void Agent::StartServices() {
  WindowsAgentCommon::DiskManagerOptions disk;
  disk.dataDirectory = WindowsAgentCommon::ToWide(ToText(m_dataDirectory));
  disk.quota = m_options.disk.quota;
  disk.keepFree = m_options.disk.keepFree;
  m_disk = std::make_shared<WindowsAgentCommon::DiskManager>(std::move(disk));
  m_lock = std::make_unique<DataDirectoryLock>(m_dataDirectory);
  m_statistics = std::make_shared<WindowsAgentCommon::StatisticsServer>();
  m_services.push_back(std::make_unique<WindowsAgentCommon::ServiceRegistration>(
      WindowsAgentCommon::IDiskManager::GetServiceName(), m_disk));
  m_services.push_back(std::make_unique<WindowsAgentCommon::ServiceRegistration>(
      WindowsAgentCommon::IStatisticsServer::GetServiceName(), m_statistics));
}

void Agent::CreateStream(StreamOptions& options) {
  auto running = std::make_unique<RunningStream>(
      RunningStream{options.name, StreamAccount(*m_statistics, options.name, m_dataDirectory)});
  running->processingPeriod = GetProcessingPeriod(options.stages);
  if (const CacheContents& found = running->account.GetContentsAtStart(); found.chunks > 0) {
    LogFacade::Info(m_log, "Stream %s: %d events in %d chunks are cached from earlier runs.",
                    options.name, found.events, found.chunks);
  }
  WarnOfShortDrain(options);

  for (const StageOptions& stage : options.stages) {
    if (stage.module == kStoreAndForward) {
      running->watch = std::make_unique<StreamWatch>(m_options.watch, options.name, stage,
                                                     m_dataDirectory, *m_statistics);
    }
  }

  if (m_service.GetWatchdogPeriod().count() > 0) {
    running->pulse = std::make_unique<StreamPulse>(GetPulseLimits(options));
  }

  OrloStream::StreamDefinition definition;
  definition.name = WindowsAgentCommon::ToWide(options.name);
  for (StageOptions& stage : options.stages) {
    definition.stages.push_back({stage.module, {stage.settings.begin(), stage.settings.end()}});
  }
  auto destination = MakeDestination(options.destination, options.name);
  running->destination = destination.get();
  definition.destination = std::move(destination);
  for (const SourceOptions& source : options.sources) {
    std::unique_ptr<Source> made;
    if (const auto* standardInput = std::get_if<StdinSourceOptions>(&source)) {
      made = std::make_unique<StdinSource>(
          *standardInput, [this] { boost::asio::post(m_control, [this] { OnSourceEnded(); }); });
    } else if (const auto* files = std::get_if<FileSourceOptions>(&source)) {
      made = std::make_unique<FileSource>(*files,
                                          m_dataDirectory / "Positions" / ToPath(options.name));
    } else {
      const auto& syslog = std::get<SyslogSourceOptions>(source);
      if (syslog.listen.transport == Transport::Udp) {
        made = std::make_unique<DatagramSource>(syslog);
      } else {
        made = std::make_unique<SyslogSource>(syslog);
      }
    }
    running->sources.push_back(made.get());
    definition.sources.push_back(std::move(made));
  }
  running->stream = &m_manager->Create(std::move(definition));
  m_streams.push_back(std::move(running));
}

void Agent::WarnOfShortDrain(const StreamOptions& options) const {
  for (const StageOptions& stage : options.stages) {
    const std::chrono::seconds period = GetChunkPeriod(stage);
    if (stage.module == kStoreAndForward && m_options.shutdown.drainTimeout <= period) {
      LogFacade::Warn(m_log,
                      "Stream %s: shutdown.drain_timeout (%d ms) is not longer than "
                      "DataChunkPeriod (%d s); the newest events can be lost at a stop.",
                      options.name, m_options.shutdown.drainTimeout.count(), period.count());
    }
  }
}

void Agent::OnSourceEnded() {
  if (--m_sourcesRunning == 0) {
    LogFacade::Info(m_log, "The input has ended; stopping.");
    m_stopRequested = true;
    m_control.stop();
  }
}

void Agent::OnSignal(ProcessSignals::Request request, const std::string& name) {
  if (request == ProcessSignals::Request::Reload) {
    LogFacade::Info(m_log, "%s received; reading certificates again.", name);
    for (const auto& running : m_streams) {
      for (Source* source : running->sources) {
        source->Reload();
      }
    }
    return;
  }
  ++m_signalCount;
  LogFacade::Info(m_log, "%s received; %s.", name,
                  m_stopRequested ? "not waiting for events any longer" : "stopping");
  m_stopRequested = true;
  m_control.stop();
}

void Agent::WatchStreams() {
  std::chrono::milliseconds wait = std::min(kBetweenWatches, m_options.watch.stallAfter / 2);
  if (m_options.watch.report.count() > 0) {
    wait = std::clamp(m_options.watch.report, kBetweenLooks, wait);
  }
  m_watchTimer.expires_after(wait);
  m_watchTimer.async_wait([this](const boost::system::error_code& error) {
    if (error) {
      return;
    }
    for (const auto& running : m_streams) {
      if (running->watch) {
        running->watch->Look(Look(*running), StallWatch::Clock::now());
      }
    }
    WindowsAgentCommon::EventMemory::GiveBackUnused(std::chrono::steady_clock::now());
    WatchStreams();
  });
}

// Only while every stream works: a watchdog that is told so by a thread which has nothing to do
// with the streams would watch nothing.
void Agent::TellThatItWorks() {
  if (m_service.GetWatchdogPeriod().count() == 0) {
    return;
  }
  bool isWell = true;
  for (const auto& running : m_streams) {
    const auto state = running->pulse->Look(Look(*running), StreamPulse::Clock::now());
    if (state != StreamPulse::State::Well) {
      isWell = false;
      LogFacade::Error(m_log, "Stream %s hangs: %s. The watchdog is not told that all is well.",
                       running->name,
                       state == StreamPulse::State::NothingDecided
                           ? "nothing becomes of the events that are posted"
                           : "its sender neither sends nor is refused");
    }
  }
  if (isWell) {
    m_service.StillWorks();
  }
  m_serviceTimer.expires_after(m_service.GetWatchdogPeriod() / 4);
  m_serviceTimer.async_wait([this](const boost::system::error_code& error) {
    if (!error) {
      TellThatItWorks();
    }
  });
}

void Agent::Wait() {
  WatchStreams();
  m_service.Ready(std::to_string(m_streams.size()) +
                  (m_streams.size() == 1 ? " stream" : " streams"));
  TellThatItWorks();
  while (!m_stopRequested) {
    m_control.restart();
    m_control.run();
  }
}

std::vector<StreamReport> Agent::Stop() {
  m_service.Stopping();
  m_watchTimer.cancel();
  for (const auto& running : m_streams) {
    m_manager->StopSources(*running->stream);
  }
  Drain();
  std::vector<StreamReport> reports = CloseStreams();
  TearDown();
  return reports;
}

void Agent::Drain() {
  const auto deadline = std::chrono::steady_clock::now() + m_options.shutdown.drainTimeout;
  // Whoever gave the agent an input with an end wants all of it delivered. A signal wants the agent
  // to end: what is on the disk comes out next time.
  const bool emptyCache = m_signalCount == 0;
  std::vector<std::pair<RunningStream*, RestDetector>> busy;
  for (const auto& running : m_streams) {
    busy.emplace_back(running.get(), RestDetector(running->processingPeriod, emptyCache));
  }
  for (;;) {
    std::erase_if(busy, [this](auto& one) { return one.second.IsAtRest(Look(*one.first)); });
    if (busy.empty() || m_signalCount > 1 || (emptyCache && m_signalCount > 0) ||
        std::chrono::steady_clock::now() >= deadline) {
      break;
    }
    m_control.restart();
    m_control.run_for(kBetweenLooks);
  }
  for (const auto& [running, rest] : busy) {
    LogFacade::Warn(m_log, "Stream %s did not come to rest in time.", running->name);
  }
}

std::vector<StreamReport> Agent::CloseStreams() {
  m_monitor.reset();
  // A sender that is in the middle of a backlog is not let finish it: that could take hours.
  for (const auto& running : m_streams) {
    running->destination->Refuse();
  }
  std::vector<StreamReport> reports;
  for (const auto& running : m_streams) {
    m_manager->StopStages(*running->stream);
    const StreamReport report = Look(*running);
    reports.push_back(report);
    LogFacade::Info(m_log, "Stream %s: %d events delivered, %d cached, %d lost, %d held.",
                    running->name, report.delivered, report.cached, report.lost + report.failed,
                    std::max<std::int64_t>(0, report.held));
  }
  return reports;
}

StreamReport Agent::Look(RunningStream& running) {
  std::uint64_t notMade = 0;
  for (const Source* source : running.sources) {
    notMade += source->GetNotMade();
  }
  return running.account.Look(running.destination->GetUnsentEvents(),
                              running.destination->GetLostEvents(), notMade);
}

void Agent::TearDown() {
  m_monitor.reset();
  for (const auto& running : m_streams) {
    running->destination->Refuse();
  }
  m_streams.clear();
  m_manager.reset();
  m_services.clear();
  m_statistics.reset();
  m_disk.reset();
  m_lock.reset();
  m_signals.reset();
}

}  // namespace OrloAgent
