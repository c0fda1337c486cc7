#include "WindowsAgentCommon/Secrets.h"

#include <algorithm>

namespace WindowsAgentCommon {

namespace {

constexpr std::string_view kHidden = "(hidden)";
constexpr std::size_t kShortWord = 4;

bool IsFoundByChance(const std::string& secret) {
  constexpr std::size_t kShortNumber = 8;
  const bool isNumber =
      std::all_of(secret.begin(), secret.end(), [](char c) { return c >= '0' && c <= '9'; });
  return secret.size() < (isNumber ? kShortNumber : kShortWord);
}

bool StandsAlone(std::string_view text, std::size_t begin, std::size_t size) {
  const std::size_t end = begin + size;
  if (begin == 0 || end == text.size()) {
    return false;
  }
  const char before = text[begin - 1];
  const char after = text[end];
  return (before == '"' && after == '"') || (before == '\'' && after == '\'') ||
         (before == '(' && after == ')');
}

std::string HideOne(std::string_view text, const std::string& secret) {
  const bool mustStandAlone = IsFoundByChance(secret);
  std::string result;
  std::size_t from = 0;
  for (;;) {
    const std::size_t found = text.find(secret, from);
    if (found == text.npos) {
      return result.append(text.substr(from));
    }
    result.append(text.substr(from, found - from));
    if (mustStandAlone && !StandsAlone(text, found, secret.size())) {
      result.append(secret);
    } else {
      result.append(kHidden);
    }
    from = found + secret.size();
  }
}

}  // namespace

std::string HideSecrets(std::string_view text, const Secrets& secrets) {
  std::string result(text);
  for (const std::string& secret : secrets) {
    if (!secret.empty() && result.find(secret) != result.npos) {
      result = HideOne(result, secret);
    }
  }
  return result;
}

std::string HideCutSecrets(std::string_view text, const Secrets& secrets) {
  std::string result = HideSecrets(text, secrets);
  std::size_t longest = 0;
  for (const std::string& secret : secrets) {
    for (std::size_t size = std::min(secret.size(), result.size() + 1); size-- > kShortWord;) {
      if (result.ends_with(std::string_view(secret).substr(0, size))) {
        longest = std::max(longest, size);
        break;
      }
    }
  }
  return longest == 0 ? result : result.substr(0, result.size() - longest).append(kHidden);
}

}  // namespace WindowsAgentCommon
