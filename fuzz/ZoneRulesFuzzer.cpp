#include <array>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/posix/PosixRules.h"
#include "Platform/posix/TimeZones.h"
#include "fuzz/FuzzTarget.h"

// The input is a TZif file if it begins with "TZif", and the rules of a zone otherwise.

namespace {

using Fuzz::Require;
using namespace Platform;
namespace chrono = std::chrono;

constexpr std::int64_t kSecondsPerDay = 24 * 3600;
constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;
constexpr std::int64_t kUnitsPerSecond = 10'000'000;

std::uint64_t Count(std::string_view header, std::size_t index) {
  std::uint64_t value = 0;
  for (const char c : header.substr(20 + 4 * index, 4)) {
    value = value * 256 + static_cast<unsigned char>(c);
  }
  return value;
}

// The counts of a header, in the order of the format: UT and standard indicators, leap seconds,
// transitions, types, characters of names.
std::optional<std::string> ExpectFooter(std::string_view file) {
  if (file.size() < 5 || file[4] < '2') {
    return std::nullopt;
  }
  for (const std::uint64_t timeSize : {4, 8}) {
    if (file.size() < 44 || file.substr(0, 4) != "TZif") {
      return std::nullopt;
    }
    const std::array<std::uint64_t, 6> sizes{1, 1, timeSize + 4, timeSize + 1, 6, 1};
    std::uint64_t block = 44;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      block += Count(file, i) * sizes[i];
    }
    if (block > file.size()) {
      return std::nullopt;
    }
    file = file.substr(static_cast<std::size_t>(block));
  }
  if (file.empty() || file[0] != '\n') {
    return std::nullopt;
  }
  const std::size_t end = file.find('\n', 1);
  if (end == file.npos || end == 1) {
    return std::nullopt;
  }
  return std::string(file.substr(1, end - 1));
}

// Days since 1970 of the rule's day: week by week from the first of the month, and back again
// where that leaves the month.
std::int64_t DayOf(const PosixDate& date, int year) {
  const chrono::sys_days first = chrono::year{year} / chrono::month{date.month} / 1;
  const chrono::sys_days last = chrono::year{year} / chrono::month{date.month} / chrono::last;
  const unsigned weekdayOfFirst = chrono::weekday{first}.c_encoding();
  chrono::sys_days day = first + chrono::days{(date.weekday + 7 - weekdayOfFirst) % 7};
  day += chrono::weeks{date.week - 1};
  while (day > last) {
    day -= chrono::weeks{1};
  }
  return day.time_since_epoch().count();
}

std::int64_t Transition(const PosixDate& date, int year, int offset) {
  return DayOf(date, year) * kSecondsPerDay + date.seconds + offset;
}

// The offset that holds at a time of that year (in UTC): that of the last transition before it.
// Nothing where both transitions fall together.
std::optional<int> ExpectOffset(const PosixZone& zone, std::int64_t time, int year) {
  const PosixDaylight& daylight = *zone.daylight;
  std::int64_t start = INT64_MIN;
  std::int64_t end = INT64_MIN;
  for (int near = year - 2; near <= year + 1; ++near) {
    const std::int64_t starts = Transition(daylight.start, near, zone.offset);
    const std::int64_t ends = Transition(daylight.end, near, daylight.offset);
    start = starts <= time ? starts : start;
    end = ends <= time ? ends : end;
  }
  if (start == end) {
    return std::nullopt;
  }
  return start > end ? daylight.offset : zone.offset;
}

SYSTEMTIME ToSystemTime(std::int64_t time) {
  const auto units = static_cast<std::uint64_t>((time + kSecondsFrom1601To1970) * kUnitsPerSecond);
  const FILETIME fileTime{static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
  SYSTEMTIME systemTime{};
  Require(FileTimeToSystemTime(&fileTime, &systemTime) == TRUE, "the sample is a time");
  return systemTime;
}

// Seconds to be added to local time to get UTC, as the record has it.
int OffsetAt(const TIME_ZONE_INFORMATION& zone, std::int64_t time) {
  const SYSTEMTIME universal = ToSystemTime(time);
  SYSTEMTIME local{};
  Require(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local) == TRUE,
          "a record converts every time");
  FILETIME fileTime{};
  Require(SystemTimeToFileTime(&local, &fileTime) == TRUE, "the local time is a time");
  const auto units = static_cast<std::int64_t>(
      static_cast<std::uint64_t>(fileTime.dwHighDateTime) << 32 | fileTime.dwLowDateTime);
  return static_cast<int>(time - (units / kUnitsPerSecond - kSecondsFrom1601To1970));
}

bool HasDates(const TimeZoneRecord& record) { return record.DaylightDate.wMonth != 0; }

void CheckBytes(const TimeZoneRecord& record) {
  const std::array<std::uint8_t, 44> bytes = BytesOfRecord(record);
  const auto field = [&bytes](std::size_t at) {
    return static_cast<WORD>(bytes[at] | bytes[at + 1] << 8);
  };
  Require(static_cast<std::int16_t>(field(0)) == record.Bias, "the bytes begin with the bias");
  Require(static_cast<std::int16_t>(field(8)) == record.DaylightBias,
          "the bytes hold the daylight bias");
  Require(field(14) == record.StandardDate.wMonth && field(42) == record.DaylightDate.wMilliseconds,
          "the bytes hold the dates");
}

void CheckFields(const TimeZoneRecord& record) {
  // Offsets have up to 24 hours, and minutes besides.
  constexpr LONG kLargest = 25 * 60 - 1;
  Require(record.Bias >= -kLargest && record.Bias <= kLargest, "the bias is in range");
  Require(record.StandardBias == 0, "the bias is that of standard time");
  Require((record.StandardDate.wMonth != 0) == HasDates(record), "there are both dates or none");
  Require(HasDates(record) ? record.DaylightBias < 0 && record.DaylightBias >= -2 * kLargest
                           : record.DaylightBias == -60,
          "daylight time is ahead of standard time");
  CheckBytes(record);
}

// The record's offset at a time against that of the rules. Rule times outside their day are right
// in most years only; there it must be one of the two offsets.
void CheckTime(const PosixZone& rules, const TIME_ZONE_INFORMATION& zone, std::int64_t time,
               int year) {
  const int offset = OffsetAt(zone, time);
  if (zone.DaylightDate.wMonth == 0) {
    Require(offset == rules.offset || (rules.daylight && offset == rules.daylight->offset),
            "a record without dates has an offset of the rules");
    return;
  }
  const auto isWithinDay = [](const PosixDate& date) {
    return date.seconds >= 0 && date.seconds <= kSecondsPerDay;
  };
  if (isWithinDay(rules.daylight->start) && isWithinDay(rules.daylight->end)) {
    const std::optional<int> expected = ExpectOffset(rules, time, year);
    Require(!expected || offset == *expected, "the record and the rules give the same local time");
  } else {
    Require(offset == rules.offset || offset == rules.daylight->offset,
            "the local time is standard or daylight time");
  }
}

void CheckRules(std::string_view text) {
  const std::optional<PosixZone> rules = ParsePosixRules(text);
  const std::optional<TimeZoneRecord> record = RecordFromPosixRules(text);
  if (!record) {
    return;
  }
  Require(rules.has_value(), "a record is made of well-formed rules only");
  CheckFields(*record);
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = record->Bias;
  zone.StandardBias = record->StandardBias;
  zone.DaylightBias = record->DaylightBias;
  zone.StandardDate = record->StandardDate;
  zone.DaylightDate = record->DaylightDate;

  for (const int year : {2020, 2023, 2026}) {
    const std::int64_t newYear =
        chrono::sys_days(chrono::year{year} / 1 / 1).time_since_epoch().count() * kSecondsPerDay;
    CheckTime(*rules, zone, newYear, year);
    CheckTime(*rules, zone, newYear + 182 * kSecondsPerDay, year);
    if (!HasDates(*record)) {
      continue;
    }
    const std::int64_t start = Transition(rules->daylight->start, year, rules->offset);
    const std::int64_t end = Transition(rules->daylight->end, year, rules->daylight->offset);
    for (const std::int64_t time : {start - 1, start, start + 1, end - 1, end, end + 1}) {
      CheckTime(*rules, zone, time, year);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (!input.starts_with("TZif")) {
    Require(!FooterOfTzif(input), "a file of another form has no footer");
    CheckRules(input);
    return 0;
  }
  const std::optional<std::string> footer = FooterOfTzif(input);
  Require(footer == ExpectFooter(input), "the footer is the line behind both blocks");
  if (footer) {
    CheckRules(*footer);
  }
  return 0;
}
