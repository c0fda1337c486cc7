#include "Agent/References.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "Agent/PathText.h"

namespace OrloAgent {

namespace {

constexpr std::string_view kBegin = "${";
constexpr std::string_view kEscaped = "$${";
constexpr std::string_view kFile = "file:";
constexpr std::size_t kLargestFile = 64 * 1024;

bool IsVariableName(const std::string& name) {
  const auto isLetter = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  };
  return !name.empty() && isLetter(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [&](char c) { return isLetter(c) || (c >= '0' && c <= '9'); });
}

std::optional<std::string> ReadVariable(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

std::optional<std::string> ReadFile(const std::string& path, std::string& problem) {
  std::error_code ignored;
  if (std::filesystem::is_directory(ToPath(path), ignored)) {
    problem = "it is a directory";
    return std::nullopt;
  }
  errno = 0;
  std::ifstream stream(ToPath(path), std::ios::binary);
  std::string text(kLargestFile + 1, '\0');
  if (stream) {
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
  }
  if (stream.bad() || (!stream && !stream.eof())) {
    problem = errno != 0 ? std::generic_category().message(errno) : "it can't be read";
    return std::nullopt;
  }
  if (text.size() > kLargestFile || text.find('\0') != text.npos) {
    problem = text.size() > kLargestFile ? "it is larger than 64 KiB" : "it holds a NUL byte";
    return std::nullopt;
  }
  if (text.ends_with('\n')) {
    text.pop_back();
    if (text.ends_with('\r')) {
      text.pop_back();
    }
  }
  return text;
}

// What `name`, which stands between the braces, is a reference to.
std::optional<std::string> LookUp(const std::string& name, const References& references,
                                  std::string& problem) {
  if (name.starts_with(kFile)) {
    const std::string path = name.substr(kFile.size());
    std::string reason = "files are not read here";
    auto value = references.file ? references.file(path, reason) : std::nullopt;
    if (!value) {
      problem = "refers to the file \"" + path + "\", which can't be read: " + reason;
    }
    return value;
  }
  if (!IsVariableName(name)) {
    problem = "has \"${" + name + "}\", which is neither ${NAME} of a variable nor ${file:PATH}; " +
              "write $${ for a ${ that is meant so";
    return std::nullopt;
  }
  auto value = references.environment ? references.environment(name) : std::nullopt;
  if (!value) {
    problem = "refers to the environment variable " + name + ", which is not set";
  }
  return value;
}

}  // namespace

References SystemReferences() { return {ReadVariable, ReadFile}; }

bool HasReference(const std::string& text) {
  for (std::size_t at = text.find(kBegin); at != text.npos; at = text.find(kBegin, at + 1)) {
    if (at == 0 || text[at - 1] != '$') {
      return true;
    }
  }
  return false;
}

Expansion ExpandReferences(const std::string& text, const References& references) {
  Expansion result;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::string_view rest = std::string_view(text).substr(at);
    if (rest.starts_with(kEscaped)) {
      result.text += kBegin;
      at += kEscaped.size();
      continue;
    }
    if (!rest.starts_with(kBegin)) {
      result.text += text[at++];
      continue;
    }
    const std::size_t end = rest.find('}');
    if (end == rest.npos) {
      result.problem = "has a ${ without its }; write $${ for a ${ that is meant so";
      return result;
    }
    const std::string name(rest.substr(kBegin.size(), end - kBegin.size()));
    auto value = LookUp(name, references, result.problem);
    if (!value) {
      return result;
    }
    result.text += *value;
    result.values.push_back(std::move(*value));
    at += end + 1;
  }
  return result;
}

}  // namespace OrloAgent
