#include <cstring>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

constexpr std::uint64_t kSecond = 10'000'000;
constexpr std::uint64_t kMillisecond = kSecond / 1000;
constexpr std::uint64_t kHour = 3600 * kSecond;

SYSTEMTIME SystemTimeOf(std::uint64_t units) {
  const FILETIME time{static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
  SYSTEMTIME result{};
  FileTimeToSystemTime(&time, &result);
  return result;
}

std::uint64_t UnitsOf(const SYSTEMTIME& time) {
  FILETIME result{};
  SystemTimeToFileTime(&time, &result);
  return std::uint64_t{result.dwHighDateTime} << 32 | result.dwLowDateTime;
}

// Local time minus universal time, in milliseconds, or the failure.
std::string OffsetAt(const TIME_ZONE_INFORMATION& zone, std::uint64_t units) {
  const SYSTEMTIME universal = SystemTimeOf(units);
  SYSTEMTIME local{};
  SetLastError(kStale);
  if (SystemTimeToTzSpecificLocalTime(&zone, &universal, &local) == FALSE) {
    return Outcome(false, GetLastError());
  }
  const auto difference = static_cast<std::int64_t>(UnitsOf(local) - UnitsOf(universal));
  const std::int64_t milliseconds = difference / static_cast<std::int64_t>(kMillisecond);
  return milliseconds % 60'000 == 0 ? std::to_string(milliseconds / 60'000)
                                    : std::to_string(milliseconds) + "ms";
}

// Every offset of the year in turn, with the first millisecond at which it holds.
std::string OffsetsOf(const TIME_ZONE_INFORMATION& zone, WORD year, std::uint64_t step) {
  const SYSTEMTIME first{year, 1, 0, 1, 0, 0, 0, 0};
  const SYSTEMTIME last{year, 12, 0, 31, 23, 59, 59, 999};
  std::uint64_t now = UnitsOf(first);
  const std::uint64_t end = UnitsOf(last);
  std::string offset = OffsetAt(zone, now);
  std::string text = offset;
  while (now < end) {
    const std::uint64_t next = now + step < end ? now + step : end;
    if (const std::string then = OffsetAt(zone, next); then != offset) {
      std::uint64_t before = now;
      std::uint64_t after = next;
      while (after - before > kMillisecond) {
        const std::uint64_t middle = before + (after - before) / kMillisecond / 2 * kMillisecond;
        (OffsetAt(zone, middle) == offset ? before : after) = middle;
      }
      offset = OffsetAt(zone, after);
      text += " @" + TextOf(SystemTimeOf(after)) + " " + offset;
      now = after;
      continue;
    }
    now = next;
  }
  return text;
}

TIME_ZONE_INFORMATION InformationOf(const std::array<std::uint8_t, 44>& bytes) {
  TIME_ZONE_INFORMATION zone{};
  const auto copy = [&](void* field, std::size_t offset, std::size_t size) {
    std::memcpy(field, bytes.data() + offset, size);
  };
  copy(&zone.Bias, 0, 4);
  copy(&zone.StandardBias, 4, 4);
  copy(&zone.DaylightBias, 8, 4);
  copy(&zone.StandardDate, 12, 16);
  copy(&zone.DaylightDate, 28, 16);
  return zone;
}

std::string Name(const char* rest) { return std::string("rules ") + rest; }

// A zone with daylight time from the last Sunday in March to the last in October.
TIME_ZONE_INFORMATION European() {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = -60;
  zone.DaylightBias = -60;
  zone.DaylightDate = {0, 3, 0, 5, 2, 0, 0, 0};
  zone.StandardDate = {0, 10, 0, 5, 3, 0, 0, 0};
  return zone;
}

void AddRules(Record& record, const std::string& name, const TIME_ZONE_INFORMATION& zone) {
  for (const WORD year : std::initializer_list<WORD>{2022, 2023, 2024}) {
    record.push_back({name + " " + std::to_string(year), OffsetsOf(zone, year, kHour)});
  }
}

// One field of a rule replaced, in the begin and in the end of daylight time.
void RecordFields(Record& record) {
  struct {
    const char* name;
    WORD SYSTEMTIME::*field;
    std::vector<WORD> values;
  } const fields[] = {
      {"month", &SYSTEMTIME::wMonth, {0, 1, 12, 13, 65535}},
      {"weekday", &SYSTEMTIME::wDayOfWeek, {1, 6, 7, 65535}},
      {"week", &SYSTEMTIME::wDay, {0, 1, 2, 3, 4, 5, 6, 31, 65535}},
      {"hour", &SYSTEMTIME::wHour, {0, 23, 24, 65535}},
      {"minute", &SYSTEMTIME::wMinute, {1, 59, 60, 65535}},
      {"second", &SYSTEMTIME::wSecond, {1, 59, 60, 65535}},
      {"millisecond", &SYSTEMTIME::wMilliseconds, {1, 999, 1000, 65535}},
  };
  for (const auto& field : fields) {
    for (const WORD value : field.values) {
      TIME_ZONE_INFORMATION zone = European();
      zone.DaylightDate.*field.field = value;
      AddRules(record, Name("daylight ") + field.name + " " + std::to_string(value), zone);
      zone = European();
      zone.StandardDate.*field.field = value;
      AddRules(record, Name("standard ") + field.name + " " + std::to_string(value), zone);
    }
  }
}

void RecordFixedDates(Record& record) {
  for (const WORD year : std::initializer_list<WORD>{1601, 2023, 2024, 2025, 30827, 30828}) {
    for (const WORD day : std::initializer_list<WORD>{28, 29, 30, 31, 32, 0}) {
      TIME_ZONE_INFORMATION zone = European();
      zone.DaylightDate.wYear = year;
      zone.DaylightDate.wDay = day;
      const std::string ending = std::to_string(year) + " day " + std::to_string(day);
      AddRules(record, Name("fixed daylight ") + ending, zone);
      zone.StandardDate.wYear = year;
      zone.StandardDate.wDay = day;
      AddRules(record, Name("fixed both ") + ending, zone);
      zone.DaylightDate.wMonth = 2;
      AddRules(record, Name("fixed february ") + ending, zone);
    }
  }
}

void RecordBiases(Record& record) {
  for (const LONG bias :
       {-2147483647 - 1, -1000000, -1440, -60, 0, 60, 1440, 1000000, 2147483647}) {
    TIME_ZONE_INFORMATION zone = European();
    zone.Bias = bias;
    AddRules(record, Name("bias ") + std::to_string(bias), zone);
    zone.DaylightDate = {};
    zone.StandardDate = {};
    AddRules(record, Name("bias-without-rules ") + std::to_string(bias), zone);
    zone = European();
    zone.DaylightBias = bias;
    AddRules(record, Name("daylight-bias ") + std::to_string(bias), zone);
    zone = European();
    zone.StandardBias = bias;
    AddRules(record, Name("standard-bias ") + std::to_string(bias), zone);
  }
}

}  // namespace

void RecordRules(Record& record) {
  TIME_ZONE_INFORMATION zone = European();
  AddRules(record, Name("european"), zone);
  std::swap(zone.DaylightDate, zone.StandardDate);
  AddRules(record, Name("southern"), zone);
  zone.StandardDate = zone.DaylightDate;
  AddRules(record, Name("both at once"), zone);
  zone = European();
  zone.StandardBias = 30;
  AddRules(record, Name("standard bias and daylight"), zone);
  zone.DaylightDate = {};
  AddRules(record, Name("standard date alone"), zone);
  zone = European();
  zone.StandardDate = {};
  AddRules(record, Name("daylight date alone"), zone);
  zone = European();
  zone.DaylightDate = {0, 1, 0, 1, 0, 0, 0, 0};
  AddRules(record, Name("from the first sunday"), zone);
  zone.DaylightDate = {0, 12, 0, 5, 23, 59, 59, 999};
  AddRules(record, Name("from the last sunday"), zone);
  RecordFields(record);
  RecordFixedDates(record);
  RecordBiases(record);
  const SYSTEMTIME impossible[] = {{2023, 2, 0, 29, 0, 0, 0, 0},  {2023, 13, 0, 1, 0, 0, 0, 0},
                                   {2023, 1, 0, 0, 0, 0, 0, 0},   {2023, 1, 0, 1, 24, 0, 0, 0},
                                   {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0},
                                   {1601, 1, 0, 1, 0, 0, 0, 0},   {30827, 12, 0, 31, 23, 0, 0, 0}};
  for (const SYSTEMTIME& time : impossible) {
    for (const LONG bias : {-60, 0, 60}) {
      zone = European();
      zone.Bias = bias;
      SYSTEMTIME local{};
      SetLastError(kStale);
      const bool bConverted = SystemTimeToTzSpecificLocalTime(&zone, &time, &local) != FALSE;
      record.push_back(
          {Name("time ") + TextOf(time) + " bias " + std::to_string(bias),
           Outcome(bConverted, GetLastError()) + (bConverted ? " " + TextOf(local) : "")});
    }
  }
}

void RecordConversions(const Zone& zone, Record& record) {
  const TIME_ZONE_INFORMATION information = InformationOf(zone.record);
  // With the calendar's first and last whole years, and leap years of every beginning.
  for (const WORD year :
       std::initializer_list<WORD>{1602, 1970, 2000, 2019, 2020, 2021, 2022, 2023, 2024, 2025, 2026,
                                   2027, 2028, 2029, 2030, 2100, 30826}) {
    record.push_back({"conversion " + zone.name + " " + std::to_string(year),
                      OffsetsOf(information, year, 3 * kHour)});
  }
}

}  // namespace Differential
