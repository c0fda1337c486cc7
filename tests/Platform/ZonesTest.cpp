#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/posix/Calendar.h"
#include "Platform/posix/Clock.h"
#include "Platform/posix/WindowsZones.h"

namespace PlatformTest {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The record as a program gets it, through the registry.
Bytes ReadRecord(const std::wstring& zone) {
  HKEY key = nullptr;
  const std::wstring path = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\" + zone;
  Bytes bytes(100);
  DWORD size = 100;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_QUERY_VALUE, &key) != 0) {
    return {};
  }
  if (RegQueryValueExW(key, L"TZI", nullptr, nullptr, bytes.data(), &size) != 0) {
    size = 0;
  }
  EXPECT_EQ(RegCloseKey(key), 0);
  bytes.resize(size);
  return bytes;
}

TIME_ZONE_INFORMATION ToZone(const Bytes& bytes) {
  TIME_ZONE_INFORMATION zone{};
  std::memcpy(&zone.Bias, &bytes[0], 4);
  std::memcpy(&zone.StandardBias, &bytes[4], 4);
  std::memcpy(&zone.DaylightBias, &bytes[8], 4);
  std::memcpy(&zone.StandardDate, &bytes[12], 16);
  std::memcpy(&zone.DaylightDate, &bytes[28], 16);
  return zone;
}

std::string Narrow(const std::wstring& text) { return {text.begin(), text.end()}; }

TEST(ZonesTest, EveryZoneOpensAndHasARecord) {
  std::set<std::wstring> names;
  for (const Platform::WindowsZoneEntry& entry : Platform::WindowsZones()) {
    EXPECT_EQ(ReadRecord(entry.windowsName).size(), 44u) << Narrow(entry.windowsName);
    EXPECT_TRUE(names.insert(entry.windowsName).second) << Narrow(entry.windowsName);
  }
  EXPECT_EQ(names.size(), 93u);
}

// Zones whose rule was moved to another day, and the weekday of 1 March in the years in which the
// week of the moved rule is another one than the law's (0 is Sunday).
const std::map<std::wstring, unsigned> kWeekOffInYears = {
    // From 26:00 on the fourth Thursday of March: the 29th, when the fourth Friday is the 22nd.
    {L"Israel Standard Time", 5},
    // From 23:00 on the day before the last Sunday of March: the 24th, when the last Saturday is
    // the 31st.
    {L"Greenland Standard Time", 4},
};

unsigned WeekdayOfFirstMarch(int year) {
  namespace chrono = std::chrono;
  return chrono::weekday{chrono::year{year} / chrono::March / 1}.c_encoding();
}

// Sets the C library's zone and puts the previous one back.
class CLibraryZone {
 public:
  explicit CLibraryZone(const std::string& zone) {
    if (const char* previous = ::getenv("TZ")) {
      m_previous = previous;
      m_bHadPrevious = true;
    }
    ::setenv("TZ", (":" + zone).c_str(), 1);
    ::tzset();
  }
  ~CLibraryZone() {
    m_bHadPrevious ? ::setenv("TZ", m_previous.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
  }
  CLibraryZone(const CLibraryZone&) = delete;
  CLibraryZone& operator=(const CLibraryZone&) = delete;

 private:
  std::string m_previous;
  bool m_bHadPrevious = false;
};

bool LocalTimesAreEqual(const TIME_ZONE_INFORMATION& zone, std::time_t time) {
  const SYSTEMTIME universal = Platform::SystemTimeFromUnits(
      (time + Platform::kSecondsFrom1601To1970) * Platform::kUnitsPerSecond);
  SYSTEMTIME local{};
  std::tm expected{};
  ::localtime_r(&time, &expected);
  return SystemTimeToTzSpecificLocalTime(&zone, &universal, &local) &&
         local.wYear == expected.tm_year + 1900 && local.wMonth == expected.tm_mon + 1 &&
         local.wDay == expected.tm_mday && local.wDayOfWeek == expected.tm_wday &&
         local.wHour == expected.tm_hour && local.wMinute == expected.tm_min &&
         local.wSecond == expected.tm_sec && local.wMilliseconds == 0;
}

std::time_t FirstSecondOf(int year) {
  namespace chrono = std::chrono;
  return chrono::sys_seconds{chrono::sys_days{chrono::year{year} / chrono::January / 1}}
      .time_since_epoch()
      .count();
}

int DifferentTimes(const TIME_ZONE_INFORMATION& zone, int year, std::time_t step) {
  int different = 0;
  const std::time_t end = FirstSecondOf(year + 1);
  for (std::time_t time = FirstSecondOf(year); time < end; time += step) {
    different += LocalTimesAreEqual(zone, time) ? 0 : 1;
  }
  return different;
}

// A record holds what tzdata's footers say. They govern a zone after its last explicit transition,
// and the longest list of those, that of Morocco, has reached to 2087 in some releases. 1 March
// 2090 is a Wednesday, so the moved rules are exact in that year (kWeekOffInYears).
TEST(ZonesTest, EveryHourOfAYearIsTheLocalTimeOfTheCLibrary) {
  constexpr int kYear = 2090;
  for (const Platform::WindowsZoneEntry& entry : Platform::WindowsZones()) {
    if (entry.zone == nullptr) {
      continue;
    }
    const CLibraryZone zone(entry.zone);
    EXPECT_EQ(DifferentTimes(ToZone(ReadRecord(entry.windowsName)), kYear, 3600), 0)
        << Narrow(entry.windowsName);
  }
}

// 28 years hold every combination of weekday and leap year (2100 is none, which repeats one).
TEST(ZonesTest, OnlyMovedRulesAreAWeekOffAndOnlyInTheYearsThatAreKnown) {
  constexpr std::time_t kHalfDay = 12 * 3600;
  for (const Platform::WindowsZoneEntry& entry : Platform::WindowsZones()) {
    if (entry.zone == nullptr) {
      continue;
    }
    const auto exception = kWeekOffInYears.find(entry.windowsName);
    const CLibraryZone zone(entry.zone);
    const TIME_ZONE_INFORMATION record = ToZone(ReadRecord(entry.windowsName));
    for (int year = 2088; year < 2088 + 28; ++year) {
      const bool bWeekOff =
          exception != kWeekOffInYears.end() && WeekdayOfFirstMarch(year) == exception->second;
      EXPECT_EQ(DifferentTimes(record, year, kHalfDay), bWeekOff ? 14 : 0)
          << Narrow(entry.windowsName) << " " << year;
    }
  }
}

TEST(ZonesTest, TransitionAtTheEndOfADayIsAMillisecondEarly) {
  // Chile: from 24:00 of the first Saturday of September, 4:00 UTC, an hour ahead.
  const TIME_ZONE_INFORMATION zone = ToZone(ReadRecord(L"Pacific SA Standard Time"));
  const auto hourAt = [&](WORD second, WORD milliseconds) {
    const SYSTEMTIME universal{2090, 9, 0, 3, 3, 59, second, milliseconds};
    SYSTEMTIME local{};
    EXPECT_TRUE(SystemTimeToTzSpecificLocalTime(&zone, &universal, &local));
    return local.wHour;
  };
  EXPECT_EQ(hourAt(59, 998), 23);
  EXPECT_EQ(hourAt(59, 999), 0);
}

// Where the records differ from those that the registry of Wine 8.0 holds, and why.
const std::map<std::wstring, const char*> kChangedSince = {
    {L"Central Asia Standard Time", "Kazakhstan moved to UTC+5 in 2024"},
    {L"E. Europe Standard Time", "Moldova changes at 3:00 and 4:00, as the European Union does"},
    {L"Egypt Standard Time", "Egypt has daylight time again since 2023"},
    {L"Greenland Standard Time", "Greenland has daylight time again since 2024"},
    {L"Israel Standard Time",
     "the law's Friday before the last Sunday is the fourth Friday in more years than the last"},
    {L"Morocco Standard Time", "Morocco's rule has ended in tzdata: Greenwich time all year"},
    {L"Pacific SA Standard Time",
     "Chile's transitions at 24:00 of a Saturday stood at 0:00 of the Sunday with its own week"},
    {L"Paraguay Standard Time", "Paraguay has kept daylight time all year since 2024"},
};

std::map<std::wstring, Bytes> ReferenceRecords() {
  std::map<std::wstring, Bytes> records;
  std::ifstream file(std::string(ORLO_TEST_DATA) + "/windows-zones.tsv");
  for (std::string line; std::getline(file, line);) {
    const std::size_t tab = line.find('\t');
    if (line.starts_with('#') || tab == std::string::npos) {
      continue;
    }
    Bytes& bytes = records[std::wstring(line.begin(), line.begin() + static_cast<long>(tab))];
    for (std::size_t i = tab + 1; i + 1 < line.size(); i += 2) {
      bytes.push_back(static_cast<std::uint8_t>(std::stoi(line.substr(i, 2), nullptr, 16)));
    }
  }
  return records;
}

TEST(ZonesTest, RecordsAreThoseOfARegistryExceptWhereTheRulesHaveChanged) {
  const std::map<std::wstring, Bytes> references = ReferenceRecords();
  EXPECT_EQ(references.size(), Platform::WindowsZones().size());
  for (const auto& [name, reference] : references) {
    const auto change = kChangedSince.find(name);
    if (change == kChangedSince.end()) {
      EXPECT_EQ(ReadRecord(name), reference) << Narrow(name);
    } else {
      EXPECT_NE(ReadRecord(name), reference)
          << Narrow(name) << ": no longer differs (" << change->second << ")";
    }
  }
}

TEST(ZonesTest, ZonesNamedAfterTheirOffsetHaveNoDaylightBias) {
  for (const wchar_t* name : {L"UTC", L"UTC+12"}) {
    EXPECT_EQ(ToZone(ReadRecord(name)).DaylightBias, 0);
  }
  EXPECT_EQ(ToZone(ReadRecord(L"Tokyo Standard Time")).DaylightBias, -60);
}

}  // namespace
}  // namespace PlatformTest
