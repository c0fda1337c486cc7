#include "Agent/EventPoster.h"

#include <ace/Message_Block.h>

#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/MessageBlocks.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

MessageBlockPtr MakeBlock(std::size_t size) {
  ACE_Message_Block* block = nullptr;
  WindowsAgentCommon::CreateDataMessageBlock(size, block);
  return MessageBlockPtr(block);
}

void Count(std::atomic<std::uint64_t>& counter, int change = 1) {
  // One writer: no need to lock the bus for every event.
  counter.store(counter.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

}  // namespace

EventPoster::EventPoster(StreamGate& gate, PostCounts& counts, WindowsAgentCommon::Log log)
    : m_gate(gate), m_counts(counts), m_log(std::move(log)) {}

void EventPoster::Post(const EventHeaderTemplate& header, std::uint8_t flags,
                       std::uint64_t receiveTime, std::string_view message) {
  MessageBlockPtr head = MakeBlock(header.GetSize());
  MessageBlockPtr payload = MakeBlock(message.size());
  if (!head || !payload) {
    Count(m_counts.notMade);
    ReportFailure("there is no memory for them");
    return;
  }
  header.Write(head->wr_ptr(), flags, receiveTime);
  head->wr_ptr(header.GetSize());
  payload->copy(message.data(), message.size());
  head->cont(payload.release());
  // Counted first: who has received an event finds it counted.
  Count(m_counts.posted);
  switch (m_gate.Post(head.release())) {
    case StreamGate::Outcome::Taken:
      break;
    case StreamGate::Outcome::Refused:
      ReportFailure("the stream's first stage refused them");
      break;
    case StreamGate::Outcome::Abandoned:
      Count(m_counts.posted, -1);
      Count(m_counts.notMade);
      ReportFailure("their stream is gone");
      break;
  }
}

void EventPoster::ReportFailure(const char* reason) {
  constexpr std::chrono::seconds kBetweenReports{10};
  ++m_failedSinceReport;
  const auto now = std::chrono::steady_clock::now();
  if (now >= m_nextReport) {
    LogFacade::Error(m_log, "%d events were lost before they were queued: %s.", m_failedSinceReport,
                     reason);
    m_failedSinceReport = 0;
    m_nextReport = now + kBetweenReports;
  }
}

}  // namespace OrloAgent
