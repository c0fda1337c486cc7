#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "WindowsAgentCommon/Statistics.h"

namespace TestSupport {

struct RecordedStatistic {
  std::string name;
  std::string description;
  WindowsAgentCommon::StatisticValue value;
};

struct RecordedUpdate {
  std::string name;
  WindowsAgentCommon::StatisticValue value;
  bool flag;
};

// A group that remembers every call in order.
class RecordingGroup : public WindowsAgentCommon::IStatisticsGroup {
 public:
  RecordingGroup(std::string name, std::string categoryPath)
      : m_name(std::move(name)), m_categoryPath(std::move(categoryPath)) {}

  void Publish() override;
  void DeclareStatistic(const std::string& name, const std::string& description,
                        const WindowsAgentCommon::StatisticValue& initial) override;
  void UpdateStatistic(const std::string& name, const WindowsAgentCommon::StatisticValue& value,
                       bool flag) override;

  const std::string& Name() const { return m_name; }
  const std::string& CategoryPath() const { return m_categoryPath; }
  int PublishCount() const;
  std::vector<RecordedStatistic> Declared() const;
  std::vector<RecordedUpdate> Updates() const;
  // The whole numbers with which a statistic was updated, in order.
  std::vector<std::int64_t> IntegerUpdates(const std::string& name) const;
  // The last whole number, or 0.
  std::int64_t Integer(const std::string& name) const;
  // Called at every update, before it is recorded; may throw.
  void OnUpdate(std::function<void(const std::string&)> action);

 private:
  const std::string m_name;
  const std::string m_categoryPath;
  mutable std::mutex m_lock;
  int m_publishCount = 0;
  std::vector<RecordedStatistic> m_declared;
  std::vector<RecordedUpdate> m_updates;
  std::function<void(const std::string&)> m_onUpdate;
};

class RecordingServer : public WindowsAgentCommon::IStatisticsServer {
 public:
  void CreateGroup(const std::string& name, const std::string& categoryPath,
                   std::shared_ptr<WindowsAgentCommon::IStatisticsGroup>& group) override;
  void RegisterGroup(const std::shared_ptr<WindowsAgentCommon::IStatisticsGroup>& group) override;

  // Called with the name of every group before it is made; may throw.
  void OnCreate(std::function<void(const std::string&)> action);

  // Every group that was created, in order.
  std::vector<std::shared_ptr<RecordingGroup>> Groups() const;
  // The last group of that name, or null.
  std::shared_ptr<RecordingGroup> Find(const std::string& name) const;
  std::size_t RegisteredCount() const;

 private:
  mutable std::mutex m_lock;
  std::function<void(const std::string&)> m_onCreate;
  std::vector<std::shared_ptr<RecordingGroup>> m_groups;
  std::size_t m_registered = 0;
};

}  // namespace TestSupport
