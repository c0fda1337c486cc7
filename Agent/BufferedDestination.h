#pragma once

#include <cstdint>
#include <memory>

#include "Agent/BufferedWriter.h"
#include "Agent/Destination.h"

namespace OrloAgent {

// How an event's message stands among others in the output.
enum class OutputFraming {
  // Followed by a line feed, unless the event says that it had no line end.
  Lines,
  // Followed by a line feed, always: the receiver tells messages apart by it.
  Newline,
  // Preceded by its length and a space.
  OctetCounted
};

// The end of a stream: writes the payload of every event, exactly as it was received, to a channel.
class BufferedDestination : public Destination {
 public:
  BufferedDestination(std::unique_ptr<IChannel> channel, OutputFraming framing,
                      const BufferedWriterOptions& options);
  ~BufferedDestination() override;

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;

  // Writes what is left in the buffer, as far as the channel takes it at once.
  void Stop() override;

  // An event that is taken is written or waits in the buffer.
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;

  void Refuse() override { m_writer.Refuse(); }
  std::uint64_t GetUnsentEvents() const override { return m_writer.GetUnsentFrames(); }
  std::uint64_t GetSentEvents() const override { return m_writer.GetSentFrames(); }
  std::vector<EndCounter> GetCounters() const override;

  // Made anew of what stands in the buffer: messages and flags are as they were; receive times and
  // sources are gone.
  std::vector<WindowsAgentCommon::MessageBlockPtr> TakeUnsent() override;

 private:
  const OutputFraming m_framing;
  BufferedWriter m_writer;
};

}  // namespace OrloAgent
