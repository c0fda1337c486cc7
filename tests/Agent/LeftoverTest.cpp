#include "Agent/Leftover.h"

#include <gtest/gtest.h>

#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace {

using OrloAgent::Leftover;
using OrloAgent::StreamOptions;
using TestSupport::MakeEvent;
using TestSupport::PayloadOf;
using WindowsAgentCommon::LogLevel;
using WindowsAgentCommon::MessageBlockPtr;

struct Calls {
  bool refused = false;
  bool stopped = false;
  bool destroyed = false;
};

// Has sent nothing, and may be unable to give all of it back.
class FullDestination : public OrloAgent::Destination {
 public:
  FullDestination(Calls& calls, std::uint64_t unsent) : m_calls(calls), m_unsent(unsent) {}
  ~FullDestination() override { m_calls.destroyed = true; }
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override { m_calls.stopped = true; }
  void Refuse() override { m_calls.refused = true; }
  std::uint64_t GetUnsentEvents() const override { return m_unsent; }
  std::uint64_t GetSentEvents() const override { return 0; }
  std::vector<MessageBlockPtr> TakeUnsent() override {
    std::vector<MessageBlockPtr> events;
    events.emplace_back(MakeEvent("", "unsent"));
    return events;
  }

 private:
  Calls& m_calls;
  const std::uint64_t m_unsent;
};

StreamOptions ToFile(const char* path) {
  StreamOptions options;
  options.name = "S";
  options.destination = OrloAgent::FileDestinationOptions{path, {}};
  return options;
}

class LeftoverTest : public testing::Test {
 protected:
  void Leave(std::uint64_t unsent) {
    m_left.madeFrom = ToFile("a");
    m_left.destination = std::make_unique<FullDestination>(m_calls, unsent);
    m_left.events.emplace_back(MakeEvent("", "kept"));
  }

  TestSupport::LogCapture m_log;
  Calls m_calls;
  Leftover m_left;
};

TEST_F(LeftoverTest, ADestinationThatGoesOnIsLeftAlone) {
  Leave(1);
  const StreamOptions same = ToFile("a");
  m_left.StopDestination(&same);
  EXPECT_FALSE(m_calls.refused);
  EXPECT_FALSE(m_calls.stopped);
  EXPECT_NE(m_left.destination, nullptr);
  EXPECT_EQ(m_left.events.size(), 1u);
}

TEST_F(LeftoverTest, WhatADestinationThatEndsHasNotSentComesFirst) {
  Leave(1);
  const StreamOptions other = ToFile("b");
  m_left.StopDestination(&other);
  EXPECT_TRUE(m_calls.refused);
  EXPECT_TRUE(m_calls.stopped);
  EXPECT_TRUE(m_calls.destroyed);
  ASSERT_EQ(m_left.events.size(), 2u);
  EXPECT_EQ(PayloadOf(m_left.events[0].get()), "unsent");
  EXPECT_EQ(PayloadOf(m_left.events[1].get()), "kept");
  EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(LeftoverTest, WhatADestinationCannotGiveBackIsReported) {
  Leave(3);
  m_left.StopDestination(nullptr);
  EXPECT_EQ(m_left.events.size(), 2u);
  EXPECT_EQ(m_log.Count(LogLevel::Error, "Stream S: 2 events that were not sent are lost."), 1u);
  EXPECT_EQ(m_left.lost, 2u) << "for the account of the stream that follows";
}

}  // namespace
