#include "tests/support/RecordingStatistics.h"

namespace TestSupport {

using WindowsAgentCommon::IStatisticsGroup;
using WindowsAgentCommon::StatisticValue;

void RecordingGroup::Publish() {
  const std::lock_guard guard(m_lock);
  ++m_publishCount;
}

void RecordingGroup::DeclareStatistic(const std::string& name, const std::string& description,
                                      const StatisticValue& initial) {
  const std::lock_guard guard(m_lock);
  m_declared.push_back({name, description, initial});
}

void RecordingGroup::UpdateStatistic(const std::string& name, const StatisticValue& value,
                                     bool flag) {
  std::function<void(const std::string&)> onUpdate;
  {
    const std::lock_guard guard(m_lock);
    onUpdate = m_onUpdate;
  }
  if (onUpdate) {
    onUpdate(name);
  }
  const std::lock_guard guard(m_lock);
  m_updates.push_back({name, value, flag});
}

int RecordingGroup::PublishCount() const {
  const std::lock_guard guard(m_lock);
  return m_publishCount;
}

std::vector<RecordedStatistic> RecordingGroup::Declared() const {
  const std::lock_guard guard(m_lock);
  return m_declared;
}

std::vector<RecordedUpdate> RecordingGroup::Updates() const {
  const std::lock_guard guard(m_lock);
  return m_updates;
}

std::vector<std::int64_t> RecordingGroup::IntegerUpdates(const std::string& name) const {
  std::vector<std::int64_t> values;
  for (const RecordedUpdate& update : Updates()) {
    if (update.name == name) {
      values.push_back(boost::get<std::int64_t>(update.value.GetValue()));
    }
  }
  return values;
}

std::int64_t RecordingGroup::Integer(const std::string& name) const {
  const std::vector<std::int64_t> values = IntegerUpdates(name);
  return values.empty() ? 0 : values.back();
}

void RecordingGroup::OnUpdate(std::function<void(const std::string&)> action) {
  const std::lock_guard guard(m_lock);
  m_onUpdate = std::move(action);
}

void RecordingServer::CreateGroup(const std::string& name, const std::string& categoryPath,
                                  std::shared_ptr<IStatisticsGroup>& group) {
  const std::lock_guard guard(m_lock);
  if (m_onCreate) {
    m_onCreate(name);
  }
  m_groups.push_back(std::make_shared<RecordingGroup>(name, categoryPath));
  group = m_groups.back();
}

void RecordingServer::RegisterGroup(const std::shared_ptr<IStatisticsGroup>&) {
  const std::lock_guard guard(m_lock);
  ++m_registered;
}

void RecordingServer::OnCreate(std::function<void(const std::string&)> action) {
  const std::lock_guard guard(m_lock);
  m_onCreate = std::move(action);
}

std::vector<std::shared_ptr<RecordingGroup>> RecordingServer::Groups() const {
  const std::lock_guard guard(m_lock);
  return m_groups;
}

std::shared_ptr<RecordingGroup> RecordingServer::Find(const std::string& name) const {
  const std::lock_guard guard(m_lock);
  for (auto group = m_groups.rbegin(); group != m_groups.rend(); ++group) {
    if ((*group)->Name() == name) {
      return *group;
    }
  }
  return nullptr;
}

std::size_t RecordingServer::RegisteredCount() const {
  const std::lock_guard guard(m_lock);
  return m_registered;
}

}  // namespace TestSupport
