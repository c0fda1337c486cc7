#include <gtest/gtest.h>
#include <sys/mman.h>

#include <limits>

#include "Platform/Windows.h"

namespace PlatformTest {
namespace {

TEST(LargestWriteTest, IsMadeInOneCall) {
  constexpr DWORD kSize = std::numeric_limits<DWORD>::max();
  // The null device never looks at the pages, so they take no memory.
  void* pages =
      ::mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  const HANDLE file =
      CreateFileW(L"\\dev\\null", GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  DWORD count = 0;
  EXPECT_TRUE(WriteFile(file, pages, kSize, &count, nullptr));
  EXPECT_EQ(count, kSize);
  EXPECT_TRUE(CloseHandle(file));
  ::munmap(pages, kSize);
}

}  // namespace
}  // namespace PlatformTest
