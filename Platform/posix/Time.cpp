#include <cerrno>

#include "Platform/Windows.h"
#include "Platform/posix/Calendar.h"
#include "Platform/posix/Clock.h"
#include "Platform/posix/Errors.h"

namespace Platform {

namespace {

namespace chrono = std::chrono;

constexpr chrono::sys_days kFirstDay = chrono::year{1601} / chrono::January / 1;

std::int64_t UnitsOfDate(chrono::sys_days date) {
  return (date - kFirstDay).count() * kUnitsPerDay;
}

std::int64_t UnitsOfTimeOfDay(const SYSTEMTIME& time) {
  const std::int64_t seconds = (time.wHour * 60 + time.wMinute) * 60 + time.wSecond;
  return seconds * kUnitsPerSecond + time.wMilliseconds * kUnitsPerMillisecond;
}

bool TimeOfDayIsPossible(const SYSTEMTIME& time) {
  return time.wHour < 24 && time.wMinute < 60 && time.wSecond < 60 && time.wMilliseconds < 1000;
}

chrono::year_month_day DateOf(const SYSTEMTIME& time) {
  return {chrono::year{time.wYear}, chrono::month{time.wMonth}, chrono::day{time.wDay}};
}

bool RuleIsPossible(const SYSTEMTIME& rule) {
  if (rule.wMonth < 1 || rule.wMonth > 12 || !TimeOfDayIsPossible(rule)) {
    return false;
  }
  if (rule.wYear == 0) {
    return rule.wDay >= 1 && rule.wDay <= 5 && rule.wDayOfWeek <= 6;
  }
  // wYear is a 16-bit number, a calendar year at most 32767.
  return rule.wYear <= 30827 && rule.wDay <= 31 && DateOf(rule).ok();
}

// The local time at which a rule takes effect in a year. A fixed date holds for that month and day
// of every year; 29 February means 1 March in a common year.
chrono::sys_time<chrono::milliseconds> TimeOfRule(const SYSTEMTIME& rule, int year) {
  const chrono::milliseconds timeOfDay{UnitsOfTimeOfDay(rule) / kUnitsPerMillisecond};
  if (rule.wYear == 0) {
    return DateOfWeekRule(year, rule.wMonth, rule.wDay, rule.wDayOfWeek) + timeOfDay;
  }
  const chrono::sys_days first = chrono::year{year} / chrono::month{rule.wMonth} / 1;
  return first + chrono::days{rule.wDay - 1} + timeOfDay;
}

int YearOf(std::int64_t units) {
  const auto days = chrono::days{units / kUnitsPerDay};
  return static_cast<int>(chrono::year_month_day{kFirstDay + days}.year());
}

// Nothing if the result lies outside the calendar.
std::optional<std::int64_t> ApplyBias(std::int64_t universal, std::int64_t minutes) {
  const std::int64_t shift = minutes * kUnitsPerMinute;
  if (shift > universal || (shift < 0 && universal > INT64_MAX + shift)) {
    return std::nullopt;
  }
  return universal - shift;
}

// When a rule last took effect, in UTC. `bias` is that of the local time in which the rule is
// given, `local` the present in that local time.
chrono::sys_time<chrono::milliseconds> LastEffect(const SYSTEMTIME& rule, std::int64_t bias,
                                                  std::int64_t local) {
  const auto now = kFirstDay + chrono::milliseconds{local / kUnitsPerMillisecond};
  const int year = YearOf(local);
  const auto effect = TimeOfRule(rule, year);
  return (effect <= now ? effect : TimeOfRule(rule, year - 1)) + chrono::minutes{bias};
}

std::optional<std::int64_t> ToLocal(const TIME_ZONE_INFORMATION& zone, std::int64_t universal) {
  if (zone.DaylightDate.wMonth == 0) {
    return ApplyBias(universal, zone.Bias);
  }
  if (!RuleIsPossible(zone.StandardDate) || !RuleIsPossible(zone.DaylightDate)) {
    return std::nullopt;
  }
  const std::int64_t standardBias = std::int64_t{zone.Bias} + zone.StandardBias;
  const std::int64_t daylightBias = std::int64_t{zone.Bias} + zone.DaylightBias;
  const std::optional<std::int64_t> standard = ApplyBias(universal, standardBias);
  const std::optional<std::int64_t> daylight = ApplyBias(universal, daylightBias);
  if (!standard || !daylight) {
    return std::nullopt;
  }
  // Each rule is given in the local time that holds until it takes effect.
  const auto daylightBegan = LastEffect(zone.DaylightDate, standardBias, *standard);
  const auto standardBegan = LastEffect(zone.StandardDate, daylightBias, *daylight);
  return daylightBegan > standardBegan ? daylight : standard;
}

}  // namespace

std::optional<std::int64_t> UnitsFromSystemTime(const SYSTEMTIME& time) {
  if (time.wYear < 1601 || time.wYear > 30827 || time.wMonth > 12 || time.wDay > 31 ||
      !TimeOfDayIsPossible(time) || !DateOf(time).ok()) {
    return std::nullopt;
  }
  return UnitsOfDate(DateOf(time)) + UnitsOfTimeOfDay(time);
}

SYSTEMTIME SystemTimeFromUnits(std::int64_t units) {
  const chrono::sys_days day = kFirstDay + chrono::days{units / kUnitsPerDay};
  const chrono::year_month_day date{day};
  const std::int64_t milliseconds = units % kUnitsPerDay / kUnitsPerMillisecond;
  const std::int64_t seconds = milliseconds / 1000;
  return {static_cast<WORD>(static_cast<int>(date.year())),
          static_cast<WORD>(static_cast<unsigned>(date.month())),
          static_cast<WORD>(chrono::weekday{day}.c_encoding()),
          static_cast<WORD>(static_cast<unsigned>(date.day())),
          static_cast<WORD>(seconds / 3600),
          static_cast<WORD>(seconds / 60 % 60),
          static_cast<WORD>(seconds % 60),
          static_cast<WORD>(milliseconds % 1000)};
}

chrono::sys_days DateOfWeekRule(int year, unsigned month, unsigned week, unsigned weekday) {
  const chrono::year_month inMonth = chrono::year{year} / chrono::month{month};
  if (week == 5) {
    return inMonth / chrono::weekday{weekday}[chrono::last];
  }
  return inMonth / chrono::weekday{weekday}[week];
}

}  // namespace Platform

void GetSystemTime(LPSYSTEMTIME systemTime) {
  if (systemTime != nullptr) {
    *systemTime =
        Platform::SystemTimeFromUnits(static_cast<std::int64_t>(Platform::ClockNow() & INT64_MAX));
  }
}

void GetSystemTimeAsFileTime(LPFILETIME systemTimeAsFileTime) {
  if (systemTimeAsFileTime != nullptr) {
    *systemTimeAsFileTime = Platform::ToFileTime(Platform::ClockNow());
  }
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, LPFILETIME fileTime) {
  return Platform::Report([&]() -> DWORD {
           if (systemTime == nullptr || fileTime == nullptr) {
             return ERROR_INVALID_PARAMETER;
           }
           const std::optional<std::int64_t> units = Platform::UnitsFromSystemTime(*systemTime);
           if (!units) {
             return ERROR_INVALID_PARAMETER;
           }
           *fileTime = Platform::ToFileTime(static_cast<std::uint64_t>(*units));
           return ERROR_SUCCESS;
         }) == ERROR_SUCCESS;
}

BOOL FileTimeToSystemTime(const FILETIME* fileTime, LPSYSTEMTIME systemTime) {
  return Platform::Report([&]() -> DWORD {
           if (fileTime == nullptr || systemTime == nullptr ||
               (fileTime->dwHighDateTime & 0x80000000u) != 0) {
             return ERROR_INVALID_PARAMETER;
           }
           const std::int64_t high = fileTime->dwHighDateTime;
           *systemTime = Platform::SystemTimeFromUnits((high << 32) | fileTime->dwLowDateTime);
           return ERROR_SUCCESS;
         }) == ERROR_SUCCESS;
}

BOOL SystemTimeToTzSpecificLocalTime(const TIME_ZONE_INFORMATION* timeZoneInformation,
                                     const SYSTEMTIME* universalTime, LPSYSTEMTIME localTime) {
  return Platform::Report([&]() -> DWORD {
           if (timeZoneInformation == nullptr || universalTime == nullptr || localTime == nullptr) {
             return ERROR_INVALID_PARAMETER;
           }
           const std::optional<std::int64_t> universal =
               Platform::UnitsFromSystemTime(*universalTime);
           const std::optional<std::int64_t> local =
               universal ? Platform::ToLocal(*timeZoneInformation, *universal) : std::nullopt;
           if (!local) {
             return ERROR_INVALID_PARAMETER;
           }
           *localTime = Platform::SystemTimeFromUnits(*local);
           return ERROR_SUCCESS;
         }) == ERROR_SUCCESS;
}

__time64_t _time64(__time64_t* destinationTime) {
  const auto seconds = static_cast<std::int64_t>(Platform::ClockNow() / Platform::kUnitsPerSecond) -
                       Platform::kSecondsFrom1601To1970;
  if (destinationTime != nullptr) {
    *destinationTime = seconds;
  }
  return seconds;
}

std::tm* _gmtime64(const __time64_t* sourceTime) {
  // 3000-12-31 23:59:59, the last time that the C runtime converts.
  constexpr __time64_t kLast = 32'535'215'999;
  thread_local std::tm result;
  if (sourceTime == nullptr || *sourceTime < 0 || *sourceTime > kLast) {
    errno = EINVAL;
    return nullptr;
  }
  const auto seconds = static_cast<std::time_t>(*sourceTime);
  return ::gmtime_r(&seconds, &result);
}
