#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "WindowsAgentCommon/Statistics.h"

namespace OrloStream {

// One row of a profile: what is declared, and where.
struct StatisticDeclaration {
  std::string name;
  std::string description;
  std::int64_t kind;
  WindowsAgentCommon::StatisticVariant initial;
  int line;  // of the declaration in its source file; named by the exception
};

// Where an update was called, for the exception it may throw.
struct StatisticUpdateSite {
  const char* file;
  const char* function;
};

using DeclaredStatistics = std::map<std::string, std::int64_t>;
using StatisticCounters = std::map<std::string, std::shared_ptr<std::int64_t>>;

// The kind under which running totals are published.
constexpr std::int64_t kCounterKind = 7;

// Enters the statistic in `declared` and declares it to the group.
void DeclareStatistic(WindowsAgentCommon::IStatisticsGroup& group, DeclaredStatistics& declared,
                      const StatisticDeclaration& statistic);

// The same, with a running total that starts at 0.
void DeclareCounter(WindowsAgentCommon::IStatisticsGroup& group, DeclaredStatistics& declared,
                    StatisticCounters& counters, const StatisticDeclaration& statistic);

// The same, and where the total is, for a counter that is updated with every event: to look it up
// by its name each time would cost more than to update it. Valid until the counter is declared
// again.
void DeclareCounter(WindowsAgentCommon::IStatisticsGroup& group, DeclaredStatistics& declared,
                    StatisticCounters& counters, const StatisticDeclaration& statistic,
                    std::int64_t*& total);

// The declared kind. Throws OrloStatisticsException for a statistic that was not declared.
std::int64_t GetDeclaredKind(const DeclaredStatistics& declared,
                             const StatisticDeclaration& statistic,
                             const StatisticUpdateSite& site);

// Publishes total + amount, then adds amount to the stored total. Several threads may update one
// counter at once: no amount is lost, and once they are done the value that was published last is
// the total. Throws OrloStatisticsException for a statistic that was not declared.
void UpdateCounter(WindowsAgentCommon::IStatisticsGroup* group, const DeclaredStatistics& declared,
                   const StatisticCounters& counters, const StatisticDeclaration& statistic,
                   std::int64_t amount, bool flag, const StatisticUpdateSite& site);

// The same with the counter of the total at hand; null stands for a statistic that was not
// declared.
void UpdateCounter(WindowsAgentCommon::IStatisticsGroup* group, std::int64_t* counter,
                   const StatisticDeclaration& statistic, std::int64_t amount, bool flag,
                   const StatisticUpdateSite& site);

// The same for a counter whose updates some lock of its owner puts one behind the other, which
// makes them cheaper.
void UpdateSerialCounter(WindowsAgentCommon::IStatisticsGroup* group, std::int64_t* counter,
                         const StatisticDeclaration& statistic, std::int64_t amount, bool flag,
                         const StatisticUpdateSite& site);

}  // namespace OrloStream
