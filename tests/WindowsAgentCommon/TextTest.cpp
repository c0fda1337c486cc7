#include "WindowsAgentCommon/Text.h"

#include <gtest/gtest.h>

#include "Platform/Windows.h"

namespace WindowsAgentCommon {
namespace {

TEST(TextTest, FormatFillsInEveryKindOfArgument) {
  EXPECT_EQ(Format("%s=%d, %5.1f%%, %c", std::string("key"), -3, 12.25, 'x'), "key=-3,  12.2%, x");
}

TEST(TextTest, FormatTakesWideNumbersWithoutLengthModifiers) {
  EXPECT_EQ(Format("%d %u", std::int64_t{-5000000000}, std::uint64_t{18446744073709551615u}),
            "-5000000000 18446744073709551615");
}

TEST(TextTest, FormatKeepsNulCharactersOfAnArgument) {
  EXPECT_EQ(Format("[%s]", std::string("a\0b", 3)), std::string("[a\0b]", 5));
}

TEST(TextTest, AnErrorCodeHasItsTextWithoutALineEnd) {
  std::string text = "old";
  GetLastErrorText(ERROR_ACCESS_DENIED, text);
  // The words are the system's.
  EXPECT_TRUE(text.starts_with("Access ") && text.ends_with("denied.")) << text;
}

TEST(TextTest, AnUnknownErrorCodeNamesItsNumber) {
  std::string text;
  GetLastErrorText(0x2FFFFFFF, text);
  EXPECT_NE(text.find("805306367"), std::string::npos) << text;
}

TEST(TextTest, EmptyTextStaysEmpty) {
  EXPECT_EQ(ToUtf8(L""), "");
  EXPECT_EQ(ToWide(""), L"");
}

TEST(TextTest, CharactersOfAllLengthsAreConvertedBothWays) {
  const std::wstring wide = L"a\u00e4\u20ac\U0001F600z";
  const std::string utf8 = "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z";
  EXPECT_EQ(ToUtf8(wide), utf8);
  EXPECT_EQ(ToWide(utf8), wide);
}

TEST(TextTest, NulCharactersAreTextLikeAnyOther) {
  EXPECT_EQ(ToUtf8(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
  EXPECT_EQ(ToWide(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(TextTest, WhatCannotBeConvertedBecomesTheReplacementCharacter) {
  EXPECT_EQ(ToWide("a\xff"
                   "b"),
            L"a\uFFFDb");
  EXPECT_EQ(ToUtf8(std::wstring{L'a', wchar_t{0xD800}, L'b'}),
            "a\xef\xbf\xbd"
            "b");
}

// The conversion is made in pieces of a mebibyte: a character must not be torn at their borders.
TEST(TextTest, LongTextIsConvertedWhole) {
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  for (std::size_t before = kPiece - 5; before <= kPiece + 1; ++before) {
    SCOPED_TRACE(before);
    const std::wstring wide =
        std::wstring(before, L'x') + L"\U0001F600\u20ac\u00e4" + std::wstring(kPiece, L'y');
    const std::string utf8 = std::string(before, 'x') + "\xf0\x9f\x98\x80\xe2\x82\xac\xc3\xa4" +
                             std::string(kPiece, 'y');
    EXPECT_TRUE(ToWide(utf8) == wide);
    EXPECT_TRUE(ToUtf8(wide) == utf8);
  }
}

TEST(TextTest, ASurrogatePairAtAPieceBorderIsConvertedWhole) {
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  const std::wstring pair{wchar_t{0xD83D}, wchar_t{0xDE00}};
  EXPECT_TRUE(ToUtf8(std::wstring(kPiece - 1, L'x') + pair + L"y") ==
              std::string(kPiece - 1, 'x') + "\xf0\x9f\x98\x80y");
}

}  // namespace
}  // namespace WindowsAgentCommon
