#pragma once

#include <filesystem>

// What the tool needs of the operating system beyond Platform/Windows.h.
namespace OrloCacheTool {

// Whether a person is looking at the standard error.
bool IsErrorTerminal();

// Gives what the tool has made to the owner of what is there already: the agent must be able to
// read and remove it, and an administrator may well run the tool as somebody else. Nothing where
// the system does not tell owners by files (Windows: a directory hands its rights down) or does not
// let us; a failure shows when the agent starts.
void GiveToOwnerOf(const std::filesystem::path& model, const std::filesystem::path& made);

}  // namespace OrloCacheTool
