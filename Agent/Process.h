#pragma once

#include <filesystem>
#include <string>
#include <vector>

// What the agent needs of its process and what depends on the operating system.
namespace OrloAgent {

// Called first in main. On POSIX, writing to a reader that has gone becomes an error of the call
// instead of the end of the process, standard descriptors that are closed stay so (no file of ours
// gets their numbers), and as many descriptors may be open as the system lets us have. On Windows,
// the standard streams carry bytes, and no error waits in a window for an answer.
void PrepareProcess();

// The arguments of main behind the program's name, in UTF-8.
std::vector<std::string> GetArguments(int argc, char** argv);

// Full path of the running program; empty if the system does not tell.
std::filesystem::path GetProgramPath();

}  // namespace OrloAgent
