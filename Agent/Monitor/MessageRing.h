#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "Agent/Monitor/MonitorState.h"

namespace OrloAgent {

// Keeps the agent's last warnings and errors, whatever the outputs of the log are, as long as it
// lives. Any thread.
class MessageRing {
 public:
  explicit MessageRing(std::size_t capacity);
  ~MessageRing();
  MessageRing(const MessageRing&) = delete;
  MessageRing& operator=(const MessageRing&) = delete;

  // Fills the messages, and how many there were, into the state.
  void AddTo(AgentState& state) const;

 private:
  void Add(WindowsAgentCommon::LogLevel level, const std::string& logger, const std::string& text);

  const std::size_t m_capacity;
  mutable std::mutex m_lock;
  // Guarded by m_lock:
  std::deque<LoggedMessage> m_messages;
  std::uint64_t m_warnings = 0;
  std::uint64_t m_errors = 0;

  int m_sink = 0;
};

}  // namespace OrloAgent
