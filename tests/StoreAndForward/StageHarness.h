#pragma once

#include <ace/Stream.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StoreAndForward/StoreAndForwardStage.h"
#include "tests/support/CountingAllocators.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RecordingStatistics.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestDiskManager.h"

namespace OrloStoreAndForward {

// Reaches the parts that a stage keeps to itself.
struct StageTestAccess {
  static StoreAndForwardIncoming& Incoming(StoreAndForwardStage& stage) {
    return *stage.m_incoming;
  }
  static StoreAndForwardOutgoing& Outgoing(StoreAndForwardStage& stage) {
    return *stage.m_outgoing;
  }
};

// The next module of the stream: answers every event as it is told, and records those that it took.
class ScriptedDestination : public ACE_Task<ACE_MT_SYNCH> {
 public:
  struct Offer {
    std::string payload;
    std::chrono::steady_clock::time_point time;
    int result;
  };

  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;

  // The answer to each event, by its payload; called on the Outgoing thread. Empty: 0.
  void SetAnswer(std::function<int(const std::string&)> answer);

  // Every offer, whatever the answer, in order.
  std::vector<Offer> Offers() const;
  // The payloads that were answered with 0.
  std::vector<std::string> Delivered() const;

 private:
  mutable std::mutex m_lock;
  std::function<int(const std::string&)> m_answer;
  std::vector<Offer> m_offers;
};

// A stage in a stream of its own, between the test and a scripted destination, with a cache in a
// temporary directory. Everything that the stage uses is recorded.
class StageHarness {
 public:
  StageHarness();
  ~StageHarness();

  StoreAndForwardStage& Stage() { return *m_stage; }
  ScriptedDestination& Destination() { return *m_destination; }
  TestSupport::TestDiskManager& Disk() { return *m_disk; }
  TestSupport::RecordingServer& Statistics() { return *m_server; }
  TestSupport::LogCapture& Log() { return m_log; }
  TestSupport::CountingAllocators& Allocators() { return m_allocators; }

  // Initialises the statistics profile, then the stage with the shortest chunk period unless the
  // settings name one.
  void Start(WindowsAgentCommon::EnvironmentBlock settings = {});
  void Stop() { m_stage->Stop(); }

  // Posts events with the payloads "<prefix>0", ...; says how many were refused.
  std::size_t Post(std::size_t count, const std::string& prefix = "event ");

  // The last published value of a statistic of any of the three profiles.
  std::int64_t Statistic(const std::string& name) const;
  // The statistics group of that name, which must exist.
  TestSupport::RecordingGroup& Group(const std::string& name) const {
    return *m_server->Find(name);
  }
  bool HasGroup(const std::string& name) const { return m_server->Find(name) != nullptr; }

  // posted = failed to queue + lost + delivered + held + cached, with what the test knows to be
  // held and cached.
  void ExpectSum(std::int64_t held, std::int64_t cached) const;

  // Chunk files in the cache.
  std::size_t ChunkFiles() const;
  std::filesystem::path CacheDirectory() const;

 private:
  TestSupport::TemporaryDirectory m_directory;
  TestSupport::CountingAllocators m_allocators;
  TestSupport::LogCapture m_log;
  std::shared_ptr<TestSupport::TestDiskManager> m_disk;
  std::shared_ptr<TestSupport::RecordingServer> m_server;
  WindowsAgentCommon::ServiceRegistration m_diskRegistration;
  WindowsAgentCommon::ServiceRegistration m_serverRegistration;
  // Closing it deletes the modules with their tasks.
  std::unique_ptr<ACE_Stream<ACE_MT_SYNCH>> m_stream;
  StoreAndForwardStage* m_stage;
  ScriptedDestination* m_destination;
};

// The stage's loggers.
inline const std::string kIncomingLogger = "Code.StoreAndForwardIncoming.Test";
inline const std::string kOutgoingLogger = "Code.StoreAndForwardOutgoing.Test";

constexpr int kBackpressure = 0x40000000;

// "<prefix><first>" ... "<prefix><first + count - 1>"
std::vector<std::string> Numbered(std::size_t count, const std::string& prefix = "event ",
                                  std::size_t first = 0);

}  // namespace OrloStoreAndForward
