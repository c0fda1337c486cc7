#include <iostream>

#include "Agent/Monitor/Monitor.h"
#include "Agent/Monitor/StatusCommand.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

bool IsMonitorAvailable() { return false; }

std::unique_ptr<Monitor> MakeMonitor(const MonitorOptions& options, const MonitorSurroundings&) {
  if (options.host.empty()) {
    return nullptr;
  }
  throw WindowsAgentCommon::InitializationException("Monitor", "OrloAgent::MakeMonitor", __LINE__,
                                                    "This program was built without the monitor");
}

int RunStatus(const StatusQuestion&) {
  constexpr int kNotToBeAsked = 2;
  std::cerr << "orlo-agent status: this program was built without the monitor.\n";
  return kNotToBeAsked;
}

}  // namespace OrloAgent
