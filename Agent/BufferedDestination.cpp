#include "Agent/BufferedDestination.h"

#include <ace/Message_Block.h>

#include <charconv>
#include <system_error>
#include <vector>

#include "Agent/EventHeader.h"
#include "OrloStream/Status.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

using WindowsAgentCommon::MessageBlockPtr;

namespace {

std::string_view GetBytes(const ACE_Message_Block& block) {
  return {block.rd_ptr(), block.length()};
}

// None if the head is not one of the agent's.
std::uint8_t GetFlags(const ACE_Message_Block& head) {
  const auto header = ParseEventHeader(GetBytes(head));
  return header ? header->flags : std::uint8_t{0};
}

// "LENGTH " in the caller's memory.
std::string_view FormatLength(std::size_t length, std::array<char, 24>& memory) {
  char* const end = std::to_chars(memory.data(), memory.data() + memory.size() - 1, length).ptr;
  *end = ' ';
  return {memory.data(), static_cast<std::size_t>(end + 1 - memory.data())};
}

}  // namespace

BufferedDestination::BufferedDestination(std::unique_ptr<IChannel> channel, OutputFraming framing,
                                         const BufferedWriterOptions& options)
    : m_framing(framing), m_writer(std::move(channel), options) {}

BufferedDestination::~BufferedDestination() { m_writer.Stop(); }

void BufferedDestination::Initialize(const WindowsAgentCommon::EnvironmentBlock&) {
  try {
    m_writer.Start();
  } catch (const std::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "Destination", "OrloAgent::BufferedDestination::Initialize", __LINE__,
        std::string("The destination can't start its thread (") + error.what() + ")");
  }
}

void BufferedDestination::Stop() { m_writer.Stop(); }

std::vector<EndCounter> BufferedDestination::GetCounters() const {
  return Join(Destination::GetCounters(), m_writer.GetCounters());
}

int BufferedDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  const MessageBlockPtr event(block);
  const ACE_Message_Block* const payload = event->cont();
  const std::uint8_t flags = GetFlags(*event);
  const std::string_view lineEnd =
      m_framing == OutputFraming::OctetCounted ||
              (m_framing == OutputFraming::Lines && (flags & EventFlags::kNoLineEnd) != 0)
          ? std::string_view()
          : std::string_view("\n");
  std::array<char, 24> memory;
  const std::string_view length =
      m_framing == OutputFraming::OctetCounted
          ? FormatLength(payload == nullptr ? 0 : payload->total_length(), memory)
          : std::string_view();
  const FrameNotes notes{static_cast<std::uint8_t>(length.size()),
                         static_cast<std::uint8_t>(lineEnd.size()), flags};
  bool taken = false;
  if (payload == nullptr || payload->cont() == nullptr) {
    const std::string_view message = payload == nullptr ? std::string_view() : GetBytes(*payload);
    const std::array<std::string_view, 3> parts{length, message, lineEnd};
    taken = m_writer.Append(parts.data(), parts.size(), notes);
  } else {
    // Some stage has split the payload.
    std::vector<std::string_view> parts{length};
    for (const ACE_Message_Block* part = payload; part != nullptr; part = part->cont()) {
      parts.push_back(GetBytes(*part));
    }
    parts.push_back(lineEnd);
    taken = m_writer.Append(parts.data(), parts.size(), notes);
  }
  return taken ? 0 : OrloStream::Status(OrloStream::Status::kBackpressure).ToInt();
}

std::vector<MessageBlockPtr> BufferedDestination::TakeUnsent() {
  const EventHeaderTemplate header(EventOrigin::Text, std::string_view());
  std::vector<MessageBlockPtr> events;
  for (const UnsentMessage& message : m_writer.TakeUnsentMessages()) {
    if (MessageBlockPtr event = MakeEvent(header, message.flags, 0, message.bytes)) {
      events.push_back(std::move(event));
    }
  }
  return events;
}

}  // namespace OrloAgent
