#include "Agent/EventWindow.h"

#include "WindowsAgentCommon/MessageBlocks.h"

namespace OrloAgent {

using WindowsAgentCommon::MessageBlockPtr;

bool JoinPayload(ACE_Message_Block& event) {
  ACE_Message_Block* const payload = event.cont();
  if (payload == nullptr || payload->cont() == nullptr) {
    return true;
  }
  ACE_Message_Block* joined = nullptr;
  WindowsAgentCommon::CreateDataMessageBlock(payload->total_length(), joined);
  if (joined == nullptr) {
    return false;
  }
  for (const ACE_Message_Block* part = payload; part != nullptr; part = part->cont()) {
    joined->copy(part->rd_ptr(), part->length());
  }
  event.cont(joined);
  payload->release();
  return true;
}

std::uint64_t EventWindow::Add(MessageBlockPtr event) {
  m_entries.push_back({std::move(event)});
  ++m_unacknowledged;
  return m_first + m_entries.size() - 1;
}

MessageBlockPtr EventWindow::TakeBackLast() {
  MessageBlockPtr event = std::move(m_entries.back().event);
  m_unacknowledged -= m_entries.back().state == State::Unacknowledged ? 1 : 0;
  m_entries.pop_back();
  return event;
}

void EventWindow::Acknowledge(std::uint64_t number) { Settle(number, State::Acknowledged); }

bool EventWindow::GiveUp(std::uint64_t number) { return Settle(number, State::GivenUp); }

bool EventWindow::Settle(std::uint64_t number, State state) {
  if (number < m_first || number - m_first >= m_entries.size() || !IsUnacknowledged(number)) {
    return false;  // of an event that was sent twice
  }
  m_entries[static_cast<std::size_t>(number - m_first)].state = state;
  --m_unacknowledged;
  while (!m_entries.empty() && m_entries.front().state != State::Unacknowledged) {
    m_taken += m_entries.front().state == State::Acknowledged ? 1 : 0;
    m_entries.pop_front();
    ++m_first;
  }
  return true;
}

std::string_view EventWindow::GetMessage(std::uint64_t number) const {
  const ACE_Message_Block* const payload =
      m_entries[static_cast<std::size_t>(number - m_first)].event->cont();
  return payload == nullptr ? std::string_view()
                            : std::string_view(payload->rd_ptr(), payload->length());
}

std::vector<MessageBlockPtr> EventWindow::TakeUnacknowledged() {
  std::vector<MessageBlockPtr> events;
  for (Entry& entry : m_entries) {
    if (entry.state == State::Unacknowledged) {
      events.push_back(std::move(entry.event));
    }
    m_taken += entry.state == State::Acknowledged ? 1 : 0;
  }
  m_first += m_entries.size();
  m_entries.clear();
  m_unacknowledged = 0;
  return events;
}

void EventWindow::Rewind() {
  for (Entry& entry : m_entries) {
    if (entry.state == State::Acknowledged) {
      entry.state = State::Unacknowledged;
      ++m_unacknowledged;
    }
  }
}

}  // namespace OrloAgent
