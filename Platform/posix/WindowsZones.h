#pragma once

#include <span>

namespace Platform {

// One time zone of Windows.
struct WindowsZoneEntry {
  const wchar_t* windowsName;
  // The IANA zone that stands for it; null if there is none.
  const char* zone;
  // Only without a zone: its rules as a POSIX TZ string.
  const char* rules;
};

// All zones that the registry holds; one table, in the order of their clocks from west to east.
std::span<const WindowsZoneEntry> WindowsZones();

}  // namespace Platform
