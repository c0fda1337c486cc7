#include "Platform/posix/Paths.h"

#include <gtest/gtest.h>

#include <string>

#include "Platform/Windows.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

namespace fs = std::filesystem;

std::string Native(const std::wstring& path) {
  std::string native;
  EXPECT_EQ(Platform::ToNativePath(path.c_str(), native), ERROR_SUCCESS);
  return native;
}

TEST(PathsTest, RunOfSeparatorsIsOne) {
  EXPECT_EQ(Native(L"a\\b"), "a/b");
  EXPECT_EQ(Native(L"a\\\\b//c/\\d"), "a/b/c/d");
  EXPECT_EQ(Native(L"\\\\server\\share"), "/server/share");
  EXPECT_EQ(Native(L"a\\\\"), "a/");
}

TEST(PathsTest, CharactersBecomeUtf8) {
  EXPECT_EQ(Native(L"\u00E9\u20AC\U0001F600"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  const wchar_t pair[] = {static_cast<wchar_t>(0xD83D), static_cast<wchar_t>(0xDE00), 0};
  EXPECT_EQ(Native(pair), "\xF0\x9F\x98\x80");
}

TEST(PathsTest, NothingIsTrimmedOrReserved) {
  EXPECT_EQ(Native(L"C:\\a. \\b?|<>*\"."), "C:/a. /b?|<>*\".");
}

TEST(PathsTest, NullEmptyAndUnpairedUnitsAreRefused) {
  std::string native;
  EXPECT_EQ(Platform::ToNativePath(nullptr, native), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Platform::ToNativePath(L"", native), ERROR_PATH_NOT_FOUND);
  for (const unsigned unit : {0xD800u, 0xDBFFu, 0xDC00u, 0xDC7Fu, 0xDD00u, 0xDFFFu, 0x110000u}) {
    const wchar_t path[] = {L'a', static_cast<wchar_t>(unit), L'b', 0};
    EXPECT_EQ(Platform::ToNativePath(path, native), ERROR_INVALID_NAME) << unit;
  }
}

TEST(PathsTest, EveryCallRefusesNullAndEmptyPaths) {
  const struct {
    const wchar_t* path;
    DWORD error;
  } kCases[] = {{nullptr, ERROR_INVALID_PARAMETER}, {L"", ERROR_PATH_NOT_FOUND}};
  for (const auto& testCase : kCases) {
    WIN32_FIND_DATAW data;
    EXPECT_EQ(CreateFileW(testCase.path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), testCase.error);
    EXPECT_EQ(FindFirstFileW(testCase.path, &data), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), testCase.error);
    EXPECT_FALSE(CreateDirectoryW(testCase.path, nullptr));
    EXPECT_EQ(GetLastError(), testCase.error);
    EXPECT_FALSE(RemoveDirectoryW(testCase.path));
    EXPECT_EQ(GetLastError(), testCase.error);
    EXPECT_EQ(GetFileAttributesW(testCase.path), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), testCase.error);
    EXPECT_EQ(_wunlink(testCase.path), -1);
    EXPECT_EQ(GetLastError(), testCase.error);
  }
}

TEST(PathsTest, EveryByteSequenceSurvivesListingAndOpening) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '\\') {
      all.push_back(static_cast<char>(byte));
    }
  }
  const std::string names[] = {all,
                               "\xE2\x82",
                               "\xF0\x9F\x98",
                               "\xC0\xAF",
                               "\xED\xB3\xBF",
                               "\xF4\x90\x80\x80",
                               "\xC3\xA9\xC3",
                               "\xE2\x82\xAC"};
  for (const std::string& name : names) {
    EXPECT_EQ(Native(Platform::FromNativeName(name)), name);
  }
}

TEST(PathsTest, MixedSeparatorsReachTheSameFile) {
  const PathInState path(State::File);
  std::wstring forward = path.WidePath();
  for (wchar_t& unit : forward) {
    unit = unit == L'\\' ? L'/' : unit;
  }
  EXPECT_EQ(GetFileAttributesW(forward.c_str()), FILE_ATTRIBUTE_NORMAL);
  const std::size_t last = path.WidePath().rfind(L'\\');
  const std::wstring doubled = path.WidePath().substr(0, last) + L"\\\\/\\object";
  EXPECT_EQ(GetFileAttributesW(doubled.c_str()), FILE_ATTRIBUTE_NORMAL);
}

TEST(PathsTest, TooLongNameIsReported) {
  const TestSupport::TemporaryDirectory directory;
  const std::wstring path = directory.WidePath() + std::wstring(256, L'n');
  EXPECT_EQ(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
  EXPECT_FALSE(CreateDirectoryW(path.c_str(), nullptr));
  EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
}

TEST(PathsTest, RelativeNameBelongsToTheCurrentDirectory) {
  EXPECT_EQ(GetFileAttributesW(L"no-such-file-here"), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(GetFileAttributesW(L"."), FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace
}  // namespace PlatformTest
