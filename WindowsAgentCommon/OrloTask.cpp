#include "WindowsAgentCommon/OrloTask.h"

namespace WindowsAgentCommon {

OrloTask::OrloTask() = default;

OrloTask::~OrloTask() = default;

}  // namespace WindowsAgentCommon
