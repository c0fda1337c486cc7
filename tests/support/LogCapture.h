#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "WindowsAgentCommon/Logging.h"

namespace TestSupport {

struct LogLine {
  WindowsAgentCommon::LogLevel level;
  std::string logger;
  std::string text;
  bool operator==(const LogLine&) const = default;
};

// Collects every message, of all levels, while it lives; standard error stays silent.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> Lines() const;
  // How many lines have this level and text.
  std::size_t Count(WindowsAgentCommon::LogLevel level, const std::string& text) const;
  bool Contains(WindowsAgentCommon::LogLevel level, const std::string& logger,
                const std::string& text) const;
  void Clear();

 private:
  mutable std::mutex m_lock;
  std::vector<LogLine> m_lines;
  int m_sink;
};

}  // namespace TestSupport
