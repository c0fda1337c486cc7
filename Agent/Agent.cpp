#include "Agent/Agent.h"

#include <algorithm>
#include <boost/asio/post.hpp>

#include "Agent/DataDirectoryLock.h"
#include "Agent/LogSetup.h"
#include "Agent/PathText.h"
#include "WindowsAgentCommon/EventMemory.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Statistics.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{100};

// How often a running stream is looked at for a stall, unless it is to be noticed sooner.
constexpr std::chrono::milliseconds kBetweenWatches{10'000};

// Absolute, and with the separators that both the agent and the stage take for separators.
std::filesystem::path MakeDataDirectory(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return std::filesystem::absolute(ToPath(path)).lexically_normal();
}

}  // namespace

Agent::Agent(AgentOptions options, std::string moduleDirectory, ConfigurationFile file)
    : m_options(std::move(options)),
      m_moduleDirectory(std::move(moduleDirectory)),
      m_dataDirectory(MakeDataDirectory(m_options.dataDirectory)),
      m_file(std::move(file)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent")) {}

Agent::~Agent() { TearDown(); }

void Agent::Start() {
  try {
    m_signals = std::make_unique<ProcessSignals>(
        m_control, [this](ProcessSignals::Request request, const std::string& name) {
          OnSignal(request, name);
        });
    StartServices();
    m_manager = std::make_unique<OrloStream::StreamManager>(m_moduleDirectory);
    // Before anything moves: an address that is taken is found at once.
    m_monitor = MakeMonitor(m_options.monitor, {m_statistics, m_disk, m_dataDirectory});
    m_surroundings = std::make_unique<StreamSurroundings>(StreamSurroundings{
        *m_manager, *m_statistics, m_monitor.get(), m_dataDirectory, [this] { OnInputEnded(); },
        [this](std::function<void()> work) { boost::asio::post(m_control, std::move(work)); }});
    m_exchange = std::make_unique<StreamExchange>(
        StreamExchange::Surroundings{*m_surroundings, [this] { return m_stopRequested; },
                                     [this](std::chrono::milliseconds time) {
                                       m_control.restart();
                                       m_control.run_for(time);
                                     }});
    m_exchange->Start(m_streams, m_options.streams, m_options);
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

void Agent::OnInputEnded() {
  if (m_exchanging) {
    return;  // looked at when the streams are complete again
  }
  const bool goesOn = std::any_of(m_streams.begin(), m_streams.end(),
                                  [](const auto& running) { return !running->HasInputEnded(); });
  // Without a stream it waits for a better configuration.
  if (!goesOn && !m_streams.empty() && !m_stopRequested) {
    LogFacade::Info(m_log, "The input has ended; stopping.");
    m_stopRequested = true;
    m_control.stop();
  }
}

void Agent::OnSignal(ProcessSignals::Request request, const std::string& name) {
  if (request == ProcessSignals::Request::Reload && m_stopRequested) {
    LogFacade::Info(m_log, "%s received; the agent stops, and reads nothing any more.", name);
    return;
  }
  if (request == ProcessSignals::Request::Reload) {
    LogFacade::Info(m_log, "%s received; reading the configuration and certificates again.", name);
    m_reloadRequested = true;
    m_control.stop();
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
      running->Watch(StallWatch::Clock::now());
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
    const auto state = running->LookAtPulse(StreamPulse::Clock::now());
    if (state != StreamPulse::State::Well) {
      isWell = false;
      LogFacade::Error(m_log, "Stream %s hangs: %s. The watchdog is not told that all is well.",
                       running->GetName(),
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
    if (std::exchange(m_reloadRequested, false)) {
      Reload();
      continue;
    }
    m_control.restart();
    m_control.run();
  }
}

std::vector<StreamReport> Agent::Stop() {
  m_service.Stopping();
  m_watchTimer.cancel();
  // Whoever gave the agent an input with an end wants all of it delivered. A signal wants the agent
  // to end: what is on the disk comes out next time.
  const bool emptyCache = m_signalCount == 0;
  for (const auto& running : m_streams) {
    running->StopSources();
  }
  Drain(emptyCache, [&] { return m_signalCount > 1 || (emptyCache && m_signalCount > 0); });
  std::vector<StreamReport> reports = CloseStreams();
  TearDown();
  return reports;
}

void Agent::Drain(bool emptyCache, const std::function<bool()>& isInterrupted) {
  const auto deadline = std::chrono::steady_clock::now() + m_options.shutdown.drainTimeout;
  std::vector<std::pair<RunningStream*, RestDetector>> busy;
  busy.reserve(m_streams.size());
  for (const auto& running : m_streams) {
    busy.emplace_back(running.get(), RestDetector(running->GetProcessingPeriod(), emptyCache));
  }
  for (;;) {
    std::erase_if(busy, [](auto& one) { return one.second.IsAtRest(one.first->Look()); });
    if (busy.empty() || isInterrupted() || std::chrono::steady_clock::now() >= deadline) {
      break;
    }
    m_control.restart();
    m_control.run_for(kBetweenLooks);
  }
  for (const auto& [running, rest] : busy) {
    LogFacade::Warn(m_log, "Stream %s did not come to rest in time.", running->GetName());
  }
}

std::vector<StreamReport> Agent::CloseStreams() {
  // A sender that is in the middle of a backlog is not let finish it: that could take hours.
  for (const auto& running : m_streams) {
    running->Refuse();
  }
  std::vector<StreamReport> reports;
  for (const auto& running : m_streams) {
    reports.push_back(running->Close());
  }
  return reports;
}

void Agent::TearDown() {
  for (const auto& running : m_streams) {
    running->Refuse();
  }
  m_streams.clear();
  m_exchange.reset();
  m_surroundings.reset();
  m_monitor.reset();
  m_manager.reset();
  m_services.clear();
  m_statistics.reset();
  m_disk.reset();
  m_lock.reset();
  m_signals.reset();
}

void Agent::Reload() {
  if (m_file.load) {
    Configuration read = m_file.load();
    // Before anything can be said about it. Those of before may still be in use.
    WindowsAgentCommon::LoggerFactory::AddSecrets(read.secrets);
    m_fileTroubles.clear();
    if (read.mistakes.empty()) {
      Apply(std::move(read.options));
    } else {
      for (const ConfigurationMistake& mistake : read.mistakes) {
        LogFacade::Error(m_log, "%s", ToText(mistake, m_file.name));
      }
      m_fileTroubles.push_back(WindowsAgentCommon::Format(
          "%s has %d mistake%s and is not taken; the agent goes on as before", m_file.name,
          read.mistakes.size(), read.mistakes.size() == 1 ? "" : "s"));
      LogFacade::Error(m_log, "%s.", m_fileTroubles.back());
    }
    ShowTroubles();
  }
  if (!m_stopRequested) {
    for (const auto& running : m_streams) {
      running->ReloadCertificates();
    }
  }
}

void Agent::ShowTroubles() {
  if (m_monitor) {
    m_monitor->SetTroubles(m_fileTroubles, m_exchange->GetTroubles());
  }
}

void Agent::Apply(AgentOptions options) {
  const ReloadPlan plan = MakeReloadPlan(m_options.streams, options.streams);
  ApplyCommon(options);
  m_exchanging = true;
  const bool isDone = m_exchange->Exchange(m_streams, options.streams, plan, m_options);
  m_exchanging = false;
  if (!isDone) {
    return;
  }
  m_options.streams.clear();
  for (const auto& running : m_streams) {
    m_options.streams.push_back(running->GetOptions());
  }
  const auto& troubles = m_exchange->GetTroubles();
  const auto countMade = [&](const std::vector<std::string>& names) {
    return std::count_if(names.begin(), names.end(), [&](const std::string& name) {
      return std::none_of(troubles.begin(), troubles.end(),
                          [&](const StreamTrouble& trouble) { return trouble.stream == name; });
    });
  };
  LogFacade::Info(m_log,
                  "%s was read again: %d streams go on untouched, %d were changed, %d added, %d "
                  "removed%s.",
                  m_file.name, plan.same.size(), countMade(plan.changed), countMade(plan.added),
                  plan.removed.size(),
                  troubles.empty()
                      ? std::string()
                      : WindowsAgentCommon::Format(", %d can't be used", troubles.size()));
  OnInputEnded();
}

void Agent::ApplyCommon(const AgentOptions& options) {
  const auto stays = [this](const char* key, const std::string& as) {
    m_fileTroubles.push_back(WindowsAgentCommon::Format(
        "%s can't change while the agent runs; it stays %s until the agent is started again", key,
        as));
    LogFacade::Warn(m_log, "%s.", m_fileTroubles.back());
  };
  if (const auto wanted = MakeDataDirectory(options.dataDirectory); wanted != m_dataDirectory) {
    stays("data_directory", ToText(m_dataDirectory));
  }
  if (!(options.monitor == m_options.monitor)) {
    stays("monitor", "as it is");
  }
  ConfigureLogging(options.log);
  m_disk->SetLimits(options.disk.quota, options.disk.keepFree);
  m_options.disk = options.disk;
  m_options.log = options.log;
  m_options.shutdown = options.shutdown;
  if (!(m_options.watch == options.watch)) {
    m_options.watch = options.watch;
    for (const auto& running : m_streams) {
      running->SetWatch(m_options.watch);
    }
    WatchStreams();
  }
}

}  // namespace OrloAgent
