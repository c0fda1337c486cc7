#pragma once

#include <filesystem>
#include <string>

namespace OrloCacheTool {

// One stream's event cache.
struct CachePlace {
  // The cache directory, <data directory>/Events/<stream>.
  std::filesystem::path cache;
  // The data directory of the agent that uses it; empty for a cache that lies elsewhere, such as a
  // copy, which no agent uses.
  std::filesystem::path data;
};

// Finds the cache that a user means. `place` is a cache directory, or a data directory, or its
// directory Events; for the last two `stream` says which stream, and may be empty if there is only
// one. Throws ToolError with what is there if that does not make one cache, and for a directory
// that does not look like a cache, so that nothing else is ever taken for chunks.
CachePlace FindCache(const std::string& place, const std::string& stream);

}  // namespace OrloCacheTool
