#include "Agent/Monitor/ScheduleView.h"

#include <utility>

#include "StoreAndForward/ScheduleSettings.h"

namespace OrloAgent {

namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
// A schedule repeats after a week; the day is for clocks that are put forward or back.
constexpr std::int64_t kHorizon = 8 * kDay;
// An interval ends within its last minute, and a day without intervals may take over the answer of
// before its end, if that minute is the last one of the day before. So a step is less than a
// minute; a schedule that was asked less than 20 s ago repeats its answer, so it is not much less.
constexpr std::int64_t kStep = 30;

// FILETIME counts 100 ns from 1601.
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsBefore1970 = 11'644'473'600;

// "HHMM-HHMM;DD;" stands before the zone.
constexpr std::size_t kZonePosition = 13;

std::int64_t ToSeconds(const SYSTEMTIME& time) {
  FILETIME ticks{};
  SystemTimeToFileTime(&time, &ticks);
  const auto value =
      static_cast<std::int64_t>(std::uint64_t{ticks.dwHighDateTime} << 32 | ticks.dwLowDateTime);
  return value / kTicksPerSecond - kSecondsBefore1970;
}

SYSTEMTIME ToSystemTime(std::int64_t seconds) {
  const auto value = static_cast<std::uint64_t>((seconds + kSecondsBefore1970) * kTicksPerSecond);
  FILETIME ticks{};
  ticks.dwLowDateTime = static_cast<DWORD>(value & 0xffffffff);
  ticks.dwHighDateTime = static_cast<DWORD>(value >> 32);
  SYSTEMTIME time{};
  FileTimeToSystemTime(&ticks, &time);
  return time;
}

}  // namespace

ScheduleView::ScheduleView(const WindowsAgentCommon::EnvironmentBlock& settings)
    : m_schedule(OrloStoreAndForward::ReadSchedule(settings, WindowsAgentCommon::Log())) {
  if (!m_schedule) {
    return;
  }
  std::vector<std::string> intervals;
  WindowsAgentCommon::EnvironmentBlockHelper(settings).GetArrayValue("Schedule.Interval",
                                                                     intervals);
  m_zone = intervals.front().substr(kZonePosition);
  Schedule::ResolveTimeZone(m_zone, m_rules);
}

std::optional<ScheduleState> ScheduleView::Look() {
  if (!m_schedule) {
    return std::nullopt;
  }
  SYSTEMTIME time{};
  GetSystemTime(&time);
  const std::int64_t now = ToSeconds(time);
  ScheduleState state;
  state.zone = m_zone;
  state.open = m_schedule->IsSendingAllowed(time);
  state.nowMinute = GetMinuteOfWeek(now);
  const bool isStale = now < m_lookedAt || now - m_lookedAt >= kHour ||
                       state.open != m_lookedOpen || (m_nextChange && now >= *m_nextChange);
  if (m_lookedAt == 0 || isStale) {
    LookAhead(now, state.open);
  }
  if (m_drawnAt == 0 || now < m_drawnAt || now - m_drawnAt >= kHour) {
    DrawWeek(now, state.nowMinute);
  }
  state.nextChange = m_nextChange;
  state.openSpans = m_spans;
  return state;
}

// Copies carry the answer of the last day that had one, as the schedule itself would.
void ScheduleView::LookAhead(std::int64_t now, bool open) {
  m_lookedAt = now;
  m_lookedOpen = open;
  m_nextChange.reset();
  Schedule ahead = *m_schedule;
  Schedule stepAgo = ahead;
  Schedule twoStepsAgo = ahead;
  std::int64_t time = now - now % kStep;
  while (time < now + kHorizon) {
    twoStepsAgo = std::exchange(stepAgo, ahead);
    time += kStep;
    if (ahead.IsSendingAllowed(ToSystemTime(time)) == open) {
      continue;
    }
    // Each second is put to a copy that was last asked long enough ago to give an answer of its
    // own.
    for (std::int64_t second = time - kStep + 1; second <= time; ++second) {
      Schedule copy = twoStepsAgo;
      if (second > now && copy.IsSendingAllowed(ToSystemTime(second)) != open) {
        m_nextChange = second;
        return;
      }
    }
    m_nextChange = time;
    return;
  }
}

// The week around now, minute by minute. What a day without intervals takes over from the days
// before it is only right if those were asked, so the walk begins a week earlier.
void ScheduleView::DrawWeek(std::int64_t now, int nowMinute) {
  m_drawnAt = now;
  m_spans.clear();
  Schedule walked = *m_schedule;
  const std::int64_t monday = now - now % kMinute - nowMinute * kMinute;
  for (int minute = -kMinutesOfWeek; minute < 0; ++minute) {
    walked.IsSendingAllowed(ToSystemTime(monday + minute * kMinute));
  }
  for (int minute = 0; minute < kMinutesOfWeek; ++minute) {
    // An interval reaches to the first second of its last minute, which is no open minute.
    if (!walked.IsSendingAllowed(ToSystemTime(monday + minute * kMinute + kMinute / 2))) {
      continue;
    }
    if (!m_spans.empty() && m_spans.back().second == minute) {
      m_spans.back().second = minute + 1;
    } else {
      m_spans.emplace_back(minute, minute + 1);
    }
  }
}

int ScheduleView::GetMinuteOfWeek(std::int64_t now) const {
  const SYSTEMTIME utc = ToSystemTime(now);
  SYSTEMTIME local{};
  if (SystemTimeToTzSpecificLocalTime(&m_rules, &utc, &local) == FALSE) {
    local = utc;
  }
  // Windows counts days from Sunday.
  return ((local.wDayOfWeek + 6) % 7 * 24 + local.wHour) * 60 + local.wMinute;
}

}  // namespace OrloAgent
