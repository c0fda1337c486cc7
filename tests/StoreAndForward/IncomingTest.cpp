// Configuration and life cycle of the receiving side, and what its loop does with chunks. The loop
// is driven through the stage, with a real sending side and a scripted destination behind it; tests
// that wait for a chunking period take as long as that, five seconds at least.

#include "StoreAndForward/StoreAndForwardIncoming.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "Platform/testing/TestFaults.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Gauges.h"
#include "WindowsAgentCommon/MessageBlocks.h"
#include "WindowsAgentCommon/Text.h"
#include "tests/StoreAndForward/StageHarness.h"

namespace OrloStoreAndForward {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using TestSupport::WaitUntil;
using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::InitializationException;
using WindowsAgentCommon::LogLevel;
using Strings = std::vector<std::string>;

constexpr char kProcessingPeriodRaised[] =
    "Data processing period too small.  Reverting to minimum (500000).";
constexpr char kChunkPeriodRaised[] = "Data chunking period too small.  Reverting to minimum (5).";

class IncomingSettings : public testing::Test {
 protected:
  IncomingSettings() : m_incoming(&m_harness.Stage(), nullptr) {}
  ~IncomingSettings() override { m_incoming.Stop(); }

  void ExpectSettings(std::int64_t low, std::int64_t high, std::int64_t processingPeriod,
                      std::int64_t chunkPeriod) {
    EXPECT_EQ(m_harness.Statistic("InputQueueLowWaterMark"), low);
    EXPECT_EQ(m_harness.Statistic("InputQueueHighWaterMark"), high);
    EXPECT_EQ(m_harness.Statistic("DataProcessingPeriod"), processingPeriod);
    EXPECT_EQ(m_harness.Statistic("DataChunkingPeriod"), chunkPeriod);
  }

  std::size_t Infos(const std::string& text) { return m_harness.Log().Count(LogLevel::Info, text); }

  StageHarness m_harness;
  StoreAndForwardIncoming m_incoming;
};

TEST_F(IncomingSettings, WithoutKeysTheDefaultsHold) {
  m_incoming.Initialize({});
  ExpectSettings(975000, 1000000, 500000, 10);
  EXPECT_EQ(m_incoming.msg_queue()->low_water_mark(), 975000u);
  EXPECT_EQ(m_incoming.msg_queue()->high_water_mark(), 1000000u);
  EXPECT_EQ(Infos(kProcessingPeriodRaised), 0u);
  EXPECT_EQ(Infos(kChunkPeriodRaised), 0u);
}

TEST_F(IncomingSettings, ProcessingPeriodBelowTheMinimumIsRaisedWithAnInfo) {
  m_incoming.Initialize({{"DataProcessingPeriod", "100000"}});
  ExpectSettings(975000, 1000000, 500000, 10);
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kIncomingLogger, kProcessingPeriodRaised));
}

TEST_F(IncomingSettings, ProcessingPeriodOfTheMinimumIsTakenSilently) {
  m_incoming.Initialize({{"DataProcessingPeriod", "500000"}});
  EXPECT_EQ(Infos(kProcessingPeriodRaised), 0u);
  ExpectSettings(975000, 1000000, 500000, 10);
}

TEST_F(IncomingSettings, LongerPeriodsAreTaken) {
  m_incoming.Initialize({{"DataProcessingPeriod", "500001"}, {"DataChunkPeriod", "3600"}});
  ExpectSettings(975000, 1000000, 500001, 3600);
}

TEST_F(IncomingSettings, ChunkPeriodBelowTheMinimumIsRaisedWithAnInfo) {
  m_incoming.Initialize({{"DataChunkPeriod", "4"}});
  ExpectSettings(975000, 1000000, 500000, 5);
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kIncomingLogger, kChunkPeriodRaised));
}

TEST_F(IncomingSettings, ChunkPeriodOfZeroIsRaised) {
  m_incoming.Initialize({{"DataChunkPeriod", "0"}});
  ExpectSettings(975000, 1000000, 500000, 5);
  EXPECT_EQ(Infos(kChunkPeriodRaised), 1u);
}

TEST_F(IncomingSettings, NegativePeriodsAreRaised) {
  m_incoming.Initialize({{"DataProcessingPeriod", "-1"}, {"DataChunkPeriod", "-2147483648"}});
  ExpectSettings(975000, 1000000, 500000, 5);
  EXPECT_EQ(Infos(kProcessingPeriodRaised), 1u);
  EXPECT_EQ(Infos(kChunkPeriodRaised), 1u);
}

TEST_F(IncomingSettings, ChunkPeriodOfTheMinimumIsTakenSilently) {
  m_incoming.Initialize({{"DataChunkPeriod", "5"}});
  ExpectSettings(975000, 1000000, 500000, 5);
  EXPECT_EQ(Infos(kChunkPeriodRaised), 0u);
}

TEST_F(IncomingSettings, LowWaterMarkAboveTheHighOneIsTakenAsRead) {
  m_incoming.Initialize({{"QueueLowWaterMark", "5000"}, {"QueueHighWaterMark", "100"}});
  ExpectSettings(5000, 100, 500000, 10);
  EXPECT_EQ(m_incoming.msg_queue()->low_water_mark(), 5000u);
  EXPECT_EQ(m_incoming.msg_queue()->high_water_mark(), 100u);
}

TEST_F(IncomingSettings, ValuesThatAreNoNumbersGiveTheDefaultsWithAnErrorEach) {
  m_incoming.Initialize({{"QueueLowWaterMark", "many"},
                         {"QueueHighWaterMark", "99999999999"},
                         {"DataProcessingPeriod", ""},
                         {"DataChunkPeriod", "5s"}});
  ExpectSettings(975000, 1000000, 500000, 10);
  std::size_t errors = 0;
  for (const TestSupport::LogLine& line : m_harness.Log().Lines()) {
    errors += line.level == LogLevel::Error;
  }
  EXPECT_EQ(errors, 4u);
}

TEST_F(IncomingSettings, TheStatisticsKeyIsNotASetting) {
  m_incoming.Initialize({{"DataChunkingPeriod", "77"}});
  ExpectSettings(975000, 1000000, 500000, 10);
}

TEST_F(IncomingSettings, SettingsArePublishedWithTheFlagFalse) {
  m_incoming.Initialize({});
  const auto updates = m_harness.Group("StoreAndForwardIncoming").Updates();
  EXPECT_EQ(updates.size(), 4u);
  for (const auto& update : updates) {
    EXPECT_FALSE(update.flag);
    EXPECT_EQ(update.value.GetKind(), 0x4106);
  }
}

TEST_F(IncomingSettings, LogsItsLifeUnderTheStreamsName) {
  m_incoming.Initialize({});
  m_incoming.Stop();
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kIncomingLogger, "Started"));
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kIncomingLogger, "Stopping..."));
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Debug, kIncomingLogger,
                                       "Thread exiting (StoreAndForwardIncoming)."));
}

TEST_F(IncomingSettings, LoggerCarriesTheStreamsNameInUtf8) {
  m_harness.Stage().SetParentStreamName(L"S\u00E4lzer");
  m_incoming.Initialize({});
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, "Code.StoreAndForwardIncoming.S\xC3\xA4lzer",
                                       "Started"));
}

TEST_F(IncomingSettings, StopWithoutInitializeAndASecondStopDoNothing) {
  m_incoming.Stop();
  EXPECT_TRUE(m_harness.Log().Lines().empty());
  m_incoming.Initialize({});
  m_incoming.Stop();
  m_incoming.Stop();
  EXPECT_EQ(Infos("Stopping..."), 1u);
}

TEST_F(IncomingSettings, CacheThatCannotBeMadeThrowsWithTheDoubledWordingAndStartsNothing) {
  std::filesystem::create_directories(m_harness.CacheDirectory().parent_path());
  std::ofstream(m_harness.CacheDirectory()) << "a file in the way";
  try {
    m_incoming.Initialize({});
    FAIL() << "did not throw";
  } catch (const InitializationException& error) {
    std::string text;
    WindowsAgentCommon::GetLastErrorText(183, text);
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(std::string(error.what()),
              "Failed to create event cache (Failed to create event cache (" + text + "))");
    EXPECT_EQ(error.GetFile(), "StoreAndForwardIncoming");
    EXPECT_EQ(error.GetFunction(), "OrloStoreAndForward::StoreAndForwardIncoming::Initialize");
    EXPECT_EQ(error.GetLine(), 75);
  }
  EXPECT_TRUE(m_harness.Log().Lines().empty()) << "nothing is logged";
  EXPECT_EQ(m_incoming.thr_count(), 0u);
  EXPECT_FALSE(m_harness.HasGroup("StoreAndForwardIncoming")) << "no statistics profile is made";
  m_incoming.Stop();
  EXPECT_TRUE(m_harness.Log().Lines().empty()) << "a later stop does nothing";
}

// ---- The loop -----------------------------------------------------------------------------------

// A disk manager that does not answer until it is told to, which keeps the Incoming thread away
// from its queue.
class DiskThatWaits {
 public:
  // The harness's last cache operation comes before the end of this object.
  explicit DiskThatWaits(StageHarness& harness) {
    harness.Disk().SetAnswer([this](std::uint64_t) {
      m_asked = true;
      WaitUntil([this] { return m_answer.load(); });
      return true;
    });
  }
  bool AwaitQuestion() {
    return WaitUntil([this] { return m_asked.load(); });
  }
  void Answer() { m_answer = true; }

 private:
  std::atomic<bool> m_asked{false};
  std::atomic<bool> m_answer{false};
};

class IncomingLoop : public testing::Test {
 protected:
  ~IncomingLoop() override { Platform::TestFaults::Reset(); }

  std::int64_t Statistic(const std::string& name) { return m_harness.Statistic(name); }

  bool WaitForStatistic(const std::string& name, std::int64_t value) {
    return WaitUntil([&] { return Statistic(name) == value; });
  }

  std::size_t Debugs(const std::string& text) {
    return m_harness.Log().Count(LogLevel::Debug, text);
  }

  void ExpectGauges(const std::map<std::string, std::int64_t>& expected) {
    std::map<std::string, std::int64_t> all;
    for (const auto& reading : WindowsAgentCommon::ReadGauges("Test")) {
      all[reading.name] = reading.value;
    }
    for (const auto& [name, value] : expected) {
      EXPECT_EQ(all.at(name), value) << name;
    }
  }

  // Refuses every event until told otherwise, so that chunks go to disk: the first chunk is
  // accepted and stays pending.
  void CloseDestination() {
    m_harness.Destination().SetAnswer(
        [this](const std::string&) { return m_open ? 0 : kBackpressure; });
  }
  void OpenDestination() { m_open = true; }

  // A schedule that never allows sending: every chunk goes to disk at once.
  static EnvironmentBlock NeverSend() {
    return {{"Schedule.Enable", "true"}, {"Schedule.Interval", "0000-2359;00;UTC"}};
  }

  StageHarness m_harness;
  std::atomic<bool> m_open{false};
};

TEST_F(IncomingLoop, EventsOfOnePeriodArriveAsOneChunk) {
  m_harness.Start();
  m_harness.Post(100);
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 100));
  ASSERT_TRUE(WaitForStatistic("ChunkSize", 100));
  EXPECT_EQ(m_harness.Destination().Delivered(), Numbered(100));
  EXPECT_EQ(Statistic("OutgoingHandlerAccepts"), 1);
  EXPECT_EQ(Statistic("ChunkSize"), 100);
  EXPECT_TRUE(
      m_harness.Log().Contains(LogLevel::Debug, kIncomingLogger,
                               "Processing accepted for message block (near). (100 records)"));
  ExpectGauges({{"IncomingRunning", 1}});
  m_harness.Stop();
  EXPECT_EQ(m_harness.ChunkFiles(), 0u);
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 0);
  ExpectGauges({{"ChunksNear", 1}, {"EventsNear", 100}, {"ChunkEvents", 0}, {"ChunksSpilled", 0}});
  ExpectGauges({{"IncomingRunning", 0}});
  m_harness.ExpectSum(0, 0);
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
}

TEST_F(IncomingLoop, ChunkIsHandedOverOncePerChunkingPeriod) {
  const auto start = std::chrono::steady_clock::now();
  m_harness.Start();
  m_harness.Post(1);
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 1));
  m_harness.Post(1);
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 2));
  const auto offers = m_harness.Destination().Offers();
  EXPECT_GE(offers[0].time - start, milliseconds(4990));
  EXPECT_GE(offers[1].time - start, milliseconds(9980));
}

TEST_F(IncomingLoop, ChunkThatIsRefusedGoesToDisk) {
  m_harness.Start(NeverSend());
  m_harness.Post(3);
  ASSERT_TRUE(WaitForStatistic("EventDiskCacheAccepts", 1));
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 1);
  EXPECT_TRUE(m_harness.Log().Contains(
      LogLevel::Debug, kIncomingLogger,
      "Processing rejected for message block. Pushing to disk. (3 records)"));
  EXPECT_EQ(m_harness.ChunkFiles(), 1u);
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
  m_harness.Stop();
  ExpectGauges({{"ChunksSpilled", 1}, {"EventsSpilled", 3}, {"ChunkEvents", 0}, {"ChunksNear", 0}});
  m_harness.ExpectSum(0, 3);
}

TEST_F(IncomingLoop, WhileAnythingIsCachedDueChunksGoBehindItAndCountNoRejection) {
  CloseDestination();
  m_harness.Start();
  m_harness.Post(2, "first ");
  ASSERT_TRUE(WaitForStatistic("NumberOfRequeues", 1));
  m_harness.Post(2, "second ");
  ASSERT_TRUE(WaitForStatistic("EventDiskCacheAccepts", 1));
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 1);
  m_harness.Post(2, "third ");
  ASSERT_TRUE(WaitForStatistic("EventDiskCacheAccepts", 2));
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 1) << "no rejection for the third";
  OpenDestination();
  m_harness.Post(2, "fourth ");
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 8));
  Strings expected = Numbered(2, "first ");
  for (const char* prefix : {"second ", "third ", "fourth "}) {
    for (const std::string& payload : Numbered(2, prefix)) {
      expected.push_back(payload);
    }
  }
  EXPECT_EQ(m_harness.Destination().Delivered(), expected);
  EXPECT_EQ(Debugs("Processing accepted for message block (near). (2 records)"), 1u);
  EXPECT_EQ(Debugs("Processing accepted for message block (far). (2 records)"), 3u);
  ASSERT_TRUE(WaitUntil([this] { return Debugs("No remaining cached data.") >= 1; }));
  ASSERT_TRUE(WaitUntil([this] { return m_harness.ChunkFiles() == 0; }));
  m_harness.Stop();
  m_harness.ExpectSum(0, 0);
  EXPECT_EQ(Statistic("OutgoingHandlerAccepts"), 4);
  EXPECT_EQ(m_harness.Disk().Balance(), 0);
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
}

// Chunks that an earlier run left, of 2 events each.
void LeaveChunks(StageHarness& harness, std::size_t count) {
  for (std::size_t chunk = 0; chunk < count; ++chunk) {
    const auto directory = harness.CacheDirectory() / "2016-03-07-14-05";
    std::filesystem::create_directories(directory);
    std::string bytes("\2\0\0\0", 4);
    for (std::size_t event = 0; event < 2; ++event) {
      const std::string payload = "cached " + std::to_string(2 * chunk + event);
      bytes += std::string("\0\0\0\0", 4) + static_cast<char>(payload.size()) +
               std::string("\0\0\0", 3) + payload;
    }
    std::ofstream(directory / (std::string(chunk < 10 ? "0" : "") + std::to_string(chunk)),
                  std::ios::binary)
        << bytes;
  }
}

TEST_F(IncomingLoop, ChunksOfAnEarlierRunAreDrainedOneByOneOldestFirst) {
  LeaveChunks(m_harness, 4);
  m_harness.Start();
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 8));
  EXPECT_EQ(m_harness.Destination().Delivered(), Numbered(8, "cached "));
  EXPECT_EQ(Debugs("Processing accepted for message block (far). (2 records)"), 4u);
  ASSERT_TRUE(WaitUntil([this] { return Debugs("No remaining cached data.") == 1; }));
  EXPECT_EQ(m_harness.Group("StoreAndForwardIncoming").IntegerUpdates("OutgoingHandlerAccepts"),
            (std::vector<std::int64_t>{1, 2, 3, 4}));
  ExpectGauges({{"ChunksFar", 4}, {"EventsFar", 8}, {"ChunksNear", 0}});
  EXPECT_EQ(m_harness.ChunkFiles(), 0u);
}

TEST_F(IncomingLoop, AnIdleInputDrainsOneCachedChunkPerProcessingPeriod) {
  LeaveChunks(m_harness, 4);
  const auto start = std::chrono::steady_clock::now();
  m_harness.Start();
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 8));
  const auto offers = m_harness.Destination().Offers();
  for (std::size_t chunk = 0; chunk < 4; ++chunk) {
    EXPECT_GE(offers[2 * chunk].time - start, milliseconds(500) * (chunk + 1) - milliseconds(20))
        << "chunk " << chunk;
  }
}

TEST_F(IncomingLoop, ABusyInputDrainsTheCacheOneChunkPerBlock) {
  LeaveChunks(m_harness, 20);
  // Without blocks it would take a minute for each chunk.
  m_harness.Start({{"DataProcessingPeriod", "60000000"}});
  ASSERT_TRUE(WaitUntil([this] {
    m_harness.Post(1);
    return Statistic("EventsOutgoing") >= 40;
  }));
  const Strings delivered = m_harness.Destination().Delivered();
  EXPECT_EQ(Strings(delivered.begin(), delivered.begin() + 40), Numbered(40, "cached "));
}

TEST_F(IncomingLoop, ChunkThatIsDueInThePassThatEmptiesTheCacheGoesToDiskThoughSendingIsPossible) {
  LeaveChunks(m_harness, 2);
  // The posted event ends the first pass at once, with the first cached chunk. The second pass
  // waits for six seconds; at its end the last cached chunk is handed over and the new one is due.
  m_harness.Start({{"DataProcessingPeriod", "6000000"}});
  m_harness.Post(1);
  ASSERT_TRUE(WaitForStatistic("EventDiskCacheAccepts", 1));
  EXPECT_EQ(Debugs("No remaining cached data."), 1u);
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 0);
  EXPECT_EQ(Debugs("Processing accepted for message block (near). (1 records)"), 0u);
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 5));
  EXPECT_EQ(m_harness.Destination().Delivered(),
            (Strings{"cached 0", "cached 1", "cached 2", "cached 3", "event 0"}));
}

TEST_F(IncomingLoop, APeriodWithoutEventsHandsNothingOverAndDoesNotCarryOver) {
  const auto start = std::chrono::steady_clock::now();
  m_harness.Start();
  // Into the second period: the first decision finds an empty chunk.
  EXPECT_FALSE(
      WaitUntil([this] { return Statistic("OutgoingHandlerAccepts") > 0; }, milliseconds(6500)));
  m_harness.Post(1);
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 1));
  EXPECT_GE(m_harness.Destination().Offers()[0].time - start, milliseconds(9980))
      << "the event waits for the end of the second period";
  EXPECT_EQ(Statistic("EventDiskCacheAccepts"), 0);
  ASSERT_TRUE(WaitForStatistic("OutgoingHandlerAccepts", 1));
  m_harness.Stop();
  m_harness.ExpectSum(0, 0);
}

TEST_F(IncomingLoop, ChunkThatTheCacheRefusesIsLostReleasedAndCounted) {
  m_harness.Disk().SetAnswer([](std::uint64_t) { return false; });
  m_harness.Start(NeverSend());
  m_harness.Post(3);
  ASSERT_TRUE(WaitForStatistic("MessagesLost", 3));
  EXPECT_EQ(Statistic("EventDiskCacheRejects"), 1);
  EXPECT_EQ(Statistic("EventDiskCacheAccepts"), 0);
  EXPECT_TRUE(m_harness.Log().Contains(
      LogLevel::Warn, kIncomingLogger,
      "Event cache rejected message block for persistance.  Messages lost (3)."));
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
  m_harness.Stop();
  m_harness.ExpectSum(0, 0);
}

TEST_F(IncomingLoop, ChunkWhoseFileCannotBeCreatedIsLostAndReleasedOnce) {
  m_harness.Start(NeverSend());
  Platform::TestFaults::SetHook([](Platform::TestFaults::FileCall call) {
    Platform::TestFaults::Fault fault;
    fault.error = call == Platform::TestFaults::FileCall::CreateFileW ? 5 : 0;
    return fault;
  });
  m_harness.Post(3);
  ASSERT_TRUE(WaitForStatistic("MessagesLost", 3));
  EXPECT_EQ(Statistic("EventDiskCacheRejects"), 1);
  EXPECT_EQ(m_harness.Log().Count(
                LogLevel::Warn,
                "Event cache rejected message block for persistance.  Messages lost (3)."),
            1u);
  EXPECT_TRUE(m_harness.Allocators().NothingAlive()) << "the allocator aborts on a second release";
  m_harness.Stop();
  m_harness.ExpectSum(0, 0);
}

TEST_F(IncomingLoop, FrontThatFailsHandsNothingOverAndKeepsTheChunk) {
  LeaveChunks(m_harness, 1);
  Platform::TestFaults::SetHook([](Platform::TestFaults::FileCall call) {
    Platform::TestFaults::Fault fault;
    fault.error = call == Platform::TestFaults::FileCall::ReadFile ? 1117 : 0;
    return fault;
  });
  m_harness.Start();
  m_harness.Post(1);
  ASSERT_TRUE(WaitForStatistic("EventDiskCacheAccepts", 1)) << "the due chunk goes behind it";
  EXPECT_EQ(Statistic("OutgoingHandlerAccepts"), 0);
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 0);
  EXPECT_EQ(m_harness.ChunkFiles(), 2u);
  Platform::TestFaults::Reset();
  ASSERT_TRUE(WaitForStatistic("EventsOutgoing", 3));
  EXPECT_EQ(m_harness.Destination().Delivered(), (Strings{"cached 0", "cached 1", "event 0"}));
}

TEST_F(IncomingLoop, StopBeforeTheChunkIsDueAbandonsIt) {
  m_harness.Start();
  m_harness.Post(3);
  ASSERT_TRUE(WaitUntil([this] {
    return StageTestAccess::Incoming(m_harness.Stage()).msg_queue()->message_count() == 0;
  })) << "the events are in the chunk, not in the queue";
  m_harness.Stop();
  ExpectGauges({{"ChunkEvents", 3}, {"ChunksNear", 0}, {"ChunksSpilled", 0}});
  EXPECT_EQ(m_harness.ChunkFiles(), 0u);
  EXPECT_TRUE(m_harness.Destination().Offers().empty());
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 6u) << "three events of two blocks";
  m_harness.ExpectSum(3, 0);
}

TEST_F(IncomingLoop, StopAfterTheChunkBecameDuePushesItToDisk) {
  // The stop must come between the moment at which the chunk's period has passed and the next look
  // at the clock. A processing period of a minute keeps the loop waiting in between.
  DiskThatWaits disk(m_harness);
  m_harness.Start({{"DataProcessingPeriod", "60000000"}});
  m_harness.Post(3);
  // Well after the deadline of five seconds, well before the minute is over.
  std::this_thread::sleep_for(seconds(8));
  std::thread stopper([this] { m_harness.Stop(); });
  EXPECT_TRUE(disk.AwaitQuestion());
  ExpectGauges({{"IncomingRunning", 1}});
  disk.Answer();
  stopper.join();
  ExpectGauges({{"IncomingRunning", 0},
                {"ChunkEvents", 0},
                {"ChunkAgeMilliseconds", 0},
                {"EventsSpilled", 3}});
  EXPECT_EQ(Statistic("EventDiskCacheAccepts"), 1);
  EXPECT_EQ(Debugs("Processing rejected for message block. Pushing to disk. (3 records)"), 1u);
  EXPECT_EQ(Statistic("OutgoingHandlerRejects"), 0);
  EXPECT_EQ(m_harness.ChunkFiles(), 1u);
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
  m_harness.ExpectSum(0, 3);
}

TEST_F(IncomingLoop, StopGoesAheadOfBlocksThatWaitInTheQueue) {
  DiskThatWaits disk(m_harness);
  m_harness.Start(NeverSend());
  m_harness.Post(1, "spilled ");
  ASSERT_TRUE(disk.AwaitQuestion());
  m_harness.Post(10, "queued ");
  std::thread stopper([this] { m_harness.Stop(); });
  ASSERT_TRUE(WaitUntil(
      [this] { return m_harness.Log().Contains(LogLevel::Info, kIncomingLogger, "Stopping..."); }));
  ASSERT_TRUE(WaitUntil([this] {
    return StageTestAccess::Incoming(m_harness.Stage()).msg_queue()->message_count() == 11;
  })) << "ten events and the hang-up";
  disk.Answer();
  stopper.join();
  EXPECT_EQ(StageTestAccess::Incoming(m_harness.Stage()).msg_queue()->message_count(), 10u)
      << "the hang-up was taken before them";
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 20u);
  EXPECT_EQ(m_harness.ChunkFiles(), 1u);
  m_harness.ExpectSum(10, 1);
}

TEST(IncomingQueue, WhatIsLeftAtAStopIsReleasedWithTheStage) {
  TestSupport::CountingAllocators allocators;
  {
    StageHarness harness;
    WindowsAgentCommon::SetMessageBlockAllocators(
        {&allocators.Blocks(), &allocators.DataBlocks(), &allocators.Buffers()});
    DiskThatWaits disk(harness);
    harness.Start({{"Schedule.Enable", "true"}, {"Schedule.Interval", "0000-2359;00;UTC"}});
    harness.Post(1, "spilled ");
    ASSERT_TRUE(disk.AwaitQuestion());
    harness.Post(10, "queued ");
    std::thread stopper([&] { harness.Stop(); });
    ASSERT_TRUE(WaitUntil([&] {
      return StageTestAccess::Incoming(harness.Stage()).msg_queue()->message_count() == 11;
    }));
    disk.Answer();
    stopper.join();
  }
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST_F(IncomingLoop, IntegerExceptionEndsTheThreadAbandonsTheChunkAndStopReturns) {
  m_harness.Disk().SetAnswer([](std::uint64_t) -> bool { throw 42; });
  m_harness.Start(NeverSend());
  m_harness.Post(3);
  ASSERT_TRUE(WaitUntil([this] { return Debugs("Stage thread exception 42.") == 1; }));
  ASSERT_TRUE(
      WaitUntil([this] { return Debugs("Thread exiting (StoreAndForwardIncoming).") == 1; }));
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 6u);
  m_harness.Post(2, "later ");
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 10u) << "the queue is no longer drained";
  m_harness.Stop();
  EXPECT_EQ(Debugs("Thread exiting (StoreAndForwardIncoming)."), 1u);
  m_harness.ExpectSum(5, 0);
}

TEST_F(IncomingLoop, PostersBlockAboveTheHighWaterMarkOnceAnIntegerExceptionEndedTheThread) {
  m_harness.Disk().SetAnswer([](std::uint64_t) -> bool { throw 42; });
  EnvironmentBlock settings = NeverSend();
  settings.emplace("QueueHighWaterMark", "1000");
  settings.emplace("QueueLowWaterMark", "500");
  m_harness.Start(settings);
  m_harness.Post(1);
  ASSERT_TRUE(
      WaitUntil([this] { return Debugs("Thread exiting (StoreAndForwardIncoming).") == 1; }));
  std::atomic<int> posted{0};
  std::thread poster([&] {
    for (int i = 0; i < 5; ++i) {
      m_harness.Post(1, std::string(300, 'x'));
      ++posted;
    }
  });
  ASSERT_TRUE(WaitUntil([&] { return posted == 4; }));
  EXPECT_FALSE(WaitUntil([&] { return posted == 5; }, milliseconds(500)));
  StageTestAccess::Incoming(m_harness.Stage()).msg_queue()->deactivate();
  poster.join();
}

TEST_F(IncomingLoop, StopReturnsAfterAnIntegerExceptionEvenWithAFullQueue) {
  m_harness.Disk().SetAnswer([](std::uint64_t) -> bool { throw 7; });
  EnvironmentBlock settings = NeverSend();
  settings.emplace("QueueHighWaterMark", "100");
  settings.emplace("QueueLowWaterMark", "50");
  m_harness.Start(settings);
  m_harness.Post(1);
  ASSERT_TRUE(
      WaitUntil([this] { return Debugs("Thread exiting (StoreAndForwardIncoming).") == 1; }));
  m_harness.Post(1, std::string(200, 'x'));
  m_harness.Stop();
}

using IncomingDeathTest = IncomingLoop;

TEST_F(IncomingDeathTest, ExceptionOfAnotherTypeIsNotCaught) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        m_harness.Disk().SetAnswer(
            [](std::uint64_t) -> bool { throw std::runtime_error("not an integer"); });
        m_harness.Start(NeverSend());
        m_harness.Post(1);
        WaitForStatistic("EventDiskCacheRejects", 1);
      },
      "not an integer");
}

}  // namespace
}  // namespace OrloStoreAndForward
