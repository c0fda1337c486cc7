#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/Windows.h"

namespace PlatformTest {
namespace {

std::string ToUtf8(const std::wstring& text, DWORD flags = 0) {
  const int size = WideCharToMultiByte(CP_UTF8, flags, text.data(), static_cast<int>(text.size()),
                                       nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  if (size != 0) {
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, flags, text.data(), static_cast<int>(text.size()),
                                  result.data(), size, nullptr, nullptr),
              size);
  }
  return result;
}

std::wstring ToWide(const std::string& text, DWORD flags = 0) {
  const int size =
      MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring result(static_cast<std::size_t>(size), L'\0');
  if (size != 0) {
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()),
                                  result.data(), size),
              size);
  }
  return result;
}

std::wstring Units(std::initializer_list<unsigned> units) {
  std::wstring text;
  for (const unsigned unit : units) {
    text.push_back(static_cast<wchar_t>(unit));
  }
  return text;
}

TEST(TextTest, EveryLengthOfSequenceConvertsBothWays) {
  const std::wstring wide =
      Units({'a', 0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFD, 0xFFFF, 0x10000, 0x10FFFF});
  const std::string utf8 =
      "a\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD\xEF\xBF\xBF"
      "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
  EXPECT_EQ(ToUtf8(wide), utf8);
  EXPECT_EQ(ToUtf8(wide, WC_ERR_INVALID_CHARS), utf8);
  EXPECT_EQ(ToWide(utf8), wide);
  EXPECT_EQ(ToWide(utf8, MB_ERR_INVALID_CHARS), wide);
}

TEST(TextTest, SurrogatePairIsOneCharacter) {
  EXPECT_EQ(ToUtf8(Units({0xD83D, 0xDE00})), "\xF0\x9F\x98\x80");
  EXPECT_EQ(ToUtf8(Units({0xD800, 0xDC00, 0xDBFF, 0xDFFF})), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

TEST(TextTest, BrokenWideTextBecomesReplacementCharactersOrAnError) {
  const std::string mark = "\xEF\xBF\xBD";
  const std::pair<std::wstring, std::string> kCases[] = {
      {Units({0xD800}), mark},
      {Units({0xDC00}), mark},
      {Units({0xDC00, 0xD800}), mark + mark},
      {Units({0xD800, 'x'}), mark + "x"},
      {Units({0xD800, 0xD83D, 0xDE00}), mark + "\xF0\x9F\x98\x80"},
      {Units({0x110000}), mark},
      {Units({0xFFFFFFFF}), mark},
  };
  for (const auto& [wide, expected] : kCases) {
    EXPECT_EQ(ToUtf8(wide), expected);
    EXPECT_EQ(ToUtf8(wide, WC_ERR_INVALID_CHARS), "");
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
  }
}

TEST(TextTest, BrokenUtf8BecomesOneReplacementPerBrokenSequenceOrAnError) {
  const std::pair<std::string, std::wstring> kCases[] = {
      {"\x80", Units({0xFFFD})},
      {"\xBF\x80", Units({0xFFFD, 0xFFFD})},
      {"\xC0\x80", Units({0xFFFD, 0xFFFD})},
      {"\xC1\xBF", Units({0xFFFD, 0xFFFD})},
      {"\xC3", Units({0xFFFD})},
      {"\xC3(", Units({0xFFFD, '('})},
      {"\xE0\x80\x80", Units({0xFFFD, 0xFFFD, 0xFFFD})},
      {"\xE2\x82", Units({0xFFFD})},
      {"\xE2\x82x", Units({0xFFFD, 'x'})},
      {"\xED\xA0\x80", Units({0xFFFD, 0xFFFD, 0xFFFD})},
      {"\xF0\x80\x80\x80", Units({0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD})},
      {"\xF0\x9F\x98", Units({0xFFFD})},
      {"\xF4\x90\x80\x80", Units({0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD})},
      {"\xF5", Units({0xFFFD})},
      {"\xFF"
       "a",
       Units({0xFFFD, 'a'})},
  };
  for (const auto& [utf8, expected] : kCases) {
    EXPECT_EQ(ToWide(utf8), expected) << utf8;
    EXPECT_EQ(ToWide(utf8, MB_ERR_INVALID_CHARS), L"");
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
  }
}

TEST(TextTest, LengthOfMinusOneConvertsTheTerminatorToo) {
  char utf8[8];
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"a\u00E9", -1, utf8, 8, nullptr, nullptr), 4);
  EXPECT_STREQ(utf8, "a\xC3\xA9");
  wchar_t wide[8];
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xC3\xA9", -1, wide, 8), 3);
  EXPECT_STREQ(wide, L"a\u00E9");
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "", -1, nullptr, 0), 1);
}

TEST(TextTest, ExplicitLengthIncludesNulCharactersInside) {
  EXPECT_EQ(ToUtf8(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
  EXPECT_EQ(ToWide(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(TextTest, BufferThatIsTooSmallIsReported) {
  std::vector<char> utf8(4, '#');
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"a\u20AC", 2, utf8.data(), 3, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(utf8[3], '#');
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"a\u20AC", 2, utf8.data(), 4, nullptr, nullptr), 4);
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  wchar_t wide[2] = {L'#', L'#'};
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", 2, wide, 1), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(wide[1], L'#');
}

TEST(TextTest, EveryUnsupportedArgumentIsRefused) {
  char utf8[8];
  wchar_t wide[8];
  const auto expectRefused = [](int result) {
    EXPECT_EQ(result, 0);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    SetLastError(ERROR_SUCCESS);
  };
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = 1u << bit;
    if (flag != WC_ERR_INVALID_CHARS) {
      expectRefused(WideCharToMultiByte(CP_UTF8, flag, L"a", 1, utf8, 8, nullptr, nullptr));
    }
    if (flag != MB_ERR_INVALID_CHARS) {
      expectRefused(MultiByteToWideChar(CP_UTF8, flag, "a", 1, wide, 8));
    }
  }
  for (const UINT codePage : {0u, 1u, 1252u, 65000u}) {
    expectRefused(WideCharToMultiByte(codePage, 0, L"a", 1, utf8, 8, nullptr, nullptr));
    expectRefused(MultiByteToWideChar(codePage, 0, "a", 1, wide, 8));
  }
  BOOL used = FALSE;
  expectRefused(WideCharToMultiByte(CP_UTF8, 0, L"a", 1, utf8, 8, "?", nullptr));
  expectRefused(WideCharToMultiByte(CP_UTF8, 0, L"a", 1, utf8, 8, nullptr, &used));
  for (const int length : {0, -2}) {
    expectRefused(WideCharToMultiByte(CP_UTF8, 0, L"a", length, utf8, 8, nullptr, nullptr));
    expectRefused(MultiByteToWideChar(CP_UTF8, 0, "a", length, wide, 8));
  }
  expectRefused(WideCharToMultiByte(CP_UTF8, 0, L"a", 1, utf8, -1, nullptr, nullptr));
  expectRefused(MultiByteToWideChar(CP_UTF8, 0, "a", 1, wide, -1));
  expectRefused(WideCharToMultiByte(CP_UTF8, 0, nullptr, 1, utf8, 8, nullptr, nullptr));
  expectRefused(MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 8));
  expectRefused(WideCharToMultiByte(CP_UTF8, 0, L"a", 1, nullptr, 8, nullptr, nullptr));
  expectRefused(MultiByteToWideChar(CP_UTF8, 0, "a", 1, nullptr, 8));
}

}  // namespace
}  // namespace PlatformTest
