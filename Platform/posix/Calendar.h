#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Platform/Windows.h"

namespace Platform {

// Units of 100 nanoseconds since 1601-01-01 of a time in any zone; nothing unless every field but
// wDayOfWeek, which is not looked at, is possible and the year lies in 1601 to 30827.
std::optional<std::int64_t> UnitsFromSystemTime(const SYSTEMTIME& time);

// The reverse for any value that is not negative.
SYSTEMTIME SystemTimeFromUnits(std::int64_t units);

// The date of the `week`-th `weekday` (0 is Sunday) of a month; week 5 is the last one. All
// arguments must be in range.
std::chrono::sys_days DateOfWeekRule(int year, unsigned month, unsigned week, unsigned weekday);

}  // namespace Platform
