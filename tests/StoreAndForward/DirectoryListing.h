#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace OrloStoreAndForward {

// The names that FindFirstFileW and FindNextFileW give for the pattern "*." in the directory, "."
// and ".." among them, in their order, which is the same as long as nothing changes in it. Empty
// where there is nothing to be listed.
std::vector<std::string> ListInOrder(const std::filesystem::path& directory);

}  // namespace OrloStoreAndForward
