#include "Agent/StagePeriods.h"

#include <gtest/gtest.h>

namespace {

using OrloAgent::FindProcessingPeriod;
using OrloAgent::GetChunkPeriod;
using OrloAgent::StageOptions;
using OrloAgent::StreamOptions;
using std::chrono::milliseconds;
using std::chrono::seconds;

StageOptions StoreAndForward(const char* chunkPeriod, const char* processingPeriod) {
  return {"StoreAndForwardStage",
          {{"DataChunkPeriod", chunkPeriod}, {"DataProcessingPeriod", processingPeriod}}};
}

TEST(StagePeriods, AreTheStandardOnesWhereNoneAreSet) {
  StreamOptions stream;
  stream.stages = {{"StoreAndForwardStage", {}}};
  EXPECT_EQ(GetChunkPeriod(stream), seconds(10));
  EXPECT_EQ(FindProcessingPeriod(stream), milliseconds(500));
}

TEST(StagePeriods, AreThoseThatTheStageWillUse) {
  EXPECT_EQ(GetChunkPeriod(StoreAndForward("4", "0")), seconds(5));
  EXPECT_EQ(GetChunkPeriod(StoreAndForward("7", "0")), seconds(7));
  EXPECT_EQ(GetChunkPeriod(StoreAndForward("2147483648", "0")), seconds(10));
  EXPECT_EQ(GetChunkPeriod(StoreAndForward("often", "0")), seconds(10));
}

TEST(StagePeriods, OfOtherStagesAreNotAskedFor) {
  StreamOptions stream;
  stream.stages = {{"Filter", {{"DataChunkPeriod", "600"}, {"DataProcessingPeriod", "9000000"}}},
                   StoreAndForward("6", "700000"),
                   StoreAndForward("7", "600000")};
  EXPECT_EQ(GetChunkPeriod(stream), seconds(13));
  EXPECT_EQ(FindProcessingPeriod(stream), milliseconds(700));
  stream.stages.resize(1);
  EXPECT_EQ(GetChunkPeriod(stream), seconds(0));
  EXPECT_EQ(FindProcessingPeriod(stream), milliseconds(0));
}

}  // namespace
