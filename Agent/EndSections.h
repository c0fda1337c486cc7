#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Agent/ConfigurationNodes.h"
#include "Agent/Options.h"

// The sections of a stream's two ends: a source, and the destination.
namespace OrloAgent {

// What only one source or destination of a file may use.
struct SharedEnds {
  std::set<std::string> outputs;
  // Addresses with a port, and the line of who listens there.
  std::map<std::string, int> listeners;
  bool standardInput = false;
};

// Adds the source to those that its stream has already.
void ReadSource(const ConfigurationEntry& entry, ValueReader& reader, SharedEnds& shared,
                std::vector<SourceOptions>& sources);

void ReadDestination(const ConfigurationEntry& entry, ValueReader& reader, SharedEnds& shared,
                     DestinationOptions& destination);

}  // namespace OrloAgent
