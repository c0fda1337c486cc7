#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>

#include "Platform/posix/TimeZones.h"

namespace PlatformTest {
namespace {

using Platform::RecordFromPosixRules;
using Platform::TimeZoneRecord;

// Month, weekday, week, hour:minute:second.milliseconds.
std::string Text(const SYSTEMTIME& date) {
  char text[64];
  std::snprintf(text, sizeof text, "%u.%u.%u %02u:%02u:%02u.%03u", date.wMonth, date.wDay,
                date.wDayOfWeek, date.wHour, date.wMinute, date.wSecond, date.wMilliseconds);
  return date.wYear == 0 ? text : "year";
}

constexpr char kNoDate[] = "0.0.0 00:00:00.000";

struct RecordCase {
  const char* rules;
  LONG bias;
  LONG daylightBias;
  std::string standardDate = kNoDate;
  std::string daylightDate = kNoDate;
};

void ExpectRecord(const RecordCase& testCase) {
  SCOPED_TRACE(testCase.rules);
  const std::optional<TimeZoneRecord> record = RecordFromPosixRules(testCase.rules);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->Bias, testCase.bias);
  EXPECT_EQ(record->StandardBias, 0);
  EXPECT_EQ(record->DaylightBias, testCase.daylightBias);
  EXPECT_EQ(Text(record->StandardDate), testCase.standardDate);
  EXPECT_EQ(Text(record->DaylightDate), testCase.daylightDate);
}

TEST(ZoneRecordTest, ZoneWithoutDaylightTimeHasTheCustomaryBiasAndNoDates) {
  ExpectRecord({"UTC0", 0, -60});
  ExpectRecord({"EST5", 300, -60});
  ExpectRecord({"IST-5:30", -330, -60});
  ExpectRecord({"<+0545>-5:45", -345, -60});
  ExpectRecord({"<-03>3", 180, -60});
  ExpectRecord({"ABC+24", 1440, -60});
  ExpectRecord({"abcdefghij-24:59:00", -1499, -60});
}

TEST(ZoneRecordTest, RulesOfBothHemispheresBecomeDates) {
  ExpectRecord({"CST6CDT,M3.2.0,M11.1.0", 360, -60, "11.1.0 02:00:00.000", "3.2.0 02:00:00.000"});
  ExpectRecord(
      {"NZST-12NZDT,M9.5.0,M4.1.0/3", -720, -60, "4.1.0 03:00:00.000", "9.5.0 02:00:00.000"});
  ExpectRecord({"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", -630, -30, "4.1.0 02:00:00.000",
                "10.1.0 02:00:00.000"});
  ExpectRecord(
      {"<+00>0<+02>-2,M3.5.0/1,M10.5.0/3", 0, -120, "10.5.0 03:00:00.000", "3.5.0 01:00:00.000"});
  ExpectRecord({"AAA3BBB,M3.2.6/2:03:04,M11.1.1/+23:59:59", 180, -60, "11.1.1 23:59:59.000",
                "3.2.6 02:03:04.000"});
}

TEST(ZoneRecordTest, DaylightTimeBehindStandardTimeIsExchanged) {
  ExpectRecord({"IST-1GMT0,M10.5.0,M3.5.0/1", 0, -60, "10.5.0 02:00:00.000", "3.5.0 01:00:00.000"});
  ExpectRecord(
      {"<+01>-1<+00>0,M2.1.0/3,M3.1.0/2", 0, -60, "2.1.0 03:00:00.000", "3.1.0 02:00:00.000"});
}

TEST(ZoneRecordTest, EndOfTheDayIsItsLastMillisecond) {
  ExpectRecord(
      {"<-04>4<-03>,M9.1.6/24,M4.1.6/24", 240, -60, "4.1.6 23:59:59.999", "9.1.6 23:59:59.999"});
  ExpectRecord({"EET-2EEST,M4.5.5/0,M10.5.4/24:00:00", -120, -60, "10.5.4 23:59:59.999",
                "4.5.5 00:00:00.000"});
}

TEST(ZoneRecordTest, HoursOutsideTheDayMoveTheRuleToAnotherDay) {
  ExpectRecord(
      {"IST-2IDT,M3.4.4/26,M10.5.0", -120, -60, "10.5.0 02:00:00.000", "3.4.5 02:00:00.000"});
  ExpectRecord(
      {"<-02>2<-01>,M3.5.0/-1,M10.5.0/0", 120, -60, "10.5.0 00:00:00.000", "3.5.6 23:00:00.000"});
  ExpectRecord({"AAA0BBB,M3.2.6/24:00:01,M10.2.0/-0:00:01", 0, -60, "10.2.6 23:59:59.000",
                "3.2.0 00:00:01.000"});
  ExpectRecord(
      {"AAA0BBB,M3.2.3/48,M10.2.3/-24", 0, -60, "10.2.2 00:00:00.000", "3.2.5 00:00:00.000"});
}

TEST(ZoneRecordTest, MovedWeekIsTheOneThatIsRightInMostYears) {
  // The Saturday after the fourth Thursday is nearly always the last one of October.
  ExpectRecord(
      {"EET-2EEST,M3.4.4/50,M10.4.4/50", -120, -60, "10.5.6 02:00:00.000", "3.5.6 02:00:00.000"});
  // Six or five days on: the next week. Six days back: the week before.
  ExpectRecord(
      {"AAA0BBB,M3.2.0/146,M10.2.0/-144", 0, -60, "10.1.1 00:00:00.000", "3.3.6 02:00:00.000"});
  ExpectRecord({"AAA0BBB,M3.2.0/122,M10.2.0", 0, -60, "10.2.0 02:00:00.000", "3.3.5 02:00:00.000"});
  // Into the month before.
  ExpectRecord(
      {"AAA0BBB,M3.1.0/-146,M10.2.0", 0, -60, "10.2.0 02:00:00.000", "2.5.0 22:00:00.000"});
}

TEST(ZoneRecordTest, MoveThatNoWeekRuleFollowsIsRefused) {
  // Three or four days away from a week rule are right in four of seven years at most.
  EXPECT_FALSE(RecordFromPosixRules("AAA0BBB,M3.2.0/74,M10.2.0"));
  EXPECT_FALSE(RecordFromPosixRules("AAA0BBB,M3.2.0,M10.2.0/98"));
  EXPECT_FALSE(RecordFromPosixRules("AAA0BBB,M3.2.0,M10.2.0/-72"));
}

TEST(ZoneRecordTest, DaylightTimeAllYearIsAZoneWithoutRules) {
  ExpectRecord({"EST5EDT,0/0,J365/25", 240, -60});
  ExpectRecord({"XXX3EDT4,J1/0,J365/23", 240, -60});
  ExpectRecord({"AAA0BBB0,M3.2.0,M10.2.0", 0, -60});
}

TEST(ZoneRecordTest, RulesThatARecordCannotSayAreRefused) {
  for (const char* rules :
       {"AAA0BBB,J60,J300", "AAA0BBB,59,299", "AAA0BBB,M3.2.0,J300", "AAA0BBB,0,M10.1.0",
        "EST5EDT,0/0,J365/24", "EST5EDT,1/0,J365/25", "EST5EDT,0/1,J365/25", "AAA0:00:30",
        "AAA0BBB0:59:30,M3.2.0,M10.2.0", "EST5EDT", "EST5EDT4"}) {
    EXPECT_FALSE(RecordFromPosixRules(rules)) << rules;
  }
}

TEST(ZoneRecordTest, BrokenRulesAreRefused) {
  for (const char* rules : {"",
                            "E",
                            "ES5",
                            "EST",
                            "5",
                            "EST+",
                            "EST-",
                            "EST5:",
                            "EST5:60",
                            "EST5:00:60",
                            "EST25",
                            "EST1000",
                            "EST5 ",
                            " EST5",
                            "<EST5",
                            "<>5",
                            "<+3>-3",
                            "<+03-3",
                            "+03>-3",
                            "E3T5",
                            "EST5ED",
                            "EST5<EDT,M3.2.0,M11.1.0",
                            "EST5EDT,",
                            "EST5EDT,M3.2.0",
                            "EST5EDT,M3.2.0,",
                            "EST5EDT,M3.2.0,M11.1.0,",
                            "EST5EDT,M3.2.0,M11.1.0x",
                            "EST5EDT,M0.2.0,M11.1.0",
                            "EST5EDT,M13.2.0,M11.1.0",
                            "EST5EDT,M3.0.0,M11.1.0",
                            "EST5EDT,M3.6.0,M11.1.0",
                            "EST5EDT,M3.2.7,M11.1.0",
                            "EST5EDT,M3.2,M11.1.0",
                            "EST5EDT,M3.2.0/,M11.1.0",
                            "EST5EDT,M3.2.0/168,M11.1.0",
                            "EST5EDT,M3.2.0/-168,M11.1.0",
                            "EST5EDT,J0,M11.1.0",
                            "EST5EDT,J366,M11.1.0",
                            "EST5EDT,366,M11.1.0",
                            "EST5EDT,-1,M11.1.0",
                            "EST5EDT,M3.2.0/2:60,M11.1.0",
                            "EST5EDT,M3.2.0/2::0,M11.1.0",
                            "EST5EDT,M3.2.0/--1,M11.1.0",
                            "EST5EDT25,M3.2.0,M11.1.0",
                            "EST99999999999999999999",
                            "EST5EDT,M3..0,M11.1.0"}) {
    EXPECT_FALSE(RecordFromPosixRules(rules)) << rules;
  }
  EXPECT_FALSE(RecordFromPosixRules(std::string_view("EST5\0", 5)));
}

TEST(ZoneRecordTest, BytesAreTheFieldsInOrderLowestByteFirst) {
  TimeZoneRecord record;
  record.Bias = -2;
  record.StandardBias = 0x01020304;
  record.DaylightBias = -60;
  record.StandardDate = {0x1111, 1, 2, 3, 4, 5, 6, 7};
  record.DaylightDate = {0x2221, 8, 9, 10, 11, 12, 13, 0x3331};
  const std::array<std::uint8_t, 44> expected = {
      0xFE, 0xFF, 0xFF, 0xFF, 4,  3, 2,  1, 0xC4, 0xFF, 0xFF, 0xFF, 0x11, 0x11, 1,
      0,    2,    0,    3,    0,  4, 0,  5, 0,    6,    0,    7,    0,    0x21, 0x22,
      8,    0,    9,    0,    10, 0, 11, 0, 12,   0,    13,   0,    0x31, 0x33};
  EXPECT_EQ(Platform::BytesOfRecord(record), expected);
}

}  // namespace
}  // namespace PlatformTest
