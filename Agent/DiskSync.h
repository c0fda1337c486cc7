#pragma once

#include <filesystem>
#include <system_error>

// What a file or a directory holds may be in the system's memory only for a while, in which a power
// cut loses it, in any order.
namespace OrloAgent {

// Returns when the file's contents are on the disk.
std::error_code SyncFile(const std::filesystem::path& file);

// Returns when the names of the directory's entries are; at once where the system has no such call
// (Windows, whose file system keeps a journal of them), or the file system has none. The empty path
// is the current directory.
std::error_code SyncDirectory(const std::filesystem::path& directory);

}  // namespace OrloAgent
