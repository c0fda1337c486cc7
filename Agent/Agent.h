#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Agent/Monitor/Monitor.h"
#include "Agent/Options.h"
#include "Agent/ProcessSignals.h"
#include "Agent/ServiceNotifier.h"
#include "Agent/StreamAccount.h"
#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

class DataDirectoryLock;
class Destination;
class Source;

// The running agent: its services, its streams, and the order in which they begin and end.
//
// Made, started and stopped on one thread, the control thread. Threads of a running agent: this
// one; one for each source; one for each destination (the flusher); and those of the stages.
//
// Start: the services, then the lock on the data directory, then every stream with its stages, then
// the sources. Stop: the sources; then wait until every event is delivered, cached or counted as
// lost; then the stages and destinations, and a line for each stream about where its events went.
class Agent {
 public:
  // Stage modules are loaded from that directory.
  Agent(AgentOptions options, std::string moduleDirectory);

  // Stops what still runs, without waiting for events.
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Throws InitializationException; then nothing is running and the lock is free.
  void Start();

  // Returns when a signal asks the agent to stop, or when the input of its last source has ended.
  void Wait();

  // A further signal ends the wait for events early.
  std::vector<StreamReport> Stop();

 private:
  struct RunningStream;

  void StartServices();
  void CreateStream(StreamOptions& options);
  void WarnOfShortDrain(const StreamOptions& options) const;
  void OnSourceEnded();
  void WatchStreams();
  void TellThatItWorks();
  void OnSignal(ProcessSignals::Request request, const std::string& name);
  void Drain();
  std::vector<StreamReport> CloseStreams();
  StreamReport Look(RunningStream& running);
  void TearDown();

  AgentOptions m_options;
  const std::string m_moduleDirectory;
  const std::filesystem::path m_dataDirectory;
  WindowsAgentCommon::Log m_log;

  boost::asio::io_context m_control{1};
  boost::asio::steady_timer m_watchTimer{m_control};
  ServiceNotifier m_service;
  boost::asio::steady_timer m_serviceTimer{m_control};
  std::unique_ptr<ProcessSignals> m_signals;
  unsigned m_signalCount = 0;
  std::size_t m_sourcesRunning = 0;
  bool m_stopRequested = false;

  // Destroyed in the reverse order: streams first, services last.
  std::unique_ptr<DataDirectoryLock> m_lock;
  std::shared_ptr<WindowsAgentCommon::DiskManager> m_disk;
  std::shared_ptr<WindowsAgentCommon::StatisticsServer> m_statistics;
  std::vector<std::unique_ptr<WindowsAgentCommon::ServiceRegistration>> m_services;
  std::unique_ptr<OrloStream::StreamManager> m_manager;
  std::vector<std::unique_ptr<RunningStream>> m_streams;
  // Null where the options ask for none. Asks the streams' ends, so it goes before them.
  std::unique_ptr<Monitor> m_monitor;
};

}  // namespace OrloAgent
