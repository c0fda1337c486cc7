#include "Agent/Monitor/MetricBuilder.h"

namespace OrloAgent {

void MetricBuilder::Add(prometheus::MetricType type, const std::string& name,
                        const std::string& help, const Labels& labels, double value) {
  if (!m_seen.emplace(name, labels).second) {
    return;
  }
  const auto [position, isNew] = m_positions.try_emplace(name, m_families.size());
  if (isNew) {
    m_families.push_back({name, help, type, {}});
  }
  prometheus::ClientMetric metric;
  for (const auto& [label, text] : labels) {
    metric.label.push_back({label, text});
  }
  switch (m_families[position->second].type) {
    case prometheus::MetricType::Counter:
      metric.counter.value = value;
      break;
    case prometheus::MetricType::Gauge:
      metric.gauge.value = value;
      break;
    default:
      metric.untyped.value = value;
  }
  m_families[position->second].metric.push_back(std::move(metric));
}

}  // namespace OrloAgent
