#pragma once

#include <filesystem>
#include <vector>

// What the agent needs of its process and what depends on the operating system.
namespace OrloAgent {

// Writing to a reader that has gone becomes an error of the call instead of the end of the process,
// standard descriptors that are closed stay so (no file of ours gets their numbers), and as many
// descriptors may be open as the system lets us have. Called first in main.
void PrepareProcess();

// Full path of the running program; empty if the system does not tell.
std::filesystem::path GetProgramPath();

// Signals that ask the agent for something: to stop, all but those that IsReload names.
const std::vector<int>& GetSignals();

// Whether the signal, which has just come, asks to read again what may have changed.
bool IsReload(int signal);

}  // namespace OrloAgent
