#pragma once

#include <fmt/printf.h>

#include <cstdint>
#include <string>

#include "WindowsAgentCommon/PrintfFormat.h"

namespace WindowsAgentCommon {

// printf into a string; the format is checked by the compiler.
template <typename... Args>
std::string Format(CheckedFormat<Args...> format, const Args&... args) {
  return fmt::sprintf(format.Get(), args...);
}

// Replaces `text` with the system's text of a Windows error code (UTF-8, no line end).
void GetLastErrorText(std::uint32_t error, std::string& text);

// Conversions between wide text and UTF-8 of any length. What can't be converted becomes U+FFFD.
std::string ToUtf8(const std::wstring& text);
std::wstring ToWide(const std::string& text);

}  // namespace WindowsAgentCommon
