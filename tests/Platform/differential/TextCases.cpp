#include <cwchar>
#include <vector>

#include "tests/Platform/differential/Record.h"

namespace Differential {

namespace {

using namespace std::string_literals;

struct WideText {
  const char* name;
  std::vector<unsigned> units;
};

struct ByteText {
  const char* name;
  std::string bytes;
};

const std::vector<WideText>& WideTexts() {
  static const std::vector<WideText> texts = {
      {"empty", {}},
      {"ascii", {'a', 'b', 'c'}},
      {"two-bytes", {0x80, 0x7FF}},
      {"three-bytes", {0x800, 0xFFFD, 0xFFFF}},
      {"pair", {0xD83D, 0xDE00}},
      {"first-pair", {0xD800, 0xDC00}},
      {"last-pair", {0xDBFF, 0xDFFF}},
      {"pair-between", {'a', 0xD83D, 0xDE00, 'b'}},
      {"lone-high", {'a', 0xD83D, 'b'}},
      {"lone-low", {'a', 0xDE00, 'b'}},
      {"high-at-the-end", {'a', 0xD83D}},
      {"low-at-the-beginning", {0xDE00, 'a'}},
      {"exchanged-pair", {0xDE00, 0xD83D}},
      {"two-highs", {0xD83D, 0xD83D, 0xDE00}},
      {"bom", {0xFEFF, 'a'}},
      {"inner-nul", {'a', 0, 'b'}},
      {"lone-high-before-nul", {0xD83D, 0, 'b'}},
      {"combining", {'a', 0x308, 0x1100, 0x1161}},
  };
  return texts;
}

const std::vector<ByteText>& ByteTexts() {
  static const std::vector<ByteText> texts = {
      {"empty", ""},
      {"ascii", "abc"},
      {"two-bytes", "\xC2\x80\xDF\xBF"},
      {"three-bytes", "\xE0\xA0\x80\xEF\xBF\xBF"},
      {"four-bytes", "\xF0\x9F\x98\x80"},
      {"first-of-four", "\xF0\x90\x80\x80"},
      {"last-of-four", "\xF4\x8F\xBF\xBF"},
      {"beyond-the-last", "\xF4\x90\x80\x80"},
      {"overlong-two",
       "a\xC0\xAF"
       "b"},
      {"overlong-c1",
       "a\xC1\xBF"
       "b"},
      {"overlong-three",
       "a\xE0\x80\xAF"
       "b"},
      {"overlong-four",
       "a\xF0\x80\x80\xAF"
       "b"},
      {"overlong-nul", "\xC0\x80"},
      {"surrogate",
       "a\xED\xA0\x80"
       "b"},
      {"surrogate-pair", "\xED\xA0\xBD\xED\xB8\x80"},
      {"last-before-surrogates", "\xED\x9F\xBF"},
      {"first-behind-surrogates", "\xEE\x80\x80"},
      {"lone-continuation",
       "a\x80"
       "b"},
      {"two-continuations",
       "a\x80\xBF"
       "b"},
      {"cut-two", "a\xC3"},
      {"cut-three", "a\xE2\x82"},
      {"cut-three-early", "a\xE2"},
      {"cut-four", "a\xF0\x9F\x98"},
      {"cut-inside",
       "a\xE2\x82"
       "b"},
      {"cut-four-inside",
       "a\xF0\x9F\x98"
       "b"},
      {"cut-before-another", "\xE2\x82\xC3\xA4"},
      {"f5",
       "a\xF5\x80\x80\x80"
       "b"},
      {"five-bytes", "\xF8\x88\x80\x80\x80"},
      {"six-bytes", "\xFC\x84\x80\x80\x80\x80"},
      {"fe-ff", "\xFE\xFF"},
      {"latin-1",
       "gr\xFC\xDF"
       "e"},
      {"bom",
       "\xEF\xBB\xBF"
       "a"},
      {"inner-nul", "a\0b"s},
      {"cut-before-nul", "a\xE2\x82\0b"s},
  };
  return texts;
}

std::string ToBytes(const std::wstring& text, int length, UINT codePage, DWORD flags,
                    int capacity) {
  std::vector<char> buffer(256, '.');
  SetLastError(kStale);
  const int count =
      WideCharToMultiByte(codePage, flags, text.c_str(), length,
                          capacity == 0 ? nullptr : buffer.data(), capacity, nullptr, nullptr);
  const DWORD error = GetLastError();
  return std::to_string(count) + (count == 0 ? " error " + std::to_string(error) : "") +
         (capacity != 0 && count > 0 ? " " + Hex(buffer.data(), static_cast<std::size_t>(count))
                                     : "");
}

std::string ToWide(const std::string& text, int length, UINT codePage, DWORD flags, int capacity) {
  std::vector<wchar_t> buffer(256, L'.');
  SetLastError(kStale);
  const int count = MultiByteToWideChar(codePage, flags, text.c_str(), length,
                                        capacity == 0 ? nullptr : buffer.data(), capacity);
  const DWORD error = GetLastError();
  return std::to_string(count) + (count == 0 ? " error " + std::to_string(error) : "") +
         (capacity != 0 && count > 0
              ? " " + Escaped({buffer.data(), static_cast<std::size_t>(count)})
              : "");
}

// Sizes around the needed one, given lengths and text that ends with NUL.
template <typename Text, typename Convert>
void RecordSizes(const std::string& name, const Text& text, Convert convert, DWORD strict,
                 Record& record) {
  const int length = static_cast<int>(text.size());
  for (const DWORD flags : {DWORD{0}, strict}) {
    const std::string prefix = name + (flags == 0 ? " lenient" : " strict");
    for (const int given : {length, -1}) {
      const std::string part = prefix + (given == -1 ? " ended" : " counted");
      record.push_back({part + " size", convert(text, given, CP_UTF8, flags, 0)});
      for (const int capacity : {1, 2, 3, 4, 5, 6, 7, 8, 200}) {
        record.push_back({part + " into " + std::to_string(capacity),
                          convert(text, given, CP_UTF8, flags, capacity)});
      }
    }
  }
}

}  // namespace

void RecordText(Record& record) {
  for (const WideText& text : WideTexts()) {
    std::wstring wide;
    for (const unsigned unit : text.units) {
      wide.push_back(static_cast<wchar_t>(unit));
    }
    RecordSizes(std::string("text to-bytes ") + text.name, wide, ToBytes, WC_ERR_INVALID_CHARS,
                record);
  }
  for (const ByteText& text : ByteTexts()) {
    RecordSizes(std::string("text to-wide ") + text.name, text.bytes, ToWide, MB_ERR_INVALID_CHARS,
                record);
  }
  for (const int length : {0, -2, -1000}) {
    record.push_back({"text to-bytes length " + std::to_string(length),
                      ToBytes(L"abc", length, CP_UTF8, 0, 200)});
    record.push_back(
        {"text to-wide length " + std::to_string(length), ToWide("abc", length, CP_UTF8, 0, 200)});
  }
  for (DWORD bit = 1; bit != 0; bit <<= 1) {
    record.push_back(
        {"text to-bytes flag " + std::to_string(bit), ToBytes(L"abc", 3, CP_UTF8, bit, 200)});
    record.push_back(
        {"text to-wide flag " + std::to_string(bit), ToWide("abc", 3, CP_UTF8, bit, 200)});
  }
  for (const UINT codePage : {0u, 1u, 437u, 1252u, 65000u, 99999u}) {
    record.push_back(
        {"text to-bytes page " + std::to_string(codePage), ToBytes(L"abc", 3, codePage, 0, 200)});
    record.push_back(
        {"text to-wide page " + std::to_string(codePage), ToWide("abc", 3, codePage, 0, 200)});
  }
  char bytes[8] = {};
  wchar_t wide[8] = {};
  SetLastError(kStale);
  int count = WideCharToMultiByte(CP_UTF8, 0, nullptr, 1, bytes, 8, nullptr, nullptr);
  record.push_back({"text to-bytes null source",
                    std::to_string(count) + " error " + std::to_string(GetLastError())});
  SetLastError(kStale);
  count = MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 8);
  record.push_back({"text to-wide null source",
                    std::to_string(count) + " error " + std::to_string(GetLastError())});
  for (const int capacity : {-1, 8}) {
    SetLastError(kStale);
    count = WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, nullptr, capacity, nullptr, nullptr);
    record.push_back({"text to-bytes null target " + std::to_string(capacity),
                      std::to_string(count) + " error " + std::to_string(GetLastError())});
    SetLastError(kStale);
    count = MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, capacity);
    record.push_back({"text to-wide null target " + std::to_string(capacity),
                      std::to_string(count) + " error " + std::to_string(GetLastError())});
  }
}

}  // namespace Differential
