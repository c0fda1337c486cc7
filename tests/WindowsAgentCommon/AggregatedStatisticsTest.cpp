#include "WindowsAgentCommon/AggregatedStatistics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace WindowsAgentCommon {
namespace {

StatisticValue Sample(double value) { return StatisticValue(9, value); }
StatisticValue Sample(int value) { return StatisticValue(7, std::int64_t{value}); }

void UpdateAll(AggregatedStatistics& statistics, std::initializer_list<double> samples) {
  for (const double sample : samples) {
    ASSERT_TRUE(statistics.Update(Sample(sample)));
  }
}

TEST(AggregatedStatisticsTest, BeforeTheFirstSampleAllIsNaNButTheTotal) {
  const AggregatedStatistics statistics("ChunkSize", 64);
  EXPECT_EQ(statistics.GetName(), "ChunkSize");
  EXPECT_TRUE(std::isnan(statistics.GetMinimum()));
  EXPECT_TRUE(std::isnan(statistics.GetMaximum()));
  EXPECT_TRUE(std::isnan(statistics.GetAverage()));
  EXPECT_TRUE(std::isnan(statistics.GetRollingAverage()));
  EXPECT_TRUE(std::isnan(statistics.GetTrendRegressionLine().first));
  EXPECT_TRUE(std::isnan(statistics.GetTrendRegressionLine().second));
  EXPECT_EQ(statistics.GetTrending(), TrendingTendency_t::NotAvailable);
  EXPECT_EQ(statistics.GetTotal(), 0.0);
}

TEST(AggregatedStatisticsTest, OneSampleHasFiguresAndNoTrend) {
  AggregatedStatistics statistics("x", 64);
  EXPECT_TRUE(statistics.Update(Sample(10)));
  EXPECT_EQ(statistics.GetMinimum(), 10.0);
  EXPECT_EQ(statistics.GetMaximum(), 10.0);
  EXPECT_EQ(statistics.GetAverage(), 10.0);
  EXPECT_EQ(statistics.GetRollingAverage(), 10.0);
  EXPECT_EQ(statistics.GetTotal(), 10.0);
  EXPECT_TRUE(std::isnan(statistics.GetTrendRegressionLine().first));
  EXPECT_EQ(statistics.GetTrending(), TrendingTendency_t::NotAvailable);
}

TEST(AggregatedStatisticsTest, OnlyRollingAverageAndTrendForgetWhatLeftTheWindow) {
  AggregatedStatistics statistics("x", 3);
  UpdateAll(statistics, {1000, -1000, 3, 5, 10});
  EXPECT_EQ(statistics.GetMinimum(), -1000.0);
  EXPECT_EQ(statistics.GetMaximum(), 1000.0);
  EXPECT_DOUBLE_EQ(statistics.GetAverage(), 18.0 / 5.0);
  EXPECT_EQ(statistics.GetTotal(), 18.0);
  EXPECT_DOUBLE_EQ(statistics.GetRollingAverage(), 6.0);
  // Least squares through (0, 3), (1, 5), (2, 10): slope 7/2, mean 6 at x = 1.
  EXPECT_DOUBLE_EQ(statistics.GetTrendRegressionLine().first, 3.5);
  EXPECT_DOUBLE_EQ(statistics.GetTrendRegressionLine().second, 2.5);
}

TEST(AggregatedStatisticsTest, TheInterceptIsTheLineAtTheOldestSampleOfTheWindow) {
  AggregatedStatistics statistics("x", 64);
  for (int i = 0; i < 1000; ++i) {
    statistics.Update(Sample(7 + 2 * i));
  }
  EXPECT_DOUBLE_EQ(statistics.GetTrendRegressionLine().first, 2.0);
  EXPECT_DOUBLE_EQ(statistics.GetTrendRegressionLine().second, 7.0 + 2.0 * (1000 - 64));
  EXPECT_EQ(statistics.GetTrending(), TrendingTendency_t::Increasing);
}

TEST(AggregatedStatisticsTest, LargeSamplesKeepTheirTrend) {
  AggregatedStatistics statistics("x", 64);
  for (int i = 0; i < 64; ++i) {
    statistics.Update(Sample(1e12 + i));
  }
  EXPECT_NEAR(statistics.GetTrendRegressionLine().first, 1.0, 1e-6);
  EXPECT_NEAR(statistics.GetTrendRegressionLine().second, 1e12, 1e-3);
}

TEST(AggregatedStatisticsTest, AWindowOfOneOrNoneHasARollingAverageAndNoTrend) {
  for (const unsigned window : {0u, 1u}) {
    SCOPED_TRACE(window);
    AggregatedStatistics statistics("x", window);
    UpdateAll(statistics, {4, 6});
    EXPECT_EQ(statistics.GetRollingAverage(), 6.0);
    EXPECT_EQ(statistics.GetAverage(), 5.0);
    EXPECT_EQ(statistics.GetTrending(), TrendingTendency_t::NotAvailable);
  }
}

TEST(AggregatedStatisticsTest, EveryKindOfNumberIsASample) {
  AggregatedStatistics statistics("x", 64);
  EXPECT_TRUE(statistics.Update(StatisticValue(7, std::int64_t{-2})));
  EXPECT_TRUE(statistics.Update(StatisticValue(7, std::uint64_t{5})));
  EXPECT_TRUE(statistics.Update(StatisticValue(9, 0.5)));
  EXPECT_EQ(statistics.GetTotal(), 3.5);
}

TEST(AggregatedStatisticsTest, AnythingElseIsRefusedAndChangesNothing) {
  AggregatedStatistics statistics("x", 2);
  UpdateAll(statistics, {1, 3});
  EXPECT_FALSE(statistics.Update(StatisticValue(1, std::string("5"))));
  EXPECT_FALSE(statistics.Update(StatisticValue(1, std::wstring(L"5"))));
  EXPECT_FALSE(statistics.Update(StatisticValue(1, true)));
  EXPECT_FALSE(statistics.Update(StatisticValue(1, ACE_Time_Value(5))));
  EXPECT_FALSE(statistics.Update(StatisticValue(9, std::numeric_limits<double>::quiet_NaN())));
  EXPECT_EQ(statistics.GetAverage(), 2.0);
  EXPECT_EQ(statistics.GetRollingAverage(), 2.0);
  EXPECT_EQ(statistics.GetTotal(), 4.0);
  EXPECT_DOUBLE_EQ(statistics.GetTrendRegressionLine().first, 2.0);
}

TEST(AggregatedStatisticsTest, TheTendencyFollowsTheLine) {
  const struct {
    std::initializer_list<double> samples;
    TrendingTendency_t tendency;
  } cases[] = {
      {{5}, TrendingTendency_t::NotAvailable},
      {{5, 5}, TrendingTendency_t::Stable},
      {{5, 6}, TrendingTendency_t::Increasing},
      {{6, 5}, TrendingTendency_t::Decreasing},
      {{1, 9, 1, 9, 1, 9, 1, 30}, TrendingTendency_t::Increasing},
      {{0, 0, 0}, TrendingTendency_t::Stable},
      {{-1, 1}, TrendingTendency_t::Increasing},
      {{-5, -6}, TrendingTendency_t::Decreasing},
      // Just below and just above a thousandth of the average.
      {{10000, 10009}, TrendingTendency_t::Stable},
      {{10000, 10011}, TrendingTendency_t::Increasing},
      {{10009, 10000}, TrendingTendency_t::Stable},
      {{10011, 10000}, TrendingTendency_t::Decreasing},
      {{10000, 10002, 10004, 10006}, TrendingTendency_t::Stable},
      {{10000, 10004, 10008, 10012}, TrendingTendency_t::Increasing},
  };
  for (const auto& [samples, tendency] : cases) {
    SCOPED_TRACE(testing::PrintToString(std::vector<double>(samples)));
    AggregatedStatistics statistics("x", 64);
    UpdateAll(statistics, samples);
    EXPECT_EQ(statistics.GetTrending(), tendency);
  }
}

TEST(AggregatedStatisticsTest, TendenciesHaveTexts) {
  std::string text = "old";
  AggregatedStatistics::TrendToText(TrendingTendency_t::Increasing, text);
  EXPECT_EQ(text, "Increasing");
  AggregatedStatistics::TrendToText(TrendingTendency_t::Decreasing, text);
  EXPECT_EQ(text, "Decreasing");
  AggregatedStatistics::TrendToText(TrendingTendency_t::Stable, text);
  EXPECT_EQ(text, "Stable");
  AggregatedStatistics::TrendToText(TrendingTendency_t::NotAvailable, text);
  EXPECT_EQ(text, "N/A");
}

}  // namespace
}  // namespace WindowsAgentCommon
