#include <gtest/gtest.h>

#include "CacheTool/ChunkCheck.h"
#include "tests/CacheTool/CacheFiles.h"

namespace OrloCacheTool {

namespace {

std::vector<Finding> FindingsOf(const ChunkReport& report) {
  std::vector<Finding> findings;
  for (const FindingText& finding : report.findings) {
    EXPECT_FALSE(finding.text.empty());
    findings.push_back(finding.finding);
  }
  return findings;
}

std::vector<Finding> Check(const std::string& bytes) {
  return FindingsOf(CheckChunk(bytes, CheckOptions()));
}

using Findings = std::vector<Finding>;

}  // namespace

TEST(ChunkCheck, WhatAStageWritesIsHealthy) {
  EXPECT_EQ(Check(MakeChunkOf({"", "one", std::string(5000, 'x')})), Findings());
  // Exactly one page, and a byte more.
  const std::size_t overhead = 4 + 8 + MakeHead().size();
  EXPECT_EQ(Check(MakeChunkOf({std::string(4096 - overhead, 'x')})), Findings());
  EXPECT_EQ(Check(MakeChunkOf({std::string(4097 - overhead, 'x')})), Findings());
}

TEST(ChunkCheck, TheReportCountsWhatIsThere) {
  const ChunkReport report = CheckChunk(MakeChunkOf({"one", "two"}), CheckOptions());
  EXPECT_EQ(report.count, 2u);
  EXPECT_EQ(report.complete, 2u);
  EXPECT_EQ(report.readable, 2u);
  EXPECT_EQ(report.dataSize, 4 + 2 * (8 + MakeHead().size() + 3));
  EXPECT_EQ(DescribeEffect(report), "an agent delivers 2 of its events");
}

TEST(ChunkCheck, AFileWithoutACountSaysSo) {
  EXPECT_EQ(Check(""), Findings{Finding::NoCount});
  EXPECT_EQ(Check("\x01\x02\x03"), Findings{Finding::NoCount});
}

TEST(ChunkCheck, APageOfZerosHoldsNoEventsThoughEveryChunkHasSome) {
  const std::string page(4096, '\0');
  const ChunkReport report = CheckChunk(page, CheckOptions());
  EXPECT_EQ(FindingsOf(report), Findings{Finding::NoEvents});
  EXPECT_EQ(DescribeEffect(report), "an agent finds no events in it, and removes it");
  EXPECT_EQ(FindingsOf(GlanceAtChunk(page.substr(0, 4), page.size(), CheckOptions())),
            Findings{Finding::NoEvents});
  EXPECT_EQ(Check(page + page), (Findings{Finding::NoEvents, Finding::PagesBehindEvents}));
}

TEST(ChunkCheck, AFileThatIsTooLargeIsKnownByItsSize) {
  const auto report = GlanceAtChunk("", std::uint64_t{1} << 32, CheckOptions());
  EXPECT_EQ(FindingsOf(report), Findings{Finding::TooLarge});
}

TEST(ChunkCheck, ACountThatIsTooHighMeetsHeadsMadeOfPadding) {
  std::string chunk = MakeChunkOf({"one", "two"});
  chunk[0] = 3;
  const ChunkReport report = CheckChunk(chunk, CheckOptions());
  EXPECT_EQ(FindingsOf(report), Findings{Finding::UnknownHead});
  EXPECT_EQ(report.complete, 3u);
  EXPECT_EQ(report.readable, 2u) << "an event of padding is none";
}

TEST(ChunkCheck, ACountBeyondTheFileEndsWithTheFile) {
  std::string chunk = MakeChunkOf({"one"});
  chunk[3] = '\x7f';
  const ChunkReport report = CheckChunk(chunk, CheckOptions());
  EXPECT_TRUE(report.Has(Finding::EventsBeyondEnd));
  EXPECT_EQ(report.readable, 1u);
}

TEST(ChunkCheck, ACountThatIsTooLowLeavesBytesBehind) {
  std::string chunk = MakeChunkOf({"one", "two"});
  chunk[0] = 1;
  EXPECT_EQ(Check(chunk), Findings{Finding::BytesBehindEvents});
}

TEST(ChunkCheck, APageTooManyIsNoticed) {
  EXPECT_EQ(Check(MakeChunkOf({"one"}) + std::string(4096, '\0')),
            Findings{Finding::PagesBehindEvents});
}

TEST(ChunkCheck, AFileOfAnotherPageSizeIsHealthyWithThatPageSize) {
  std::string chunk = MakeChunkOf({"one"});
  chunk.resize(65536, '\0');
  EXPECT_EQ(Check(chunk), Findings{Finding::PagesBehindEvents});
  EXPECT_TRUE(CheckChunk(chunk, {65536, true}).IsHealthy());
  EXPECT_FALSE(CheckChunk(chunk, {131072, true}).IsHealthy());
}

TEST(ChunkCheck, HeadsOfOtherProgramsAreTakenIfTheyAreExpected) {
  const std::string chunk = MakeChunk({{"other", "one"}, {MakeHead(), "two"}, {"", "three"}});
  const ChunkReport report = CheckChunk(chunk, CheckOptions());
  EXPECT_EQ(FindingsOf(report), Findings{Finding::UnknownHead});
  EXPECT_EQ(report.readable, 2u) << "up to the last head that is known";
  const ChunkReport taken = CheckChunk(chunk, {4096, false});
  EXPECT_TRUE(taken.IsHealthy());
  EXPECT_EQ(taken.readable, 3u);
}

TEST(ChunkCheck, AGlanceSeesACountThatCanNotBe) {
  const std::string chunk = MakeChunkOf({"one"});
  EXPECT_TRUE(GlanceAtChunk(chunk.substr(0, 4), chunk.size(), CheckOptions()).IsHealthy());
  const auto seen = GlanceAtChunk({"\x00\x10\x00\x00", 4}, chunk.size(), CheckOptions());
  EXPECT_EQ(FindingsOf(seen), Findings{Finding::EventsBeyondEnd});
  EXPECT_EQ(FindingsOf(GlanceAtChunk(chunk.substr(0, 4), 4095, CheckOptions())),
            Findings{Finding::PartialPage});
}

}  // namespace OrloCacheTool
