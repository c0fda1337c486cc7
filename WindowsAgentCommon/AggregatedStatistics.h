#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "WindowsAgentCommon/Statistics.h"

namespace WindowsAgentCommon {

enum class TrendingTendency_t { NotAvailable, Decreasing, Stable, Increasing };

// Figures over a series of samples. Minimum, maximum, average and total are over all samples;
// rolling average and trend are over the last `window` samples. Before the first sample all are
// NaN, but for the total, which is 0. No lock: one thread at a time.
class AggregatedStatistics {
 public:
  AggregatedStatistics(std::string name, unsigned window);

  const std::string& GetName() const { return m_name; }

  // Takes a whole or floating-point number as a sample; anything else (text, NaN) is refused with
  // false and changes nothing.
  bool Update(const StatisticValue& sample);

  double GetMinimum() const;
  double GetMaximum() const;
  double GetAverage() const;
  double GetRollingAverage() const;
  double GetTotal() const;

  // Least-squares line over the window: slope (change per sample) first, then the intercept (the
  // line's value at the oldest sample of the window). NaN for both below two samples.
  std::pair<double, double> GetTrendRegressionLine() const;

  // The direction of that line. Stable: the slope over the whole window is less than one
  // thousandth of the rolling average.
  TrendingTendency_t GetTrending() const;

  // "Increasing", "Decreasing", "Stable", "N/A".
  static void TrendToText(TrendingTendency_t tendency, std::string& text);

 private:
  std::string m_name;
  std::vector<double> m_window;  // ring of the last samples
  std::size_t m_next = 0;        // where the next sample goes
  std::size_t m_filled = 0;      // how much of the ring is in use
  std::uint64_t m_count = 0;
  double m_minimum;
  double m_maximum;
  double m_total = 0.0;
};

}  // namespace WindowsAgentCommon
