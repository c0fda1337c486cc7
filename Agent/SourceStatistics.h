#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Agent/Source.h"
#include "WindowsAgentCommon/Statistics.h"

namespace OrloAgent {

// Publishes what one source has done: the statistics "SourceName", "EventsPosted" and
// "EventsNotMade" in a group "Source" of the stream. A stream has such a group for each source, in
// the order of the configuration. They are the source's own counts, so those of a source that goes
// on with another stream go on, too. Control thread only.
class SourceStatistics {
 public:
  SourceStatistics(WindowsAgentCommon::StatisticsServer& statistics, const std::string& streamName,
                   const std::string& sourceName, const Source& source);

  void Publish(const Source& source);

 private:
  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> m_group;
};

}  // namespace OrloAgent
