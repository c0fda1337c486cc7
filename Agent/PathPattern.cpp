#include "Agent/PathPattern.h"

#include <algorithm>
#include <string>
#include <system_error>

#include "Agent/PathText.h"

namespace OrloAgent {

namespace {

bool HasWildcard(const std::string& text) { return text.find_first_of("*?") != text.npos; }

std::vector<std::filesystem::path> ListMatches(const std::filesystem::path& directory,
                                               const std::string& pattern) {
  std::vector<std::filesystem::path> found;
  std::error_code error;
  const std::filesystem::path listed = directory.empty() ? "." : directory;
  for (std::filesystem::directory_iterator at(listed, error), end; !error && at != end;
       at.increment(error)) {
    const std::filesystem::path name = at->path().filename();
    if (MatchesPattern(ToText(name), pattern)) {
      found.push_back(directory / name);
    }
  }
  return found;
}

}  // namespace

bool MatchesPattern(std::string_view name, std::string_view pattern) {
  if (!name.empty() && name.front() == '.' && (pattern.empty() || pattern.front() != '.')) {
    return false;
  }
  std::size_t n = 0;
  std::size_t p = 0;
  // Where the last star stands, and what of the name it has taken so far.
  std::size_t star = pattern.npos;
  std::size_t taken = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      taken = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
      ++p;
      ++n;
    } else if (star != pattern.npos) {
      p = star + 1;
      n = ++taken;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == pattern.npos;
}

std::vector<std::filesystem::path> ExpandPattern(const std::filesystem::path& pattern) {
  std::vector<std::filesystem::path> paths{pattern.root_path()};
  for (const std::filesystem::path& part : pattern.relative_path()) {
    std::vector<std::filesystem::path> longer;
    const bool isPattern = HasWildcard(ToText(part));
    for (const std::filesystem::path& path : paths) {
      if (!isPattern) {
        longer.push_back(path / part);
        continue;
      }
      for (std::filesystem::path& match : ListMatches(path, ToText(part))) {
        longer.push_back(std::move(match));
      }
    }
    paths = std::move(longer);
  }
  std::erase_if(paths, [](const std::filesystem::path& path) {
    std::error_code error;
    return !std::filesystem::exists(path, error);
  });
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace OrloAgent
