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
//
// It is made in four steps: the constructor, BeginSources, StartStages and Open. A stage takes
// chunks from its cache as soon as it runs, and what it has taken is in no file any more; so what
// can fail comes before that.
class RunningStream {
 public:
  // Builds everything and starts the destination. What goes on in it, which are sources and the
  // destination of `left` where the options have the same section, stays in `left` until Open.
  // Throws InitializationException; then nothing of the stream is left.
  RunningStream(const StreamOptions& options, const AgentOptions& common,
                const StreamSurroundings& surroundings, const Leftover& left);

  // Ends whatever still runs, without waiting for events.
  ~RunningStream();
  RunningStream(const RunningStream&) = delete;
  RunningStream& operator=(const RunningStream&) = delete;

  const std::string& GetName() const { return m_options.name; }
  const StreamOptions& GetOptions() const { return m_options; }

  // Begins new sources; what they read waits until Open. Throws InitializationException.
  void BeginSources();

  // Throws InitializationException; then no stage runs, and what one may have taken from its cache
  // is among the events of `left`. After that the stream can only be destroyed.
  void StartStages(Leftover& left);

  // The same for a stream whose stages run: it is never to be opened.
  void GiveUp(Leftover& left);

  // Events move from here on: those of `left` first. Takes its destination and those of its sources
  // that go on. Can't fail.
  void Open(Leftover& left);

  void StopSources();

  // To be called for all streams that are to give way before any of them begins to: it can take
  // long until a source is paused, and a sender that is refused meanwhile is away for half a
  // minute.
  void HoldSender();

  // For a stream that gives way to another of its name, or to none (null): sources whose section
  // the other one has, too, are paused, all others stopped. From then on the stream is brought to
  // rest by Depart.
  void BeginToLeave(const StreamOptions* successor, const ShutdownOptions& shutdown);

  // To be called every 100 ms until it says that the stream can be closed without a loss.
  bool Depart(Departure::Clock::time_point now);

  // Undoes HoldSender and BeginToLeave and stops the sources: what they have read comes through
  // this stream.
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
  // After Depart what is held is only what is lost by that, and a Warn line says so; the rest is
  // for TakeLeftover.
  StreamReport Close();

 private:
  void ShowToMonitor();
  void HideFromMonitor();
  void WarnOfShortDrain(const ShutdownOptions& shutdown) const;
  void WarnOfLoss(std::int64_t held) const;
  void Prepare(const Leftover& left);
  void FindSources(const std::vector<MadeSource>& left);
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
  // In the order of the options. From Open to BeginToLeave owned by the stream.
  std::vector<MadeSource> m_sources;
  std::vector<SourceStatistics> m_sourceStatistics;
  std::vector<bool> m_paused;
  // After BeginToLeave.
  std::optional<Departure> m_departure;
  // What the sources had counted before they came to this stream.
  std::uint64_t m_notMadeBefore = 0;
};

}  // namespace OrloAgent
