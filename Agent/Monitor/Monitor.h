#pragma once

#include <cstdint>
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

// A stream that is not as the configuration wants it.
struct StreamTrouble {
  std::string stream;
  // Whether it runs in another way.
  bool runs = false;
  std::string problem;
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
  // and the destination stay until RemoveStream has returned. `notMadeBefore`: what the sources had
  // counted as not made before they came to the stream.
  virtual void AddStream(const StreamOptions& options, std::vector<const Source*> sources,
                         const Destination& destination, std::uint64_t notMadeBefore) = 0;
  virtual void RemoveStream(const std::string& name) = 0;

  // What the last reading of the configuration has led to: why the file as a whole was not taken,
  // or not all of what is no stream's, and which streams are not as it says. Shown until the next
  // call.
  virtual void SetTroubles(const std::vector<std::string>& file,
                           const std::vector<StreamTrouble>& streams) = 0;
};

// Null if the options name no address. Listens before it returns, and says where; throws
// InitializationException if it can't.
std::unique_ptr<Monitor> MakeMonitor(const MonitorOptions& options,
                                     const MonitorSurroundings& surroundings);

}  // namespace OrloAgent
