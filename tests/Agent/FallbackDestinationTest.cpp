#include "Agent/FallbackDestination.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "OrloStream/Status.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/support/CountingAllocators.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace {

using OrloAgent::Destination;
using OrloAgent::FallbackDestination;
using OrloAgent::FallbackOptions;
using std::chrono::milliseconds;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;
using Events = std::vector<std::string>;

// What a test does to a destination, and what it sees of it.
struct Controls {
  bool takes = true;
  // What it takes stays unsent.
  bool keeps = false;
  bool throws = false;
  Events events{};
  int offers = 0;
  std::uint64_t unsent = 0;
  std::uint64_t sent = 0;
  std::uint64_t lost = 0;
  int initialized = 0;
  int stopped = 0;
  bool refusing = false;
};

class ControlledDestination : public Destination {
 public:
  explicit ControlledDestination(Controls& controls) : m_controls(controls) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {
    if (m_controls.throws) {
      throw WindowsAgentCommon::InitializationException("f", "F", 1, "no");
    }
    ++m_controls.initialized;
  }
  void Stop() override { ++m_controls.stopped; }
  void Refuse() override { m_controls.refusing = true; }
  std::uint64_t GetUnsentEvents() const override { return m_controls.unsent; }
  std::uint64_t GetSentEvents() const override { return m_controls.sent; }
  std::uint64_t GetLostEvents() const override { return m_controls.lost; }
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    ++m_controls.offers;
    if (!m_controls.takes || m_controls.refusing) {
      return OrloStream::Status(OrloStream::Status::kBackpressure).ToInt();
    }
    m_controls.events.push_back(TestSupport::PayloadOf(block));
    ++(m_controls.keeps ? m_controls.unsent : m_controls.sent);
    return 0;
  }

 private:
  Controls& m_controls;
};

class FallbackDestinationTest : public testing::Test {
 protected:
  void Make(milliseconds after, milliseconds retry) {
    FallbackOptions options;
    options.after = after;
    options.retry = retry;
    m_destination = std::make_unique<FallbackDestination>(
        std::make_unique<ControlledDestination>(m_first),
        std::make_unique<ControlledDestination>(m_second), options, "S");
  }

  // Whether it was taken.
  bool Put(const std::string& event) {
    return m_destination->put(TestSupport::MakeEvent("head", event)) == 0;
  }

  // As a stage does: the same event until it is taken.
  void Deliver(const std::string& event) {
    ASSERT_TRUE(WaitUntil([&] { return Put(event); })) << event;
  }

  // The first sends one of the events that it has kept.
  void SendOne() {
    --m_first.unsent;
    ++m_first.sent;
  }

  TestSupport::CountingAllocators m_allocators;
  Controls m_first;
  Controls m_second;
  std::unique_ptr<FallbackDestination> m_destination;
};

TEST_F(FallbackDestinationTest, WhileTheFirstTakesEventsTheSecondGetsNone) {
  Make(milliseconds(1), milliseconds(1));
  for (const char* event : {"a", "b", "c"}) {
    EXPECT_TRUE(Put(event));
  }
  EXPECT_EQ(m_first.events, (Events{"a", "b", "c"}));
  EXPECT_EQ(m_second.offers, 0);
}

TEST_F(FallbackDestinationTest, UntilTheTimeIsUpEventsWait) {
  Make(std::chrono::hours(1), milliseconds(1));
  m_first.takes = false;
  EXPECT_FALSE(Put("a"));
  EXPECT_FALSE(Put("a"));
  EXPECT_EQ(m_second.offers, 0);
  m_first.takes = true;
  EXPECT_TRUE(Put("a"));
}

TEST_F(FallbackDestinationTest, ATimeThatIsNearIsWaitedForOnTheSpot) {
  Make(milliseconds(300), std::chrono::hours(1));
  m_first.takes = false;
  EXPECT_TRUE(Put("a"));
  EXPECT_EQ(m_second.events, Events{"a"});
  EXPECT_GE(m_first.offers, 2);
}

TEST_F(FallbackDestinationTest, TheSecondTakesOverAndHandsBackAndBothAreSaidOnce) {
  TestSupport::LogCapture log;
  Make(milliseconds(50), milliseconds(1));
  Deliver("a");
  m_first.takes = false;
  for (const char* event : {"b", "c", "d"}) {
    Deliver(event);
  }
  m_first.takes = true;
  std::this_thread::sleep_for(milliseconds(2));  // longer than until the next attempt
  for (const char* event : {"e", "f"}) {
    Deliver(event);
  }
  EXPECT_EQ(m_second.events, (Events{"b", "c", "d"}));
  EXPECT_EQ(m_first.events, (Events{"a", "e", "f"}));
  Events lines;
  for (const auto& line : log.Lines()) {
    EXPECT_EQ(line.logger, "Code.Fallback.S");
    lines.push_back(line.text.substr(0, 35));
  }
  EXPECT_EQ(lines,
            (Events{"The destination has sent nothing fo", "The destination sends again; 3 even"}));
}

TEST_F(FallbackDestinationTest, TheFirstIsTriedNoMoreOftenThanItShall) {
  Make(milliseconds(1), std::chrono::hours(1));
  m_first.takes = false;
  Deliver("a");
  const int offers = m_first.offers;
  m_first.takes = true;
  for (int i = 0; i < 100; ++i) {
    Deliver("b");
  }
  EXPECT_EQ(m_first.offers, offers);
  EXPECT_EQ(m_second.events.size(), 101u);
}

TEST_F(FallbackDestinationTest, AFirstThatTakesEventsAndSendsNoneIsGivenUpToo) {
  Make(milliseconds(200), milliseconds(1));
  m_first.keeps = true;
  Deliver("a");
  ASSERT_TRUE(WaitUntil([&] { return Put("b") && !m_second.events.empty(); }));
  const std::size_t kept = m_first.events.size();
  // It is not tried with further events: it would only keep them.
  const int offers = m_first.offers;
  Deliver("c");
  EXPECT_EQ(m_first.offers, offers);
  // It begins to send what it has kept: that is the sign.
  SendOne();
  Deliver("d");
  EXPECT_EQ(m_first.events.size(), kept + 1);
  EXPECT_EQ(m_first.events.back(), "d");
}

TEST_F(FallbackDestinationTest, AFirstThatSendsSlowlyIsNotGivenUp) {
  // So long that no busy machine sends too slowly.
  Make(milliseconds(5'000), milliseconds(1));
  m_first.keeps = true;
  const auto end = std::chrono::steady_clock::now() + milliseconds(6'000);
  Deliver("a");
  while (std::chrono::steady_clock::now() < end) {
    Deliver("b");
    SendOne();
    std::this_thread::sleep_for(milliseconds(20));
  }
  EXPECT_EQ(m_second.offers, 0);
}

TEST_F(FallbackDestinationTest, WhileNeitherTakesEventsTheyWaitForWhoeverIsFirstToTakeThem) {
  Make(milliseconds(1), milliseconds(1));
  m_first.takes = false;
  m_second.takes = false;
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(Put("a"));
  }
  m_second.takes = true;
  Deliver("a");
  EXPECT_EQ(m_second.events, Events{"a"});
  EXPECT_TRUE(m_first.events.empty());
}

TEST_F(FallbackDestinationTest, AFirstThatOnlyTakesAnEventIsNotHandedBackTo) {
  Make(milliseconds(50), milliseconds(10));
  m_first.takes = false;
  Deliver("a");
  // It takes events again, as a window does that has room, and sends none.
  m_first.takes = true;
  m_first.keeps = true;
  std::this_thread::sleep_for(milliseconds(11));  // longer than until the next attempt
  for (const char* event : {"b", "c", "d"}) {
    Deliver(event);
  }
  EXPECT_EQ(m_first.events, Events{"b"}) << "it is tried with one event, and has that still";
  EXPECT_EQ(m_second.events, (Events{"a", "c", "d"}));
  EXPECT_TRUE(m_destination->GetParts()->usedSince);
  SendOne();
  Deliver("e");
  EXPECT_EQ(m_first.events, (Events{"b", "e"}));
  EXPECT_FALSE(m_destination->GetParts()->usedSince);
}

TEST_F(FallbackDestinationTest, WhatIsToBeSentAgainIsNoSignOfSending) {
  Make(milliseconds(300), milliseconds(1));
  m_first.keeps = true;
  for (const char* event : {"a", "b", "c"}) {
    Deliver(event);
  }
  ASSERT_TRUE(WaitUntil([&] { return Put("d") && !m_second.events.empty(); }));
  const std::size_t taken = m_first.events.size();
  // Acknowledged out of order, forgotten with the connection, and acknowledged so once more. On a
  // busy machine it may have got no more than one.
  for (const std::uint64_t unsent : {std::size_t{1}, taken, std::size_t{1}, taken}) {
    m_first.unsent = unsent;
    Deliver("e");
  }
  EXPECT_EQ(m_first.events.size(), taken);
}

TEST_F(FallbackDestinationTest, ItsPartsAreToldWithTheTimeSinceWhichTheSecondIsUsed) {
  Make(milliseconds(1), std::chrono::hours(1));
  Deliver("a");
  EXPECT_FALSE(m_destination->GetParts()->usedSince);
  const auto before = std::chrono::system_clock::now();
  m_first.takes = false;
  Deliver("b");
  const auto parts = m_destination->GetParts();
  ASSERT_TRUE(parts && parts->usedSince);
  EXPECT_GE(*parts->usedSince, before);
  EXPECT_LE(*parts->usedSince, std::chrono::system_clock::now());
  EXPECT_EQ(parts->first.GetSentEvents(), 1u);
  EXPECT_EQ(parts->fallback.GetCounters().front().value, 1u);
  EXPECT_EQ(m_destination->GetSentEvents(), 2u);
  ASSERT_EQ(m_destination->GetCounters().size(), 1u);
  EXPECT_EQ(m_destination->GetCounters().front().value, 1u);
}

TEST_F(FallbackDestinationTest, CountsAreTheSums) {
  Make(milliseconds(1), milliseconds(1));
  m_first.unsent = 3;
  m_second.unsent = 4;
  m_first.lost = 10;
  m_second.lost = 20;
  EXPECT_EQ(m_destination->GetUnsentEvents(), 7u);
  EXPECT_EQ(m_destination->GetLostEvents(), 30u);
}

TEST_F(FallbackDestinationTest, RefusingAndStoppingReachesBoth) {
  Make(std::chrono::seconds(3), milliseconds(1));
  m_destination->Initialize({});
  EXPECT_EQ(m_first.initialized + m_second.initialized, 2);
  m_destination->Refuse();
  EXPECT_FALSE(Put("a"));
  EXPECT_EQ(m_first.offers, 1) << "nothing is waited for";
  m_destination->Stop();
  EXPECT_EQ(m_first.stopped + m_second.stopped, 2);
}

TEST_F(FallbackDestinationTest, ASecondThatCannotStartStopsTheFirst) {
  Make(milliseconds(1), milliseconds(1));
  m_second.throws = true;
  EXPECT_THROW(m_destination->Initialize({}), WindowsAgentCommon::InitializationException);
  EXPECT_EQ(m_first.stopped, 1);
}

}  // namespace
