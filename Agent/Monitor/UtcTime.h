#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

// Seconds since 1970 as "2026-11-21 16:40:12".
inline std::string UtcTime(std::int64_t seconds) {
  using namespace std::chrono;
  const sys_seconds time{std::chrono::seconds(seconds)};
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  return WindowsAgentCommon::Format("%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
                                    static_cast<unsigned>(date.month()),
                                    static_cast<unsigned>(date.day()), clock.hours().count(),
                                    clock.minutes().count(), clock.seconds().count());
}

}  // namespace OrloAgent
