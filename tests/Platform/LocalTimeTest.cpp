#include <gtest/gtest.h>

#include <limits>
#include <utility>

#include "Platform/Windows.h"

namespace PlatformTest {
namespace {

// One hour ahead of UTC, two from the last Sunday of March, 2:00, to that of October, 3:00.
TIME_ZONE_INFORMATION Berlin() {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -60;
  zone.DaylightBias = -60;
  zone.StandardDate = {0, 10, 0, 5, 3, 0, 0, 0};
  zone.DaylightDate = {0, 3, 0, 5, 2, 0, 0, 0};
  return zone;
}

// Ten hours ahead, eleven from the first Sunday of October to that of April.
TIME_ZONE_INFORMATION Sydney() {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -600;
  zone.DaylightBias = -60;
  zone.StandardDate = {0, 4, 0, 1, 3, 0, 0, 0};
  zone.DaylightDate = {0, 10, 0, 1, 2, 0, 0, 0};
  return zone;
}

void ExpectLocal(const TIME_ZONE_INFORMATION& zone, const SYSTEMTIME& universal,
                 const SYSTEMTIME& expected) {
  SYSTEMTIME local{};
  SetLastError(ERROR_GEN_FAILURE);
  ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  EXPECT_EQ(local.wYear, expected.wYear);
  EXPECT_EQ(local.wMonth, expected.wMonth);
  EXPECT_EQ(local.wDayOfWeek, expected.wDayOfWeek);
  EXPECT_EQ(local.wDay, expected.wDay);
  EXPECT_EQ(local.wHour, expected.wHour);
  EXPECT_EQ(local.wMinute, expected.wMinute);
  EXPECT_EQ(local.wSecond, expected.wSecond);
  EXPECT_EQ(local.wMilliseconds, expected.wMilliseconds);
}

void ExpectRefused(const TIME_ZONE_INFORMATION& zone, const SYSTEMTIME& universal) {
  SYSTEMTIME local{1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(local.wYear, 1) << "the result must be left alone";
}

TEST(LocalTimeTest, NorthernZoneChangesAtItsRules) {
  ExpectLocal(Berlin(), {2023, 3, 0, 26, 0, 59, 59, 999}, {2023, 3, 0, 26, 1, 59, 59, 999});
  ExpectLocal(Berlin(), {2023, 3, 0, 26, 1, 0, 0, 0}, {2023, 3, 0, 26, 3, 0, 0, 0});
  ExpectLocal(Berlin(), {2023, 10, 0, 29, 0, 59, 59, 999}, {2023, 10, 0, 29, 2, 59, 59, 999});
  ExpectLocal(Berlin(), {2023, 10, 0, 29, 1, 0, 0, 0}, {2023, 10, 0, 29, 2, 0, 0, 0});
}

TEST(LocalTimeTest, SouthernZoneHasDaylightTimeOverTheTurnOfTheYear) {
  ExpectLocal(Sydney(), {2023, 12, 0, 31, 12, 59, 59, 0}, {2023, 12, 0, 31, 23, 59, 59, 0});
  ExpectLocal(Sydney(), {2023, 12, 0, 31, 13, 0, 0, 0}, {2024, 1, 1, 1, 0, 0, 0, 0});
  ExpectLocal(Sydney(), {2023, 4, 0, 1, 15, 59, 59, 0}, {2023, 4, 0, 2, 2, 59, 59, 0});
  ExpectLocal(Sydney(), {2023, 4, 0, 1, 16, 0, 0, 0}, {2023, 4, 0, 2, 2, 0, 0, 0});
  ExpectLocal(Sydney(), {2023, 9, 0, 30, 15, 59, 59, 0}, {2023, 10, 0, 1, 1, 59, 59, 0});
  ExpectLocal(Sydney(), {2023, 9, 0, 30, 16, 0, 0, 0}, {2023, 10, 0, 1, 3, 0, 0, 0});
}

TEST(LocalTimeTest, WeekFiveIsTheLastOneWhetherFourthOrFifth) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.Bias = 0;
  // February 2023 has four Tuesdays, March 2023 five Fridays.
  zone.DaylightDate = {0, 2, 2, 5, 12, 0, 0, 0};
  zone.StandardDate = {0, 3, 5, 5, 12, 0, 0, 0};
  ExpectLocal(zone, {2023, 2, 0, 28, 11, 59, 0, 0}, {2023, 2, 2, 28, 11, 59, 0, 0});
  ExpectLocal(zone, {2023, 2, 0, 28, 12, 0, 0, 0}, {2023, 2, 2, 28, 13, 0, 0, 0});
  ExpectLocal(zone, {2023, 3, 0, 31, 10, 59, 0, 0}, {2023, 3, 5, 31, 11, 59, 0, 0});
  ExpectLocal(zone, {2023, 3, 0, 31, 11, 0, 0, 0}, {2023, 3, 5, 31, 11, 0, 0, 0});
}

TEST(LocalTimeTest, YearIsTakenInLocalTime) {
  // Daylight time begins on the first Sunday of January, 0:00, which in 2023 is the first day:
  // that is 14:00 of the last day of 2022 in UTC.
  TIME_ZONE_INFORMATION zone = Sydney();
  zone.DaylightDate = {0, 1, 0, 1, 0, 0, 0, 0};
  zone.StandardDate = {0, 6, 0, 1, 0, 0, 0, 0};
  ExpectLocal(zone, {2022, 12, 0, 31, 13, 59, 0, 0}, {2022, 12, 6, 31, 23, 59, 0, 0});
  ExpectLocal(zone, {2022, 12, 0, 31, 14, 0, 0, 0}, {2023, 1, 0, 1, 1, 0, 0, 0});
}

TEST(LocalTimeTest, LastHourOfTheYearIsStandardTimeInANorthernZone) {
  // In daylight time, which does not hold, the next year would have begun.
  ExpectLocal(Berlin(), {2022, 12, 0, 31, 22, 30, 0, 0}, {2022, 12, 6, 31, 23, 30, 0, 0});
}

TEST(LocalTimeTest, RuleAtTheTurnOfTheYearHoldsFromItsMoment) {
  // Standard time begins at 0:30 of the first Sunday of January, in daylight time: in 2023 that is
  // still the last day of 2022 in standard time.
  TIME_ZONE_INFORMATION zone = Sydney();
  zone.Bias = 0;
  zone.DaylightDate = {0, 6, 0, 1, 0, 0, 0, 0};
  zone.StandardDate = {0, 1, 0, 1, 0, 30, 0, 0};
  ExpectLocal(zone, {2022, 12, 0, 31, 23, 29, 0, 0}, {2023, 1, 0, 1, 0, 29, 0, 0});
  ExpectLocal(zone, {2022, 12, 0, 31, 23, 30, 0, 0}, {2022, 12, 6, 31, 23, 30, 0, 0});
  ExpectLocal(zone, {2023, 1, 0, 1, 0, 30, 0, 0}, {2023, 1, 0, 1, 0, 30, 0, 0});
}

TEST(LocalTimeTest, FixedDateHoldsForThatDayOfEveryYear) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.Bias = 0;
  zone.DaylightDate = {2020, 4, 0, 10, 6, 0, 0, 0};
  zone.StandardDate = {2020, 9, 0, 20, 6, 0, 0, 0};
  for (const WORD year : std::initializer_list<WORD>{1999, 2020, 2023}) {
    SYSTEMTIME local{};
    SYSTEMTIME universal{year, 4, 0, 10, 5, 59, 0, 0};
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
    EXPECT_EQ(local.wHour, 5) << year;
    universal.wHour = 6;
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
    EXPECT_EQ(local.wHour, 7) << year;
    universal = {year, 9, 0, 20, 5, 0, 0, 0};
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
    EXPECT_EQ(local.wHour, 5) << year;
    universal.wHour = 4;
    ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
    EXPECT_EQ(local.wHour, 5) << year;
  }
}

TEST(LocalTimeTest, FixedLeapDayIsTheFirstOfMarchInACommonYear) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.Bias = 0;
  zone.DaylightDate = {2020, 2, 0, 29, 0, 0, 0, 0};
  ExpectLocal(zone, {2024, 2, 0, 29, 0, 0, 0, 0}, {2024, 2, 4, 29, 1, 0, 0, 0});
  ExpectLocal(zone, {2023, 2, 0, 28, 23, 0, 0, 0}, {2023, 2, 2, 28, 23, 0, 0, 0});
  ExpectLocal(zone, {2023, 3, 0, 1, 0, 0, 0, 0}, {2023, 3, 3, 1, 1, 0, 0, 0});
}

TEST(LocalTimeTest, BothRulesInOneMonthAreOrderedByTheirDates) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.Bias = 0;
  zone.DaylightDate = {0, 5, 0, 1, 0, 0, 0, 0};
  zone.StandardDate = {0, 5, 0, 3, 0, 0, 0, 0};
  ExpectLocal(zone, {2023, 5, 0, 10, 0, 0, 0, 0}, {2023, 5, 3, 10, 1, 0, 0, 0});
  ExpectLocal(zone, {2023, 5, 0, 30, 0, 0, 0, 0}, {2023, 5, 2, 30, 0, 0, 0, 0});
  std::swap(zone.DaylightDate, zone.StandardDate);
  ExpectLocal(zone, {2023, 5, 0, 10, 0, 0, 0, 0}, {2023, 5, 3, 10, 0, 0, 0, 0});
  ExpectLocal(zone, {2023, 5, 0, 30, 0, 0, 0, 0}, {2023, 5, 2, 30, 1, 0, 0, 0});
}

TEST(LocalTimeTest, ZoneWithoutRulesUsesItsBiasAlone) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.StandardBias = -7;
  zone.DaylightDate = {};
  ExpectLocal(zone, {2023, 7, 0, 1, 23, 30, 0, 0}, {2023, 7, 0, 2, 0, 30, 0, 0});
  zone.StandardDate = {};
  ExpectLocal(zone, {2023, 7, 0, 1, 23, 30, 0, 0}, {2023, 7, 0, 2, 0, 30, 0, 0});
}

TEST(LocalTimeTest, StandardBiasCountsWhereThereAreRules) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.StandardBias = -7;
  ExpectLocal(zone, {2023, 1, 0, 1, 12, 0, 0, 0}, {2023, 1, 0, 1, 13, 7, 0, 0});
  ExpectLocal(zone, {2023, 7, 0, 1, 12, 0, 0, 0}, {2023, 7, 6, 1, 14, 0, 0, 0});
}

TEST(LocalTimeTest, DaylightDateWithoutStandardDateIsRefused) {
  TIME_ZONE_INFORMATION zone = Berlin();
  zone.StandardDate = {};
  ExpectRefused(zone, {2023, 7, 0, 1, 0, 0, 0, 0});
}

TEST(LocalTimeTest, EveryImpossibleRuleFieldIsRefused) {
  const struct {
    WORD SYSTEMTIME::*field;
    WORD value;
  } kCases[] = {
      {&SYSTEMTIME::wMonth, 13},  {&SYSTEMTIME::wMonth, 259},   {&SYSTEMTIME::wDay, 0},
      {&SYSTEMTIME::wDay, 6},     {&SYSTEMTIME::wDayOfWeek, 7}, {&SYSTEMTIME::wHour, 24},
      {&SYSTEMTIME::wMinute, 60}, {&SYSTEMTIME::wSecond, 60},   {&SYSTEMTIME::wMilliseconds, 1000},
  };
  for (const auto& testCase : kCases) {
    for (const auto rule :
         {&TIME_ZONE_INFORMATION::StandardDate, &TIME_ZONE_INFORMATION::DaylightDate}) {
      TIME_ZONE_INFORMATION zone = Berlin();
      (zone.*rule).*testCase.field = testCase.value;
      ExpectRefused(zone, {2023, 7, 0, 1, 0, 0, 0, 0});
    }
  }
}

TEST(LocalTimeTest, ImpossibleFixedDateIsRefused) {
  const SYSTEMTIME kImpossible[] = {{2020, 2, 0, 30, 0, 0, 0, 0},  {2023, 2, 0, 29, 0, 0, 0, 0},
                                    {2023, 4, 0, 31, 0, 0, 0, 0},  {2023, 4, 0, 0, 0, 0, 0, 0},
                                    {2023, 4, 0, 257, 0, 0, 0, 0}, {65535, 4, 0, 1, 0, 0, 0, 0}};
  for (const SYSTEMTIME& date : kImpossible) {
    TIME_ZONE_INFORMATION zone = Berlin();
    zone.DaylightDate = date;
    ExpectRefused(zone, {2023, 7, 0, 1, 0, 0, 0, 0});
  }
}

TEST(LocalTimeTest, ImpossibleTimeIsRefused) {
  ExpectRefused(Berlin(), {2023, 2, 0, 29, 0, 0, 0, 0});
  ExpectRefused(Berlin(), {2023, 2, 0, 1, 24, 0, 0, 0});
  ExpectRefused(Berlin(), {1600, 2, 0, 1, 0, 0, 0, 0});
}

TEST(LocalTimeTest, LocalTimeOutsideTheCalendarIsRefused) {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = 60;
  ExpectRefused(zone, {1601, 1, 0, 1, 0, 59, 59, 999});
  ExpectLocal(zone, {1601, 1, 0, 1, 1, 0, 0, 0}, {1601, 1, 1, 1, 0, 0, 0, 0});
  for (const LONG bias : {std::numeric_limits<LONG>::min(), std::numeric_limits<LONG>::max()}) {
    zone = Berlin();
    zone.Bias = bias;
    zone.StandardBias = bias;
    zone.DaylightBias = bias;
    ExpectRefused(zone, bias < 0 ? SYSTEMTIME{30827, 12, 0, 31, 0, 0, 0, 0}
                                 : SYSTEMTIME{1601, 1, 0, 1, 0, 0, 0, 0});
  }
}

TEST(LocalTimeTest, NullArgumentsAreRefused) {
  const TIME_ZONE_INFORMATION zone = Berlin();
  const SYSTEMTIME universal{2023, 7, 0, 1, 0, 0, 0, 0};
  SYSTEMTIME local;
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&zone, nullptr, &local));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&zone, &universal, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

}  // namespace
}  // namespace PlatformTest
