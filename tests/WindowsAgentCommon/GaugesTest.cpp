#include "WindowsAgentCommon/Gauges.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace WindowsAgentCommon {
namespace {

TEST(Gauges, AreReadWhenTheyAreAskedAndInTheOrderInWhichTheyWereMade) {
  std::int64_t value = 1;
  const Gauge first("S", "First", [&] { return value; });
  const Gauge second("S", "Second", [] { return std::int64_t{7}; });
  value = 5;
  const auto readings = ReadGauges("S");
  ASSERT_EQ(readings.size(), 2u);
  EXPECT_EQ(readings[0].name, "First");
  EXPECT_EQ(readings[0].value, 5);
  EXPECT_EQ(readings[1].name, "Second");
  EXPECT_EQ(readings[1].value, 7);
}

TEST(Gauges, OfOneInstanceAreNotThoseOfAnother) {
  const Gauge one("One", "Bytes", [] { return std::int64_t{1}; });
  const Gauge other("Other", "Bytes", [] { return std::int64_t{2}; });
  ASSERT_EQ(ReadGauges("Other").size(), 1u);
  EXPECT_EQ(ReadGauges("Other").front().value, 2);
  EXPECT_TRUE(ReadGauges("Third").empty());
}

TEST(Gauges, OfANameAreReadWithoutTheOthers) {
  int reads = 0;
  const Gauge other("S", "Other", [&] { return std::int64_t{++reads}; });
  const Gauge first("S", "Bytes", [] { return std::int64_t{3}; });
  const Gauge elsewhere("T", "Bytes", [] { return std::int64_t{5}; });
  const Gauge second("S", "Bytes", [] { return std::int64_t{4}; });
  EXPECT_EQ(ReadGauges("S", "Bytes"), (std::vector<std::int64_t>{3, 4}));
  EXPECT_EQ(reads, 0);
}

TEST(Gauges, ThatAreGoneAreNotReadAnyMore) {
  auto gauge = std::make_unique<Gauge>("S", "Bytes", [] { return std::int64_t{1}; });
  gauge.reset();
  EXPECT_TRUE(ReadGauges("S").empty());
}

// What the gauge reads may go as soon as its destructor has returned.
TEST(Gauges, MayGoWhileOthersRead) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> reads{0};
  std::thread reader([&] {
    while (!stop) {
      reads += ReadGauges("S").size();
    }
  });
  do {
    const auto owned = std::make_unique<std::int64_t>(3);
    const Gauge gauge("S", "Owned", [&owned] { return *owned; });
    std::this_thread::yield();
  } while (reads < 50);
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace WindowsAgentCommon
