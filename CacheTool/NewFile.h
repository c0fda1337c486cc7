#pragma once

#include <filesystem>
#include <string_view>

namespace OrloCacheTool {

// Makes a file where there is nothing yet, not even a link, and returns when what it holds is on
// the disk. Throws ToolError; the file is gone then.
void WriteNewFile(const std::filesystem::path& path, std::string_view bytes);

}  // namespace OrloCacheTool
