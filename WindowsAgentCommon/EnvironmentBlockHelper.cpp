#include "WindowsAgentCommon/EnvironmentBlockHelper.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

#include "WindowsAgentCommon/Logging.h"

namespace WindowsAgentCommon {

namespace {

Log GetHelperLog() { return LoggerFactory::GetLog("Code.EnvironmentBlockHelper"); }

std::string_view WithoutBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::int32_t> ParseInteger(std::string_view text) {
  text = WithoutBlanks(text);
  std::int32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

bool EqualsIgnoringCase(std::string_view text, std::string_view lowerCase) {
  return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                    [](char a, char b) {
                      return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
                    });
}

std::optional<bool> ParseBoolean(std::string_view text) {
  text = WithoutBlanks(text);
  for (const std::string_view word : {"true", "1", "yes", "on"}) {
    if (EqualsIgnoringCase(text, word)) {
      return true;
    }
  }
  for (const std::string_view word : {"false", "0", "no", "off"}) {
    if (EqualsIgnoringCase(text, word)) {
      return false;
    }
  }
  return std::nullopt;
}

// The value as T, or the default with an Error line.
template <typename T>
bool ReadInteger(const std::string* text, const std::string& key, T& value, T defaultValue) {
  value = defaultValue;
  if (text == nullptr) {
    return false;
  }
  const std::optional<std::int32_t> parsed = ParseInteger(*text);
  if (!parsed) {
    LogFacade::Error(GetHelperLog(),
                     "Invalid value \"%s\" for %s (whole number from -2147483648 to 2147483647 "
                     "expected). Using the default %d.",
                     *text, key, defaultValue);
    return false;
  }
  value = *parsed;
  return true;
}

}  // namespace

EnvironmentBlockHelper::EnvironmentBlockHelper(const EnvironmentBlock& environment)
    : m_environment(environment) {}

bool EnvironmentBlockHelper::GetIntegerValue(const std::string& key, int& value,
                                             int defaultValue) const {
  return ReadInteger(FindSingle(key), key, value, defaultValue);
}

bool EnvironmentBlockHelper::GetIntegerValue(const std::string& key, long& value,
                                             long defaultValue) const {
  return ReadInteger(FindSingle(key), key, value, defaultValue);
}

bool EnvironmentBlockHelper::GetBooleanValue(const std::string& key, bool& value,
                                             bool defaultValue) const {
  value = defaultValue;
  const std::string* const text = FindSingle(key);
  if (text == nullptr) {
    return false;
  }
  const std::optional<bool> parsed = ParseBoolean(*text);
  if (!parsed) {
    LogFacade::Error(GetHelperLog(),
                     "Invalid value \"%s\" for %s (true, false, 1, 0, yes, no, on or off "
                     "expected). Using the default %s.",
                     *text, key, defaultValue ? "true" : "false");
    return false;
  }
  value = *parsed;
  return true;
}

bool EnvironmentBlockHelper::GetArrayValue(const std::string& key,
                                           std::vector<std::string>& values) const {
  values.clear();
  const auto [first, last] = m_environment.equal_range(key);
  for (auto entry = first; entry != last; ++entry) {
    values.push_back(entry->second);
  }
  return !values.empty();
}

const std::string* EnvironmentBlockHelper::FindSingle(const std::string& key) const {
  const auto [first, last] = m_environment.equal_range(key);
  if (first == last) {
    return nullptr;
  }
  if (std::next(first) != last) {
    LogFacade::Warn(GetHelperLog(),
                    "%s has %d values where one is expected. Using the first, "
                    "\"%s\".",
                    key, std::distance(first, last), first->second);
  }
  return &first->second;
}

}  // namespace WindowsAgentCommon
