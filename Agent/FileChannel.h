#pragma once

#include <memory>
#include <string>

#include "Agent/Channel.h"

namespace OrloAgent {

// A file that is appended to. Opens it at once and makes missing directories; throws
// InitializationException when that is not possible, because it is then the configuration that is
// wrong. Later on a file that is renamed or removed is made anew, within a second, at the start of
// a frame; a full disk is waited out, and what was only partly written is completed.
std::unique_ptr<IChannel> MakeFileChannel(const std::string& path, const std::string& streamName);

}  // namespace OrloAgent
