#include "Agent/Source.h"

#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

void Source::Prepare(const std::string& streamName) {
  if (m_begun) {
    return;
  }
  Begin(streamName);
  m_begun = true;
}

void Source::Start(OrloStream::Stream& stream) {
  m_gate.Open(stream);
  Prepare(WindowsAgentCommon::ToUtf8(stream.GetName()));
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
