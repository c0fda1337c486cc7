#include "OrloStream/Status.h"

#include <gtest/gtest.h>

#include <limits>

namespace OrloStream {
namespace {

static_assert(Status().GetWord() == 0);
static_assert(Status(Status::kFailed).ToInt() == std::numeric_limits<int>::min());

TEST(StatusTest, ZeroIsSuccess) {
  const Status status;
  EXPECT_FALSE(status.Failed());
  EXPECT_FALSE(status.Backpressure());
  EXPECT_EQ(status.ToInt(), 0);
}

TEST(StatusTest, Bit31IsFailureAndNegativeAsInt) {
  const Status status(0x80000000u);
  EXPECT_TRUE(status.Failed());
  EXPECT_FALSE(status.Backpressure());
  EXPECT_LT(status.ToInt(), 0);
}

TEST(StatusTest, Bit30IsBackpressureAndPositiveAsInt) {
  const Status status(0x40000000u);
  EXPECT_FALSE(status.Failed());
  EXPECT_TRUE(status.Backpressure());
  EXPECT_EQ(status.ToInt(), 0x40000000);
}

TEST(StatusTest, FailureWinsOverBackpressure) {
  const Status status(0xC0000000u);
  EXPECT_TRUE(status.Failed());
  EXPECT_FALSE(status.Backpressure());
}

TEST(StatusTest, OtherBitsAreNeither) {
  const Status status(0x3FFFFFFFu);
  EXPECT_FALSE(status.Failed());
  EXPECT_FALSE(status.Backpressure());
}

TEST(StatusTest, SetAddsBits) {
  Status status(0x10u);
  status.Set(Status::kBackpressure);
  status.Set(0x1u);
  EXPECT_EQ(status.GetWord(), 0x40000011u);
}

TEST(StatusTest, EveryWordSurvivesTheWayThroughAnInt) {
  for (const std::uint32_t word : {0u, 1u, 0x40000000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Status::FromInt(Status(word).ToInt()).GetWord(), word);
  }
  EXPECT_TRUE(Status::FromInt(-1).Failed());
}

}  // namespace
}  // namespace OrloStream
