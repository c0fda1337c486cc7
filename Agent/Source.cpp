#include "Agent/Source.h"

#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

void Source::Start(OrloStream::Stream& stream) {
  m_gate.Open(stream);
  if (m_begun) {
    return;
  }
  Begin(WindowsAgentCommon::ToUtf8(stream.GetName()));
  m_begun = true;
}

void Source::Stop() {
  if (m_gate.IsClosed()) {
    m_gate.Abandon();
  }
  End();
  m_begun = false;
}

void Source::Pause() { m_gate.Close(); }

}  // namespace OrloAgent
