#include "OrloStream/StreamStageBase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/CountingAllocators.h"
#include "tests/support/Events.h"
#include "tests/support/RecordingStatistics.h"

namespace OrloStream {
namespace {

using TestSupport::MakeEvent;
using WindowsAgentCommon::IStatisticsServer;
using WindowsAgentCommon::ServiceRegistration;

class TestProfile final : public StreamStageBaseStatisticsProfile {};

class TestStage : public StreamStageBase {
 public:
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override { ++calls; }
  void Stop() override { ++calls; }
  std::string GetVersionString() override { return "v1"; }
  std::string GetStageName() override { return "TestStage"; }

  Status ProcessMessage(ACE_Message_Block* block) override {
    const std::lock_guard guard(lock);
    entries.push_back(TestSupport::PayloadOf(block));
    threads.push_back(std::this_thread::get_id());
    references = block->reference_count();
    if (throws) {
      throw std::runtime_error("failed");
    }
    if (keeps) {
      kept = block->duplicate();
    }
    return Status(result);
  }

  void OnBeginThread() override {
    const std::lock_guard guard(lock);
    entries.push_back("begin");
  }
  void OnFinishThread() override {
    const std::lock_guard guard(lock);
    entries.push_back("finish");
  }

  void CreateStatisticsProfile(std::shared_ptr<StreamStageBaseStatisticsProfile>& target) override {
    target = profile;
  }
  void CreateBaseProfile(std::shared_ptr<StreamStageBaseStatisticsProfile>& target) {
    StreamStageBase::CreateStatisticsProfile(target);
  }

  std::mutex lock;
  std::vector<std::string> entries;
  std::vector<std::thread::id> threads;
  std::uint32_t result = 0;
  int references = 0;
  bool throws = false;
  bool keeps = false;
  ACE_Message_Block* kept = nullptr;
  int calls = 0;
  std::shared_ptr<TestProfile> profile;
};

class StreamStageBaseTest : public testing::Test {
 protected:
  ~StreamStageBaseTest() override { EXPECT_TRUE(m_allocators.NothingAlive()); }

  void InitializeProfile() {
    m_stage.profile = std::make_shared<TestProfile>();
    m_stage.profile->Initialize();
  }
  std::vector<std::int64_t> Rejections() {
    return m_server->Find("StreamStage")->IntegerUpdates("MessagesRejected");
  }
  void PutHangup() { m_stage.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)); }

  TestSupport::CountingAllocators m_allocators;
  std::shared_ptr<TestSupport::RecordingServer> m_server =
      std::make_shared<TestSupport::RecordingServer>();
  ServiceRegistration m_registration{IStatisticsServer::GetServiceName(), m_server};
  TestStage m_stage;
};

TEST_F(StreamStageBaseTest, PutProcessesOnTheCallersThreadAndReleases) {
  EXPECT_EQ(m_stage.put(MakeEvent("h", "one")), 0);
  EXPECT_EQ(m_stage.entries, std::vector<std::string>{"one"});
  EXPECT_EQ(m_stage.threads, std::vector<std::thread::id>{std::this_thread::get_id()});
  EXPECT_EQ(m_stage.references, 1);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(StreamStageBaseTest, AStageThatKeepsTheBlockHasAReferenceOfItsOwn) {
  m_stage.keeps = true;
  m_stage.put(MakeEvent("h", "one"));
  ASSERT_NE(m_stage.kept, nullptr);
  EXPECT_EQ(m_stage.kept->reference_count(), 1);
  EXPECT_EQ(TestSupport::PayloadOf(m_stage.kept), "one");
  m_stage.kept->release();
}

TEST_F(StreamStageBaseTest, PutReturnsTheStatusWordAsInt) {
  m_stage.result = 0x40000000u;
  EXPECT_EQ(m_stage.put(MakeEvent("h", "one")), 0x40000000);
  m_stage.result = 0x80000000u;
  EXPECT_LT(m_stage.put(MakeEvent("h", "one")), 0);
  m_stage.result = 5;
  EXPECT_EQ(m_stage.put(MakeEvent("h", "one")), 5);
}

TEST_F(StreamStageBaseTest, PutDoesNotUseTheTimeout) {
  ACE_Time_Value past(1);
  EXPECT_EQ(m_stage.put(MakeEvent("h", "one"), &past), 0);
  EXPECT_EQ(m_stage.entries.size(), 1u);
}

TEST_F(StreamStageBaseTest, AnExceptionGoesOnToThePosterAndTheBlockIsReleased) {
  m_stage.throws = true;
  EXPECT_THROW(m_stage.put(MakeEvent("h", "one")), std::runtime_error);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(StreamStageBaseTest, OnlyFailedMessagesAreCountedAsRejected) {
  InitializeProfile();
  for (const std::uint32_t result : {0u, 0x40000000u, 0x80000000u, 1u, 0xC0000000u}) {
    m_stage.result = result;
    m_stage.put(MakeEvent("h", "one"));
  }
  EXPECT_EQ(Rejections(), (std::vector<std::int64_t>{1, 2}));
}

TEST_F(StreamStageBaseTest, AFailedMessageOfAStageWithoutAProfileIsJustFailed) {
  m_stage.result = 0x80000000u;
  EXPECT_LT(m_stage.put(MakeEvent("h", "one")), 0);
}

TEST_F(StreamStageBaseTest, FailuresOfSeveralPostersAreAllCounted) {
  InitializeProfile();
  m_stage.result = 0x80000000u;
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        m_stage.put(MakeEvent("h", "one"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(Rejections().back(), 1000);
}

TEST_F(StreamStageBaseTest, OpeningAndClosingStartsAndStopsNothing) {
  EXPECT_EQ(m_stage.open(nullptr), 0);
  EXPECT_EQ(m_stage.module_closed(), 0);
  EXPECT_EQ(m_stage.calls, 0);
  EXPECT_EQ(m_stage.thr_count(), 0u);
  EXPECT_TRUE(m_stage.entries.empty());
}

TEST_F(StreamStageBaseTest, TheBaseHasNoProfiles) {
  InitializeProfile();
  std::shared_ptr<StreamStageBaseStatisticsProfile> profile = m_stage.profile;
  m_stage.CreateBaseProfile(profile);
  EXPECT_EQ(profile, nullptr);
  profile = m_stage.profile;
  m_stage.CreateStageThreadStatisticsProfile(profile);
  EXPECT_EQ(profile, nullptr);
}

TEST_F(StreamStageBaseTest, TheParentStreamsNameIsKept) {
  EXPECT_EQ(m_stage.GetParentStreamName(), L"");
  m_stage.SetParentStreamName(L"Str\u00f6m");
  EXPECT_EQ(m_stage.GetParentStreamName(), L"Str\u00f6m");
}

TEST_F(StreamStageBaseTest, AThreadOfTheStageProcessesItsQueueUntilTheHangup) {
  m_stage.putq(MakeEvent("h", "one"));
  m_stage.putq(MakeEvent("h", "two"));
  PutHangup();
  m_stage.putq(MakeEvent("h", "never"));
  ASSERT_EQ(m_stage.activate(THR_NEW_LWP | THR_JOINABLE), 0);
  m_stage.wait();
  EXPECT_EQ(m_stage.entries, (std::vector<std::string>{"begin", "one", "two", "finish"}));
  EXPECT_NE(m_stage.threads.at(0), std::this_thread::get_id());
  m_stage.flush();
}

TEST_F(StreamStageBaseTest, AThreadOfTheStageEndsWhenItsQueueIsDeactivated) {
  ASSERT_EQ(m_stage.activate(THR_NEW_LWP | THR_JOINABLE), 0);
  EXPECT_TRUE(TestSupport::WaitUntil([&] {
    const std::lock_guard guard(m_stage.lock);
    return !m_stage.entries.empty();
  }));
  m_stage.msg_queue()->deactivate();
  m_stage.wait();
  EXPECT_EQ(m_stage.entries, (std::vector<std::string>{"begin", "finish"}));
}

TEST_F(StreamStageBaseTest, FailuresOnAThreadOfTheStageAreCountedToo) {
  InitializeProfile();
  m_stage.result = 0x80000000u;
  m_stage.putq(MakeEvent("h", "one"));
  PutHangup();
  ASSERT_EQ(m_stage.activate(THR_NEW_LWP | THR_JOINABLE), 0);
  m_stage.wait();
  EXPECT_EQ(Rejections(), std::vector<std::int64_t>{1});
}

}  // namespace
}  // namespace OrloStream
