#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "Platform/Windows.h"

namespace PlatformTest {
namespace {

TEST(SystemTest, PageSizeAndProcessorsAreFilledAndNothingElse) {
  SYSTEM_INFO info;
  std::fill_n(reinterpret_cast<unsigned char*>(&info), sizeof info,
              static_cast<unsigned char>(0xAA));
  GetSystemInfo(&info);
  EXPECT_EQ(info.dwPageSize, static_cast<DWORD>(::getpagesize()));
  EXPECT_EQ(info.dwNumberOfProcessors, static_cast<DWORD>(::sysconf(_SC_NPROCESSORS_ONLN)));
  EXPECT_EQ(info.dwOemId, 0u);
  EXPECT_EQ(info.lpMinimumApplicationAddress, nullptr);
  EXPECT_EQ(info.lpMaximumApplicationAddress, nullptr);
  EXPECT_EQ(info.dwActiveProcessorMask, 0u);
  EXPECT_EQ(info.dwProcessorType, 0u);
  EXPECT_EQ(info.dwAllocationGranularity, 0u);
  EXPECT_EQ(info.wProcessorLevel, 0u);
  EXPECT_EQ(info.wProcessorRevision, 0u);
}

TEST(SystemTest, SleepLastsAtLeastItsTime) {
  const auto begin = std::chrono::steady_clock::now();
  Sleep(20);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
  Sleep(0);
}

}  // namespace
}  // namespace PlatformTest
