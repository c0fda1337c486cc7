#include "Agent/KafkaWindow.h"

namespace OrloAgent {

using WindowsAgentCommon::MessageBlockPtr;

std::uint64_t KafkaWindow::Add(MessageBlockPtr event) {
  m_entries.push_back({std::move(event), false});
  ++m_unacknowledged;
  return m_first + m_entries.size() - 1;
}

MessageBlockPtr KafkaWindow::TakeBackLast() {
  MessageBlockPtr event = std::move(m_entries.back().event);
  m_unacknowledged -= m_entries.back().acknowledged ? 0 : 1;
  m_entries.pop_back();
  return event;
}

void KafkaWindow::Acknowledge(std::uint64_t number) {
  if (number < m_first || number - m_first >= m_entries.size()) {
    return;  // of an event that was sent twice
  }
  Entry& entry = m_entries[static_cast<std::size_t>(number - m_first)];
  m_unacknowledged -= entry.acknowledged ? 0 : 1;
  entry.acknowledged = true;
  while (!m_entries.empty() && m_entries.front().acknowledged) {
    m_entries.pop_front();
    ++m_first;
  }
}

std::string_view KafkaWindow::GetMessage(std::uint64_t number) const {
  const ACE_Message_Block* const payload =
      m_entries[static_cast<std::size_t>(number - m_first)].event->cont();
  return payload == nullptr ? std::string_view()
                            : std::string_view(payload->rd_ptr(), payload->length());
}

void KafkaWindow::Rewind() {
  for (Entry& entry : m_entries) {
    entry.acknowledged = false;
  }
  m_unacknowledged = m_entries.size();
}

}  // namespace OrloAgent
