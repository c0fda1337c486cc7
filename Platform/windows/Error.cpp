#include "Platform/Error.h"

#include <iterator>

#include "Platform/Windows.h"

namespace Platform {

namespace {

std::string ToUtf8(const wchar_t* text, int length) {
  const int size = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, length, result.data(), size, nullptr, nullptr);
  return result;
}

}  // namespace

std::string ErrorText(std::uint32_t error) {
  wchar_t text[1024];
  DWORD length = FormatMessageW(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
      nullptr, error, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
  // With line ends turned off the text ends in blanks instead.
  while (length > 0 &&
         (text[length - 1] == L' ' || text[length - 1] == L'\r' || text[length - 1] == L'\n')) {
    --length;
  }
  if (length == 0) {
    return "Unknown error " + std::to_string(error) + ".";
  }
  return ToUtf8(text, static_cast<int>(length));
}

}  // namespace Platform
