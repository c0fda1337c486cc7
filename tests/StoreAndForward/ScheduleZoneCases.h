#pragma once

#include <cstdint>

namespace OrloStoreAndForward {

// Two weeks of 2026 around a change of the clocks in one zone, under the rules of today.
struct ZoneCase {
  const char* name;
  const char* zone;
  std::int64_t start;          // UTC, seconds since 1970; a week before the change
  std::int64_t change;         // where the offset changes
  std::int64_t minutesBefore;  // east of Greenwich
  std::int64_t minutesAfter;

  std::int64_t MinutesAt(std::int64_t time) const {
    return time < change ? minutesBefore : minutesAfter;
  }
};

inline constexpr ZoneCase kZoneCases[] = {
    {"BerlinSpring", "Europe/Berlin", 1774137600, 1774746000, 60, 120},
    {"BerlinAutumn", "Europe/Berlin", 1792281600, 1792890000, 120, 60},
    {"ChicagoSpring", "America/Chicago", 1772323200, 1772956800, -360, -300},
    {"ChicagoAutumn", "America/Chicago", 1792886400, 1793516400, -300, -360},
    {"SydneyAutumn", "Australia/Sydney", 1774742400, 1775318400, 660, 600},
    {"SydneySpring", "Australia/Sydney", 1790467200, 1791043200, 600, 660},
    {"Kolkata", "Asia/Kolkata", 1774137600, 1774137600, 330, 330}};

}  // namespace OrloStoreAndForward
