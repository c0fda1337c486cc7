#include "Agent/Departure.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using OrloAgent::Departure;
using OrloAgent::StreamReport;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Step = Departure::Step;

class DepartureTest : public testing::Test {
 protected:
  // Looks every 100 ms until the step comes; nothing if it does not within the time.
  std::optional<milliseconds> TimeUntil(Step step, milliseconds limit) {
    const auto begin = m_now;
    while (m_now - begin <= limit) {
      const Step seen = m_departure.Look(m_report, m_isHeld, m_maySend, m_now);
      if (seen == step) {
        return std::chrono::duration_cast<milliseconds>(m_now - begin);
      }
      m_now += milliseconds(100);
    }
    return std::nullopt;
  }

  void DeliverFor(seconds time) {
    Departure::Limits limits = kLimits;
    limits.deliver = time;
    m_departure = Departure(limits, m_now);
  }

  static constexpr Departure::Limits kLimits{.chunkPeriod = seconds(5),
                                             .processingPeriod = milliseconds(500),
                                             .patience = seconds(1),
                                             .deliver = seconds(30),
                                             .away = seconds(4)};

  Departure::Clock::time_point m_now{};
  StreamReport m_report;
  bool m_isHeld = false;
  bool m_maySend = true;
  Departure m_departure{kLimits, m_now};
};

TEST_F(DepartureTest, AStreamAtRestLeavesAtOnce) {
  const auto time = TimeUntil(Step::Leave, seconds(60));
  ASSERT_TRUE(time);
  EXPECT_LE(*time, milliseconds(500));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, ADestinationThatTakesEventsGetsThemUntilTheTimeIsOver) {
  m_report.accepted = 1'000;
  m_report.held = 1'000;
  for (int i = 0; i < 200; ++i) {
    ++m_report.sent;
    ++m_report.delivered;
    --m_report.held;
    ASSERT_EQ(m_departure.Look(m_report, false, m_maySend, m_now), Step::Deliver);
    m_now += milliseconds(100);
  }
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(60)));
  EXPECT_GE(m_now - Departure::Clock::time_point{}, seconds(30));
  m_isHeld = true;
  EXPECT_EQ(m_departure.Look(m_report, m_isHeld, m_maySend, m_now), Step::Leave);
}

TEST_F(DepartureTest, ADestinationThatIsAwayIsNotWaitedForOnceTheStageHasDecided) {
  m_report.accepted = m_report.held = 10;
  m_isHeld = true;
  const auto time = TimeUntil(Step::Keep, seconds(60));
  ASSERT_TRUE(time);
  EXPECT_GE(*time, seconds(4));
  EXPECT_LT(*time, seconds(6));
}

TEST_F(DepartureTest, WhatTheStageHasNotDecidedAboutIsWaitedForBeyondTheTimeForDelivery) {
  DeliverFor(seconds(1));
  m_report.undecided = m_report.held = 5;
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(2)));
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(4)));
  m_report.undecided = 0;
  m_report.cached = 5;
  m_report.held = 0;
  m_isHeld = true;
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(3)));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, AStageThatNeverDecidesIsLeftLate) {
  m_report.undecided = m_report.held = 5;
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(49)));
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(10)));
  EXPECT_TRUE(m_departure.IsLate());
}

TEST_F(DepartureTest, HoweverLongEventsWereDeliveredTheSenderHasItsTimeToComeBack) {
  DeliverFor(seconds(120));
  m_report.accepted = m_report.held = 10'000;
  while (m_departure.Look(m_report, false, m_maySend, m_now) == Step::Deliver) {
    ++m_report.sent;
    ++m_report.delivered;
    --m_report.held;
    m_now += milliseconds(100);
  }
  ASSERT_GE(m_now - Departure::Clock::time_point{}, seconds(120));
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(31)));
  m_isHeld = true;
  EXPECT_EQ(TimeUntil(Step::Leave, seconds(1)), milliseconds(0));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, AChunkOnItsWayWhenTheTimeForDeliveryIsOverDoesNotMakeTheStreamLate) {
  DeliverFor(seconds(120));
  m_report.undecided = -10;
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(130)));
  EXPECT_EQ(m_departure.Look(m_report, false, m_maySend, m_now), Step::Keep);
  EXPECT_FALSE(m_departure.IsLate());
  m_report.undecided = 0;
  m_isHeld = true;
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(1)));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, WhereTheSumNeverComesOutEvenTheSenderIsWaitedForAllTheSame) {
  DeliverFor(seconds(10));
  m_report.undecided = 5;
  m_report.accepted = m_report.held = 10;
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(45)));
  EXPECT_TRUE(m_departure.IsLate());
  m_isHeld = true;
  EXPECT_EQ(TimeUntil(Step::Leave, seconds(1)), milliseconds(0));
}

TEST_F(DepartureTest, AStageThatDecidesLateIsNotLeftLate) {
  m_report.undecided = m_report.held = 5;
  m_report.accepted = 10;
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(51)));
  EXPECT_TRUE(m_departure.IsLate());
  m_report.undecided = 0;
  m_isHeld = true;
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(1)));
  EXPECT_EQ(m_departure.Look(m_report, m_isHeld, m_maySend, m_now), Step::Leave);
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, ASenderThatHoldsEventsIsWaitedForUntilItComesBack) {
  DeliverFor(seconds(1));
  m_report.accepted = m_report.held = 10;
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(31)));
  m_isHeld = true;
  EXPECT_EQ(TimeUntil(Step::Leave, seconds(1)), milliseconds(0));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, ASenderThatNeverComesBackIsLeftLate) {
  m_report.accepted = m_report.held = 10;
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(90)));
  EXPECT_TRUE(m_departure.IsLate());
}

TEST_F(DepartureTest, WithACacheItWaitsForTheChunkThatTheStageIsReading) {
  m_report.cached = m_report.cachedAtStart = 100;
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(5)));
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(10)));
  m_isHeld = true;
  EXPECT_EQ(TimeUntil(Step::Leave, seconds(1)), milliseconds(0));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, ACacheThatGivesNothingIsNotWaitedForInVain) {
  m_report.cached = m_report.cachedAtStart = 100;
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(5)));
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(15)));
  EXPECT_FALSE(m_departure.IsLate());
}

TEST_F(DepartureTest, WithAClosedScheduleItWaitsForAChunkThatMayBeOnItsWayFromBefore) {
  m_report.cached = m_report.cachedAtStart = 100;
  m_maySend = false;
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(5)));
  EXPECT_FALSE(TimeUntil(Step::Leave, milliseconds(1'300)));
  EXPECT_TRUE(TimeUntil(Step::Leave, milliseconds(500)));
}

TEST_F(DepartureTest, AChunkThatComesFromTheCacheMeanwhileIsCaught) {
  m_report.cached = m_report.cachedAtStart = 100;
  ASSERT_TRUE(TimeUntil(Step::Keep, seconds(5)));
  m_report.accepted = 40;
  m_report.cached = 60;
  m_report.held = 40;
  EXPECT_FALSE(TimeUntil(Step::Leave, seconds(20)));
  m_isHeld = true;
  EXPECT_TRUE(TimeUntil(Step::Leave, seconds(1)));
}

}  // namespace
