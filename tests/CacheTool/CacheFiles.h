#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Caches made by hand, after docs/event-cache.md, without the code that they test.
namespace OrloCacheTool {

// A head as an agent writes it, in the oldest layout that must stay readable.
std::string MakeHead(const std::string& source = "stdin", unsigned char flags = 0);

using HeadAndPayload = std::pair<std::string, std::string>;

// The bytes of a chunk file with pages of 4096 bytes.
std::string MakeChunk(const std::vector<HeadAndPayload>& events);

// One with heads as an agent writes them.
std::string MakeChunkOf(const std::vector<std::string>& payloads);

void WriteFile(const std::filesystem::path& path, std::string_view bytes);
std::string ReadFile(const std::filesystem::path& path);

// Relative paths of everything below the directory, sorted, with slashes.
std::vector<std::string> ListTree(const std::filesystem::path& directory);

}  // namespace OrloCacheTool
