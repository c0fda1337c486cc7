#include "Agent/Source.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/Agent/BareStream.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace {

using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;

// Counts what comes out of a stream without stages, and may be told to refuse it.
class CountingDestination : public WindowsAgentCommon::OrloTask {
 public:
  explicit CountingDestination(std::atomic<int>& count) : m_count(count) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    ++m_count;
    return 0;
  }

 private:
  std::atomic<int>& m_count;
};

// Posts events one after the other on a thread of its own, until one is not taken.
class EagerSource : public OrloAgent::Source {
 public:
  ~EagerSource() override { Stop(); }
  std::vector<OrloAgent::EndCounter> GetCounters() const override { return {}; }

  using Source::GetGate;

 protected:
  void Begin(const std::string& streamName) override {
    m_log = WindowsAgentCommon::LoggerFactory::GetLog("Code.EagerSource." + streamName);
    m_stop = false;
    m_thread = std::thread([this] {
      OrloAgent::EventPoster poster(GetGate(), GetPostCounts(), m_log);
      const OrloAgent::EventHeaderTemplate header(OrloAgent::EventOrigin::Stdin,
                                                  std::string_view());
      while (poster.Post(header, 0, 0, "an event") && !m_stop) {
      }
    });
  }

  void End() override {
    m_stop = true;
    if (m_thread.joinable()) {
      m_thread.join();
    }
  }

 private:
  WindowsAgentCommon::Log m_log;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

class SourceTest : public testing::Test {
 protected:
  OrloStream::Stream& MakeStream(const std::wstring& name, std::atomic<int>& count) {
    return m_manager.Create(
        TestSupport::BareStream(std::make_unique<CountingDestination>(count), name));
  }

  OrloStream::StreamManager m_manager{"."};
};

TEST_F(SourceTest, APausedSourceGoesOnWithTheNextStreamAndNoEventIsLost) {
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  EagerSource source;
  OrloStream::Stream& before = MakeStream(L"A", first);
  source.Start(before);
  ASSERT_TRUE(WaitUntil([&] { return first > 1000; }));
  source.Pause();
  const int taken = first;
  m_manager.Remove(before);
  EXPECT_EQ(first, taken);
  source.Start(MakeStream(L"A", second));
  ASSERT_TRUE(WaitUntil([&] { return second > 1000; }));
  source.Stop();
  EXPECT_EQ(source.GetPosted(), static_cast<std::uint64_t>(taken + second));
  EXPECT_EQ(source.GetNotMade(), 0u);
}

TEST_F(SourceTest, APausedSourceThatIsStoppedGivesUpWhatWaitsAndCountsIt) {
  TestSupport::LogCapture log;
  std::atomic<int> count{0};
  EagerSource source;
  source.Start(MakeStream(L"A", count));
  ASSERT_TRUE(WaitUntil([&] { return count > 1000; }));
  source.Pause();
  ASSERT_TRUE(WaitUntil([&] { return source.GetGate().IsAwaited(); }));
  EXPECT_EQ(source.GetPosted(), static_cast<std::uint64_t>(count)) << "it can still be given up";
  source.Stop();
  EXPECT_EQ(source.GetPosted(), static_cast<std::uint64_t>(count));
  EXPECT_EQ(source.GetNotMade(), 1u);
  EXPECT_TRUE(log.Contains(LogLevel::Error, "Code.EagerSource.A",
                           "1 events were lost before they were queued: their stream is gone."));
}

TEST_F(SourceTest, WhatAPreparedSourceReadsWaitsUntilItIsStarted) {
  std::atomic<int> count{0};
  EagerSource source;
  source.Prepare("A");
  EXPECT_TRUE(source.HasBegun());
  ASSERT_TRUE(WaitUntil([&] { return source.GetGate().IsAwaited(); }));
  source.Start(MakeStream(L"A", count));
  ASSERT_TRUE(WaitUntil([&] { return count > 1000; }));
  source.Stop();
  EXPECT_EQ(source.GetPosted(), static_cast<std::uint64_t>(count));
  EXPECT_EQ(source.GetNotMade(), 0u);
}

TEST_F(SourceTest, PausingComesToAnEndWhileTheSourcePostsWithoutRest) {
  std::atomic<int> count{0};
  EagerSource source;
  OrloStream::Stream& stream = MakeStream(L"A", count);
  source.Start(stream);
  for (int i = 0; i < 200; ++i) {
    source.Pause();
    const int taken = count;
    std::this_thread::yield();
    ASSERT_EQ(count, taken);
    source.Start(stream);
  }
  source.Stop();
}

TEST_F(SourceTest, ASourceThatWasStoppedBeginsAnew) {
  std::atomic<int> count{0};
  EagerSource source;
  OrloStream::Stream& stream = MakeStream(L"A", count);
  source.Start(stream);
  source.Stop();
  EXPECT_FALSE(source.HasBegun());
  const int taken = count;
  source.Start(stream);
  EXPECT_TRUE(WaitUntil([&] { return count > taken; }));
}

}  // namespace
