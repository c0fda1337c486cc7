#include "benchmarks/StageRun.h"

#include <condition_variable>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/Gauges.h"
#include "WindowsAgentCommon/OrloTask.h"
#include "benchmarks/Events.h"

namespace Benchmark {

using Clock = std::chrono::steady_clock;
using WindowsAgentCommon::DiskManager;
using WindowsAgentCommon::MessageBlockPtr;
using WindowsAgentCommon::ServiceRegistration;
using WindowsAgentCommon::StatisticsServer;

namespace {

// An event's number is its place in its poster's row times this, plus the poster's own.
constexpr std::uint64_t kMostPosters = 64;

}  // namespace

// Takes the events of one batch, notes when the first and the last came, and wakes whoever waits
// for the batch's end. put runs on the stage's sending thread.
class CountingDestination : public WindowsAgentCommon::OrloTask {
 public:
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}

  int put(ACE_Message_Block* block, ACE_Time_Value* = nullptr) override {
    const MessageBlockPtr event(block);
    if (m_arrived == 0) {
      m_first = Clock::now();
    }
    const std::uint64_t number = GetNumber(*event);
    m_inOrder = m_inOrder && number % kMostPosters < m_next.size() &&
                number / kMostPosters == m_next[number % kMostPosters]++;
    if (++m_arrived == m_expected) {
      m_last = Clock::now();
      const std::lock_guard guard(m_lock);
      m_done = true;
      m_changed.notify_all();
    }
    return 0;
  }

  // Before the first post of a batch, which is when nothing is on its way.
  void Expect(std::size_t events, unsigned posters) {
    m_expected = events;
    m_next.assign(posters, 0);
    m_arrived = 0;
    m_inOrder = true;
    m_done = false;
  }

  void Wait() {
    constexpr std::chrono::minutes kLongerThanEver(2);
    std::unique_lock guard(m_lock);
    if (!m_changed.wait_for(guard, kLongerThanEver, [this] { return m_done; })) {
      throw std::runtime_error("events are missing at the destination");
    }
    if (!m_inOrder) {
      throw std::runtime_error("events arrived out of order");
    }
  }

  std::chrono::duration<double> GetDuration() const { return m_last - m_first; }

 private:
  // Handed from the posting thread to the sending thread and back through the stage's queues.
  std::size_t m_expected = 0;
  std::size_t m_arrived = 0;
  std::vector<std::uint64_t> m_next;  // of each poster
  bool m_inOrder = true;
  Clock::time_point m_first;
  Clock::time_point m_last;

  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_done = false;  // guarded by m_lock once the batch is on its way
};

StageRun::StageRun()
    : m_statistics(std::make_shared<StatisticsServer>()),
      m_statisticsRegistration(std::make_unique<ServiceRegistration>(
          WindowsAgentCommon::IStatisticsServer::GetServiceName(), m_statistics)),
      m_diskRegistration(std::make_unique<ServiceRegistration>(
          WindowsAgentCommon::IDiskManager::GetServiceName(),
          std::make_shared<DiskManager>(
              WindowsAgentCommon::DiskManagerOptions{m_scratch.WidePath(), 0, 0}))),
      m_manager(std::make_unique<OrloStream::StreamManager>(ORLO_MODULE_DIRECTORY)) {
  auto destination = std::make_unique<CountingDestination>();
  m_destination = destination.get();
  OrloStream::StreamDefinition definition;
  definition.name = L"Benchmark";
  definition.stages.push_back({"StoreAndForwardStage", {{"DataChunkPeriod", "5"}}});
  definition.destination = std::move(destination);
  m_stream = &m_manager->Create(std::move(definition));
}

StageRun::~StageRun() { m_manager->Remove(*m_stream); }

void StageRun::WaitForPeriod() { Post(1, 1, 1); }

void StageRun::PostFrom(unsigned poster, std::size_t events, std::size_t payloadSize) {
  for (std::size_t number = 0; number < events; ++number) {
    if (m_stream->Post(MakeEvent(number * kMostPosters + poster, payloadSize).release()).Failed()) {
      throw std::runtime_error("the stage refused an event");
    }
  }
}

StageTimes StageRun::Post(std::size_t events, std::size_t payloadSize, unsigned posters) {
  StageTimes times;
  const std::int64_t chunksBefore = CountChunks();
  const std::size_t each = events / posters;
  m_posted += static_cast<std::int64_t>(each * posters);
  m_destination->Expect(each * posters, posters);

  const auto processorStart = GetProcessorTime();
  const auto start = Clock::now();
  std::vector<std::thread> others;
  for (unsigned poster = 1; poster < posters; ++poster) {
    others.emplace_back([=, this] { PostFrom(poster, each, payloadSize); });
  }
  PostFrom(0, each, payloadSize);
  for (std::thread& other : others) {
    other.join();
  }
  times.posting = Clock::now() - start;
  m_destination->Wait();
  times.processor = GetProcessorTime() - processorStart;
  times.delivery = m_destination->GetDuration();
  times.cut = CountChunks() - chunksBefore > 1;
  return times;
}

// Of all events that were posted. The stage counts a chunk, and then its events, after it has
// handed it over, by when the events may have arrived.
std::int64_t StageRun::CountChunks() const {
  const auto read = [](const std::string& name) {
    for (const auto& reading : WindowsAgentCommon::ReadGauges("Benchmark")) {
      if (reading.name == name) {
        return reading.value;
      }
    }
    throw std::runtime_error("the stage has no gauge " + name);
  };
  while (read("EventsNear") + read("EventsFar") < m_posted) {
    std::this_thread::yield();
  }
  return read("ChunksNear") + read("ChunksFar");
}

std::chrono::duration<double> GetProcessorTime() {
  return std::chrono::duration<double>(static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
}

}  // namespace Benchmark
