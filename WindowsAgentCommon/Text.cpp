#include "WindowsAgentCommon/Text.h"

#include <algorithm>

#include "Platform/Error.h"
#include "Platform/Windows.h"

namespace WindowsAgentCommon {

namespace {

// The conversion calls count in int: longer texts are converted piece by piece.
constexpr std::size_t kPiece = std::size_t{1} << 20;

// Where the piece that begins at `begin` ends, so that no surrogate pair is torn apart.
std::size_t FindPieceEnd(const std::wstring& text, std::size_t begin) {
  const std::size_t end = std::min(text.size(), begin + kPiece);
  const auto last = static_cast<std::uint32_t>(text[end - 1]);
  const bool endsInsidePair = end < text.size() && last >= 0xD800 && last <= 0xDBFF;
  return endsInsidePair ? end - 1 : end;
}

// The same for the bytes of one character, of which there are at most four.
std::size_t FindPieceEnd(const std::string& text, std::size_t begin) {
  const std::size_t end = std::min(text.size(), begin + kPiece);
  for (std::size_t back = 0; end < text.size() && back < 4; ++back) {
    const auto byte = static_cast<unsigned char>(text[end - back]);
    if ((byte & 0xC0) != 0x80) {
      return end - back;
    }
  }
  return end;
}

}  // namespace

void GetLastErrorText(std::uint32_t error, std::string& text) { text = Platform::ErrorText(error); }

std::string ToUtf8(const std::wstring& text) {
  std::string result;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = FindPieceEnd(text, begin);
    const wchar_t* const piece = text.data() + begin;
    const int length = static_cast<int>(end - begin);
    const int needed = WideCharToMultiByte(CP_UTF8, 0, piece, length, nullptr, 0, nullptr, nullptr);
    const std::size_t old = result.size();
    result.resize(old + static_cast<std::size_t>(needed));
    const int written = WideCharToMultiByte(CP_UTF8, 0, piece, length, result.data() + old, needed,
                                            nullptr, nullptr);
    result.resize(old + static_cast<std::size_t>(written));
    begin = end;
  }
  return result;
}

std::wstring ToWide(const std::string& text) {
  std::wstring result;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = FindPieceEnd(text, begin);
    const char* const piece = text.data() + begin;
    const int length = static_cast<int>(end - begin);
    const int needed = MultiByteToWideChar(CP_UTF8, 0, piece, length, nullptr, 0);
    const std::size_t old = result.size();
    result.resize(old + static_cast<std::size_t>(needed));
    const int written = MultiByteToWideChar(CP_UTF8, 0, piece, length, result.data() + old, needed);
    result.resize(old + static_cast<std::size_t>(written));
    begin = end;
  }
  return result;
}

}  // namespace WindowsAgentCommon
