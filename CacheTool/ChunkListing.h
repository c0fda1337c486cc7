#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace OrloCacheTool {

// A directory directly below the cache directory that a stage looks into.
struct MinuteDirectory {
  std::string name;
  std::filesystem::path path;
};

// An entry of a minute directory that a stage takes for a chunk file.
struct ListedChunk {
  // How users call it: MINUTE/FILE.
  std::string GetName() const { return minute + "/" + file; }

  std::string minute;
  std::string file;
  std::filesystem::path path;
  // 0 for a directory, which a stage queues like a file and then can't open.
  std::uint64_t size = 0;
  bool isDirectory = false;
  std::filesystem::file_time_type written;
};

// Whether a name is one that the stage gives a minute directory.
bool LooksLikeMinute(std::string_view name);

// What a stage would find in the cache directory if it started now, in the order in which it would
// hand it on. Names with a dot are left out, as the stage leaves them out. A chunk that an agent
// removes meanwhile is left out, too. Throw ToolError if the cache directory can't be listed; a
// minute directory that can't be, which a stage skips as well, is named in `skipped`.
std::vector<MinuteDirectory> ListMinuteDirectories(const std::filesystem::path& cache);
std::vector<ListedChunk> ListChunks(const std::filesystem::path& cache,
                                    std::vector<std::string>& skipped);

// The chunk of that name: MINUTE/FILE, or "oldest" or "newest". Throws ToolError if there is none.
const ListedChunk& FindChunk(const std::vector<ListedChunk>& chunks, const std::string& name);

// The UTC time in a chunk's name, as 2016-03-07T14:05:07Z; empty if it has none.
std::string GetNamedTime(const ListedChunk& chunk);

}  // namespace OrloCacheTool
