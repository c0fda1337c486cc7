#pragma once

#include <cstdint>

// For tests only: replaces the clock behind GetSystemTime, GetSystemTimeAsFileTime and _time64.
// ACE's clock and the deadlines of its queues are not touched. Any thread.
namespace Platform::TestClock {

// Stops the clock at this time: 100-nanosecond units since 1601-01-01 UTC, as in a FILETIME.
void Set(std::uint64_t fileTime);

// Moves a stopped clock; negative steps it back.
void Advance(std::int64_t hundredNanoseconds);

// Back to the real clock.
void Reset();

}  // namespace Platform::TestClock
