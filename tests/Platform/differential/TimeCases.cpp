#include <cerrno>
#include <optional>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

std::uint64_t UnitsOf(const FILETIME& time) {
  return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

FILETIME FileTimeOf(std::uint64_t units) {
  return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

std::string ToFileTime(const SYSTEMTIME& time) {
  FILETIME result = FileTimeOf(0xBAD);
  SetLastError(kStale);
  const bool bConverted = SystemTimeToFileTime(&time, &result) != FALSE;
  const std::string outcome = Outcome(bConverted, GetLastError());
  return bConverted ? outcome + " " + std::to_string(UnitsOf(result)) : outcome;
}

std::string ToSystemTime(std::uint64_t units) {
  const FILETIME time = FileTimeOf(units);
  SYSTEMTIME result{};
  SetLastError(kStale);
  const bool bConverted = FileTimeToSystemTime(&time, &result) != FALSE;
  const std::string outcome = Outcome(bConverted, GetLastError());
  return bConverted ? outcome + " " + TextOf(result) : outcome;
}

std::string Broken(std::int64_t seconds) {
  const __time64_t time = seconds;
  errno = 0;
  const std::tm* result = _gmtime64(&time);
  if (result == nullptr) {
    return "null, errno " + std::to_string(errno);
  }
  std::string text;
  for (const int field :
       {result->tm_year, result->tm_mon, result->tm_mday, result->tm_hour, result->tm_min,
        result->tm_sec, result->tm_wday, result->tm_yday, result->tm_isdst}) {
    text += std::to_string(field) + " ";
  }
  return text;
}

void RecordImpossibleTimes(Record& record) {
  const SYSTEMTIME good{2024, 2, 4, 29, 23, 59, 59, 999};
  record.push_back({"calendar good", ToFileTime(good)});
  const auto change = [&](const char* name, WORD SYSTEMTIME::*field,
                          std::initializer_list<WORD> values) {
    for (const WORD value : values) {
      SYSTEMTIME time = good;
      time.*field = value;
      record.push_back(
          {std::string("calendar ") + name + " " + std::to_string(value), ToFileTime(time)});
    }
  };
  change("weekday", &SYSTEMTIME::wDayOfWeek, {0, 6, 7, 65535});
  change("hour", &SYSTEMTIME::wHour, {0, 23, 24, 25, 32768, 65535});
  change("minute", &SYSTEMTIME::wMinute, {0, 59, 60, 65535});
  change("second", &SYSTEMTIME::wSecond, {0, 59, 60, 61, 65535});
  change("millisecond", &SYSTEMTIME::wMilliseconds, {0, 999, 1000, 65535});
}

}  // namespace

void RecordCalendar(Record& record) {
  for (const WORD year :
       std::initializer_list<WORD>{0, 1, 1600, 1601, 1602, 1900, 1970, 2000, 2023, 2024, 2100, 9999,
                                   10000, 30827, 30828, 32767, 32768, 65535}) {
    for (const WORD month : std::initializer_list<WORD>{0, 1, 2, 3, 4, 11, 12, 13, 65535}) {
      for (const WORD day : std::initializer_list<WORD>{0, 1, 28, 29, 30, 31, 32, 65535}) {
        const SYSTEMTIME time{year, month, 0, day, 12, 0, 0, 0};
        record.push_back({"calendar date " + std::to_string(year) + " " + std::to_string(month) +
                              " " + std::to_string(day),
                          ToFileTime(time)});
      }
    }
  }
  RecordImpossibleTimes(record);
  const SYSTEMTIME bounds[] = {{1601, 1, 0, 1, 0, 0, 0, 0}, {30827, 12, 0, 31, 23, 59, 59, 999}};
  for (const SYSTEMTIME& bound : bounds) {
    record.push_back({"calendar bound " + TextOf(bound), ToFileTime(bound)});
  }
  constexpr std::uint64_t kUnits[] = {0,
                                      1,
                                      9999,
                                      10000,
                                      863999999999,
                                      864000000000,
                                      116444736000000000,
                                      133535519999999999,
                                      133535520000000000,
                                      9223149887999990000,
                                      9223149887999999999,
                                      9223149888000000000,
                                      0x7FFFFFFFFFFFFFFF,
                                      0x8000000000000000,
                                      0xFFFFFFFFFFFFFFFF};
  for (const std::uint64_t units : kUnits) {
    record.push_back({"calendar units " + std::to_string(units), ToSystemTime(units)});
  }
  // Spread over the whole range.
  std::uint64_t state = 1;
  for (int index = 0; index < 300; ++index) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    record.push_back({"calendar units " + std::to_string(state >> 1), ToSystemTime(state >> 1)});
  }
  for (const std::int64_t seconds : {INT64_MIN,
                                     std::int64_t{-86400},
                                     std::int64_t{-43201},
                                     std::int64_t{-43200},
                                     std::int64_t{-1},
                                     std::int64_t{0},
                                     std::int64_t{1},
                                     std::int64_t{86399},
                                     std::int64_t{68169600},
                                     std::int64_t{951782400},
                                     std::int64_t{1709251199},
                                     std::int64_t{2147483647},
                                     std::int64_t{2147483648},
                                     std::int64_t{4294967296},
                                     std::int64_t{253402300799},
                                     std::int64_t{32535215999},
                                     std::int64_t{32535216000},
                                     std::int64_t{32535244799},
                                     std::int64_t{32535291599},
                                     std::int64_t{32535291600},
                                     INT64_MAX}) {
    record.push_back({"calendar gmtime " + std::to_string(seconds), Broken(seconds)});
  }
}

}  // namespace Differential
