#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>

#include "Platform/Windows.h"
#include "Platform/testing/TestClock.h"

namespace PlatformTest {
namespace {

constexpr std::uint64_t kUnixEpoch = 116'444'736'000'000'000;
constexpr std::int64_t kSecond = 10'000'000;

std::uint64_t Units(const FILETIME& time) {
  return std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

FILETIME FileTime(std::uint64_t units) {
  return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

class TimeTest : public testing::Test {
 protected:
  ~TimeTest() override { Platform::TestClock::Reset(); }
};

TEST_F(TimeTest, StoppedClockIsWhatEveryCallReads) {
  // 2009-02-13 23:31:30.987 UTC
  Platform::TestClock::Set(kUnixEpoch + 1'234'567'890ull * kSecond + 9'876'543);
  SYSTEMTIME time;
  GetSystemTime(&time);
  EXPECT_EQ(time.wYear, 2009);
  EXPECT_EQ(time.wMonth, 2);
  EXPECT_EQ(time.wDayOfWeek, 5);
  EXPECT_EQ(time.wDay, 13);
  EXPECT_EQ(time.wHour, 23);
  EXPECT_EQ(time.wMinute, 31);
  EXPECT_EQ(time.wSecond, 30);
  EXPECT_EQ(time.wMilliseconds, 987);
  FILETIME fileTime;
  GetSystemTimeAsFileTime(&fileTime);
  EXPECT_EQ(Units(fileTime), kUnixEpoch + 1'234'567'890ull * kSecond + 9'876'543);
  __time64_t seconds = 0;
  EXPECT_EQ(_time64(&seconds), 1'234'567'890);
  EXPECT_EQ(seconds, 1'234'567'890);
  EXPECT_EQ(_time64(nullptr), 1'234'567'890);
}

TEST_F(TimeTest, StoppedClockMovesForwardAndBackward) {
  Platform::TestClock::Set(kUnixEpoch + 100 * kSecond);
  Platform::TestClock::Advance(61 * kSecond);
  EXPECT_EQ(_time64(nullptr), 161);
  Platform::TestClock::Advance(-62 * kSecond);
  EXPECT_EQ(_time64(nullptr), 99);
}

TEST_F(TimeTest, RunningClockIsTheSystemsAndCannotBeMoved) {
  using namespace std::chrono;
  Platform::TestClock::Set(kUnixEpoch);
  Platform::TestClock::Reset();
  Platform::TestClock::Advance(1000 * kSecond);
  const auto now = duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  const __time64_t read = _time64(nullptr);
  EXPECT_GE(read, now);
  EXPECT_LE(read, now + 60);
}

TEST_F(TimeTest, FileTimesOfKnownMoments) {
  const struct {
    SYSTEMTIME time;
    std::uint64_t units;
  } kCases[] = {
      {{1601, 1, 1, 1, 0, 0, 0, 0}, 0},
      {{1601, 1, 1, 2, 0, 0, 0, 1}, 864'000'010'000},
      {{1970, 1, 4, 1, 0, 0, 0, 0}, kUnixEpoch},
      {{2000, 2, 2, 29, 12, 34, 56, 789}, kUnixEpoch + 951'827'696'789ull * 10'000},
      {{30827, 12, 5, 31, 23, 59, 59, 999}, 9'223'149'887'999'990'000},
  };
  for (const auto& testCase : kCases) {
    FILETIME fileTime{};
    ASSERT_TRUE(SystemTimeToFileTime(&testCase.time, &fileTime));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(Units(fileTime), testCase.units);
    SYSTEMTIME back{};
    ASSERT_TRUE(FileTimeToSystemTime(&fileTime, &back));
    EXPECT_EQ(back.wYear, testCase.time.wYear);
    EXPECT_EQ(back.wMonth, testCase.time.wMonth);
    EXPECT_EQ(back.wDay, testCase.time.wDay);
    EXPECT_EQ(back.wHour, testCase.time.wHour);
    EXPECT_EQ(back.wMilliseconds, testCase.time.wMilliseconds);
  }
}

TEST_F(TimeTest, EveryImpossibleFieldIsRefused) {
  const SYSTEMTIME kGood{2023, 6, 0, 15, 12, 30, 30, 500};
  const struct {
    WORD SYSTEMTIME::*field;
    WORD value;
  } kCases[] = {
      {&SYSTEMTIME::wYear, 1600},
      {&SYSTEMTIME::wYear, 30828},
      {&SYSTEMTIME::wYear, 65535},
      {&SYSTEMTIME::wMonth, 0},
      {&SYSTEMTIME::wMonth, 13},
      {&SYSTEMTIME::wMonth, 257},
      {&SYSTEMTIME::wDay, 0},
      {&SYSTEMTIME::wDay, 31},
      {&SYSTEMTIME::wDay, 257},
      {&SYSTEMTIME::wHour, 24},
      {&SYSTEMTIME::wMinute, 60},
      {&SYSTEMTIME::wSecond, 60},
      {&SYSTEMTIME::wMilliseconds, 1000},
  };
  for (const auto& testCase : kCases) {
    SYSTEMTIME time = kGood;
    time.*testCase.field = testCase.value;
    FILETIME fileTime{1, 2};
    EXPECT_FALSE(SystemTimeToFileTime(&time, &fileTime)) << testCase.value;
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(Units(fileTime), (std::uint64_t{2} << 32) + 1);
  }
}

TEST_F(TimeTest, LeapDayExistsInLeapYearsOnly) {
  FILETIME fileTime;
  for (const WORD year : std::initializer_list<WORD>{2000, 2024, 2400}) {
    const SYSTEMTIME time{year, 2, 0, 29, 0, 0, 0, 0};
    EXPECT_TRUE(SystemTimeToFileTime(&time, &fileTime)) << year;
  }
  for (const WORD year : std::initializer_list<WORD>{1900, 2023, 2100}) {
    const SYSTEMTIME time{year, 2, 0, 29, 0, 0, 0, 0};
    EXPECT_FALSE(SystemTimeToFileTime(&time, &fileTime)) << year;
  }
}

TEST_F(TimeTest, DayOfWeekIsNotLookedAt) {
  FILETIME fileTime;
  const SYSTEMTIME time{2023, 6, 999, 15, 0, 0, 0, 0};
  EXPECT_TRUE(SystemTimeToFileTime(&time, &fileTime));
}

TEST_F(TimeTest, FileTimeWithTheHighestBitIsRefused) {
  SYSTEMTIME time{};
  const FILETIME last = FileTime(0x7FFF'FFFF'FFFF'FFFF);
  EXPECT_TRUE(FileTimeToSystemTime(&last, &time));
  EXPECT_EQ(time.wYear, 30828);
  for (const std::uint64_t units : {0x8000'0000'0000'0000ull, 0xFFFF'FFFF'FFFF'FFFFull}) {
    const FILETIME fileTime = FileTime(units);
    EXPECT_FALSE(FileTimeToSystemTime(&fileTime, &time));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
}

TEST_F(TimeTest, NullArgumentsAreRefused) {
  SYSTEMTIME time{2023, 6, 0, 15, 0, 0, 0, 0};
  FILETIME fileTime{};
  EXPECT_FALSE(SystemTimeToFileTime(nullptr, &fileTime));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(SystemTimeToFileTime(&time, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(FileTimeToSystemTime(nullptr, &time));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(FileTimeToSystemTime(&fileTime, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(TimeTest, CalendarTimeCoversItsRangeAndNothingElse) {
  __time64_t seconds = 1'234'567'890;
  const std::tm* time = _gmtime64(&seconds);
  ASSERT_NE(time, nullptr);
  EXPECT_EQ(time->tm_year, 109);
  EXPECT_EQ(time->tm_mon, 1);
  EXPECT_EQ(time->tm_mday, 13);
  EXPECT_EQ(time->tm_hour, 23);
  EXPECT_EQ(time->tm_min, 31);
  EXPECT_EQ(time->tm_sec, 30);
  EXPECT_EQ(time->tm_wday, 5);
  EXPECT_EQ(time->tm_yday, 43);
  seconds = 32'535'215'999;
  ASSERT_NE(time = _gmtime64(&seconds), nullptr);
  EXPECT_EQ(time->tm_year, 1100);
  EXPECT_EQ(time->tm_mon, 11);
  for (const __time64_t impossible : {__time64_t{-1}, __time64_t{32'535'216'000}}) {
    errno = 0;
    EXPECT_EQ(_gmtime64(&impossible), nullptr);
    EXPECT_EQ(errno, EINVAL);
  }
  errno = 0;
  EXPECT_EQ(_gmtime64(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
}  // namespace PlatformTest
