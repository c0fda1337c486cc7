#pragma once

#include <memory>
#include <string>

#include "Agent/Channel.h"

namespace OrloAgent {

// The standard output of the process. Once its reader is gone it stays gone: one Error message says
// so, and the channel is not ready any more.
std::unique_ptr<IChannel> MakeStdoutChannel(const std::string& streamName);

}  // namespace OrloAgent
