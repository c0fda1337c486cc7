#pragma once

// The records of time zones in the form of the Windows registry, made from the system's tzdata.
// The functions that take text or bytes are pure and accept any input.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Windows.h"

namespace Platform {

// The fields of a zone's "TZI" value. Biases are minutes that are added to local time to get UTC;
// the dates are week rules (wYear 0, wDay the week of the month, 5 the last one), or all zero.
struct TimeZoneRecord {
  LONG Bias = 0;
  LONG StandardBias = 0;
  LONG DaylightBias = 0;
  SYSTEMTIME StandardDate{};
  SYSTEMTIME DaylightDate{};
};

// REG_TZI_FORMAT: the fields in this order, little-endian.
std::array<std::uint8_t, 44> BytesOfRecord(const TimeZoneRecord& record);

// The record of a POSIX TZ string with the extensions of TZif files: rule times from -167 to 167
// hours, daylight time behind standard time (the two are then exchanged, so that daylight time is
// always the later clock), and daylight time all year (which becomes the standard time of a zone
// without rules). A zone without daylight time has a DaylightBias of -60, as on Windows.
//
// Nothing if the text is not well-formed, or if a record can't say the same: offsets that are not
// whole minutes, rules by the day of the year, daylight time without rules, or a rule time so far
// outside its day that no week rule meets the transition in at least five of seven years.
//
// A rule time before 0:00 or after 24:00 moves the rule to another weekday. The week is then the
// one that is right in most years; in the others the transition is a week off. 24:00 itself stays
// on its day as 23:59:59.999, which is right in every year but for the millisecond.
std::optional<TimeZoneRecord> RecordFromPosixRules(std::string_view rules);

// The last line of a TZif file of version 2 or later: the rules that hold after its last explicit
// transition. Nothing if the bytes are not such a file or the line is empty.
std::optional<std::string> FooterOfTzif(std::string_view bytes);

struct WindowsZone {
  // Nothing if the zone's rules do not fit into a record.
  std::optional<TimeZoneRecord> record;
};

// The zone of a Windows name, without regard to case. Reads the zone's file in the directory that
// TZDIR names, /usr/share/zoneinfo without it. Nothing if the name is unknown or the file can't
// be read as TZif.
std::optional<WindowsZone> LoadWindowsZone(std::wstring_view windowsName);

}  // namespace Platform
