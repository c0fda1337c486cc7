#include "WindowsAgentCommon/OrloTask.h"

namespace WindowsAgentCommon {

OrloTask::OrloTask() : m_queue(std::make_unique<EventQueue>()) { msg_queue(m_queue.get()); }

OrloTask::~OrloTask() = default;

}  // namespace WindowsAgentCommon
