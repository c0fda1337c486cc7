#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string>

#include "Platform/testing/TestClock.h"
#include "StoreAndForward/Schedule.h"
#include "tests/StoreAndForward/ScheduleZoneCases.h"
#include "tests/support/LogCapture.h"

namespace OrloStoreAndForward {
namespace {

// Midnight UTC at the start of Sunday, 2026-11-01.
constexpr std::int64_t kSunday = 1793491200;
constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 86400;

SYSTEMTIME ToSystemTime(std::int64_t secondsSince1970, unsigned milliseconds = 0) {
  const std::chrono::sys_seconds time{std::chrono::seconds(secondsSince1970)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(time - day);
  SYSTEMTIME result{};
  result.wYear = static_cast<WORD>(static_cast<int>(date.year()));
  result.wMonth = static_cast<WORD>(static_cast<unsigned>(date.month()));
  result.wDayOfWeek = static_cast<WORD>(std::chrono::weekday(day).c_encoding());
  result.wDay = static_cast<WORD>(static_cast<unsigned>(date.day()));
  result.wHour = static_cast<WORD>(clock.hours().count());
  result.wMinute = static_cast<WORD>(clock.minutes().count());
  result.wSecond = static_cast<WORD>(clock.seconds().count());
  result.wMilliseconds = static_cast<WORD>(milliseconds);
  return result;
}

Schedule MakeSchedule(const std::vector<std::string>& texts, bool invert = false) {
  std::vector<Schedule::Interval> intervals;
  TIME_ZONE_INFORMATION zone{};
  for (const std::string& text : texts) {
    Schedule::Interval interval{};
    EXPECT_TRUE(Schedule::ParseInterval(text, interval, intervals.empty() ? &zone : nullptr));
    intervals.push_back(interval);
  }
  return Schedule(intervals, zone, invert);
}

bool FreshAnswer(const std::vector<std::string>& texts, std::int64_t time, bool invert = false) {
  return MakeSchedule(texts, invert).IsSendingAllowed(ToSystemTime(time));
}

TEST(ScheduleEvaluation, InvertedScheduleGivesTheOppositeAnswerOnTheFirstCall) {
  for (std::int64_t time = kSunday; time < kSunday + 7 * kDay; time += 37 * kMinute) {
    EXPECT_NE(FreshAnswer({"0800-1700;7F;Asia/Hong_Kong"}, time),
              FreshAnswer({"0800-1700;7F;Asia/Hong_Kong"}, time, true));
  }
}

TEST(ScheduleEvaluation, NoonInHongKongIsAllowedOnEveryDayAndRefusedInverted) {
  for (int day = 0; day < 7; ++day) {
    const std::int64_t noon = kSunday + day * kDay + 4 * kHour;
    EXPECT_TRUE(FreshAnswer({"0800-1700;7F;Asia/Hong_Kong"}, noon));
    EXPECT_FALSE(FreshAnswer({"0800-1700;7F;Asia/Hong_Kong"}, noon, true));
  }
}

TEST(ScheduleEvaluation, EndIsInclusiveToItsFirstSecond) {
  const std::int64_t end = kSunday + 9 * kHour;  // 17:00:00 in Hong Kong
  EXPECT_TRUE(FreshAnswer({"0800-1700;7F;Asia/Hong_Kong"}, end));
  EXPECT_FALSE(FreshAnswer({"0800-1700;7F;Asia/Hong_Kong"}, end + 1));
}

TEST(ScheduleEvaluation, StartIsInclusive) {
  const std::int64_t start = kSunday + 8 * kHour;
  EXPECT_FALSE(FreshAnswer({"0800-1700;7F;UTC"}, start - 1));
  EXPECT_TRUE(FreshAnswer({"0800-1700;7F;UTC"}, start));
}

TEST(ScheduleEvaluation, LastMinuteOfTheDayIsRefusedAfterItsFirstSecond) {
  const std::int64_t lastMinute = kSunday + 23 * kHour + 59 * kMinute;
  EXPECT_TRUE(FreshAnswer({"0000-2359;7F;UTC"}, lastMinute));
  EXPECT_FALSE(FreshAnswer({"0000-2359;7F;UTC"}, lastMinute + 1));
  EXPECT_FALSE(FreshAnswer({"0000-2359;7F;UTC"}, lastMinute + 59));
  EXPECT_TRUE(FreshAnswer({"0000-2359;7F;UTC"}, lastMinute + 60));
}

TEST(ScheduleEvaluation, MillisecondsAreIgnored) {
  Schedule schedule = MakeSchedule({"0800-1700;7F;UTC"});
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(kSunday + 17 * kHour, 999)));
}

TEST(ScheduleEvaluation, MaskAppliesToTheLocalDate) {
  // Saturday 20:00 UTC is Sunday 04:00 in Hong Kong.
  const std::int64_t saturdayEvening = kSunday - 4 * kHour;
  EXPECT_TRUE(FreshAnswer({"0000-2359;01;Asia/Hong_Kong"}, saturdayEvening));
  EXPECT_FALSE(FreshAnswer({"0000-2359;40;Asia/Hong_Kong"}, saturdayEvening));
}

TEST(ScheduleEvaluation, EachWeekdayHasItsBit) {
  for (int day = 0; day < 7; ++day) {
    for (int bit = 0; bit < 7; ++bit) {
      char text[32];
      std::snprintf(text, sizeof(text), "0000-2359;%02X;UTC", 1u << bit);
      EXPECT_EQ(FreshAnswer({text}, kSunday + day * kDay), day == bit) << text << " " << day;
    }
  }
}

TEST(ScheduleEvaluation, IntervalAcrossMidnightNeverMatches) {
  for (std::int64_t time = kSunday; time < kSunday + 7 * kDay; time += 17 * kMinute) {
    EXPECT_FALSE(FreshAnswer({"2200-0600;7F;UTC"}, time));
    EXPECT_TRUE(FreshAnswer({"2200-0600;7F;UTC"}, time, true));
  }
}

TEST(ScheduleEvaluation, EmptyMaskContributesNothing) {
  for (int hour = 0; hour < 24; ++hour) {
    const std::int64_t time = kSunday + hour * kHour;
    EXPECT_FALSE(FreshAnswer({"0000-2359;00;UTC"}, time));
    EXPECT_TRUE(FreshAnswer({"0000-2359;00;UTC"}, time, true));
  }
}

TEST(ScheduleEvaluation, OverlappingAndDuplicateIntervalsAreAllLookedAt) {
  const std::vector<std::string> texts{"0800-1000;7F;UTC", "0900-1200;7F;UTC", "0800-1000;7F;UTC",
                                       "2000-2100;01;UTC"};
  EXPECT_TRUE(FreshAnswer(texts, kSunday + 8 * kHour));
  EXPECT_TRUE(FreshAnswer(texts, kSunday + 11 * kHour));
  EXPECT_FALSE(FreshAnswer(texts, kSunday + 13 * kHour));
  EXPECT_TRUE(FreshAnswer(texts, kSunday + 20 * kHour));
  EXPECT_FALSE(FreshAnswer(texts, kSunday + kDay + 20 * kHour));
}

TEST(ScheduleEvaluation, EveryIntervalIsReadInTheZoneOfTheFirst) {
  const std::vector<std::string> texts{"0100-0200;7F;Asia/Hong_Kong", "0800-1700;7F;UTC"};
  EXPECT_TRUE(FreshAnswer(texts, kSunday)) << "08:00 in Hong Kong";
  EXPECT_FALSE(FreshAnswer(texts, kSunday + 16 * kHour)) << "00:00 in Hong Kong";
}

TEST(ScheduleEvaluation, AnswerIsKeptForLessThanTwentySeconds) {
  Schedule schedule = MakeSchedule({"0800-1700;7F;UTC"});
  const std::int64_t end = kSunday + 17 * kHour;
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(end - 5)));
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(end + 5)));
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(end + 14, 999)));
  EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(end + 15)));
}

TEST(ScheduleEvaluation, PeriodRunsFromTheLastEvaluationNotFromTheLastCall) {
  Schedule schedule = MakeSchedule({"0800-1700;7F;UTC"});
  const std::int64_t end = kSunday + 17 * kHour;
  for (int second = -15; second < 5; ++second) {
    EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(end + second))) << second;
  }
  EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(end + 5)));
}

TEST(ScheduleEvaluation, ClockSteppedBackIsEvaluatedAtOnce) {
  Schedule schedule = MakeSchedule({"0800-1700;7F;UTC"});
  const std::int64_t start = kSunday + 8 * kHour;
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(start)));
  EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(start - 1)));
  EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(start))) << "one second after evaluating";
}

TEST(ScheduleEvaluation, ClockSteppedForwardIsEvaluatedAtOnce) {
  Schedule schedule = MakeSchedule({"0800-1700;7F;UTC"});
  EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(kSunday)));
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(kSunday + 8 * kHour)));
}

TEST(ScheduleEvaluation, DayWithoutIntervalsCarriesTheLastAnswerOn) {
  const std::int64_t monday = kSunday + kDay;
  const std::int64_t tuesday = kSunday + 2 * kDay;
  {
    Schedule schedule = MakeSchedule({"0800-1700;02;UTC"});
    EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(tuesday + 10 * kHour))) << "fresh";
  }
  {
    Schedule schedule = MakeSchedule({"0800-1700;02;UTC"});
    EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(monday + 17 * kHour - 10)));
    EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(tuesday + 10 * kHour)));
    EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(tuesday + kDay)));
  }
  {
    Schedule schedule = MakeSchedule({"0800-1700;02;UTC"});
    EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(monday + 17 * kHour + 30)));
    EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(tuesday + 10 * kHour)));
  }
  {
    Schedule schedule = MakeSchedule({"0800-1700;02;UTC"}, true);
    EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(monday + 12 * kHour)));
    EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(tuesday + 12 * kHour)));
  }
}

TIME_ZONE_INFORMATION ImpossibleZone() {
  TIME_ZONE_INFORMATION zone{};
  zone.DaylightDate.wMonth = 3;  // daylight time begins and never ends
  zone.DaylightDate.wDay = 1;
  return zone;
}

TEST(ScheduleEvaluation, FailedConversionAllowsANormalScheduleAndRefusesAnInvertedOne) {
  const std::vector<Schedule::Interval> always{{0, 2359, 0x7F}};
  Schedule normal(always, ImpossibleZone(), false);
  Schedule inverted(always, ImpossibleZone(), true);
  EXPECT_TRUE(normal.IsSendingAllowed(ToSystemTime(kSunday)));
  EXPECT_FALSE(inverted.IsSendingAllowed(ToSystemTime(kSunday)));
}

TEST(ScheduleEvaluation, FailedConversionKeepsTheCacheAndStartsANewPeriod) {
  const std::vector<Schedule::Interval> always{{0, 2359, 0x7F}};
  Schedule schedule(always, ImpossibleZone(), false);
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(kSunday)));
  // Within the period the kept result answers, which is still the one of construction.
  EXPECT_FALSE(schedule.IsSendingAllowed(ToSystemTime(kSunday + 19)));
  EXPECT_TRUE(schedule.IsSendingAllowed(ToSystemTime(kSunday + 20)));
}

TEST(ScheduleEvaluation, ImpossibleTimeCountsAsTheBeginningOfTime) {
  SYSTEMTIME impossible = ToSystemTime(kSunday + 12 * kHour);
  impossible.wMonth = 13;
  const TestSupport::LogCapture log;
  Schedule fresh = MakeSchedule({"0000-2359;7F;UTC"});
  EXPECT_FALSE(fresh.IsSendingAllowed(impossible)) << "no time has passed: the kept result";
  Schedule used = MakeSchedule({"0000-0001;7F;UTC"});
  EXPECT_FALSE(used.IsSendingAllowed(ToSystemTime(kSunday + 12 * kHour)));
  EXPECT_TRUE(used.IsSendingAllowed(impossible)) << "evaluated, and can't be converted";
  EXPECT_TRUE(log.Lines().empty());
}

TEST(ScheduleEvaluation, CurrentTimeIsReadFromTheSystem) {
  constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600;
  const auto set = [](std::int64_t time) {
    Platform::TestClock::Set(static_cast<std::uint64_t>(time + kSecondsFrom1601To1970) *
                             10'000'000);
  };
  Schedule schedule = MakeSchedule({"0800-1700;7F;UTC"});
  set(kSunday + 12 * kHour);
  EXPECT_TRUE(schedule.IsSendingAllowed());
  set(kSunday + 18 * kHour);
  EXPECT_FALSE(schedule.IsSendingAllowed());
  Platform::TestClock::Reset();
}

// ---- Against an oracle of its own ---------------------------------------------------------------

// Answers by brute force from the zone's known offsets: no zone record, no table by weekday.
class Oracle {
 public:
  Oracle(const ZoneCase& zone, std::vector<std::string> texts, bool invert)
      : m_zone(zone), m_texts(std::move(texts)), m_invert(invert) {}

  bool Answer(std::int64_t time) {
    if (!m_evaluated || time < *m_evaluated || time >= *m_evaluated + 20) {
      m_evaluated = time;
      const SYSTEMTIME local = ToSystemTime(time + m_zone.MinutesAt(time) * kMinute);
      char clock[24];
      std::snprintf(clock, sizeof(clock), "%02u%02u%02u", static_cast<unsigned>(local.wHour),
                    static_cast<unsigned>(local.wMinute), static_cast<unsigned>(local.wSecond));
      bool hasDay = false;
      bool matches = false;
      for (const std::string& text : m_texts) {
        const unsigned days = static_cast<unsigned>(std::stoul(text.substr(10, 2), nullptr, 16));
        if ((days & (1u << local.wDayOfWeek)) != 0) {
          hasDay = true;
          // The texts have fixed widths, so they compare as the times do.
          matches =
              matches || (text.substr(0, 4) + "00" <= clock && text.substr(5, 4) + "00" >= clock);
        }
      }
      if (hasDay) {
        m_last = matches;
      }
    }
    return m_invert ? !m_last : m_last;
  }

 private:
  const ZoneCase m_zone;
  std::vector<std::string> m_texts;
  bool m_invert;
  bool m_last = false;
  std::optional<std::int64_t> m_evaluated;
};

class ScheduleAgainstOracle : public testing::TestWithParam<ZoneCase> {
 protected:
  static std::vector<std::string> Texts(const std::vector<std::string>& intervals) {
    std::vector<std::string> texts;
    for (const std::string& interval : intervals) {
      texts.push_back(interval + ";" + GetParam().zone);
    }
    return texts;
  }
};

const std::vector<std::vector<std::string>> kIntervalLists{
    {"0800-1700;7F"},
    {"0800-1700;3E", "0900-1200;40"},
    {"0000-0200;7F", "0230-0330;7F", "2200-2359;7F"},
    {"0159-0301;01", "2359-2359;02"},
    {"1200-1300;04"},  // six days a week carry over
    {"2200-0600;7F"},
    {"0000-2359;00"}};

TEST_P(ScheduleAgainstOracle, EveryMinuteOfTwoWeeksAgrees) {
  for (const auto& intervals : kIntervalLists) {
    for (const bool invert : {false, true}) {
      const std::vector<std::string> texts = Texts(intervals);
      Schedule schedule = MakeSchedule(texts, invert);
      Oracle oracle(GetParam(), texts, invert);
      // A second added per hour walks through the seconds of a minute.
      for (std::int64_t time = GetParam().start; time < GetParam().start + 14 * kDay;
           time += kMinute) {
        const std::int64_t instant = time + (time / kHour) % 60;
        ASSERT_EQ(schedule.IsSendingAllowed(ToSystemTime(instant)), oracle.Answer(instant))
            << texts.front() << " invert " << invert << " at " << instant;
      }
    }
  }
}

TEST_P(ScheduleAgainstOracle, CachedAnswersAgreeUnderClockStepsInBothDirections) {
  const std::vector<std::string> texts = Texts({"0000-2359;55", "0100-0200;2A"});
  Schedule schedule = MakeSchedule(texts);
  Oracle oracle(GetParam(), texts, false);
  std::uint32_t random = 12345;
  std::int64_t time = GetParam().start + 7 * kDay;
  for (int i = 0; i < 20000; ++i) {
    random = random * 1664525u + 1013904223u;
    static constexpr std::int64_t kSteps[] = {0,    1,     7,  19,  20,  21,
                                              3600, 86400, -1, -19, -20, -7200};
    time += kSteps[(random >> 16) % std::size(kSteps)];
    time = std::max(time, GetParam().start);
    time = std::min(time, GetParam().start + 14 * kDay);
    ASSERT_EQ(schedule.IsSendingAllowed(ToSystemTime(time)), oracle.Answer(time)) << time;
  }
}

INSTANTIATE_TEST_SUITE_P(Zones, ScheduleAgainstOracle, testing::ValuesIn(kZoneCases),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace OrloStoreAndForward
