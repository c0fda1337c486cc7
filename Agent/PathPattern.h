#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

namespace OrloAgent {

// Whether a name fits a pattern, in which * stands for any characters and ? for one. A leading dot
// must stand in the pattern.
bool MatchesPattern(std::string_view name, std::string_view pattern);

// What exists and fits the pattern, sorted; every part of the path may be a pattern. Directories
// that can't be listed give nothing.
std::vector<std::filesystem::path> ExpandPattern(const std::filesystem::path& pattern);

}  // namespace OrloAgent
