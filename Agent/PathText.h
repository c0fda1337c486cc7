#pragma once

#include <filesystem>
#include <string>

// Text is UTF-8 wherever the agent reads, keeps or shows it, on every system. Paths take the form
// of the system's own, which std::filesystem does not derive from plain text everywhere.
namespace OrloAgent {

inline std::filesystem::path ToPath(const std::string& text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

inline std::string ToText(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

}  // namespace OrloAgent
