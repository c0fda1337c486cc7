#pragma once

#include <memory>
#include <string>

#include "Agent/Destination.h"
#include "Agent/Options.h"

namespace OrloAgent {

// Sends events to a receiver of RELP, and keeps each until the receiver has acknowledged it. When
// the connection breaks, what was not acknowledged is sent again over the next one, in order; what
// the receiver had taken without our having seen its answer comes twice, within the window.
//
// put takes an event as long as the window has room, also while there is no connection. It waits
// for room up to sendTimeout and then answers with backpressure. GetUnsentEvents is what has not
// been acknowledged, so a stop waits for the answers; Stop says how many are missing.
//
// A thread of its own connects, writes and reads.
//
// Throws InitializationException if the options name TLS files that can't be used.
std::unique_ptr<Destination> MakeRelpDestination(const RelpDestinationOptions& options,
                                                 const std::string& streamName);

}  // namespace OrloAgent
