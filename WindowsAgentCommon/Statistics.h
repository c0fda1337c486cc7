#pragma once

#include <ace/Time_Value.h>

#include <boost/variant.hpp>
#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "WindowsAgentCommon/Services.h"

namespace WindowsAgentCommon {

using StatisticVariant = boost::variant<std::string, std::wstring, std::uint64_t, double, bool,
                                        ACE_Time_Value, std::int64_t>;

// One value of a statistic with its kind code. The kinds in use:
//   1       text
//   7       whole number: a running total, or the last sample of a series
//   9       floating-point number derived from a series
//   0x4106  configuration value
class StatisticValue {
 public:
  StatisticValue(const std::int64_t& kind, const StatisticVariant& value)
      : m_kind(kind), m_value(value) {}

  // A whole number is what every event brings; it is not made into a variant first.
  template <std::same_as<std::int64_t> Number>
  StatisticValue(const std::int64_t& kind, Number number) : m_kind(kind), m_value(number) {}

  std::int64_t GetKind() const { return m_kind; }
  const StatisticVariant& GetValue() const { return m_value; }

 private:
  std::int64_t m_kind;
  StatisticVariant m_value;
};

// A set of named statistics. Any thread.
class IStatisticsGroup {
 public:
  virtual ~IStatisticsGroup();

  // Makes the group and its later updates visible to readers.
  virtual void Publish() = 0;

  // Declaring a name again replaces its description and value and keeps its place.
  virtual void DeclareStatistic(const std::string& name, const std::string& description,
                                const StatisticValue& initial) = 0;

  // Replaces the value of a declared statistic. A name that is not declared is ignored. The flag
  // is accepted and without effect.
  virtual void UpdateStatistic(const std::string& name, const StatisticValue& value, bool flag) = 0;
};

class IStatisticsServer : public IServiceComponent {
 public:
  static const std::string& GetServiceName();

  virtual void CreateGroup(const std::string& name, const std::string& categoryPath,
                           std::shared_ptr<IStatisticsGroup>& group) = 0;

  // From now on readers find the group, once it is published. A second registration of the same
  // group has no effect.
  virtual void RegisterGroup(const std::shared_ptr<IStatisticsGroup>& group) = 0;
};

struct StatisticSnapshot {
  std::string name;
  std::string description;
  StatisticValue value;
};

struct StatisticsGroupSnapshot {
  std::string name;
  std::string categoryPath;
  // Whose statistics these are, for example a stream's name; see StatisticsInstanceScope.
  std::string instance;
  // In the order of declaration.
  std::vector<StatisticSnapshot> statistics;

  // The value of a statistic, or null.
  const StatisticVariant* Find(const std::string& statistic) const;
  // A whole number, or 0 if there is no such statistic or it is not a whole number.
  std::int64_t GetInteger(const std::string& statistic) const;
};

// While it lives, groups that this thread creates carry the instance name. Group names are the
// same for every stream; the instance tells them apart.
class StatisticsInstanceScope {
 public:
  explicit StatisticsInstanceScope(std::string instance);
  ~StatisticsInstanceScope();
  StatisticsInstanceScope(const StatisticsInstanceScope&) = delete;
  StatisticsInstanceScope& operator=(const StatisticsInstanceScope&) = delete;

 private:
  std::string m_previous;
};

// The statistics service. Groups keep their values themselves; an update takes no lock that two
// groups share and allocates nothing for numbers. Any thread.
class StatisticsServer : public IStatisticsServer {
 public:
  StatisticsServer();
  ~StatisticsServer() override;

  void CreateGroup(const std::string& name, const std::string& categoryPath,
                   std::shared_ptr<IStatisticsGroup>& group) override;
  void RegisterGroup(const std::shared_ptr<IStatisticsGroup>& group) override;

  // Every registered and published group, in the order of registration. Each group's values are
  // of one moment.
  std::vector<StatisticsGroupSnapshot> GetSnapshot() const;

  // Forgets the registered groups of an instance, when what they counted is gone.
  void RemoveInstance(const std::string& instance);

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace WindowsAgentCommon
