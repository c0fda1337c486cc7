#pragma once

#include <prometheus/metric_family.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OrloAgent {

// Gathers metrics into families: the first mention of a name makes the family, later ones add to
// it. A second metric with the same name and labels is left out, since readers would refuse them
// all.
class MetricBuilder {
 public:
  using Labels = std::vector<std::pair<std::string, std::string>>;

  void Add(prometheus::MetricType type, const std::string& name, const std::string& help,
           const Labels& labels, double value);

  // What was gathered, in the order of first mention.
  std::vector<prometheus::MetricFamily> Take() { return std::move(m_families); }

 private:
  std::vector<prometheus::MetricFamily> m_families;
  std::map<std::string, std::size_t> m_positions;
  std::set<std::pair<std::string, Labels>> m_seen;
};

}  // namespace OrloAgent
