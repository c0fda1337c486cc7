#include "StoreAndForward/ChunkNames.h"

#include <array>
#include <ctime>
#include <cwchar>

#include "Platform/Windows.h"

namespace OrloStoreAndForward {

namespace {

std::wstring FormatTime(const wchar_t* format, const std::tm& time) {
  std::array<wchar_t, 80> text{};
  const std::size_t length = std::wcsftime(text.data(), text.size(), format, &time);
  return std::wstring(text.data(), length);
}

// The UTF-16 code units of a code point, as one number that compares as they do.
std::uint32_t Utf16Order(wchar_t character) {
  const auto codePoint = static_cast<std::uint32_t>(character);
  if (codePoint < 0x10000u) {
    return codePoint << 16;
  }
  const std::uint32_t offset = codePoint - 0x10000u;
  return ((0xD800u + (offset >> 10)) << 16) | (0xDC00u + (offset & 0x3FFu));
}

}  // namespace

ChunkName MakeChunkName(std::int64_t time) {
  const __time64_t seconds = time;
  const std::tm* utc = _gmtime64(&seconds);
  if (utc == nullptr) {
    return {};
  }
  return {FormatTime(L"%Y-%m-%d-%H-%M", *utc), FormatTime(L"%S", *utc)};
}

std::wstring MakeCacheDirectory(const std::wstring& dataDirectory, const std::wstring& streamName) {
  return dataDirectory + L"Events\\" + streamName + L"\\";
}

std::wstring MakeMinuteDirectory(const std::wstring& cacheDirectory, const std::wstring& minute) {
  // The cache directory ends with a separator already; file systems take the doubled one as one.
  return cacheDirectory + L"\\" + minute + L"\\";
}

std::wstring MakeListingPattern(const std::wstring& directory) { return directory + L"\\*."; }

bool NameSortsBefore(std::wstring_view left, std::wstring_view right) {
  for (std::size_t i = 0; i < left.size() && i < right.size(); ++i) {
    const std::uint32_t leftOrder = Utf16Order(left[i]);
    const std::uint32_t rightOrder = Utf16Order(right[i]);
    if (leftOrder != rightOrder) {
      return leftOrder < rightOrder;
    }
  }
  return left.size() < right.size();
}

}  // namespace OrloStoreAndForward
