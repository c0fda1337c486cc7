#include "StoreAndForward/ScheduleSettings.h"

#include <string>
#include <utility>
#include <vector>

namespace OrloStoreAndForward {

using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::EnvironmentBlockHelper;
using WindowsAgentCommon::Log;
using WindowsAgentCommon::LogFacade;

namespace {

bool ReadIntervals(const std::vector<std::string>& texts, const Log& log,
                   std::vector<Schedule::Interval>& intervals, TIME_ZONE_INFORMATION& tzInfo) {
  for (const std::string& text : texts) {
    Schedule::Interval interval{};
    if (!Schedule::ParseInterval(text, interval, intervals.empty() ? &tzInfo : nullptr)) {
      LogFacade::Error(log, "Invalid schedule interval detected (%s). Disabling Schedule.", text);
      return false;
    }
    intervals.push_back(interval);
  }
  return true;
}

}  // namespace

std::shared_ptr<Schedule> ReadSchedule(const EnvironmentBlock& environment, const Log& log) {
  const EnvironmentBlockHelper helper(environment);
  bool enabled = false;
  if (!helper.GetBooleanValue("Schedule.Enable", enabled, false) || !enabled) {
    return nullptr;
  }
  std::vector<std::string> texts;
  helper.GetArrayValue("Schedule.Interval", texts);
  std::vector<Schedule::Interval> intervals;
  TIME_ZONE_INFORMATION tzInfo{};
  if (!ReadIntervals(texts, log, intervals, tzInfo) || intervals.empty()) {
    return nullptr;
  }
  bool invert = false;
  helper.GetBooleanValue("Schedule.Invert", invert, false);
  return std::make_shared<Schedule>(std::move(intervals), tzInfo, invert);
}

}  // namespace OrloStoreAndForward
