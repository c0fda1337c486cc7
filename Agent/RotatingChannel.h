#pragma once

#include <memory>
#include <string>

#include "Agent/Channel.h"
#include "Agent/Options.h"

namespace OrloAgent {

// A file that is appended to, as MakeFileChannel makes it, and that is closed, given the time as an
// addition to its name, and begun anew when it is large or old enough. Closed files are deleted and
// compressed as RotatedFiles says. Throws as MakeFileChannel.
//
// The file goes on to be written as it is while it can't be renamed.
std::unique_ptr<IChannel> MakeRotatingChannel(const std::string& path,
                                              const RotationOptions& options,
                                              const std::string& streamName);

}  // namespace OrloAgent
