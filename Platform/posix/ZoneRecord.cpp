#include "Platform/posix/Calendar.h"
#include "Platform/posix/PosixRules.h"
#include "Platform/posix/TimeZones.h"

// From the rules of a zone to its record.

namespace Platform {

namespace {

constexpr int kSecondsPerDay = 24 * 3600;

// The DaylightBias of a zone that has no daylight time.
constexpr LONG kUnusedDaylightBias = -60;

struct WeekRule {
  unsigned month;
  unsigned week;
  unsigned weekday;
};

// A span of years in which every weekday and leap year combination comes as often as any other.
constexpr int kFirstYear = 2001;
constexpr int kYears = 28;
// Five of seven years.
constexpr int kRequiredYears = kYears / 7 * 5;

int YearsInWhichTheyMeet(const PosixDate& date, std::chrono::days moved, const WeekRule& rule) {
  int years = 0;
  for (int year = kFirstYear; year < kFirstYear + kYears; ++year) {
    const auto transition = DateOfWeekRule(year, date.month, date.week, date.weekday) + moved;
    years += transition == DateOfWeekRule(year, rule.month, rule.week, rule.weekday) ? 1 : 0;
  }
  return years;
}

std::optional<WeekRule> MoveByDays(const PosixDate& date, int days) {
  // The rule's own week comes first, so that it wins where another is right as often.
  WeekRule rule{date.month, date.week,
                static_cast<unsigned>(((static_cast<int>(date.weekday) + days) % 7 + 7) % 7)};
  const std::chrono::days moved{days};
  WeekRule best = rule;
  int bestYears = YearsInWhichTheyMeet(date, moved, rule);
  for (rule.month = date.month > 1 ? date.month - 1 : 1;
       rule.month <= 12 && rule.month <= date.month + 1; ++rule.month) {
    for (rule.week = 1; rule.week <= 5; ++rule.week) {
      const int years = YearsInWhichTheyMeet(date, moved, rule);
      if (years > bestYears) {
        best = rule;
        bestYears = years;
      }
    }
  }
  return bestYears >= kRequiredYears ? std::optional<WeekRule>(best) : std::nullopt;
}

SYSTEMTIME ToSystemTime(const WeekRule& rule, int seconds, int milliseconds) {
  SYSTEMTIME date{};
  date.wMonth = static_cast<WORD>(rule.month);
  date.wDayOfWeek = static_cast<WORD>(rule.weekday);
  date.wDay = static_cast<WORD>(rule.week);
  date.wHour = static_cast<WORD>(seconds / 3600);
  date.wMinute = static_cast<WORD>(seconds / 60 % 60);
  date.wSecond = static_cast<WORD>(seconds % 60);
  date.wMilliseconds = static_cast<WORD>(milliseconds);
  return date;
}

std::optional<SYSTEMTIME> RecordDate(const PosixDate& date) {
  if (date.form != DateForm::WeekOfMonth) {
    return std::nullopt;
  }
  if (date.seconds == kSecondsPerDay) {
    return ToSystemTime({date.month, date.week, date.weekday}, kSecondsPerDay - 1, 999);
  }
  int days = date.seconds / kSecondsPerDay;
  int seconds = date.seconds % kSecondsPerDay;
  if (seconds < 0) {
    --days;
    seconds += kSecondsPerDay;
  }
  const std::optional<WeekRule> rule = MoveByDays(date, days);
  return rule ? std::optional<SYSTEMTIME>(ToSystemTime(*rule, seconds, 0)) : std::nullopt;
}

// Daylight time from the first moment of a year to its last one: the end, in daylight time, is as
// long after the last day as daylight time is ahead.
bool IsDaylightAllYear(const PosixZone& zone) {
  const PosixDaylight& daylight = *zone.daylight;
  const bool bFromFirstDay =
      (daylight.start.form == DateForm::JulianDay && daylight.start.day == 1) ||
      (daylight.start.form == DateForm::DayOfYear && daylight.start.day == 0);
  return bFromFirstDay && daylight.start.seconds == 0 && daylight.end.form == DateForm::JulianDay &&
         daylight.end.day == 365 &&
         daylight.end.seconds == kSecondsPerDay + zone.offset - daylight.offset;
}

std::optional<TimeZoneRecord> FixedRecord(int offset) {
  if (offset % 60 != 0) {
    return std::nullopt;
  }
  TimeZoneRecord record;
  record.Bias = offset / 60;
  record.DaylightBias = kUnusedDaylightBias;
  return record;
}

}  // namespace

std::optional<TimeZoneRecord> RecordFromPosixRules(std::string_view rules) {
  const std::optional<PosixZone> zone = ParsePosixRules(rules);
  if (!zone) {
    return std::nullopt;
  }
  if (!zone->daylight || zone->daylight->offset == zone->offset) {
    return FixedRecord(zone->offset);
  }
  if (IsDaylightAllYear(*zone)) {
    return FixedRecord(zone->daylight->offset);
  }
  const PosixDaylight& daylight = *zone->daylight;
  // Each date is in the local time that ends with it, under either name.
  const bool bReversed = daylight.offset > zone->offset;
  const int standardOffset = bReversed ? daylight.offset : zone->offset;
  const int daylightOffset = bReversed ? zone->offset : daylight.offset;
  const std::optional<SYSTEMTIME> standardDate =
      RecordDate(bReversed ? daylight.start : daylight.end);
  const std::optional<SYSTEMTIME> daylightDate =
      RecordDate(bReversed ? daylight.end : daylight.start);
  std::optional<TimeZoneRecord> record = FixedRecord(standardOffset);
  if (!record || !standardDate || !daylightDate || daylightOffset % 60 != 0) {
    return std::nullopt;
  }
  record->DaylightBias = (daylightOffset - standardOffset) / 60;
  record->StandardDate = *standardDate;
  record->DaylightDate = *daylightDate;
  return record;
}

}  // namespace Platform
