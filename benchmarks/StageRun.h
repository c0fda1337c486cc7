#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "benchmarks/ScratchDirectory.h"

namespace OrloStream {
class Stream;
class StreamManager;
}  // namespace OrloStream
namespace WindowsAgentCommon {
class ServiceRegistration;
class StatisticsServer;
}  // namespace WindowsAgentCommon

namespace Benchmark {

class CountingDestination;

// Times of one batch on its way through the stage.
struct StageTimes {
  // From the first post to the return of the last one.
  std::chrono::duration<double> posting{};
  // From the first event's arrival at the destination to the last one's.
  std::chrono::duration<double> delivery{};
  // Processor time of all threads from the first post to the last arrival.
  std::chrono::duration<double> processor{};
  // The batch was cut by the end of a chunking period, so the delivery time holds a wait for the
  // next one and says nothing.
  bool cut = false;
};

// A stream of the store-and-forward stage, loaded as the agent loads it, and a destination that
// releases every event. One thread uses it.
class StageRun {
 public:
  StageRun();
  ~StageRun();
  StageRun(const StageRun&) = delete;
  StageRun& operator=(const StageRun&) = delete;

  // Posts one event and returns when it has arrived: a chunking period has just begun.
  void WaitForPeriod();

  // Posts the events, the same number of them from so many threads at once, and returns when all
  // have arrived. Ends the program if one is missing, or out of the order of its thread.
  StageTimes Post(std::size_t events, std::size_t payloadSize, unsigned posters);

 private:
  void PostFrom(unsigned poster, std::size_t events, std::size_t payloadSize);
  std::int64_t CountChunks() const;

  std::int64_t m_posted = 0;  // events
  ScratchDirectory m_scratch;
  std::shared_ptr<WindowsAgentCommon::StatisticsServer> m_statistics;
  std::unique_ptr<WindowsAgentCommon::ServiceRegistration> m_statisticsRegistration;
  std::unique_ptr<WindowsAgentCommon::ServiceRegistration> m_diskRegistration;
  std::unique_ptr<OrloStream::StreamManager> m_manager;
  OrloStream::Stream* m_stream = nullptr;        // owned by m_manager
  CountingDestination* m_destination = nullptr;  // owned by m_stream
};

// The processor time that the process has used.
std::chrono::duration<double> GetProcessorTime();

}  // namespace Benchmark
