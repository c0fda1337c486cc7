#include "Agent/BufferedDestination.h"

#include <ace/Message_Block.h>

#include <charconv>
#include <system_error>
#include <vector>

#include "Agent/EventHeader.h"
#include "OrloStream/Status.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/MessageBlocks.h"

namespace OrloAgent {

using WindowsAgentCommon::MessageBlockPtr;

namespace {

std::string_view GetBytes(const ACE_Message_Block& block) {
  return {block.rd_ptr(), block.length()};
}

bool HasNoLineEnd(const ACE_Message_Block& head) {
  const auto header = ParseEventHeader(GetBytes(head));
  return header && (header->flags & EventFlags::kNoLineEnd) != 0;
}

// "LENGTH " in the caller's memory.
std::string_view FormatLength(std::size_t length, std::array<char, 24>& memory) {
  char* const end = std::to_chars(memory.data(), memory.data() + memory.size() - 1, length).ptr;
  *end = ' ';
  return {memory.data(), static_cast<std::size_t>(end + 1 - memory.data())};
}

// The message of a frame, and whether it had a line end.
std::string_view Unframe(std::string_view frame, OutputFraming framing, std::uint8_t& flags) {
  flags = 0;
  if (framing == OutputFraming::OctetCounted) {
    return frame.substr(frame.find(' ') + 1);
  }
  if (!frame.empty() && frame.back() == '\n') {
    return frame.substr(0, frame.size() - 1);
  }
  flags = EventFlags::kNoLineEnd;
  return frame;
}

MessageBlockPtr MakeBlock(std::size_t size) {
  ACE_Message_Block* block = nullptr;
  WindowsAgentCommon::CreateDataMessageBlock(size, block);
  return MessageBlockPtr(block);
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
  std::vector<EndCounter> counters = Destination::GetCounters();
  for (const EndCounter& counter : m_writer.GetCounters()) {
    counters.push_back(counter);
  }
  return counters;
}

int BufferedDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  const WindowsAgentCommon::MessageBlockPtr event(block);
  const ACE_Message_Block* const payload = event->cont();
  const std::string_view lineEnd =
      m_framing == OutputFraming::OctetCounted ||
              (m_framing == OutputFraming::Lines && HasNoLineEnd(*event))
          ? std::string_view()
          : std::string_view("\n");
  std::array<char, 24> memory;
  bool taken = false;
  if (payload == nullptr || payload->cont() == nullptr) {
    const std::string_view message = payload == nullptr ? std::string_view() : GetBytes(*payload);
    const std::string_view length = m_framing == OutputFraming::OctetCounted
                                        ? FormatLength(message.size(), memory)
                                        : std::string_view();
    const std::array<std::string_view, 3> parts{length, message, lineEnd};
    taken = m_writer.Append(parts.data(), parts.size());
  } else {
    // Some stage has split the payload.
    std::vector<std::string_view> parts{std::string_view()};
    for (const ACE_Message_Block* part = payload; part != nullptr; part = part->cont()) {
      parts.push_back(GetBytes(*part));
    }
    if (m_framing == OutputFraming::OctetCounted) {
      parts.front() = FormatLength(payload->total_length(), memory);
    }
    parts.push_back(lineEnd);
    taken = m_writer.Append(parts.data(), parts.size());
  }
  return taken ? 0 : OrloStream::Status(OrloStream::Status::kBackpressure).ToInt();
}

std::vector<MessageBlockPtr> BufferedDestination::TakeUnsent() {
  const EventHeaderTemplate header(EventOrigin::Text, std::string_view());
  std::vector<MessageBlockPtr> events;
  for (const std::string& frame : m_writer.TakeUnsentFrames()) {
    std::uint8_t flags = 0;
    const std::string_view message = Unframe(frame, m_framing, flags);
    MessageBlockPtr head = MakeBlock(header.GetSize());
    MessageBlockPtr payload = MakeBlock(message.size());
    if (!head || !payload) {
      continue;
    }
    header.Write(head->wr_ptr(), flags, 0);
    head->wr_ptr(header.GetSize());
    payload->copy(message.data(), message.size());
    head->cont(payload.release());
    events.push_back(std::move(head));
  }
  return events;
}

}  // namespace OrloAgent
