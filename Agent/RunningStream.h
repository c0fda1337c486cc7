#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Agent/Options.h"
#include "Agent/Source.h"
#include "Agent/SourceStatistics.h"
#include "Agent/StreamAccount.h"
#include "Agent/StreamPulse.h"
#include "Agent/StreamWatch.h"
#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

class Destination;
class Monitor;

// What all streams of the agent share, and what outlives them.
struct StreamSurroundings {
  OrloStream::StreamManager& manager;
  WindowsAgentCommon::StatisticsServer& statistics;
  // Null if there is none.
  Monitor* monitor = nullptr;
  std::filesystem::path dataDirectory;
  // Called on the control thread when the input of a source has ended.
  std::function<void()> inputEnded;
  // Hands work to the control thread.
  std::function<void(std::function<void()>)> post;
};

// A source that was made, with the section it was made from.
struct MadeSource {
  std::unique_ptr<OrloStream::IStreamSource> owner;
  Source* source = nullptr;
  SourceOptions options;
  // Set on the control thread when its input has ended.
  std::shared_ptr<bool> ended = std::make_shared<bool>(false);
};

// One stream from its creation to its closing line. Control thread only.
class RunningStream {
 public:
  // Builds and starts the stages and the destination; no source begins. Sources in `kept`, which
  // are paused, are taken from there if the options have the same section; the others are made.
  // Throws InitializationException; then nothing of the stream is left, and `kept` is as it was.
  RunningStream(const StreamOptions& options, const AgentOptions& common,
                const StreamSurroundings& surroundings, std::vector<MadeSource>& kept);

  // Ends whatever still runs, without waiting for events.
  ~RunningStream();
  RunningStream(const RunningStream&) = delete;
  RunningStream& operator=(const RunningStream&) = delete;

  const std::string& GetName() const { return m_options.name; }
  const StreamOptions& GetOptions() const { return m_options; }

  // Begins new sources, and lets kept ones go on. Throws InitializationException; then all of them
  // are stopped.
  void StartSources();
  void StopSources();

  // For a stream that gives way to another of its name: sources whose section the other one has,
  // too, are paused, all others stopped.
  void PauseSources(const StreamOptions& successor);

  // Undoes PauseSources and stops them: what they have read comes through this stream.
  void ResumeAndStopSources();

  // The sources that PauseSources has paused, after Close.
  std::vector<MadeSource> TakePausedSources();

  // Whether the input of every source has ended.
  bool HasInputEnded() const;

  // Certificates and keys, as Source::Reload.
  void ReloadCertificates();

  void SetWatch(const WatchOptions& options);
  void Watch(std::chrono::steady_clock::time_point now);

  // Whether its threads still work.
  StreamPulse::State LookAtPulse(StreamPulse::Clock::time_point now);

  StreamReport Look();
  std::chrono::milliseconds GetProcessingPeriod() const { return m_processingPeriod; }

  // From now on the destination takes nothing more.
  void Refuse();

  // Stops the stages and says in one line where the events are. The sources are stopped or paused.
  StreamReport Close();

 private:
  void ShowToMonitor();
  void HideFromMonitor();
  void WarnOfShortDrain(const ShutdownOptions& shutdown) const;
  void Create();
  void GatherSources(std::vector<MadeSource>& kept);
  MadeSource MakeNewSource(const SourceOptions& options) const;

  const StreamOptions m_options;
  const StreamSurroundings& m_surroundings;
  WindowsAgentCommon::Log m_log;
  StreamAccount m_account;
  StreamPulse m_pulse;
  std::chrono::milliseconds m_processingPeriod{0};
  // Null where there is no store-and-forward stage.
  std::unique_ptr<StreamWatch> m_watch;
  OrloStream::Stream* m_stream = nullptr;
  Destination* m_destination = nullptr;  // owned by the stream
  // In the order of the options. Owned by the stream, but for the time between PauseSources and
  // what follows.
  std::vector<MadeSource> m_sources;
  std::vector<SourceStatistics> m_sourceStatistics;
  std::vector<bool> m_paused;
  // What the sources had counted before they came to this stream.
  std::uint64_t m_notMadeBefore = 0;
};

}  // namespace OrloAgent
