#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "Platform/Windows.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

namespace fs = std::filesystem;

// Expected codes in the order of kStates; 0 is success.
void WalkStates(const DWORD (&expected)[6], BOOL (*call)(LPCWSTR)) {
  for (const State state : kStates) {
    SCOPED_TRACE(testing::Message() << state);
    const PathInState path(state);
    const DWORD error = expected[static_cast<int>(state)];
    SetLastError(kStale);
    EXPECT_EQ(call(path.WidePath().c_str()), error == 0 ? TRUE : FALSE);
    EXPECT_EQ(GetLastError(), error);
  }
}

TEST(DirectoriesTest, CreateDirectoryInEveryState) {
  WalkStates({0, 183, 183, 183, 3, 3}, [](LPCWSTR path) {
    const BOOL result = CreateDirectoryW(path, nullptr);
    const DWORD error = GetLastError();
    if (result) {
      EXPECT_EQ(GetFileAttributesW(path), FILE_ATTRIBUTE_DIRECTORY);
    }
    SetLastError(error);
    return result;
  });
}

TEST(DirectoriesTest, CreateDirectoryRefusesSecurityAttributes) {
  const PathInState path(State::Missing);
  SECURITY_ATTRIBUTES security{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
  EXPECT_FALSE(CreateDirectoryW(path.WidePath().c_str(), &security));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(fs::exists(path.Path()));
}

TEST(DirectoriesTest, UmaskDecidesThePermissionsOfNewFilesAndDirectories) {
  const PathInState directory(State::Missing);
  const PathInState file(State::Missing);
  const mode_t previous = ::umask(0027);
  EXPECT_TRUE(CreateDirectoryW(directory.WidePath().c_str(), nullptr));
  EXPECT_TRUE(CloseHandle(CreateFileW(file.WidePath().c_str(), GENERIC_WRITE, 0, nullptr,
                                      CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr)));
  ::umask(previous);
  EXPECT_EQ(fs::status(directory.Path()).permissions(), static_cast<fs::perms>(0750));
  EXPECT_EQ(fs::status(file.Path()).permissions(), static_cast<fs::perms>(0640));
}

TEST(DirectoriesTest, CreateDirectoryTakesASeparatorAtTheEnd) {
  const PathInState path(State::Missing);
  EXPECT_TRUE(CreateDirectoryW((path.WidePath() + L"\\").c_str(), nullptr));
  EXPECT_TRUE(fs::is_directory(path.Path()));
}

TEST(DirectoriesTest, RemoveDirectoryInEveryState) {
  WalkStates({2, ERROR_DIRECTORY, ERROR_DIRECTORY, 0, 3, 3}, RemoveDirectoryW);
}

TEST(DirectoriesTest, RemoveDirectoryRefusesOneThatIsNotEmpty) {
  const PathInState path(State::Directory);
  WriteTextFile(path.Path() / "file", "x");
  EXPECT_FALSE(RemoveDirectoryW(path.WidePath().c_str()));
  EXPECT_EQ(GetLastError(), ERROR_DIR_NOT_EMPTY);
  fs::remove(path.Path() / "file");
  EXPECT_TRUE(RemoveDirectoryW((path.WidePath() + L"\\").c_str()));
  EXPECT_FALSE(fs::exists(path.Path()));
}

TEST(DirectoriesTest, RemoveDirectoryDoesNotRemoveALink) {
  const PathInState directory(State::Directory);
  const PathInState link(State::Missing);
  fs::create_directory_symlink(directory.Path(), link.Path());
  EXPECT_FALSE(RemoveDirectoryW(link.WidePath().c_str()));
  EXPECT_EQ(GetLastError(), ERROR_DIRECTORY);
  EXPECT_TRUE(fs::is_directory(directory.Path()));
}

TEST(DirectoriesTest, AttributesInEveryState) {
  struct Expected {
    DWORD attributes;
    DWORD error;
  };
  constexpr Expected kExpected[] = {{INVALID_FILE_ATTRIBUTES, 2}, {FILE_ATTRIBUTE_NORMAL, 0},
                                    {FILE_ATTRIBUTE_READONLY, 0}, {FILE_ATTRIBUTE_DIRECTORY, 0},
                                    {INVALID_FILE_ATTRIBUTES, 3}, {INVALID_FILE_ATTRIBUTES, 3}};
  for (const State state : kStates) {
    SCOPED_TRACE(testing::Message() << state);
    const PathInState path(state);
    SetLastError(kStale);
    EXPECT_EQ(GetFileAttributesW(path.WidePath().c_str()),
              kExpected[static_cast<int>(state)].attributes);
    EXPECT_EQ(GetLastError(), kExpected[static_cast<int>(state)].error);
  }
}

TEST(DirectoriesTest, AttributesWithASeparatorAtTheEnd) {
  const PathInState file(State::File);
  EXPECT_EQ(GetFileAttributesW((file.WidePath() + L"\\").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);
  const PathInState directory(State::Directory);
  EXPECT_EQ(GetFileAttributesW((directory.WidePath() + L"\\").c_str()), FILE_ATTRIBUTE_DIRECTORY);
  const PathInState missing(State::Missing);
  EXPECT_EQ(GetFileAttributesW((missing.WidePath() + L"\\").c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(DirectoriesTest, AttributesOfALinkAreThoseOfItsTarget) {
  const PathInState directory(State::Directory);
  const PathInState link(State::Missing);
  fs::create_directory_symlink(directory.Path(), link.Path());
  EXPECT_EQ(GetFileAttributesW(link.WidePath().c_str()), FILE_ATTRIBUTE_DIRECTORY);
  fs::remove(directory.Path());
  EXPECT_EQ(GetFileAttributesW(link.WidePath().c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
}

TEST(DirectoriesTest, LinkThatLeadsToItselfCannotBeResolved) {
  const PathInState path(State::Missing);
  fs::create_symlink(path.Path().filename(), path.Path());
  EXPECT_EQ(GetFileAttributesW(path.WidePath().c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(GetLastError(), ERROR_CANT_RESOLVE_FILENAME);
}

TEST(DirectoriesTest, UnlinkInEveryState) {
  struct Expected {
    int result;
    int error;
    DWORD windowsError;
  };
  constexpr Expected kExpected[] = {{-1, ENOENT, 2}, {0, 0, 0},       {-1, EACCES, 5},
                                    {-1, EACCES, 5}, {-1, ENOENT, 3}, {-1, ENOENT, 3}};
  for (const State state : kStates) {
    SCOPED_TRACE(testing::Message() << state);
    const PathInState path(state);
    const Expected& expected = kExpected[static_cast<int>(state)];
    errno = 0;
    SetLastError(kStale);
    EXPECT_EQ(_wunlink(path.WidePath().c_str()), expected.result);
    if (expected.result != 0) {
      EXPECT_EQ(errno, expected.error);
    }
    EXPECT_EQ(GetLastError(), expected.windowsError);
    const bool bRemains = state == State::ReadOnlyFile || state == State::Directory;
    EXPECT_EQ(fs::exists(path.Path()), bRemains);
  }
}

TEST(DirectoriesTest, OpenFileCanBeDeletedAndStaysReadable) {
  const PathInState path(State::File);
  const HANDLE file = CreateFileW(path.WidePath().c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  EXPECT_EQ(_wunlink(path.WidePath().c_str()), 0);
  EXPECT_FALSE(fs::exists(path.Path()));
  char buffer[16];
  DWORD count = 0;
  EXPECT_TRUE(ReadFile(file, buffer, sizeof buffer, &count, nullptr));
  EXPECT_EQ(std::string(buffer, count), kContent);
  EXPECT_TRUE(CloseHandle(file));
}

TEST(DirectoriesTest, UnlinkOfALinkLeavesItsTarget) {
  const PathInState target(State::File);
  const PathInState link(State::Missing);
  fs::create_symlink(target.Path(), link.Path());
  EXPECT_EQ(_wunlink(link.WidePath().c_str()), 0);
  EXPECT_FALSE(fs::is_symlink(link.Path()));
  EXPECT_TRUE(fs::exists(target.Path()));
}

}  // namespace
}  // namespace PlatformTest
