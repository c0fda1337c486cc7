#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace WindowsAgentCommon {

// A figure of the moment that is asked for when somebody wants to know it: how full a queue is, how
// old a chunk. Statistics are pushed by their owner whenever they change; a gauge costs its owner
// nothing until it is read.
//
// It can be read from its construction to its destruction, by any thread.
class Gauge {
 public:
  // `instance`: whose figure it is, a stream's name for example. `read` gives the figure; it is
  // called on the reader's thread, with the list of gauges locked, so it must be quick and make or
  // destroy no gauge.
  Gauge(std::string instance, std::string name, std::function<std::int64_t()> read);

  // When it returns, `read` is not running and will not be called any more.
  ~Gauge();
  Gauge(const Gauge&) = delete;
  Gauge& operator=(const Gauge&) = delete;

 private:
  friend std::vector<struct GaugeReading> ReadGauges(const std::string& instance);
  friend std::vector<std::int64_t> ReadGauges(const std::string& instance, const std::string& name);

  const std::string m_instance;
  const std::string m_name;
  const std::function<std::int64_t()> m_read;
};

struct GaugeReading {
  std::string name;
  std::int64_t value = 0;
};

// What all gauges of an instance say now, in the order in which they were made.
std::vector<GaugeReading> ReadGauges(const std::string& instance);

// Only those of that name; no other is asked.
std::vector<std::int64_t> ReadGauges(const std::string& instance, const std::string& name);

}  // namespace WindowsAgentCommon
