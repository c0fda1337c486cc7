#include "tests/support/LogCapture.h"

#include <algorithm>

namespace TestSupport {

using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::LoggingOptions;
using WindowsAgentCommon::LogLevel;

LogCapture::LogCapture() {
  LoggingOptions options;
  options.level = LogLevel::Debug;
  options.standardError = false;
  LoggerFactory::Configure(options);
  m_sink = LoggerFactory::AddSink(
      [this](LogLevel level, const std::string& logger, const std::string& text) {
        const std::lock_guard guard(m_lock);
        m_lines.push_back({level, logger, text});
      });
}

LogCapture::~LogCapture() {
  LoggerFactory::RemoveSink(m_sink);
  LoggerFactory::Configure({});
}

std::vector<LogLine> LogCapture::Lines() const {
  const std::lock_guard guard(m_lock);
  return m_lines;
}

std::size_t LogCapture::Count(LogLevel level, const std::string& text) const {
  const std::lock_guard guard(m_lock);
  return static_cast<std::size_t>(
      std::count_if(m_lines.begin(), m_lines.end(),
                    [&](const LogLine& line) { return line.level == level && line.text == text; }));
}

bool LogCapture::Contains(LogLevel level, const std::string& logger,
                          const std::string& text) const {
  const std::lock_guard guard(m_lock);
  return std::find(m_lines.begin(), m_lines.end(), LogLine{level, logger, text}) != m_lines.end();
}

void LogCapture::Clear() {
  const std::lock_guard guard(m_lock);
  m_lines.clear();
}

}  // namespace TestSupport
