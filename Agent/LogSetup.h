#pragma once

#include "Agent/Options.h"

namespace OrloAgent {

// Makes logging what the options say. The log file is opened anew.
void ConfigureLogging(const LogOptions& options);

}  // namespace OrloAgent
