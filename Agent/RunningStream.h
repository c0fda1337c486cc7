#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Agent/Departure.h"
#include "Agent/DestinationGate.h"
#include "Agent/Leftover.h"
#include "Agent/Options.h"
#include "Agent/SourceStatistics.h"
#include "Agent/StreamAccount.h"
#include "Agent/StreamPulse.h"
#include "Agent/StreamWatch.h"
#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

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

// One stream from its creation to its closing line. Control thread only.
class RunningStream {
 public:
  // Builds and starts the stages and the destination; no source begins. What is in `left` is taken
  // from there: sources and the destination if the options have the same section, and the events,
  // which are sent first. Throws InitializationException; then nothing of the stream is left, and
  // `left` is as it was.
  RunningStream(const StreamOptions& options, const AgentOptions& common,
                const StreamSurroundings& surroundings, Leftover& left);

  // Ends whatever still runs, without waiting for events.
  ~RunningStream();
  RunningStream(const RunningStream&) = delete;
  RunningStream& operator=(const RunningStream&) = delete;

  const std::string& GetName() const { return m_options.name; }
  const StreamOptions& GetOptions() const { return m_options; }

  // Begins new sources, then lets kept ones go on. Throws InitializationException; then no new one
  // runs, and the kept ones are paused as before.
  void StartSources();
  void StopSources();

  // For a stream that gives way to another of its name, or to none (null): sources whose section
  // the other one has, too, are paused, all others stopped. From then on the stream is brought to
  // rest by Depart.
  void BeginToLeave(const StreamOptions* successor, const ShutdownOptions& shutdown);

  // To be called every 100 ms until it says that the stream can be closed without a loss.
  bool Depart(Departure::Clock::time_point now);

  // Undoes BeginToLeave and stops the sources: what they have read comes through this stream.
  void StayAndStopSources();

  // After Close.
  Leftover TakeLeftover();

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
  // After Depart nothing is held: what would be is for TakeLeftover.
  StreamReport Close();

 private:
  void ShowToMonitor();
  void HideFromMonitor();
  void WarnOfShortDrain(const ShutdownOptions& shutdown) const;
  void Create(const Leftover& left);
  // One that is new, or one among those that an earlier stream has left.
  struct FoundSource {
    MadeSource made;
    MadeSource* left = nullptr;
  };
  std::vector<FoundSource> FindSources(std::vector<MadeSource>& left) const;
  void TakeSources(std::vector<FoundSource> found, std::vector<MadeSource>& left);
  EndCounts AskEnds() const;
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
  DestinationGate* m_destination = nullptr;  // owned by the stream
  // In the order of the options. Owned by the stream, but for the time between BeginToLeave and
  // what follows.
  std::vector<MadeSource> m_sources;
  std::vector<SourceStatistics> m_sourceStatistics;
  std::vector<bool> m_paused;
  // After BeginToLeave.
  std::optional<Departure> m_departure;
  bool m_keeps = false;
  // What the sources had counted before they came to this stream.
  std::uint64_t m_notMadeBefore = 0;
};

}  // namespace OrloAgent
