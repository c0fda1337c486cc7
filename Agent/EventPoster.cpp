#include "Agent/EventPoster.h"

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

constexpr std::chrono::seconds kBetweenReports{10};

void Count(std::atomic<std::uint64_t>& counter) {
  // One writer: no need to lock the bus for every event.
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

EventPoster::EventPoster(StreamGate& gate, PostCounts& counts, WindowsAgentCommon::Log log,
                         Untaken untaken)
    : m_gate(gate), m_counts(counts), m_log(std::move(log)), m_untaken(untaken) {}

bool EventPoster::Post(const EventHeaderTemplate& header, std::uint8_t flags,
                       std::uint64_t receiveTime, std::string_view message) {
  MessageBlockPtr event = MakeEvent(header, flags, receiveTime, message);
  if (m_lost > 0 && std::chrono::steady_clock::now() >= m_nextReport) {
    ReportLost();
  }
  if (!event) {
    if (m_untaken == Untaken::Lost) {
      Count(m_counts.notMade);
    }
    OnFailure("there is no memory for them");
    return false;
  }
  // Counted when it is known what became of it: a count that has been shown is not taken back.
  switch (m_gate.Post(event.release())) {
    case StreamGate::Outcome::Taken:
      Count(m_counts.posted);
      return true;
    case StreamGate::Outcome::Refused:
      if (m_untaken == Untaken::Lost) {
        Count(m_counts.posted);
      }
      OnFailure("the stream's first stage refused them");
      break;
    case StreamGate::Outcome::Abandoned:
      if (m_untaken == Untaken::Lost) {
        Count(m_counts.notMade);
        OnFailure("their stream is gone");
      }
      break;
  }
  return false;
}

void EventPoster::OnFailure(const char* reason) {
  const bool isTime = std::chrono::steady_clock::now() >= m_nextReport;
  if (m_untaken == Untaken::Lost) {
    ++m_lost;
    m_reason = reason;
    if (isTime) {
      ReportLost();
    }
  } else if (isTime) {
    LogFacade::Warn(m_log, "Events are not queued (%s); they are offered again.", reason);
    m_nextReport = std::chrono::steady_clock::now() + kBetweenReports;
  }
}

void EventPoster::ReportLost() {
  LogFacade::Error(m_log, "%d events were lost before they were queued: %s.", m_lost, m_reason);
  m_lost = 0;
  m_nextReport = std::chrono::steady_clock::now() + kBetweenReports;
}

void EventPoster::Finish() {
  if (m_lost > 0) {
    ReportLost();
  }
}

}  // namespace OrloAgent
