#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <set>

#include "Platform/Windows.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

HANDLE OpenFile(const PathInState& path) {
  return CreateFileW(path.WidePath().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                     OPEN_EXISTING, 0, nullptr);
}

// Every call on a handle that is not one of its kind.
void ExpectRefused(HANDLE handle, bool bFileCalls, bool bFindCalls) {
  char buffer[4] = {};
  DWORD count = kStale;
  WIN32_FIND_DATAW data;
  if (bFileCalls) {
    EXPECT_FALSE(ReadFile(handle, buffer, 4, &count, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(WriteFile(handle, buffer, 4, &count, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(CloseHandle(handle));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  }
  if (bFindCalls) {
    EXPECT_FALSE(FindNextFileW(handle, &data));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(FindClose(handle));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  }
}

TEST(HandlesTest, NullInvalidAndMadeUpHandlesAreRefused) {
  int object = 0;
  for (const HANDLE handle :
       {HANDLE{nullptr}, INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(std::uintptr_t{3}),
        static_cast<HANDLE>(&object)}) {
    ExpectRefused(handle, true, true);
  }
}

TEST(HandlesTest, ClosedHandleStaysInvalidAfterOthersWereOpened) {
  const PathInState path(State::File);
  const HANDLE closed = OpenFile(path);
  ASSERT_NE(closed, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(CloseHandle(closed));
  // Gets the same descriptor.
  const HANDLE open = OpenFile(path);
  ASSERT_NE(open, INVALID_HANDLE_VALUE);
  ExpectRefused(closed, true, true);
  DWORD count = 0;
  char buffer[4];
  EXPECT_TRUE(ReadFile(open, buffer, 4, &count, nullptr));
  EXPECT_EQ(count, 4u);
  EXPECT_TRUE(CloseHandle(open));
}

TEST(HandlesTest, HandleOfAnotherKindIsRefused) {
  const PathInState file(State::File);
  const HANDLE fileHandle = OpenFile(file);
  ASSERT_NE(fileHandle, INVALID_HANDLE_VALUE);
  ExpectRefused(fileHandle, false, true);
  WIN32_FIND_DATAW data;
  const HANDLE findHandle = FindFirstFileW(L"\\*", &data);
  ASSERT_NE(findHandle, INVALID_HANDLE_VALUE);
  ExpectRefused(findHandle, true, false);
  HKEY key = nullptr;
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_READ, &key), 0);
  ExpectRefused(key, true, true);
  EXPECT_EQ(RegCloseKey(static_cast<HKEY>(fileHandle)), LSTATUS{ERROR_INVALID_HANDLE});
  EXPECT_EQ(RegCloseKey(key), 0);
  EXPECT_TRUE(FindClose(findHandle));
  EXPECT_TRUE(CloseHandle(fileHandle));
}

TEST(HandlesTest, NothingStaysOpen) {
  const PathInState file(State::File);
  const PathInState directory(State::Directory);
  const auto openDescriptors = [] {
    std::set<int> open;
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
      if (::fcntl(descriptor, F_GETFD) != -1) open.insert(descriptor);
    }
    return open;
  };
  const std::set<int> before = openDescriptors();
  WIN32_FIND_DATAW data;
  EXPECT_TRUE(CloseHandle(OpenFile(file)));
  EXPECT_TRUE(FindClose(FindFirstFileW((directory.WidePath() + L"\\*.").c_str(), &data)));
  EXPECT_TRUE(FindClose(FindFirstFileW(file.WidePath().c_str(), &data)));
  // Refused after the system call had succeeded.
  EXPECT_EQ(OpenFile(directory), INVALID_HANDLE_VALUE);
  EXPECT_EQ(CreateFileW(directory.WidePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                        nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(FindFirstFileW((directory.WidePath() + L"\\none").c_str(), &data),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace PlatformTest
