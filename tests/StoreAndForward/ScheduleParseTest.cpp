#include <gtest/gtest.h>

#include <cstring>

#include "StoreAndForward/Schedule.h"
#include "tests/support/LogCapture.h"

namespace OrloStoreAndForward {
namespace {

using TestSupport::LogCapture;
using WindowsAgentCommon::LogLevel;

constexpr char kLogger[] = "Code.StoreAndForwardOutgoing.Schedule";

Schedule::Interval Untouched() { return {-1, -2, 0x55}; }

void ExpectUntouched(const Schedule::Interval& interval) {
  EXPECT_EQ(interval.lStart, -1);
  EXPECT_EQ(interval.lEnd, -2);
  EXPECT_EQ(interval.nDays, 0x55);
}

TEST(ParseInterval, FillsStartEndAndDaysAndResolvesTheZone) {
  Schedule::Interval interval = Untouched();
  TIME_ZONE_INFORMATION zone{};
  ASSERT_TRUE(Schedule::ParseInterval("1430-1630;7F;America/Regina", interval, &zone));
  EXPECT_EQ(interval.lStart, 1430);
  EXPECT_EQ(interval.lEnd, 1630);
  EXPECT_EQ(interval.nDays, 0x7F);
  EXPECT_EQ(zone.Bias, 360);
  EXPECT_EQ(zone.DaylightBias, -60);
}

TEST(ParseInterval, HongKongResolves) {
  Schedule::Interval interval = Untouched();
  TIME_ZONE_INFORMATION zone{};
  ASSERT_TRUE(Schedule::ParseInterval("0800-1700;7F;Asia/Hong_Kong", interval, &zone));
  EXPECT_EQ(interval.lStart, 800);
  EXPECT_EQ(interval.lEnd, 1700);
  EXPECT_EQ(interval.nDays, 0x7F);
  EXPECT_EQ(zone.Bias, -480);
}

TEST(ParseInterval, LeadingZerosAreDecimal) {
  Schedule::Interval interval = Untouched();
  ASSERT_TRUE(Schedule::ParseInterval("0000-0930;08;UTC", interval));
  EXPECT_EQ(interval.lStart, 0);
  EXPECT_EQ(interval.lEnd, 930);
  EXPECT_EQ(interval.nDays, 0x08);
}

struct MalformedText {
  const char* situation;
  std::string text;
};

class ParseIntervalMalformed : public testing::TestWithParam<MalformedText> {};

TEST_P(ParseIntervalMalformed, IsRefusedSilentlyAndTouchesNothing) {
  const LogCapture log;
  for (const bool withZone : {false, true}) {
    Schedule::Interval interval = Untouched();
    TIME_ZONE_INFORMATION zone;
    std::memset(&zone, 0x5A, sizeof(zone));
    const TIME_ZONE_INFORMATION before = zone;
    EXPECT_FALSE(Schedule::ParseInterval(GetParam().text, interval, withZone ? &zone : nullptr));
    ExpectUntouched(interval);
    EXPECT_EQ(std::memcmp(&zone, &before, sizeof(zone)), 0);
  }
  EXPECT_TRUE(log.Lines().empty());
}

INSTANTIATE_TEST_SUITE_P(
    All, ParseIntervalMalformed,
    testing::Values(MalformedText{"Empty", ""}, MalformedText{"Hour24", "2400-0100;7F;UTC"},
                    MalformedText{"Hour24AtTheEnd", "0100-2400;7F;UTC"},
                    MalformedText{"Hour30", "3000-0100;7F;UTC"},
                    MalformedText{"Minute60", "0860-0900;7F;UTC"},
                    MalformedText{"Minute60AtTheEnd", "0800-0960;7F;UTC"},
                    MalformedText{"ThreeDigits", "800-1700;7F;UTC"},
                    MalformedText{"FiveDigits", "08000-1700;7F;UTC"},
                    MalformedText{"LowerCaseDays", "0800-1700;7f;UTC"},
                    MalformedText{"Bit7", "0800-1700;80;UTC"},
                    MalformedText{"DaysOfOneDigit", "0800-1700;7;UTC"},
                    MalformedText{"DaysOfThreeDigits", "0800-1700;07F;UTC"},
                    MalformedText{"DaysNotHexadecimal", "0800-1700;7G;UTC"},
                    MalformedText{"NoZone", "0800-1700;7F;"},
                    MalformedText{"NoSecondSeparator", "0800-1700;7F"},
                    MalformedText{"LeadingBlank", " 0800-1700;7F;UTC"},
                    MalformedText{"BlankAroundTheDash", "0800 - 1700;7F;UTC"},
                    MalformedText{"Colons", "08:00-17:00;7F;UTC"},
                    MalformedText{"Commas", "0800-1700,7F,UTC"},
                    MalformedText{"LineFeedInTheZone", "0800-1700;7F;UTC\n"},
                    MalformedText{"CarriageReturnInTheZone", "0800-1700;7F;U\rTC"},
                    MalformedText{"NulInTheTimes", std::string("0800\0-1700;7F;UTC", 17)},
                    MalformedText{"Nonsense", "always"}),
    [](const auto& test) { return std::string(test.param.situation); });

TEST(ParseInterval, StartLaterThanEndAndEmptyMaskAreAccepted) {
  Schedule::Interval interval = Untouched();
  EXPECT_TRUE(Schedule::ParseInterval("1700-0800;01;UTC", interval));
  EXPECT_EQ(interval.lStart, 1700);
  EXPECT_EQ(interval.lEnd, 800);
  EXPECT_TRUE(Schedule::ParseInterval("0800-1700;00;UTC", interval));
  EXPECT_EQ(interval.nDays, 0);
}

TEST(ParseInterval, UnknownZoneIsFineWhereNoZoneIsAskedFor) {
  const LogCapture log;
  Schedule::Interval interval = Untouched();
  EXPECT_TRUE(Schedule::ParseInterval("0800-1700;7F;No/Such_Zone", interval));
  EXPECT_TRUE(log.Lines().empty());
}

TEST(ParseInterval, UnknownZoneFailsWithAnErrorAndTheIntervalFilled) {
  const LogCapture log;
  Schedule::Interval interval = Untouched();
  TIME_ZONE_INFORMATION zone{};
  EXPECT_FALSE(Schedule::ParseInterval("0800-1700;7F;No/Such_Zone", interval, &zone));
  EXPECT_EQ(interval.lStart, 800);
  EXPECT_EQ(interval.lEnd, 1700);
  EXPECT_EQ(interval.nDays, 0x7F);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_TRUE(log.Contains(LogLevel::Error, kLogger,
                           "Failed to retrieve time zone information for No/Such_Zone."));
}

TEST(ParseInterval, TrailingBlankBelongsToTheZone) {
  const LogCapture log;
  Schedule::Interval interval = Untouched();
  TIME_ZONE_INFORMATION zone{};
  EXPECT_TRUE(Schedule::ParseInterval("0800-1700;7F;UTC ", interval));
  EXPECT_FALSE(Schedule::ParseInterval("0800-1700;7F;UTC ", interval, &zone));
  EXPECT_TRUE(
      log.Contains(LogLevel::Error, kLogger, "Failed to retrieve time zone information for UTC ."));
}

TEST(ParseInterval, ZoneOfAnyLengthIsTaken) {
  Schedule::Interval interval = Untouched();
  EXPECT_TRUE(Schedule::ParseInterval("0800-1700;7F;" + std::string(1'000'000, 'z'), interval));
}

}  // namespace
}  // namespace OrloStoreAndForward
