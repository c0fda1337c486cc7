#include "WindowsAgentCommon/AggregatedStatistics.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace WindowsAgentCommon {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

class ToSample : public boost::static_visitor<std::optional<double>> {
 public:
  std::optional<double> operator()(std::int64_t value) const { return static_cast<double>(value); }
  std::optional<double> operator()(std::uint64_t value) const { return static_cast<double>(value); }
  std::optional<double> operator()(double value) const {
    return std::isnan(value) ? std::nullopt : std::optional(value);
  }
  template <typename T>
  std::optional<double> operator()(const T&) const {
    return std::nullopt;
  }
};

}  // namespace

AggregatedStatistics::AggregatedStatistics(std::string name, unsigned window)
    : m_name(std::move(name)),
      m_window(std::max(window, 1u), 0.0),
      m_minimum(kNaN),
      m_maximum(kNaN) {}

bool AggregatedStatistics::Update(const StatisticValue& sample) {
  const std::optional<double> value = boost::apply_visitor(ToSample(), sample.GetValue());
  if (!value) {
    return false;
  }
  // fmin and fmax pass over the NaN that stands for "none yet".
  m_minimum = std::fmin(m_minimum, *value);
  m_maximum = std::fmax(m_maximum, *value);
  m_total += *value;
  ++m_count;
  m_window[m_next] = *value;
  m_next = (m_next + 1) % m_window.size();
  m_filled = std::min(m_filled + 1, m_window.size());
  return true;
}

double AggregatedStatistics::GetMinimum() const { return m_minimum; }

double AggregatedStatistics::GetMaximum() const { return m_maximum; }

double AggregatedStatistics::GetAverage() const {
  return m_count == 0 ? kNaN : m_total / static_cast<double>(m_count);
}

double AggregatedStatistics::GetRollingAverage() const {
  if (m_filled == 0) {
    return kNaN;
  }
  double sum = 0.0;
  for (std::size_t i = 0; i < m_filled; ++i) {
    sum += m_window[i];
  }
  return sum / static_cast<double>(m_filled);
}

double AggregatedStatistics::GetTotal() const { return m_total; }

std::pair<double, double> AggregatedStatistics::GetTrendRegressionLine() const {
  if (m_filled < 2) {
    return {kNaN, kNaN};
  }
  // Both series are taken relative to their means: sums of squares of large samples would cancel
  // each other out and leave only rounding errors.
  const std::size_t oldest = m_filled < m_window.size() ? 0 : m_next;
  const double meanX = static_cast<double>(m_filled - 1) / 2.0;
  const double meanY = GetRollingAverage();
  double sumXY = 0.0;
  double sumXX = 0.0;
  for (std::size_t i = 0; i < m_filled; ++i) {
    const double x = static_cast<double>(i) - meanX;
    sumXY += x * (m_window[(oldest + i) % m_window.size()] - meanY);
    sumXX += x * x;
  }
  const double slope = sumXY / sumXX;
  return {slope, meanY - slope * meanX};
}

TrendingTendency_t AggregatedStatistics::GetTrending() const {
  const double slope = GetTrendRegressionLine().first;
  if (std::isnan(slope)) {
    return TrendingTendency_t::NotAvailable;
  }
  const double change = slope * static_cast<double>(m_filled - 1);
  // A series around zero has no average to compare with; only a flat line is stable there.
  if (change == 0.0 || std::fabs(change) < std::fabs(GetRollingAverage()) / 1000.0) {
    return TrendingTendency_t::Stable;
  }
  return change > 0.0 ? TrendingTendency_t::Increasing : TrendingTendency_t::Decreasing;
}

void AggregatedStatistics::TrendToText(TrendingTendency_t tendency, std::string& text) {
  switch (tendency) {
    case TrendingTendency_t::Increasing:
      text = "Increasing";
      return;
    case TrendingTendency_t::Decreasing:
      text = "Decreasing";
      return;
    case TrendingTendency_t::Stable:
      text = "Stable";
      return;
    case TrendingTendency_t::NotAvailable:
      break;
  }
  text = "N/A";
}

}  // namespace WindowsAgentCommon
