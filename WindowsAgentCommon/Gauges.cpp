#include "WindowsAgentCommon/Gauges.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace WindowsAgentCommon {

namespace {

struct GaugeList {
  std::mutex lock;
  std::vector<const Gauge*> gauges;  // guarded by lock
};

// Never destroyed: gauges of loaded modules may live until the process ends.
GaugeList& GetList() {
  static GaugeList* const list = new GaugeList;
  return *list;
}

}  // namespace

Gauge::Gauge(std::string instance, std::string name, std::function<std::int64_t()> read)
    : m_instance(std::move(instance)), m_name(std::move(name)), m_read(std::move(read)) {
  GaugeList& list = GetList();
  const std::lock_guard guard(list.lock);
  list.gauges.push_back(this);
}

Gauge::~Gauge() {
  GaugeList& list = GetList();
  const std::lock_guard guard(list.lock);
  std::erase(list.gauges, this);
}

std::vector<GaugeReading> ReadGauges(const std::string& instance) {
  GaugeList& list = GetList();
  const std::lock_guard guard(list.lock);
  std::vector<GaugeReading> readings;
  for (const Gauge* const gauge : list.gauges) {
    if (gauge->m_instance == instance) {
      readings.push_back({gauge->m_name, gauge->m_read()});
    }
  }
  return readings;
}

std::vector<std::int64_t> ReadGauges(const std::string& instance, const std::string& name) {
  GaugeList& list = GetList();
  const std::lock_guard guard(list.lock);
  std::vector<std::int64_t> values;
  for (const Gauge* const gauge : list.gauges) {
    if (gauge->m_instance == instance && gauge->m_name == name) {
      values.push_back(gauge->m_read());
    }
  }
  return values;
}

}  // namespace WindowsAgentCommon
