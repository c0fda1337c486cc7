#include "Agent/Monitor/ScheduleView.h"

#include <gtest/gtest.h>

#include "Platform/testing/TestClock.h"

namespace OrloAgent {
namespace {

// 2026-11-16 is a Monday; 00:00 UTC of that day, in seconds since 1970.
constexpr std::int64_t kMonday = 1'794'787'200;
constexpr std::int64_t kHour = 3600;

class ScheduleViewTest : public testing::Test {
 protected:
  ~ScheduleViewTest() override { Platform::TestClock::Reset(); }

  static void SetClock(std::int64_t seconds) {
    constexpr std::int64_t kBefore1970 = 11'644'473'600;
    Platform::TestClock::Set(static_cast<std::uint64_t>(seconds + kBefore1970) * 10'000'000);
  }

  static ScheduleView MakeView(const std::string& interval, bool invert = false) {
    return ScheduleView({{"Schedule.Enable", "true"},
                         {"Schedule.Interval", interval},
                         {"Schedule.Invert", invert ? "true" : "false"}});
  }
};

TEST_F(ScheduleViewTest, WithoutAScheduleThereIsNothingToShow) {
  EXPECT_FALSE(ScheduleView({}).Look());
  EXPECT_FALSE(MakeView("no interval").Look());
}

TEST_F(ScheduleViewTest, ClosedScheduleTellsWhenItOpensToTheSecond) {
  SetClock(kMonday + 3 * kHour);
  ScheduleView view = MakeView("0800-1700;3E;UTC");
  const auto state = view.Look();
  ASSERT_TRUE(state);
  EXPECT_FALSE(state->open);
  EXPECT_EQ(state->nextChange, kMonday + 8 * kHour);
  EXPECT_EQ(state->zone, "UTC");
  EXPECT_EQ(state->nowMinute, 3 * 60);
}

TEST_F(ScheduleViewTest, OpenScheduleClosesAfterTheFirstSecondOfItsLastMinute) {
  SetClock(kMonday + 9 * kHour + 17);
  ScheduleView view = MakeView("0800-1700;3E;UTC");
  const auto state = view.Look();
  ASSERT_TRUE(state);
  EXPECT_TRUE(state->open);
  EXPECT_EQ(state->nextChange, kMonday + 17 * kHour + 1);
}

TEST_F(ScheduleViewTest, WeekIsDrawnInTheZoneOfTheSchedule) {
  // Berlin is an hour ahead in November.
  SetClock(kMonday + 23 * kHour + 30 * 60);
  ScheduleView view = MakeView("0800-1700;22;Europe/Berlin");
  const auto state = view.Look();
  ASSERT_TRUE(state);
  EXPECT_EQ(state->nowMinute, (24 + 0) * 60 + 30);
  const std::vector<WeekSpan> monday_and_friday{{8 * 60, 17 * 60},
                                                {(4 * 24 + 8) * 60, (4 * 24 + 17) * 60}};
  EXPECT_EQ(state->openSpans, monday_and_friday);
  EXPECT_EQ(state->nextChange, kMonday + (4 * 24 + 7) * kHour);
}

TEST_F(ScheduleViewTest, InvertedScheduleIsOpenOutsideItsIntervals) {
  SetClock(kMonday + 9 * kHour);
  ScheduleView view = MakeView("0800-1700;7F;UTC", true);
  const auto state = view.Look();
  ASSERT_TRUE(state);
  EXPECT_FALSE(state->open);
  EXPECT_EQ(state->nextChange, kMonday + 17 * kHour + 1);
  ASSERT_EQ(state->openSpans.size(), 8u);
  EXPECT_EQ(state->openSpans.front(), WeekSpan(0, 8 * 60));
  EXPECT_EQ(state->openSpans.back(), WeekSpan((6 * 24 + 17) * 60, kMinutesOfWeek));
}

TEST_F(ScheduleViewTest, ADayThatIsOpenToItsLastMinuteClosesThoughNoIntervalFollows) {
  constexpr std::int64_t kNextMonday = kMonday + 7 * 24 * kHour;
  SetClock(kNextMonday - 14 * kHour);
  ScheduleView view = MakeView("0000-2359;01;UTC");
  const auto sunday = view.Look();
  ASSERT_TRUE(sunday);
  EXPECT_TRUE(sunday->open);
  EXPECT_EQ(sunday->nextChange, kNextMonday - 59);
  SetClock(kNextMonday - 30);
  const auto closed = view.Look();
  EXPECT_FALSE(closed->open);
  EXPECT_EQ(closed->nextChange, kNextMonday + 6 * 24 * kHour);
}

TEST_F(ScheduleViewTest, NextChangeFollowsTheClock) {
  SetClock(kMonday + 3 * kHour);
  ScheduleView view = MakeView("0800-1700;3E;UTC");
  view.Look();
  SetClock(kMonday + 8 * kHour + 5);
  const auto open = view.Look();
  EXPECT_TRUE(open->open);
  EXPECT_EQ(open->nextChange, kMonday + 17 * kHour + 1);
  SetClock(kMonday + 17 * kHour + 30);
  const auto closed = view.Look();
  EXPECT_FALSE(closed->open);
  EXPECT_EQ(closed->nextChange, kMonday + 32 * kHour);
}

TEST_F(ScheduleViewTest, ScheduleThatNeverOpensHasNoNextChange) {
  SetClock(kMonday + 3 * kHour);
  ScheduleView view = MakeView("0800-1700;00;UTC");
  const auto state = view.Look();
  ASSERT_TRUE(state);
  EXPECT_FALSE(state->open);
  EXPECT_FALSE(state->nextChange);
  EXPECT_TRUE(state->openSpans.empty());
}

}  // namespace
}  // namespace OrloAgent
