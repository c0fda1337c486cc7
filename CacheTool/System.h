#pragma once

#include <filesystem>
#include <string_view>

// What the tool needs of the operating system beyond Platform/Windows.h.
namespace OrloCacheTool {

// Whether a person is looking at the standard error.
bool IsErrorTerminal();

// Gives what the tool has made to the owner of what is there already: the agent must be able to
// read and remove it, and an administrator may well run the tool as somebody else. Nothing where
// the system does not tell owners by files (Windows: a directory hands its rights down) or does not
// let us; a failure shows when the agent starts.
void GiveToOwnerOf(const std::filesystem::path& model, const std::filesystem::path& made);

// Makes a file where there is nothing yet, not even a link, gives it to the owner of `model` and
// returns when all of it is on the disk. Throws ToolError; the file is gone then.
void WriteNewFile(const std::filesystem::path& path, std::string_view bytes,
                  const std::filesystem::path& model);

// Returns when the names of the directory's entries are on the disk. Throws ToolError. Nothing
// where the system has no such call (Windows, whose file system keeps a journal of them).
void SyncDirectory(const std::filesystem::path& directory);

}  // namespace OrloCacheTool
