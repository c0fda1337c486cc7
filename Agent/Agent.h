#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Agent/ConfigurationReader.h"
#include "Agent/Monitor/Monitor.h"
#include "Agent/Options.h"
#include "Agent/ProcessSignals.h"
#include "Agent/RunningStream.h"
#include "Agent/ServiceNotifier.h"
#include "Agent/StreamAccount.h"
#include "Agent/StreamExchange.h"
#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

class DataDirectoryLock;

// Where the agent has its configuration from when it is asked to read it again.
struct ConfigurationFile {
  // For messages.
  std::string name;
  std::function<Configuration()> load;
};

// The running agent: its services, its streams, and the order in which they begin and end.
//
// Made, started and stopped on one thread, the control thread. Threads of a running agent: this
// one; one for each source; one for each destination (the flusher); and those of the stages.
//
// Start: the services, then the lock on the data directory, then every stream with its destination,
// its sources and its stages, in this order; then events move. Stop: the sources; then wait until
// every event is delivered, cached or counted as lost; then the stages and destinations, and a line
// for each stream about where its events went.
//
// Reload, which a signal asks for: the file is read again. If it has no mistakes, streams whose
// section is the same are left alone; those that changed or are gone are stopped in the order of
// Stop, and those that changed or are new are made. A source whose section is the same as before
// waits in the meantime with all its connections.
class Agent {
 public:
  // Stage modules are loaded from that directory. Without a file a reload reads certificates only.
  Agent(AgentOptions options, std::string moduleDirectory, ConfigurationFile file = {});

  // Stops what still runs, without waiting for events.
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Throws InitializationException; then nothing is running and the lock is free. What is in the
  // caches stays there; only where a stage can't start after another one has run for half a second,
  // that one may have taken a chunk, which is lost, and counted in a Warn line.
  void Start();

  // Returns when a signal asks the agent to stop, or when the input of its last source has ended.
  void Wait();

  // A further signal ends the wait for events early.
  std::vector<StreamReport> Stop();

 private:
  void StartServices();
  void OnInputEnded();
  void WatchStreams();
  void TellThatItWorks();
  void OnSignal(ProcessSignals::Request request, const std::string& name);
  void Drain(bool emptyCache, const std::function<bool()>& isInterrupted);
  std::vector<StreamReport> CloseStreams();
  void TearDown();

  void Reload();
  void Apply(AgentOptions options);
  void ApplyCommon(const AgentOptions& options);
  void ShowTroubles();

  AgentOptions m_options;
  const std::string m_moduleDirectory;
  const std::filesystem::path m_dataDirectory;
  const ConfigurationFile m_file;
  WindowsAgentCommon::Log m_log;

  boost::asio::io_context m_control{1};
  boost::asio::steady_timer m_watchTimer{m_control};
  ServiceNotifier m_service;
  boost::asio::steady_timer m_serviceTimer{m_control};
  std::unique_ptr<ProcessSignals> m_signals;
  unsigned m_signalCount = 0;
  bool m_stopRequested = false;
  bool m_reloadRequested = false;
  // Streams come and go: whether the input of all of them has ended can't be told now.
  bool m_exchanging = false;
  // Why the file was not taken when it was last read, or what of it outside of streams was not.
  std::vector<std::string> m_fileTroubles;

  // Destroyed in the reverse order: streams first, services last.
  std::unique_ptr<DataDirectoryLock> m_lock;
  std::shared_ptr<WindowsAgentCommon::DiskManager> m_disk;
  std::shared_ptr<WindowsAgentCommon::StatisticsServer> m_statistics;
  std::vector<std::unique_ptr<WindowsAgentCommon::ServiceRegistration>> m_services;
  std::unique_ptr<OrloStream::StreamManager> m_manager;
  // Null where the options ask for none.
  std::unique_ptr<Monitor> m_monitor;
  std::unique_ptr<StreamSurroundings> m_surroundings;
  std::unique_ptr<StreamExchange> m_exchange;
  StreamExchange::Streams m_streams;
};

}  // namespace OrloAgent
