#pragma once

#include <cstdint>
#include <ctime>

#include "Platform/Windows.h"

namespace Platform {

// Times are counted as in a FILETIME: units of 100 nanoseconds since 1601-01-01 UTC.
constexpr std::int64_t kUnitsPerSecond = 10'000'000;
constexpr std::int64_t kUnitsPerMillisecond = kUnitsPerSecond / 1000;
constexpr std::int64_t kUnitsPerMinute = 60 * kUnitsPerSecond;
constexpr std::int64_t kUnitsPerDay = 24 * 60 * kUnitsPerMinute;
constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;

// The clock that every time call reads. Any thread.
std::uint64_t ClockNow();

constexpr std::uint64_t FileTimeUnits(const std::timespec& time) {
  return static_cast<std::uint64_t>((time.tv_sec + kSecondsFrom1601To1970) * kUnitsPerSecond +
                                    time.tv_nsec / 100);
}

constexpr FILETIME ToFileTime(std::uint64_t units) {
  return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

}  // namespace Platform
