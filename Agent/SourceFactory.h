#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "Agent/Options.h"
#include "Agent/Source.h"

namespace OrloAgent {

// The source that the options describe. `positions` is where a source of files keeps how far it
// has read; `endOfInput` is called by a source whose input can end.
std::unique_ptr<Source> MakeSource(const SourceOptions& options,
                                   const std::filesystem::path& positions, EndOfInput endOfInput);

// What tells the source from the others of its stream: an address, paths, "stdin".
std::string DescribeSource(const SourceOptions& options);

}  // namespace OrloAgent
