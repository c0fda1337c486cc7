#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/posix/Clock.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;

// The names of a whole listing; the last error after it in `end`.
std::vector<std::wstring> List(const std::wstring& pattern, DWORD& end) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  const HANDLE listing = FindFirstFileW(pattern.c_str(), &data);
  if (listing == INVALID_HANDLE_VALUE) {
    end = GetLastError();
    return names;
  }
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  do {
    names.emplace_back(data.cFileName);
  } while (FindNextFileW(listing, &data));
  end = GetLastError();
  EXPECT_FALSE(FindNextFileW(listing, &data)) << "the end stays the end";
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
  EXPECT_TRUE(FindClose(listing));
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  return names;
}

class ListingTest : public testing::Test {
 protected:
  std::wstring Wide(const std::wstring& name) const { return m_directory.WidePath() + name; }
  void Touch(const std::string& name) const { WriteTextFile(m_directory.Path() / name, kContent); }

  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(ListingTest, PatternsListTheNamesTheyStandFor) {
  Touch("plain");
  Touch("with.extension");
  Touch(".hidden");
  Touch("ends.");
  fs::create_directory(m_directory.Path() / "folder");
  fs::create_directory(m_directory.Path() / "folder.d");
  DWORD end = kStale;
  EXPECT_THAT(List(Wide(L"*."), end), UnorderedElementsAre(L".", L"..", L"plain", L"folder"));
  EXPECT_EQ(end, ERROR_NO_MORE_FILES);
  for (const wchar_t* all : {L"*", L"*.*"}) {
    EXPECT_THAT(List(Wide(all), end),
                UnorderedElementsAre(L".", L"..", L"plain", L"with.extension", L".hidden", L"ends.",
                                     L"folder", L"folder.d"));
    EXPECT_EQ(end, ERROR_NO_MORE_FILES);
  }
}

TEST_F(ListingTest, NameWithoutWildcardListsThatEntryAlone) {
  Touch("plain");
  Touch("plain2");
  DWORD end = kStale;
  EXPECT_THAT(List(Wide(L"plain"), end), UnorderedElementsAre(L"plain"));
  EXPECT_EQ(end, ERROR_NO_MORE_FILES);
}

TEST_F(ListingTest, NamesDifferByCase) {
  Touch("plain");
  DWORD end = kStale;
  EXPECT_TRUE(List(Wide(L"PLAIN"), end).empty());
  EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
}

TEST_F(ListingTest, OtherPatternsAreRefused) {
  Touch("plain");
  for (const wchar_t* pattern :
       {L"p*", L"*n", L"?", L"*.txt", L"**", L"*..", L"pla?n", L"<", L">", L"\""}) {
    DWORD end = kStale;
    EXPECT_TRUE(List(Wide(pattern), end).empty());
    EXPECT_EQ(end, ERROR_INVALID_PARAMETER) << fs::path(pattern);
  }
}

TEST_F(ListingTest, ErrorsTellWhatIsMissing) {
  Touch("file");
  const struct {
    const wchar_t* pattern;
    DWORD error;
  } kCases[] = {
      {L"missing", ERROR_FILE_NOT_FOUND},
      {L"", ERROR_FILE_NOT_FOUND},
      {L"missing\\*", ERROR_PATH_NOT_FOUND},
      {L"missing\\*.", ERROR_PATH_NOT_FOUND},
      {L"missing\\name", ERROR_PATH_NOT_FOUND},
      {L"missing\\deeper\\*.", ERROR_PATH_NOT_FOUND},
      {L"file\\*", ERROR_DIRECTORY},
      {L"file\\*.", ERROR_DIRECTORY},
      {L"file\\name", ERROR_DIRECTORY},
      {L"file\\deeper\\*.", ERROR_PATH_NOT_FOUND},
  };
  for (const auto& testCase : kCases) {
    DWORD end = kStale;
    EXPECT_TRUE(List(Wide(testCase.pattern), end).empty());
    EXPECT_EQ(end, testCase.error) << fs::path(testCase.pattern);
  }
}

TEST_F(ListingTest, EmptyDirectoryListsItselfAndItsParent) {
  DWORD end = kStale;
  EXPECT_THAT(List(Wide(L"\\*."), end), UnorderedElementsAre(L".", L".."));
  EXPECT_EQ(end, ERROR_NO_MORE_FILES);
}

TEST_F(ListingTest, EntryCarriesSizeTimesAndAttributes) {
  Touch("file");
  struct stat status;
  ASSERT_EQ(::stat((m_directory.Path() / "file").c_str(), &status), 0);
  WIN32_FIND_DATAW data;
  const HANDLE listing = FindFirstFileW(Wide(L"file").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(data.nFileSizeHigh, 0u);
  EXPECT_EQ(data.nFileSizeLow, kContentSize);
  const auto modified = Platform::ToFileTime(Platform::FileTimeUnits(status.st_mtim));
  EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, modified.dwLowDateTime);
  EXPECT_EQ(data.ftLastWriteTime.dwHighDateTime, modified.dwHighDateTime);
  EXPECT_TRUE(FindClose(listing));
}

TEST_F(ListingTest, SizeAboveFourGibibytesUsesBothHalves) {
  Touch("sparse");
  fs::resize_file(m_directory.Path() / "sparse", (std::uint64_t{5} << 32) + 7);
  WIN32_FIND_DATAW data;
  const HANDLE listing = FindFirstFileW(Wide(L"sparse").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.nFileSizeHigh, 5u);
  EXPECT_EQ(data.nFileSizeLow, 7u);
  EXPECT_TRUE(FindClose(listing));
}

TEST_F(ListingTest, DirectoryHasNoSize) {
  fs::create_directory(m_directory.Path() / "folder");
  WIN32_FIND_DATAW data;
  const HANDLE listing = FindFirstFileW(Wide(L"folder").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(data.nFileSizeLow, 0u);
  EXPECT_TRUE(FindClose(listing));
}

TEST_F(ListingTest, NoCreationTimeAndNoShortNameAreListed) {
  Touch("file");
  WIN32_FIND_DATAW data;
  const HANDLE listing = FindFirstFileW(Wide(L"file").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.ftCreationTime.dwLowDateTime, 0u);
  EXPECT_EQ(data.ftCreationTime.dwHighDateTime, 0u);
  EXPECT_EQ(data.cAlternateFileName[0], L'\0');
  EXPECT_TRUE(FindClose(listing));
}

TEST_F(ListingTest, LinkIsListedWithTheSizeOfItsTarget) {
  Touch("file");
  fs::create_symlink("file", m_directory.Path() / "link");
  fs::create_symlink("nowhere", m_directory.Path() / "dangling");
  WIN32_FIND_DATAW data;
  HANDLE listing = FindFirstFileW(Wide(L"link").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);
  EXPECT_EQ(data.nFileSizeLow, kContentSize);
  EXPECT_TRUE(FindClose(listing));
  listing = FindFirstFileW(Wide(L"dangling").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE) << "a link to nowhere is listed as itself";
  EXPECT_EQ(data.nFileSizeLow, std::string("nowhere").size());
  EXPECT_TRUE(FindClose(listing));
}

TEST_F(ListingTest, LongestNameIsListedWhole) {
  const std::string name(255, 'n');
  Touch(name);
  DWORD end = kStale;
  EXPECT_THAT(List(Wide(L"*."), end), UnorderedElementsAre(L".", L"..", std::wstring(255, L'n')));
}

TEST_F(ListingTest, NameThatIsNotUtf8CanBeListedOpenedAndDeleted) {
  const std::string name("a\xFF\xC3(\xED\xA0\x80z");
  Touch(name);
  DWORD end = kStale;
  const std::wstring listed = L"a\xDCFF\xDCC3(\xDCED\xDCA0\xDC80z";
  ASSERT_THAT(List(Wide(L"*."), end), UnorderedElementsAre(L".", L"..", listed));
  const HANDLE file =
      CreateFileW(Wide(listed).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_EQ(_wunlink(Wide(listed).c_str()), 0);
  EXPECT_FALSE(fs::exists(m_directory.Path() / name));
}

TEST_F(ListingTest, NullArgumentsAreRefused) {
  WIN32_FIND_DATAW data;
  EXPECT_EQ(FindFirstFileW(nullptr, &data), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(FindFirstFileW(Wide(L"*").c_str(), nullptr), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  const HANDLE listing = FindFirstFileW(Wide(L"*").c_str(), &data);
  ASSERT_NE(listing, INVALID_HANDLE_VALUE);
  EXPECT_FALSE(FindNextFileW(listing, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(FindClose(listing));
}

}  // namespace
}  // namespace PlatformTest
