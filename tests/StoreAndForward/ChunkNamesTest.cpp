#include "StoreAndForward/ChunkNames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/support/LocalTimeZone.h"

namespace OrloStoreAndForward {
namespace {

constexpr std::int64_t kMarch2016 = 1457359507;  // 2016-03-07 14:05:07 UTC

TEST(ChunkNames, MinuteAndSecondAreZeroPaddedUtc) {
  const ChunkName name = MakeChunkName(kMarch2016);
  EXPECT_EQ(name.minute, L"2016-03-07-14-05");
  EXPECT_EQ(name.second, L"07");
}

TEST(ChunkNames, EpochIsNamed) {
  const ChunkName name = MakeChunkName(0);
  EXPECT_EQ(name.minute, L"1970-01-01-00-00");
  EXPECT_EQ(name.second, L"00");
}

TEST(ChunkNames, NamesDoNotFollowTheLocalClockAcrossADaylightChange) {
  // In local time, 2026-10-25 02:30 comes twice in Berlin; the names of both hours differ.
  const TestSupport::LocalTimeZone berlin("CET-1CEST,M3.5.0,M10.5.0/3");
  const ChunkName first = MakeChunkName(1792888200);   // 00:30 UTC
  const ChunkName second = MakeChunkName(1792891800);  // 01:30 UTC
  EXPECT_EQ(first.minute, L"2026-10-25-00-30");
  EXPECT_EQ(second.minute, L"2026-10-25-01-30");
}

TEST(ChunkNames, TimeBeforeTheEpochHasNoName) {
  EXPECT_TRUE(MakeChunkName(-1).minute.empty());
  EXPECT_TRUE(MakeChunkName(-1).second.empty());
}

TEST(ChunkNames, CacheDirectoryIsPutTogetherWithoutAddingASeparatorToTheDataDirectory) {
  EXPECT_EQ(MakeCacheDirectory(L"C:\\data\\", L"Default"), L"C:\\data\\Events\\Default\\");
  EXPECT_EQ(MakeCacheDirectory(L"C:\\data", L"Default"), L"C:\\dataEvents\\Default\\");
}

TEST(ChunkNames, MinuteDirectoryEndsWithASeparator) {
  EXPECT_EQ(MakeMinuteDirectory(L"C:\\c\\", L"2016-03-07-14-05"), L"C:\\c\\\\2016-03-07-14-05\\");
}

TEST(ChunkNames, NamesSortByTime) {
  std::vector<std::wstring> names{L"2016-03-07-14-06", L"2016-03-07-14-05", L"2015-12-31-23-59",
                                  L"2016-03-07-09-59"};
  std::sort(names.begin(), names.end(), NameSortsBefore);
  const std::vector<std::wstring> expected{L"2015-12-31-23-59", L"2016-03-07-09-59",
                                           L"2016-03-07-14-05", L"2016-03-07-14-06"};
  EXPECT_EQ(names, expected);
  EXPECT_TRUE(NameSortsBefore(L"07", L"31"));
}

TEST(ChunkNames, PrefixSortsFirst) {
  EXPECT_TRUE(NameSortsBefore(L"07", L"070"));
  EXPECT_FALSE(NameSortsBefore(L"070", L"07"));
  EXPECT_FALSE(NameSortsBefore(L"07", L"07"));
}

TEST(ChunkNames, NamesSortByUtf16CodeUnitsWhateverTheWidthOfWchar) {
  // U+10000 is D800 DC00 in UTF-16 and so comes before U+E000, though its number is higher.
  EXPECT_TRUE(NameSortsBefore(L"\U00010000", L"\uE000"));
  EXPECT_FALSE(NameSortsBefore(L"\uE000", L"\U00010000"));
  EXPECT_TRUE(NameSortsBefore(L"\U00010000", L"\U00010001"));
  EXPECT_TRUE(NameSortsBefore(L"\uD7FF", L"\U00010000"));
}

}  // namespace
}  // namespace OrloStoreAndForward
