#include "WindowsAgentCommon/Statistics.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "WindowsAgentCommon/BriefLock.h"
#include "WindowsAgentCommon/Logging.h"

namespace WindowsAgentCommon {

namespace {

thread_local std::string currentInstance;

// Updates of numbers take m_lock only, and whoever looks takes it while the numbers are copied:
// what a reader needs is allocated before, with m_declarationLock held, which keeps the entries
// where they are. The values live in one vector in the order of declaration; the index finds them
// by name without making a string.
class StatisticsGroup : public IStatisticsGroup {
 public:
  StatisticsGroup(std::string name, std::string categoryPath, std::string instance)
      : m_name(std::move(name)),
        m_categoryPath(std::move(categoryPath)),
        m_instance(std::move(instance)) {}

  void Publish() override {
    const std::lock_guard guard(m_declarationLock);
    m_published = true;
  }

  void DeclareStatistic(const std::string& name, const std::string& description,
                        const StatisticValue& initial) override {
    const std::lock_guard declaring(m_declarationLock);
    const std::lock_guard guard(m_lock);
    const auto [entry, isNew] = m_index.try_emplace(name, m_statistics.size());
    if (isNew) {
      m_statistics.push_back({{name, description, initial}});
    } else {
      m_statistics[entry->second] = {{name, description, initial}};
    }
  }

  void UpdateStatistic(const std::string& name, const StatisticValue& value,
                       bool /*flag*/) override {
    if (const auto* const number = boost::get<std::int64_t>(&value.GetValue())) {
      const std::lock_guard guard(m_lock);
      if (Entry* const entry = Find(name)) {
        entry->isNumber = true;
        entry->kind = value.GetKind();
        entry->number = *number;
      }
      return;
    }
    const std::lock_guard declaring(m_declarationLock);
    Entry* entry = nullptr;
    {
      const std::lock_guard guard(m_lock);
      entry = Find(name);
      if (entry == nullptr) {
        return;
      }
      entry->isNumber = false;
    }
    entry->shown.value = value;
  }

  const std::string& GetInstance() const { return m_instance; }

  // Adds nothing while the group is not published.
  void AddTo(std::vector<StatisticsGroupSnapshot>& snapshot) const {
    const std::lock_guard declaring(m_declarationLock);
    if (!m_published) {
      return;
    }
    StatisticsGroupSnapshot group{m_name, m_categoryPath, m_instance, {}};
    group.statistics.reserve(m_statistics.size());
    for (const Entry& entry : m_statistics) {
      group.statistics.push_back(entry.shown);
    }
    {
      const std::lock_guard guard(m_lock);
      for (std::size_t index = 0; index < m_statistics.size(); ++index) {
        const Entry& entry = m_statistics[index];
        if (entry.isNumber) {
          group.statistics[index].value = StatisticValue(entry.kind, entry.number);
        }
      }
    }
    snapshot.push_back(std::move(group));
  }

 private:
  struct Entry {
    StatisticSnapshot shown;
    // What the last update brought, if it was a whole number; its value is then in place of the
    // shown one. To put it into the variant would be a good part of an update's cost.
    bool isNumber = false;
    std::int64_t kind = 0;
    std::int64_t number = 0;
  };

  // Null for a name that is not declared. Requires m_lock.
  Entry* Find(const std::string& name) {
    // The statistic of most updates is that of the last one.
    if (m_last >= m_statistics.size() || m_statistics[m_last].shown.name != name) {
      const auto found = m_index.find(name);
      if (found == m_index.end()) {
        return nullptr;
      }
      m_last = found->second;
    }
    return &m_statistics[m_last];
  }

  const std::string m_name;
  const std::string m_categoryPath;
  const std::string m_instance;

  // Taken before m_lock.
  mutable std::mutex m_declarationLock;
  bool m_published = false;  // guarded by m_declarationLock

  alignas(64) mutable BriefLock m_lock;
  // Changed with both locks held and read with either, except for what the last update brought and
  // m_last, which m_lock alone guards, and shown values, which m_declarationLock alone guards.
  std::vector<Entry> m_statistics;
  std::unordered_map<std::string, std::size_t> m_index;
  std::size_t m_last = 0;  // in m_statistics, of the last update
};

}  // namespace

IStatisticsGroup::~IStatisticsGroup() = default;

const std::string& IStatisticsServer::GetServiceName() {
  static const std::string name = "IStatisticsServer";
  return name;
}

const StatisticVariant* StatisticsGroupSnapshot::Find(const std::string& statistic) const {
  const auto found =
      std::find_if(statistics.begin(), statistics.end(),
                   [&](const StatisticSnapshot& entry) { return entry.name == statistic; });
  return found == statistics.end() ? nullptr : &found->value.GetValue();
}

std::int64_t StatisticsGroupSnapshot::GetInteger(const std::string& statistic) const {
  const StatisticVariant* const value = Find(statistic);
  if (const auto* const number = boost::get<std::int64_t>(value)) {
    return *number;
  }
  if (const auto* const number = boost::get<std::uint64_t>(value)) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(std::min(*number, kLargest));
  }
  return 0;
}

StatisticsInstanceScope::StatisticsInstanceScope(std::string instance)
    : m_previous(std::exchange(currentInstance, std::move(instance))) {}

StatisticsInstanceScope::~StatisticsInstanceScope() { currentInstance.swap(m_previous); }

struct StatisticsServer::State {
  mutable std::mutex lock;
  std::vector<std::shared_ptr<StatisticsGroup>> groups;  // guarded by lock
};

StatisticsServer::StatisticsServer() : m_state(std::make_unique<State>()) {}

StatisticsServer::~StatisticsServer() = default;

void StatisticsServer::CreateGroup(const std::string& name, const std::string& categoryPath,
                                   std::shared_ptr<IStatisticsGroup>& group) {
  group = std::make_shared<StatisticsGroup>(name, categoryPath, currentInstance);
}

void StatisticsServer::RegisterGroup(const std::shared_ptr<IStatisticsGroup>& group) {
  const auto own = std::dynamic_pointer_cast<StatisticsGroup>(group);
  if (!own) {
    LogFacade::Error(LoggerFactory::GetLog("Code.StatisticsServer"),
                     "A statistics group that this server did not make was given for "
                     "registration. Its values will not be shown.");
    return;
  }
  const std::lock_guard guard(m_state->lock);
  if (std::find(m_state->groups.begin(), m_state->groups.end(), own) == m_state->groups.end()) {
    m_state->groups.push_back(own);
  }
}

std::vector<StatisticsGroupSnapshot> StatisticsServer::GetSnapshot() const {
  std::vector<std::shared_ptr<StatisticsGroup>> groups;
  {
    const std::lock_guard guard(m_state->lock);
    groups = m_state->groups;
  }
  std::vector<StatisticsGroupSnapshot> snapshot;
  snapshot.reserve(groups.size());
  for (const auto& group : groups) {
    group->AddTo(snapshot);
  }
  return snapshot;
}

void StatisticsServer::RemoveInstance(const std::string& instance) {
  const std::lock_guard guard(m_state->lock);
  std::erase_if(m_state->groups,
                [&](const auto& group) { return group->GetInstance() == instance; });
}

}  // namespace WindowsAgentCommon
