#include "StoreAndForward/StoreAndForwardStage.h"

#include <ace/DLL.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/StoreAndForward/StageHarness.h"

namespace OrloStoreAndForward {

namespace {

using std::chrono::milliseconds;
using TestSupport::WaitUntil;
using WindowsAgentCommon::InitializationException;
using WindowsAgentCommon::LogLevel;

TEST(Stage, SaysItsNameAndVersion) {
  StoreAndForwardStage stage;
  EXPECT_EQ(stage.GetVersionString(), "StoreAndForwardStage Stream Stage v7.2.5");
  EXPECT_EQ(stage.GetStageName(), "StoreAndForwardStage");
}

TEST(Stage, GivesTheSameStatisticsProfileTwice) {
  StoreAndForwardStage stage;
  std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile> first;
  std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile> second;
  stage.CreateStatisticsProfile(first);
  stage.CreateStatisticsProfile(second);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_NE(dynamic_cast<StoreAndForwardStatisticsProfile*>(first.get()), nullptr);
}

TEST(Stage, StartsOutgoingBeforeIncomingAndStopsThemTheOtherWayRound) {
  StageHarness harness;
  harness.Start();
  harness.Stop();
  std::vector<std::string> lives;
  for (const TestSupport::LogLine& line : harness.Log().Lines()) {
    if (line.text == "Started" || line.text == "Stopping...") {
      lives.push_back(line.logger + " " + line.text);
    }
  }
  EXPECT_EQ(lives, (std::vector<std::string>{
                       kOutgoingLogger + " Started", kIncomingLogger + " Started",
                       kIncomingLogger + " Stopping...", kOutgoingLogger + " Stopping..."}));
}

// A stage whose Incoming thread is kept away from its queue: it waits for the disk manager's
// answer.
class StageWithHeldQueue : public testing::Test {
 protected:
  StageWithHeldQueue() {
    m_harness.Disk().SetAnswer([this](std::uint64_t) {
      m_asked = true;
      WaitUntil([this] { return m_answer.load(); });
      return true;
    });
    m_harness.Start({{"Schedule.Enable", "true"},
                     {"Schedule.Interval", "0000-2359;00;UTC"},
                     {"QueueHighWaterMark", "1000"},
                     {"QueueLowWaterMark", "500"}});
    m_harness.Post(1, "first ");
    EXPECT_TRUE(WaitUntil([this] { return m_asked.load(); }));
  }
  ~StageWithHeldQueue() override {
    m_answer = true;
    m_harness.Stop();
  }

  ACE_Message_Queue<ACE_MT_SYNCH>& Queue() {
    return *StageTestAccess::Incoming(m_harness.Stage()).msg_queue();
  }

  std::atomic<bool> m_asked{false};
  std::atomic<bool> m_answer{false};
  StageHarness m_harness;
};

TEST_F(StageWithHeldQueue, PosterWaitsAboveTheHighWaterMarkUntilTheQueueIsDownToTheLowOne) {
  std::atomic<int> posted{0};
  std::thread poster([&] {
    for (int i = 0; i < 5; ++i) {
      m_harness.Post(1, std::string(300, 'x'));
      ++posted;
    }
  });
  // Of about 300 bytes each, the fourth brings the queue above its mark; the fifth has to wait.
  EXPECT_TRUE(WaitUntil([&] { return posted == 4; }));
  EXPECT_FALSE(WaitUntil([&] { return posted == 5; }, milliseconds(500)));
  const auto takeOne = [this] {
    ACE_Message_Block* block = nullptr;
    ASSERT_NE(Queue().dequeue_head(block), -1);
    block->release();
  };
  takeOne();
  takeOne();
  EXPECT_GT(Queue().message_bytes(), 500u);
  EXPECT_FALSE(WaitUntil([&] { return posted == 5; }, milliseconds(500)))
      << "below the high mark, above the low one";
  takeOne();
  EXPECT_TRUE(WaitUntil([&] { return posted == 5; }));
  poster.join();
}

TEST_F(StageWithHeldQueue, PostIsCountedAfterItWasQueued) {
  std::size_t queuedAtUpdate = 0;
  m_harness.Group("StoreAndForwardStage").OnUpdate([&](const std::string&) {
    queuedAtUpdate = Queue().message_count();
  });
  m_harness.Post(1);
  EXPECT_EQ(queuedAtUpdate, 1u);
}

TEST(Stage, BlockThatCannotBeQueuedFailsAndIsCounted) {
  StageHarness harness;
  harness.Start();
  ASSERT_TRUE(
      WaitUntil([&] { return harness.Log().Count(LogLevel::Info, "Thread running...") == 1; }));
  StageTestAccess::Incoming(harness.Stage()).msg_queue()->deactivate();
  harness.Log().Clear();
  ACE_Message_Block* const event = TestSupport::MakeEvent("head", "payload");
  const OrloStream::Status status = harness.Stage().ProcessMessage(event);
  EXPECT_EQ(status.GetWord(), 0x80000000u);
  EXPECT_EQ(harness.Statistic("TotalEventsPosted"), 1);
  EXPECT_EQ(harness.Statistic("TotalEventsFailedToQueue"), 1);
  // The caller's own reference is as it was; only the duplicate has gone.
  EXPECT_EQ(event->reference_count(), 1);
  EXPECT_EQ(TestSupport::PayloadOf(event), "payload");
  EXPECT_EQ(harness.Allocators().BlocksAlive(), 2u);
  event->release();
  EXPECT_TRUE(harness.Allocators().NothingAlive());
  EXPECT_TRUE(harness.Log().Lines().empty()) << "nothing is logged";
  harness.ExpectSum(0, 0);
}

TEST(Stage, PutReturnsAFailureAsANegativeNumber) {
  StageHarness harness;
  harness.Start();
  StageTestAccess::Incoming(harness.Stage()).msg_queue()->deactivate();
  EXPECT_EQ(harness.Post(3), 3u);
  EXPECT_EQ(harness.Statistic("TotalEventsPosted"), 3);
  EXPECT_EQ(harness.Statistic("TotalEventsFailedToQueue"), 3);
  EXPECT_TRUE(harness.Allocators().NothingAlive());
}

TEST(Stage, StopEndsAProcessorWhoseQueueWasDeactivated) {
  StageHarness harness;
  harness.Start();
  StageTestAccess::Incoming(harness.Stage()).msg_queue()->deactivate();
  StageTestAccess::Outgoing(harness.Stage()).msg_queue()->deactivate();
  harness.Stop();
  EXPECT_EQ(StageTestAccess::Incoming(harness.Stage()).thr_count(), 0u);
  EXPECT_EQ(StageTestAccess::Outgoing(harness.Stage()).thr_count(), 0u);
}

TEST(Stage, BlockForWhichThereIsNoMemoryFailsAndIsCounted) {
  StageHarness harness;
  harness.Start();
  ACE_Message_Block* const event = TestSupport::MakeEvent("head", "payload");
  harness.Allocators().Blocks().FailAfter(0);
  const OrloStream::Status status = harness.Stage().ProcessMessage(event);
  harness.Allocators().Blocks().FailAfter(-1);
  EXPECT_TRUE(status.Failed());
  EXPECT_EQ(harness.Statistic("TotalEventsPosted"), 1);
  EXPECT_EQ(harness.Statistic("TotalEventsFailedToQueue"), 1);
  event->release();
  EXPECT_TRUE(harness.Allocators().NothingAlive());
}

TEST(Stage, QueuedBlockIsADuplicateAndTheCallerKeepsItsOwn) {
  StageHarness harness;
  harness.Start();
  ACE_Message_Block* const event = TestSupport::MakeEvent("head", "payload");
  EXPECT_EQ(harness.Stage().ProcessMessage(event).GetWord(), 0u);
  EXPECT_EQ(harness.Statistic("TotalEventsPosted"), 1);
  EXPECT_EQ(harness.Statistic("TotalEventsFailedToQueue"), 0);
  EXPECT_EQ(event->reference_count(), 2);
  event->release();
}

TEST(Stage, FailedIncomingLeavesOutgoingRunningAndStopEndsIt) {
  StageHarness harness;
  std::filesystem::create_directories(harness.CacheDirectory().parent_path());
  std::ofstream(harness.CacheDirectory()) << "a file in the way";
  EXPECT_THROW(harness.Start(), InitializationException);
  EXPECT_TRUE(StageTestAccess::Outgoing(harness.Stage()).CanAccept());
  EXPECT_EQ(StageTestAccess::Incoming(harness.Stage()).thr_count(), 0u);
  harness.Stop();
  EXPECT_FALSE(StageTestAccess::Outgoing(harness.Stage()).CanAccept());
  EXPECT_FALSE(harness.Log().Contains(LogLevel::Info, kIncomingLogger, "Stopping..."));
  EXPECT_TRUE(harness.Log().Contains(LogLevel::Info, kOutgoingLogger, "Stopping..."));
}

TEST(Stage, FailedOutgoingLeavesIncomingWithoutAThreadAndStopDoesNothing) {
  StageHarness harness;
  harness.Statistics().OnCreate([](const std::string& group) {
    if (group == "StoreAndForwardOutgoing") {
      throw InitializationException("file", "function", 1, "no group");
    }
  });
  EXPECT_THROW(harness.Start(), InitializationException);
  EXPECT_EQ(StageTestAccess::Incoming(harness.Stage()).thr_count(), 0u);
  EXPECT_FALSE(StageTestAccess::Outgoing(harness.Stage()).CanAccept());
  harness.Stop();
  EXPECT_EQ(harness.Log().Count(LogLevel::Info, "Stopping..."), 0u);
}

TEST(Stage, StopBeforeInitializeDoesNothing) {
  StageHarness harness;
  harness.Stop();
  EXPECT_TRUE(harness.Log().Lines().empty());
}

TEST(Stage, SeveralPostersKeepTheirOwnOrder) {
  StageHarness harness;
  harness.Start();
  constexpr std::size_t kPosters = 4;
  constexpr std::size_t kEvents = 2000;
  std::vector<std::thread> posters;
  for (std::size_t poster = 0; poster < kPosters; ++poster) {
    posters.emplace_back(
        [&harness, poster] { harness.Post(kEvents, std::to_string(poster) + ":"); });
  }
  for (std::thread& poster : posters) {
    poster.join();
  }
  ASSERT_TRUE(WaitUntil([&] { return harness.Statistic("EventsOutgoing") == kPosters * kEvents; }));
  std::vector<std::size_t> next(kPosters, 0);
  for (const std::string& payload : harness.Destination().Delivered()) {
    const std::size_t poster = static_cast<std::size_t>(payload[0] - '0');
    EXPECT_EQ(payload, std::to_string(poster) + ":" + std::to_string(next[poster]));
    ++next[poster];
  }
  harness.Stop();
  EXPECT_EQ(harness.Statistic("TotalEventsPosted"), static_cast<std::int64_t>(kPosters * kEvents));
  harness.ExpectSum(0, 0);
  EXPECT_TRUE(harness.Allocators().NothingAlive());
}

// ---- Module -------------------------------------------------------------------------------------

using Module = ACE_Module<ACE_MT_SYNCH>;

class LoadedModule : public testing::Test {
 protected:
  Module* Make() {
    EXPECT_EQ(m_library.open(ORLO_STAGE_MODULE, ACE_DEFAULT_SHLIB_MODE, false), 0);
    using Factory = Module* (*)();
    const auto make = reinterpret_cast<Factory>(
        reinterpret_cast<std::intptr_t>(m_library.symbol("make_StoreAndForwardStage")));
    EXPECT_NE(make, nullptr);
    return make == nullptr ? nullptr : make();
  }

  ACE_DLL m_library;
};

TEST_F(LoadedModule, FactoryGivesANewModuleOfTheStagesName) {
  const std::unique_ptr<Module> first(Make());
  const std::unique_ptr<Module> second(Make());
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_STREQ(first->name(), ACE_TEXT("StoreAndForwardStage"));
  EXPECT_EQ(first->arg(), nullptr);
}

TEST_F(LoadedModule, WriterIsTheStageAndReaderPassesThrough) {
  const std::unique_ptr<Module> module(Make());
  auto* const stage = dynamic_cast<OrloStream::StreamStageBase*>(module->writer());
  ASSERT_NE(stage, nullptr);
  EXPECT_EQ(stage->GetVersionString(), "StoreAndForwardStage Stream Stage v7.2.5");
  EXPECT_NE(dynamic_cast<ACE_Thru_Task<ACE_MT_SYNCH>*>(module->reader()), nullptr);
}

TEST_F(LoadedModule, ModuleDeletesTheStageWhenItIsClosed) {
  const std::unique_ptr<Module> module(Make());
  auto* const stage = dynamic_cast<OrloStream::StreamStageBase*>(module->writer());
  ASSERT_NE(stage, nullptr);
  std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile> profile;
  stage->CreateStatisticsProfile(profile);
  const std::weak_ptr<OrloStream::StreamStageBaseStatisticsProfile> ownedByStage = profile;
  profile.reset();
  ASSERT_FALSE(ownedByStage.expired());
  module->close();
  EXPECT_TRUE(ownedByStage.expired());
}

}  // namespace
}  // namespace OrloStoreAndForward
