#pragma once

// The grammar of POSIX TZ strings: "CST6CDT,M3.2.0,M11.1.0", with the wider hours that TZif allows.

#include <optional>
#include <string_view>

namespace Platform {

enum class DateForm {
  WeekOfMonth,  // Mm.w.d
  JulianDay,    // Jn: 1 to 365, 29 February is never counted
  DayOfYear     // n: 0 to 365, 29 February is counted
};

struct PosixDate {
  DateForm form = DateForm::WeekOfMonth;
  unsigned month = 0;    // WeekOfMonth: 1 to 12
  unsigned week = 0;     // WeekOfMonth: 1 to 5, 5 is the last
  unsigned weekday = 0;  // WeekOfMonth: 0 (Sunday) to 6
  int day = 0;           // the other forms
  int seconds = 0;       // after 0:00 of that day, in the local time before the transition
};

struct PosixDaylight {
  int offset = 0;  // seconds added to local time to get UTC
  PosixDate start;
  PosixDate end;
};

struct PosixZone {
  int offset = 0;  // as above, of standard time
  std::optional<PosixDaylight> daylight;
};

// Nothing unless the whole text is well-formed. Daylight time without rules is not accepted: what
// then holds is left to each system.
std::optional<PosixZone> ParsePosixRules(std::string_view text);

}  // namespace Platform
