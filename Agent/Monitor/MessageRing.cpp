#include "Agent/Monitor/MessageRing.h"

#include <chrono>

namespace OrloAgent {

using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::LogLevel;

MessageRing::MessageRing(std::size_t capacity) : m_capacity(capacity) {
  m_sink = LoggerFactory::AddSink(
      [this](LogLevel level, const std::string& logger, const std::string& text) {
        if (level >= LogLevel::Warn) {
          Add(level, logger, text);
        }
      });
}

MessageRing::~MessageRing() { LoggerFactory::RemoveSink(m_sink); }

void MessageRing::Add(LogLevel level, const std::string& logger, const std::string& text) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::lock_guard guard(m_lock);
  m_messages.push_back(
      {std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), level, logger, text});
  if (m_messages.size() > m_capacity) {
    m_messages.pop_front();
  }
  ++(level == LogLevel::Warn ? m_warnings : m_errors);
}

void MessageRing::AddTo(AgentState& state) const {
  const std::lock_guard guard(m_lock);
  state.messages.assign(m_messages.begin(), m_messages.end());
  state.warnings = m_warnings;
  state.errors = m_errors;
}

}  // namespace OrloAgent
