#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Agent/BufferedWriter.h"
#include "Agent/Options.h"
#include "WindowsAgentCommon/OrloTask.h"

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
// put is called by the stage's sending thread; everything else by the control thread, but for
// GetUnsentEvents, which any thread may call.
class Destination : public WindowsAgentCommon::OrloTask {
 public:
  Destination(std::unique_ptr<IChannel> channel, OutputFraming framing,
              const BufferedWriterOptions& options);
  ~Destination() override;

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;

  // Writes what is left in the buffer, as far as the channel takes it at once.
  void Stop() override;

  // Takes over the block in any case. 0: the event is written or waits in the buffer. 0x40000000:
  // it can't be taken now and is forgotten; it must be offered again before any other.
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;

  // From now on no event is taken, so that a sender that works on a large backlog comes to an end.
  void Refuse() { m_writer.Refuse(); }

  // Events that were taken and have not left yet.
  std::uint64_t GetUnsentEvents() const { return m_writer.GetUnsentFrames(); }

 private:
  const OutputFraming m_framing;
  BufferedWriter m_writer;
};

// The destination that the options describe; `streamName` is for its messages.
std::unique_ptr<Destination> MakeDestination(const DestinationOptions& options,
                                             const std::string& streamName);

}  // namespace OrloAgent
