#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Agent/Monitor/MonitorState.h"
#include "StoreAndForward/Schedule.h"
#include "WindowsAgentCommon/EnvironmentBlockHelper.h"

namespace OrloAgent {

// A stage's send schedule as a picture: whether it is open, when that changes, and the week in
// which it does so. It is a schedule of its own with the stage's settings, so it agrees with the
// stage's but for the 20 seconds by which either may be late. One thread.
class ScheduleView {
 public:
  // Settings without a usable schedule make a view that gives nothing; why one is not usable is
  // the stage's to say.
  explicit ScheduleView(const WindowsAgentCommon::EnvironmentBlock& settings);

  // The state at the platform's present time; nothing without a schedule.
  std::optional<ScheduleState> Look();

 private:
  using Schedule = OrloStoreAndForward::Schedule;

  void LookAhead(std::int64_t now, bool open);
  void DrawWeek(std::int64_t now, int nowMinute);
  int GetMinuteOfWeek(std::int64_t now) const;

  std::shared_ptr<Schedule> m_schedule;
  std::string m_zone;
  TIME_ZONE_INFORMATION m_rules{};
  // What was found by looking ahead holds until the change, or until the look grows old.
  bool m_lookedOpen = false;
  std::int64_t m_lookedAt = 0;
  std::optional<std::int64_t> m_nextChange;
  // The week is drawn anew each hour, because the clocks may be put forward or back.
  std::int64_t m_drawnAt = 0;
  std::vector<WeekSpan> m_spans;
};

}  // namespace OrloAgent
