#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "CacheTool/ChunkCheck.h"

namespace OrloCacheTool {

struct StoredFile {
  std::uint64_t events = 0;
  // What is wrong with a chunk that need not have given all of its events; empty if it has.
  std::string damage;
};

// Gives every event of a file to `take`, in order. The file is one that "export" has written (a
// JSON object in each line) or a chunk file; which of them, its bytes tell. The events' bytes are
// the callee's for the call alone.
//
// Throws ToolError where a line can't be read, with its number, and for a damaged chunk unless
// `salvage` is set; then its readable part is given.
StoredFile ForEachStoredEvent(const std::filesystem::path& file, const CheckOptions& options,
                              bool salvage, const std::function<void(const StoredEvent&)>& take);

}  // namespace OrloCacheTool
