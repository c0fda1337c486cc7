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

void Count(std::atomic<std::uint64_t>& counter) {
  // One writer: no need to lock the bus for every event.
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

EventPoster::EventPoster(OrloStream::Stream& stream, WindowsAgentCommon::Log log)
    : m_stream(stream), m_log(std::move(log)) {}

void EventPoster::Post(const EventHeaderTemplate& header, std::uint8_t flags,
                       std::uint64_t receiveTime, std::string_view message) {
  MessageBlockPtr head = MakeBlock(header.GetSize());
  MessageBlockPtr payload = MakeBlock(message.size());
  if (!head || !payload) {
    Count(m_notMade);
    ReportFailure("there is no memory for them");
    return;
  }
  header.Write(head->wr_ptr(), flags, receiveTime);
  head->wr_ptr(header.GetSize());
  payload->copy(message.data(), message.size());
  head->cont(payload.release());
  Count(m_posted);
  if (m_stream.Post(head.release()).GetWord() != 0) {
    ReportFailure("the stream's first stage refused them");
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
