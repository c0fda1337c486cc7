#include "Agent/StreamAccount.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace {

using OrloAgent::EndCounts;
using OrloAgent::RestDetector;
using OrloAgent::StreamAccount;
using OrloAgent::StreamReport;
using WindowsAgentCommon::StatisticValue;
using WindowsAgentCommon::StatisticVariant;

class StreamAccountTest : public testing::Test {
 protected:
  void Publish(const std::string& instance, const std::string& groupName,
               const std::map<std::string, std::int64_t>& values) {
    const WindowsAgentCommon::StatisticsInstanceScope scope(instance);
    std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> group;
    m_statistics.CreateGroup(groupName, "Test", group);
    for (const auto& [name, value] : values) {
      group->DeclareStatistic(name, "", StatisticValue(7, StatisticVariant(value)));
    }
    group->Publish();
    m_statistics.RegisterGroup(group);
  }

  void WriteChunk(const std::string& stream, const std::string& second, char count) {
    const auto minute = m_directory.Path() / "Events" / stream / "2016-03-07-14-05";
    std::filesystem::create_directories(minute);
    std::string bytes(4096, '\0');
    bytes[0] = count;
    std::ofstream(minute / second, std::ios::binary) << bytes;
  }

  TestSupport::TemporaryDirectory m_directory;
  WindowsAgentCommon::StatisticsServer m_statistics;
};

TEST_F(StreamAccountTest, WhatIsNotFoundElsewhereIsHeld) {
  WriteChunk("A", "01", 20);
  WriteChunk("B", "01", 99);
  StreamAccount account(m_statistics, "A", m_directory.Path());
  EXPECT_EQ(account.GetContentsAtStart().events, 20u);
  WriteChunk("A", "02", 5);
  Publish("A", "StoreAndForwardStage",
          {{"TotalEventsPosted", 1000}, {"TotalEventsFailedToQueue", 3}});
  Publish("A", "StoreAndForwardIncoming", {{"MessagesLost", 7}});
  Publish("A", "StoreAndForwardOutgoing", {{"EventsOutgoing", 600}});
  Publish("B", "StoreAndForwardStage", {{"TotalEventsPosted", 5}});

  const StreamReport report = account.Look([] { return EndCounts{.unsent = 10, .notMade = 2}; });
  EXPECT_EQ(report.posted, 1002u) << "with the two that could not be made";
  EXPECT_EQ(report.failed, 3u);
  EXPECT_EQ(report.lost, 9u);
  EXPECT_EQ(report.delivered, 590u);
  EXPECT_EQ(report.cached, 25u);
  EXPECT_EQ(report.cachedAtStart, 20u);
  EXPECT_EQ(report.held, 1000 + 20 - 3 - 7 - 590 - 25);
}

TEST_F(StreamAccountTest, WhatTheDestinationCanNeverSendIsLostAndNotDelivered) {
  StreamAccount account(m_statistics, "A", m_directory.Path());
  Publish("A", "StoreAndForwardStage", {{"TotalEventsPosted", 10}});
  Publish("A", "StoreAndForwardOutgoing", {{"EventsOutgoing", 9}});
  const StreamReport report = account.Look([] { return EndCounts{.unsent = 2, .refused = 3}; });
  EXPECT_EQ(report.delivered, 4u);
  EXPECT_EQ(report.lost, 3u);
  EXPECT_EQ(report.held, 3);
}

TEST_F(StreamAccountTest, AnEventInTheBufferThatTheStageHasNotCountedIsNotDelivered) {
  StreamAccount account(m_statistics, "A", m_directory.Path());
  Publish("A", "StoreAndForwardStage", {{"TotalEventsPosted", 1}});
  Publish("A", "StoreAndForwardOutgoing", {{"EventsOutgoing", 0}});
  const StreamReport report = account.Look([] { return EndCounts{.unsent = 1}; });
  EXPECT_EQ(report.delivered, 0u);
  EXPECT_EQ(report.held, 1);
}

TEST_F(StreamAccountTest, WhatAnEarlierStreamHasLeftIsHeldUntilItIsDelivered) {
  StreamAccount account(m_statistics, "A", m_directory.Path());
  Publish("A", "StoreAndForwardStage", {{"TotalEventsPosted", 10}});
  Publish("A", "StoreAndForwardOutgoing", {{"EventsIncoming", 8}, {"EventsOutgoing", 6}});
  const StreamReport before =
      account.Look([] { return EndCounts{.unsent = 5 + 6, .inherited = 5, .refusals = 2}; });
  EXPECT_EQ(before.delivered, 0u);
  EXPECT_EQ(before.undecided, 2);
  EXPECT_EQ(before.held, 15);
  EXPECT_EQ(before.refusals, 2u);
  const StreamReport after = account.Look([] { return EndCounts{.unsent = 1, .inherited = 5}; });
  EXPECT_EQ(after.delivered, 10u);
  EXPECT_EQ(after.held, 5);
}

TEST_F(StreamAccountTest, TheEndsAreAskedAfterTheStage) {
  StreamAccount account(m_statistics, "A", m_directory.Path());
  Publish("A", "StoreAndForwardOutgoing", {{"EventsOutgoing", 4}});
  const StreamReport report = account.Look([this] {
    // The sender goes on in between.
    Publish("A", "StoreAndForwardOutgoing", {{"EventsOutgoing", 9}});
    return EndCounts{.unsent = 2};
  });
  EXPECT_EQ(report.delivered, 2u);
}

constexpr std::chrono::milliseconds kPeriod{500};

StreamReport Report(std::uint64_t delivered, std::uint64_t cached, std::int64_t held) {
  StreamReport report;
  report.delivered = delivered;
  report.cached = cached;
  report.held = held;
  return report;
}

// How many looks at the same report it takes.
unsigned LooksUntilRest(RestDetector& detector, const StreamReport& report) {
  for (unsigned looks = 1; looks <= 100; ++looks) {
    if (detector.IsAtRest(report)) {
      return looks;
    }
  }
  return 0;
}

TEST(RestDetector, RestsAtTheSecondLookWithNothingHeld) {
  RestDetector detector(kPeriod, false);
  EXPECT_EQ(LooksUntilRest(detector, Report(5, 0, 0)), 2u);
}

TEST(RestDetector, DoesNotRestWhileSomethingIsHeld) {
  RestDetector detector(kPeriod, false);
  EXPECT_EQ(LooksUntilRest(detector, Report(5, 0, 1)), 0u);
  EXPECT_EQ(LooksUntilRest(detector, Report(7, 0, -1)), 0u) << "a chunk is between two places";
  EXPECT_EQ(LooksUntilRest(detector, Report(6, 0, 0)), 2u);
}

TEST(RestDetector, EveryChangeBeginsAnew) {
  RestDetector detector(kPeriod, false);
  for (unsigned delivered = 0; delivered < 20; ++delivered) {
    EXPECT_FALSE(detector.IsAtRest(Report(delivered, 0, 0)));
  }
}

TEST(RestDetector, WithACacheItWaitsLongerThanChunksTakeToComeBack) {
  RestDetector detector(kPeriod, false);
  EXPECT_EQ(LooksUntilRest(detector, Report(5, 100, 0)), 11u);
}

TEST(RestDetector, WithACacheItRestsRightAfterAChunkWasDelivered) {
  RestDetector detector(kPeriod, false);
  EXPECT_FALSE(detector.IsAtRest(Report(5, 100, 0)));
  EXPECT_EQ(LooksUntilRest(detector, Report(55, 50, 0)), 2u);
}

TEST(RestDetector, AskedToEmptyTheCacheItDoesNotRestBetweenTwoChunks) {
  RestDetector detector(kPeriod, true);
  EXPECT_FALSE(detector.IsAtRest(Report(5, 100, 0)));
  for (unsigned look = 0; look < 5; ++look) {
    EXPECT_FALSE(detector.IsAtRest(Report(55, 50, 0)));
  }
  EXPECT_EQ(LooksUntilRest(detector, Report(105, 0, 0)), 2u);
}

TEST(RestDetector, AskedToEmptyACacheThatDoesNotMoveItRestsAfterAWhile) {
  RestDetector detector(std::chrono::seconds(2), true);
  EXPECT_EQ(LooksUntilRest(detector, Report(5, 100, 0)), 26u);
}

}  // namespace
