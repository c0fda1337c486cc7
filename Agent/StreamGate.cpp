#include "Agent/StreamGate.h"

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

StreamGate::Outcome StreamGate::Post(ACE_Message_Block* block) {
  WindowsAgentCommon::MessageBlockPtr event(block);
  std::unique_lock lock(m_lock);
  if (m_closed) {
    m_awaited = true;
    m_changed.wait(lock, [this] { return !m_closed || m_abandoned; });
    m_awaited = false;
  }
  if (m_abandoned) {
    return Outcome::Abandoned;
  }
  return m_stream->Post(event.release()).GetWord() == 0 ? Outcome::Taken : Outcome::Refused;
}

void StreamGate::Open(OrloStream::Stream& stream) {
  {
    const std::lock_guard lock(m_lock);
    m_stream = &stream;
    m_closed = false;
    m_abandoned = false;
  }
  m_changed.notify_all();
}

void StreamGate::Close() {
  m_closed = true;
  const std::lock_guard lock(m_lock);
  m_stream = nullptr;
}

void StreamGate::Abandon() {
  {
    const std::lock_guard lock(m_lock);
    m_abandoned = true;
  }
  m_changed.notify_all();
}

}  // namespace OrloAgent
