#include <gtest/gtest.h>

#include "tests/StoreAndForward/StageHarness.h"

namespace OrloStoreAndForward {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;
using TestSupport::WaitUntil;

TEST(RealPeriods, BackpressureAttemptsFollowEachOtherAbout31SecondsApart) {
  StageHarness harness;
  harness.Destination().SetAnswer([](const std::string&) { return kBackpressure; });
  harness.Start();
  harness.Post(3);
  ASSERT_TRUE(WaitUntil([&] { return harness.Destination().Offers().size() == 3; }, seconds(200)));
  const auto offers = harness.Destination().Offers();
  for (std::size_t i = 1; i < offers.size(); ++i) {
    EXPECT_EQ(offers[i].payload, "event 0") << "the first event is never popped";
    const auto apart = duration_cast<milliseconds>(offers[i].time - offers[i - 1].time);
    EXPECT_GE(apart, milliseconds(30900));
    // Before the attempt after it would be due.
    EXPECT_LT(apart, milliseconds(61000));
  }
  EXPECT_TRUE(WaitUntil([&] { return harness.Statistic("NumberOfRequeues") == 3; }));
  EXPECT_EQ(harness.Statistic("EventsOutgoing"), 0);
  harness.Stop();
  harness.ExpectSum(3, 0);
  EXPECT_EQ(harness.Allocators().BlocksAlive(), 6u) << "what is pending at the stop is abandoned";
}

TEST(RealPeriods, DeliveryGoesOnAfterTheBackOffOnceTheDestinationTakesEvents) {
  StageHarness harness;
  int offers = 0;
  harness.Destination().SetAnswer(
      [&offers](const std::string&) { return ++offers == 1 ? kBackpressure : 0; });
  harness.Start();
  harness.Post(3);
  ASSERT_TRUE(WaitUntil([&] { return harness.Statistic("EventsOutgoing") == 3; }, seconds(100)));
  harness.Stop();
  EXPECT_EQ(harness.Destination().Delivered(), Numbered(3));
  harness.ExpectSum(0, 0);
  EXPECT_TRUE(harness.Allocators().NothingAlive());
}

}  // namespace
}  // namespace OrloStoreAndForward
