#pragma once

#include <memory>

#include "StoreAndForward/Schedule.h"
#include "WindowsAgentCommon/EnvironmentBlockHelper.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloStoreAndForward {

// The send schedule that a stage's settings describe, or null, which stands for sending at all
// times: "Schedule.Enable" is missing or false, or there is no "Schedule.Interval".
//
// One interval that can't be read turns the whole schedule off, with an Error line in `log`. The
// zone of the first interval is the zone of all; those of later intervals are not looked up.
// "Schedule.Invert" is read only if there is a schedule.
std::shared_ptr<Schedule> ReadSchedule(const WindowsAgentCommon::EnvironmentBlock& environment,
                                       const WindowsAgentCommon::Log& log);

}  // namespace OrloStoreAndForward
