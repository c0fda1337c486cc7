#include "WindowsAgentCommon/Directories.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/testing/TestFaults.h"
#include "tests/support/TemporaryDirectory.h"

namespace WindowsAgentCommon {
namespace {

namespace TestFaults = Platform::TestFaults;

class DirectoriesTest : public testing::Test {
 protected:
  ~DirectoriesTest() override { TestFaults::Reset(); }

  void MakeFile(const std::string& name) { std::ofstream(m_directory.Path() / name) << "x"; }
  void MakeDirectory(const std::string& name) {
    std::filesystem::create_directory(m_directory.Path() / name);
  }
  std::wstring Path(const std::wstring& name) { return m_directory.WidePath() + name; }
  bool Exists(const std::string& name) {
    return std::filesystem::is_directory(m_directory.Path() / name);
  }

  // The next call of that kind fails with the error.
  static void FailCall(TestFaults::FileCall failing, std::uint32_t error) {
    TestFaults::SetHook([=](TestFaults::FileCall call) {
      return call == failing ? TestFaults::Fault{error, -1} : TestFaults::Fault{};
    });
  }

  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(DirectoriesTest, CreatesADirectory) {
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"new")), 0u);
  EXPECT_TRUE(Exists("new"));
}

TEST_F(DirectoriesTest, CreatesEveryMissingParent) {
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"a\\b/c\\d")), 0u);
  EXPECT_TRUE(Exists("a/b/c/d"));
}

TEST_F(DirectoriesTest, CreatesWithSeparatorsAtTheEndAndDoubledOnes) {
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"a\\\\b\\c\\\\")), 0u);
  EXPECT_TRUE(Exists("a/b/c"));
}

TEST_F(DirectoriesTest, CreatesNamesOutsideAscii) {
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"\u00e4\\\U0001F600")), 0u);
  EXPECT_TRUE(std::filesystem::is_directory(m_directory.Path() / u8"\u00e4/\U0001F600"));
}

TEST_F(DirectoriesTest, CreatingADirectoryThatExistsIsSuccess) {
  MakeDirectory("there");
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"there")), 0u);
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"there\\")), 0u);
  EXPECT_EQ(CreateDirectoryRecursive(L"\\"), 0u);
}

TEST_F(DirectoriesTest, AFileInPlaceOfTheDirectoryGivesAlreadyExists) {
  MakeFile("file");
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"file")), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"file\\")), ERROR_ALREADY_EXISTS);
}

TEST_F(DirectoriesTest, AFileInPlaceOfAParentGivesPathNotFound) {
  MakeFile("file");
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"file\\a")), ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"file\\a\\b\\c")), ERROR_PATH_NOT_FOUND);
}

TEST_F(DirectoriesTest, AnEmptyPathCannotBeCreated) {
  EXPECT_NE(CreateDirectoryRecursive(L""), 0u);
}

TEST_F(DirectoriesTest, CreatingPassesOtherErrorsOn) {
  FailCall(TestFaults::FileCall::CreateDirectoryW, ERROR_ACCESS_DENIED);
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"a")), ERROR_ACCESS_DENIED);
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"a\\b\\c")), ERROR_ACCESS_DENIED);
  FailCall(TestFaults::FileCall::GetFileAttributesW, ERROR_IO_DEVICE);
  EXPECT_EQ(CreateDirectoryRecursive(Path(L"a")), ERROR_IO_DEVICE);
  TestFaults::Reset();
  EXPECT_FALSE(Exists("a"));
}

TEST_F(DirectoriesTest, ThreadsThatCreateTheSameDirectoryAllSucceed) {
  for (int round = 0; round < 20; ++round) {
    const std::wstring path = Path(L"round" + std::to_wstring(round) + L"\\a\\b\\c");
    std::vector<std::uint32_t> results(4, 1);
    std::vector<std::thread> threads;
    for (std::uint32_t& result : results) {
      threads.emplace_back([&] { result = CreateDirectoryRecursive(path); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(results, std::vector<std::uint32_t>(4, 0));
  }
}

TEST_F(DirectoriesTest, TellsDirectoriesFromFiles) {
  MakeFile("file");
  MakeDirectory("there");
  bool isDirectory = false;
  EXPECT_EQ(IsDirectory(Path(L"there"), isDirectory), 0u);
  EXPECT_TRUE(isDirectory);
  EXPECT_EQ(IsDirectory(Path(L"file"), isDirectory), 0u);
  EXPECT_FALSE(isDirectory);
}

TEST_F(DirectoriesTest, ASeparatorAtTheEndDoesNotMatter) {
  MakeDirectory("there");
  bool isDirectory = false;
  EXPECT_EQ(IsDirectory(Path(L"there\\"), isDirectory), 0u);
  EXPECT_TRUE(isDirectory);
  isDirectory = false;
  EXPECT_EQ(IsDirectory(Path(L"there//"), isDirectory), 0u);
  EXPECT_TRUE(isDirectory);
}

TEST_F(DirectoriesTest, AMissingLastComponentGivesFileNotFound) {
  bool isDirectory = true;
  EXPECT_EQ(IsDirectory(Path(L"missing"), isDirectory), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(isDirectory);
  isDirectory = true;
  EXPECT_EQ(IsDirectory(Path(L"missing\\"), isDirectory), ERROR_FILE_NOT_FOUND);
  EXPECT_FALSE(isDirectory);
}

TEST_F(DirectoriesTest, AMissingParentGivesPathNotFound) {
  bool isDirectory = true;
  EXPECT_EQ(IsDirectory(Path(L"missing\\name\\"), isDirectory), ERROR_PATH_NOT_FOUND);
  EXPECT_FALSE(isDirectory);
}

TEST_F(DirectoriesTest, AnEmptyDirectoryIsEmpty) {
  MakeDirectory("there");
  bool isEmpty = false;
  EXPECT_EQ(IsDirectoryEmpty(Path(L"there"), isEmpty), 0u);
  EXPECT_TRUE(isEmpty);
  isEmpty = false;
  EXPECT_EQ(IsDirectoryEmpty(Path(L"there\\"), isEmpty), 0u);
  EXPECT_TRUE(isEmpty);
}

TEST_F(DirectoriesTest, AnyEntryMakesADirectoryNotEmpty) {
  for (const std::string name : {"file", ".hidden", "..a"}) {
    SCOPED_TRACE(name);
    MakeDirectory("of " + name);
    MakeFile("of " + name + "/" + name);
    bool isEmpty = true;
    EXPECT_EQ(IsDirectoryEmpty(Path(L"of " + std::wstring(name.begin(), name.end())), isEmpty), 0u);
    EXPECT_FALSE(isEmpty);
  }
  MakeDirectory("outer");
  MakeDirectory("outer/inner");
  bool isEmpty = true;
  EXPECT_EQ(IsDirectoryEmpty(Path(L"outer"), isEmpty), 0u);
  EXPECT_FALSE(isEmpty);
}

TEST_F(DirectoriesTest, AnEntryOfThreeDotsMakesADirectoryNotEmpty) {
  MakeFile("...");
  bool isEmpty = true;
  EXPECT_EQ(IsDirectoryEmpty(Path(L""), isEmpty), 0u);
  EXPECT_FALSE(isEmpty);
}

TEST_F(DirectoriesTest, EmptinessOfWhatIsNoDirectoryIsAnErrorAndLeavesTheResultAlone) {
  MakeFile("file");
  for (const bool before : {false, true}) {
    bool isEmpty = before;
    EXPECT_EQ(IsDirectoryEmpty(Path(L"missing"), isEmpty), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(isEmpty, before);
    EXPECT_NE(IsDirectoryEmpty(Path(L"file"), isEmpty), 0u);
    EXPECT_EQ(isEmpty, before);
  }
}

TEST_F(DirectoriesTest, AListingThatBreaksOffIsAnErrorAndLeavesTheResultAlone) {
  MakeDirectory("there");
  FailCall(TestFaults::FileCall::FindNextFileW, ERROR_IO_DEVICE);
  bool isEmpty = false;
  EXPECT_EQ(IsDirectoryEmpty(Path(L"there"), isEmpty), ERROR_IO_DEVICE);
  EXPECT_FALSE(isEmpty);
}

}  // namespace
}  // namespace WindowsAgentCommon
