#pragma once

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agent/Destination.h"
#include "Agent/Monitor/HistoryKeeper.h"
#include "Agent/Monitor/MessageRing.h"
#include "Agent/Monitor/Monitor.h"
#include "Agent/Monitor/MonitorState.h"
#include "Agent/Monitor/StreamSampler.h"
#include "Agent/Source.h"
#include "WindowsAgentCommon/DiskManager.h"

namespace OrloAgent {

// Looks at the agent once a second, on a thread of its own, and keeps what it saw: the last state,
// and an hour of history. Nothing that the streams do waits for it, except that RemoveStream waits
// until the stream is not being asked.
class Sampler {
 public:
  struct Surroundings {
    std::shared_ptr<WindowsAgentCommon::StatisticsServer> statistics;
    std::shared_ptr<WindowsAgentCommon::DiskManager> disk;
    std::filesystem::path dataDirectory;
    std::string version;
    std::chrono::milliseconds refusedAfter{0};
  };

  explicit Sampler(Surroundings surroundings);
  ~Sampler();

  // As Monitor::AddStream. Control thread. The sources and the destination are asked until
  // RemoveStream has returned.
  void AddStream(const StreamOptions& options, std::vector<const Source*> sources,
                 const Destination& destination, std::uint64_t notMadeBefore);
  void RemoveStream(const std::string& name);

  // As Monitor::SetTroubles.
  void SetTroubles(const std::vector<std::string>& file, const std::vector<StreamTrouble>& streams);

  // Takes a first look and starts the thread.
  void Start();

  // Any thread. Never null after Start.
  std::shared_ptr<const AgentState> GetState() const;

  // As HistoryKeeper::Get.
  History GetHistory(std::int64_t since) const;

 private:
  struct Watched;

  void Run();
  void Sample();
  void AddTroubles(AgentState& state);
  DiskState LookAtDisk(std::vector<std::string>& problems) const;

  const Surroundings m_surroundings;
  const WindowsAgentCommon::Log m_log;
  const std::int64_t m_started;
  MessageRing m_messages;

  // Held while streams and statistics are asked. Taken before m_lock.
  std::mutex m_streamsLock;
  // Guarded by m_streamsLock:
  std::vector<std::shared_ptr<Watched>> m_streams;
  // As they may be shown.
  std::vector<std::string> m_fileTroubles;
  std::vector<StreamTrouble> m_streamTroubles;

  mutable std::mutex m_lock;
  // Guarded by m_lock:
  std::shared_ptr<const AgentState> m_state;
  HistoryKeeper m_history;
  bool m_stop = false;

  std::condition_variable m_stopped;
  std::thread m_thread;
};

}  // namespace OrloAgent
