#include "Platform/Error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <thread>

#include "Platform/Windows.h"
#include "Platform/posix/Errors.h"

namespace PlatformTest {
namespace {

TEST(ErrorTest, LastErrorBelongsToTheThread) {
  SetLastError(ERROR_DISK_FULL);
  DWORD other = ERROR_DISK_FULL;
  std::thread thread([&] {
    other = GetLastError();
    SetLastError(ERROR_BUSY);
  });
  thread.join();
  EXPECT_EQ(other, ERROR_SUCCESS);
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
}

TEST(ErrorTest, EveryErrorCodeHasATextOfItsOwn) {
  std::set<std::string> texts;
  const DWORD codes[] = {0,   1,    2,   3,   4,   5,   6,   8,    18,   19,   161,
                         998, 1784, 31,  32,  50,  80,  87,  109,  112,  122,  123,
                         145, 170,  183, 206, 223, 234, 267, 1113, 1117, 1816, 1921};
  for (const DWORD code : codes) {
    const std::string text = Platform::ErrorText(code);
    EXPECT_TRUE(texts.insert(text).second) << text;
    EXPECT_TRUE(text.ends_with('.')) << text;
    EXPECT_EQ(text.find("Unknown"), std::string::npos) << code;
  }
  EXPECT_EQ(Platform::ErrorText(ERROR_ACCESS_DENIED), "Access is denied.");
}

TEST(ErrorTest, CodeWithoutATextNamesItsNumber) {
  EXPECT_EQ(Platform::ErrorText(4711), "Unknown error 4711.");
  EXPECT_EQ(Platform::ErrorText(0xFFFFFFFF), "Unknown error 4294967295.");
}

TEST(ErrorTest, ErrnoValuesHaveTheirWindowsCode) {
  const struct {
    int error;
    DWORD expected;
  } kCases[] = {
      {EACCES, ERROR_ACCESS_DENIED},
      {EPERM, ERROR_ACCESS_DENIED},
      {EISDIR, ERROR_ACCESS_DENIED},
      {ENOSPC, ERROR_DISK_FULL},
      {EDQUOT, ERROR_DISK_FULL},
      {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
      {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
      {EROFS, ERROR_WRITE_PROTECT},
      {EIO, ERROR_IO_DEVICE},
      {EFAULT, ERROR_NOACCESS},
      {EFBIG, ERROR_FILE_TOO_LARGE},
      {EBUSY, ERROR_BUSY},
      {EEXIST, ERROR_ALREADY_EXISTS},
      {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
      {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
      {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
      {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
      {EPIPE, ERROR_BROKEN_PIPE},
      {ETXTBSY, ERROR_SHARING_VIOLATION},
      {EBADF, ERROR_INVALID_HANDLE},
      {EINVAL, ERROR_INVALID_PARAMETER},
      {ENOENT, ERROR_FILE_NOT_FOUND},
      {ENOTDIR, ERROR_PATH_NOT_FOUND},
      {EDOM, ERROR_GEN_FAILURE},
  };
  for (const auto& testCase : kCases) {
    EXPECT_EQ(Platform::ErrorFromErrno(testCase.error), testCase.expected) << testCase.error;
  }
}

TEST(ErrorTest, WindowsCodesHaveTheErrnoOfTheCRuntime) {
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_FILE_NOT_FOUND), ENOENT);
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_PATH_NOT_FOUND), ENOENT);
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_ACCESS_DENIED), EACCES);
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_SHARING_VIOLATION), EACCES);
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_DISK_FULL), ENOSPC);
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_INVALID_HANDLE), EBADF);
  EXPECT_EQ(Platform::ErrnoFromError(ERROR_INVALID_NAME), EINVAL);
  EXPECT_EQ(Platform::ErrnoFromError(4711), EINVAL);
}

TEST(ErrorTest, RunningOutOfMemoryIsReportedAsAnError) {
  EXPECT_EQ(Platform::Report([]() -> DWORD { throw std::bad_alloc(); }), ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
}

}  // namespace
}  // namespace PlatformTest
