#include "OrloStream/StatisticsTables.h"

#include <atomic>

#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloStream {

using WindowsAgentCommon::IStatisticsGroup;
using WindowsAgentCommon::StatisticValue;

void DeclareStatistic(IStatisticsGroup& group, DeclaredStatistics& declared,
                      const StatisticDeclaration& statistic) {
  declared[statistic.name] = statistic.kind;
  group.DeclareStatistic(statistic.name, statistic.description,
                         StatisticValue(statistic.kind, statistic.initial));
}

void DeclareCounter(IStatisticsGroup& group, DeclaredStatistics& declared,
                    StatisticCounters& counters, const StatisticDeclaration& statistic) {
  DeclareStatistic(group, declared, statistic);
  counters[statistic.name] = std::make_shared<std::int64_t>(0);
}

void DeclareCounter(IStatisticsGroup& group, DeclaredStatistics& declared,
                    StatisticCounters& counters, const StatisticDeclaration& statistic,
                    std::int64_t*& total) {
  DeclareCounter(group, declared, counters, statistic);
  total = counters.at(statistic.name).get();
}

namespace {

[[noreturn]] void ThrowNotDeclared(const StatisticDeclaration& statistic,
                                   const StatisticUpdateSite& site) {
  throw WindowsAgentCommon::OrloStatisticsException(
      site.file, site.function, statistic.line,
      WindowsAgentCommon::Format(
          "There was no matching DECLARE_STATISTIC() section for statistic %s", statistic.name));
}

}  // namespace

std::int64_t GetDeclaredKind(const DeclaredStatistics& declared,
                             const StatisticDeclaration& statistic,
                             const StatisticUpdateSite& site) {
  const auto found = declared.find(statistic.name);
  if (found == declared.end()) {
    ThrowNotDeclared(statistic, site);
  }
  return found->second;
}

void UpdateCounter(IStatisticsGroup* group, const DeclaredStatistics& declared,
                   const StatisticCounters& counters, const StatisticDeclaration& statistic,
                   std::int64_t amount, bool flag, const StatisticUpdateSite& site) {
  GetDeclaredKind(declared, statistic, site);
  UpdateCounter(group, counters.at(statistic.name).get(), statistic, amount, flag, site);
}

void UpdateCounter(IStatisticsGroup* group, std::int64_t* counter,
                   const StatisticDeclaration& statistic, std::int64_t amount, bool flag,
                   const StatisticUpdateSite& site) {
  if (counter == nullptr) {
    ThrowNotDeclared(statistic, site);
  }
  std::atomic_ref<std::int64_t> total(*counter);
  // Publishing comes before adding. A thread whose published value was overtaken finds the total
  // changed and publishes anew, so the last value that readers see is never behind the total.
  std::int64_t before = total.load();
  do {
    group->UpdateStatistic(statistic.name, StatisticValue(kCounterKind, before + amount), flag);
  } while (!total.compare_exchange_strong(before, before + amount));
}

void UpdateSerialCounter(IStatisticsGroup* group, std::int64_t* counter,
                         const StatisticDeclaration& statistic, std::int64_t amount, bool flag,
                         const StatisticUpdateSite& site) {
  if (counter == nullptr) {
    ThrowNotDeclared(statistic, site);
  }
  const std::int64_t total = *counter + amount;
  group->UpdateStatistic(statistic.name, StatisticValue(kCounterKind, total), flag);
  *counter = total;
}

}  // namespace OrloStream
