#include "Agent/BufferedWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/Events.h"

namespace {

using OrloAgent::BufferedWriter;
using OrloAgent::BufferedWriterOptions;
using OrloAgent::IChannel;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using TestSupport::WaitUntil;

// What the channel does and what came over it. Outlives the writer.
struct Script {
  std::mutex lock;
  IChannel::Readiness readiness = IChannel::Readiness::Ready;
  // How many more bytes are taken before it takes none; then whether it breaks.
  std::size_t room = ~std::size_t{0};
  bool breaksWhenFull = false;
  std::string written;
  std::vector<std::string> connections;
  std::vector<bool> atFrameStart;
  unsigned writes = 0;
  bool closed = false;

  template <typename Change>
  void Set(Change change) {
    const std::lock_guard guard(lock);
    change(*this);
  }
  std::string Written() {
    const std::lock_guard guard(lock);
    return written;
  }
};

class ScriptedChannel : public IChannel {
 public:
  explicit ScriptedChannel(Script& script) : m_script(script) {}

  Readiness Prepare(bool atFrameStart) override {
    const std::lock_guard guard(m_script.lock);
    m_script.atFrameStart.push_back(atFrameStart);
    const Readiness readiness = m_script.readiness;
    if (readiness == Readiness::ReadyAnew) {
      m_script.connections.push_back(std::exchange(m_script.written, ""));
      m_script.readiness = Readiness::Ready;
    }
    return readiness;
  }

  WriteResult Write(std::string_view bytes, milliseconds patience) override {
    std::unique_lock guard(m_script.lock);
    ++m_script.writes;
    WriteResult result;
    result.written = std::min(bytes.size(), m_script.room);
    m_script.room -= result.written;
    m_script.written += bytes.substr(0, result.written);
    result.broken = m_script.breaksWhenFull && result.written < bytes.size();
    if (result.broken) {
      m_script.readiness = Readiness::NotReady;
    }
    guard.unlock();
    if (result.written == 0 && !result.broken) {
      std::this_thread::sleep_for(patience);
    }
    return result;
  }

  void Close() override {
    m_script.Set([](Script& script) { script.closed = true; });
  }

 private:
  Script& m_script;
};

class BufferedWriterTest : public testing::Test {
 protected:
  std::unique_ptr<BufferedWriter> Make(BufferedWriterOptions options) {
    return std::make_unique<BufferedWriter>(std::make_unique<ScriptedChannel>(m_script), options);
  }

  // Everything waits for the test: no flusher, no threshold.
  static BufferedWriterOptions Quiet() {
    BufferedWriterOptions options;
    options.capacity = 16;
    options.flushSize = 1000;
    options.sendTimeout = milliseconds(50);
    options.stopTimeout = milliseconds(50);
    return options;
  }

  static bool Append(BufferedWriter& writer, std::string_view frame) {
    return writer.Append(&frame, 1);
  }

  Script m_script;
};

TEST_F(BufferedWriterTest, ASingleFrameLeavesWithoutAnotherOneComing) {
  auto writer = Make({});
  writer->Start();
  ASSERT_TRUE(Append(*writer, "hello\n"));
  EXPECT_TRUE(WaitUntil([&] { return m_script.Written() == "hello\n"; }));
  EXPECT_TRUE(WaitUntil([&] { return writer->GetUnsentFrames() == 0; }));
}

TEST_F(BufferedWriterTest, ManyFramesLeaveWithFewWrites) {
  auto writer = Make({});
  writer->Start();
  std::string expected;
  for (int i = 0; i < 20'000; ++i) {
    const std::string frame = std::to_string(i) + "\n";
    ASSERT_TRUE(Append(*writer, frame));
    expected += frame;
  }
  writer->Stop();
  EXPECT_EQ(m_script.Written(), expected);
  EXPECT_LT(m_script.writes, 5'000u);
}

TEST_F(BufferedWriterTest, AFullEnoughBufferIsWrittenAtOnce) {
  BufferedWriterOptions options = Quiet();
  options.flushSize = 10;
  auto writer = Make(options);
  EXPECT_TRUE(Append(*writer, "abcd"));
  EXPECT_EQ(m_script.Written(), "");
  EXPECT_EQ(writer->GetUnsentFrames(), 1u);
  EXPECT_TRUE(Append(*writer, "efghij"));
  EXPECT_EQ(m_script.Written(), "abcdefghij");
  EXPECT_EQ(writer->GetUnsentFrames(), 0u);
}

TEST_F(BufferedWriterTest, AChannelThatIsNotReadyTakesNoFrame) {
  m_script.readiness = IChannel::Readiness::NotReady;
  auto writer = Make(Quiet());
  EXPECT_FALSE(Append(*writer, "abc"));
  EXPECT_EQ(writer->GetUnsentFrames(), 0u);
  m_script.Set([](Script& script) { script.readiness = IChannel::Readiness::Ready; });
  EXPECT_TRUE(Append(*writer, "abc"));
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "abc");
}

TEST_F(BufferedWriterTest, AFrameThatFindsNoRoomIsRefusedAfterTheTimeoutAndNotKept) {
  m_script.room = 0;
  auto writer = Make(Quiet());
  ASSERT_TRUE(Append(*writer, "0123456789"));
  const auto begin = steady_clock::now();
  EXPECT_FALSE(Append(*writer, "abcdefghij"));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(50));
  EXPECT_EQ(writer->GetUnsentFrames(), 1u);
  m_script.Set([](Script& script) { script.room = 1000; });
  EXPECT_TRUE(Append(*writer, "abcdefghij"));
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "0123456789abcdefghij");
}

TEST_F(BufferedWriterTest, AFrameWaitsForRoomThatComesInTime) {
  m_script.room = 4;
  BufferedWriterOptions options = Quiet();
  options.sendTimeout = std::chrono::seconds(60);
  auto writer = Make(options);
  ASSERT_TRUE(Append(*writer, "0123456789"));
  std::thread reader([&] {
    WaitUntil([&] { return m_script.Written().size() == 4; });
    m_script.Set([](Script& script) { script.room = 1000; });
  });
  EXPECT_TRUE(Append(*writer, "abcdefghij"));
  reader.join();
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "0123456789abcdefghij");
}

TEST_F(BufferedWriterTest, APartialWriteIsCompletedOnTheSameChannel) {
  m_script.room = 5;
  auto writer = Make(Quiet());
  ASSERT_TRUE(Append(*writer, "abc"));
  ASSERT_TRUE(Append(*writer, "defgh"));
  EXPECT_FALSE(Append(*writer, "0123456789ab"));
  EXPECT_EQ(m_script.Written(), "abcde");
  EXPECT_EQ(writer->GetUnsentFrames(), 1u);
  m_script.Set([](Script& script) { script.room = 1000; });
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "abcdefgh");
  EXPECT_FALSE(m_script.atFrameStart.back()) << "the channel is told that a frame is unfinished";
}

TEST_F(BufferedWriterTest, AfterABreakTheIncompleteFrameStartsAgainOnTheNextChannel) {
  m_script.room = 5;
  m_script.breaksWhenFull = true;
  auto writer = Make(Quiet());
  ASSERT_TRUE(Append(*writer, "abc"));
  ASSERT_TRUE(Append(*writer, "defgh"));
  ASSERT_TRUE(Append(*writer, "ij"));
  EXPECT_FALSE(Append(*writer, "0123456789"));
  EXPECT_EQ(writer->GetUnsentFrames(), 2u);
  EXPECT_FALSE(Append(*writer, "k")) << "nothing is taken while the channel is away";
  m_script.Set([](Script& script) {
    script.room = 1000;
    script.readiness = IChannel::Readiness::ReadyAnew;
  });
  EXPECT_TRUE(Append(*writer, "k"));
  writer->Stop();
  EXPECT_EQ(m_script.connections, (std::vector<std::string>{"abcde"}));
  EXPECT_EQ(m_script.Written(), "defghijk");
  EXPECT_EQ(writer->GetUnsentFrames(), 0u);
}

TEST_F(BufferedWriterTest, AChannelThatChangesBetweenTwoWritesGetsTheIncompleteFrameWhole) {
  m_script.room = 5;
  auto writer = Make(Quiet());
  ASSERT_TRUE(Append(*writer, "abcdefgh"));
  EXPECT_FALSE(Append(*writer, "0123456789"));
  EXPECT_EQ(m_script.Written(), "abcde");
  m_script.Set([](Script& script) {
    script.room = 1000;
    script.readiness = IChannel::Readiness::ReadyAnew;
  });
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "abcdefgh");
}

TEST_F(BufferedWriterTest, TheFlusherBringsWhatIsBufferedAcrossABreak) {
  m_script.room = 0;
  m_script.breaksWhenFull = true;
  auto writer = Make({});
  writer->Start();
  ASSERT_TRUE(Append(*writer, "abc"));
  ASSERT_TRUE(WaitUntil([&] {
    const std::lock_guard guard(m_script.lock);
    return m_script.readiness == IChannel::Readiness::NotReady;
  }));
  m_script.Set([](Script& script) {
    script.room = 1000;
    script.readiness = IChannel::Readiness::ReadyAnew;
  });
  EXPECT_TRUE(WaitUntil([&] { return m_script.Written() == "abc"; }));
}

TEST_F(BufferedWriterTest, WhatStopCannotWriteStaysCountedAsUnsent) {
  m_script.room = 4;
  auto writer = Make(Quiet());
  ASSERT_TRUE(Append(*writer, "abc"));
  ASSERT_TRUE(Append(*writer, "def"));
  ASSERT_TRUE(Append(*writer, "ghi"));
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "abcd");
  EXPECT_EQ(writer->GetUnsentFrames(), 2u);
  EXPECT_TRUE(m_script.closed);
  EXPECT_FALSE(Append(*writer, "x"));
}

TEST_F(BufferedWriterTest, RefuseEndsAnAppendThatWaits) {
  m_script.room = 0;
  BufferedWriterOptions options = Quiet();
  options.sendTimeout = std::chrono::hours(1);
  auto writer = Make(options);
  ASSERT_TRUE(Append(*writer, "0123456789"));
  std::thread refuser([&] {
    WaitUntil([&] {
      const std::lock_guard guard(m_script.lock);
      return m_script.writes > 0;
    });
    writer->Refuse();
  });
  EXPECT_FALSE(Append(*writer, "abcdefghij"));
  refuser.join();
  EXPECT_FALSE(Append(*writer, "k"));
}

TEST_F(BufferedWriterTest, AFrameLargerThanTheBufferPassesInItsTurn) {
  auto writer = Make(Quiet());
  const std::string large(1000, 'x');
  ASSERT_TRUE(Append(*writer, "abc"));
  ASSERT_TRUE(Append(*writer, large));
  ASSERT_TRUE(Append(*writer, "def"));
  writer->Stop();
  EXPECT_EQ(m_script.Written(), "abc" + large + "def");
}

TEST_F(BufferedWriterTest, AnEmptyFrameIsTakenAndLeavesNothingBehind) {
  auto writer = Make(Quiet());
  EXPECT_TRUE(Append(*writer, ""));
  EXPECT_EQ(writer->GetUnsentFrames(), 0u);
}

}  // namespace
