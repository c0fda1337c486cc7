#pragma once

#include "Agent/ConfigurationNodes.h"

namespace OrloAgent {

// Reads the list below the key "streams", and notes what does not fit together across streams:
// names that are the same, a standard input or an output that two would share.
std::vector<StreamOptions> ReadStreams(const ConfigurationEntry& entry, ValueReader& reader);

}  // namespace OrloAgent
