#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Agent/Options.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

class Destination;
class Source;

// What the monitor looks at, beside the streams.
struct MonitorSurroundings {
  std::shared_ptr<WindowsAgentCommon::StatisticsServer> statistics;
  std::shared_ptr<WindowsAgentCommon::DiskManager> disk;
  std::filesystem::path dataDirectory;
};

// Whether this build can show how it is. Without that, making the monitor throws.
bool IsMonitorAvailable();

// Shows over HTTP how the agent is: docs/monitoring.md lists the paths. Two threads of its own, one
// that looks and one that answers; nothing that a client does reaches the streams. Made, told of
// streams and destroyed on the control thread.
class Monitor {
 public:
  virtual ~Monitor() = default;

  // From now on the stream is looked at. Its sources, in the order of the options, have begun; they
  // and the destination stay until RemoveStream has returned.
  virtual void AddStream(const StreamOptions& options, std::vector<const Source*> sources,
                         const Destination& destination) = 0;
  virtual void RemoveStream(const std::string& name) = 0;
};

// Null if the options name no address. Listens before it returns, and says where; throws
// InitializationException if it can't.
std::unique_ptr<Monitor> MakeMonitor(const MonitorOptions& options,
                                     const MonitorSurroundings& surroundings);

}  // namespace OrloAgent
