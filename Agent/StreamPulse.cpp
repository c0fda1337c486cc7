#include "Agent/StreamPulse.h"

#include <tuple>

namespace OrloAgent {

namespace {

// What changes with every chunk that the stage decides about. Not a sum that ought to come out
// even: a crash or a clock that is set back can shift the number of cached events for good.
auto GetDecisions(const StreamReport& report) {
  return std::make_tuple(report.accepted, report.cached, report.cachedChunks, report.lost);
}

}  // namespace

StreamPulse::State StreamPulse::Look(const StreamReport& report, Clock::time_point now) {
  if (m_isFirst) {
    m_isFirst = false;
    m_decided = m_sent = report;
    m_decidedAt = m_sentAt = now;
  }
  const bool isDeciding = IsDeciding(report, now);
  const bool isSending = IsSending(report, now);
  if (!isDeciding) {
    return State::NothingDecided;
  }
  return isSending ? State::Well : State::NothingSent;
}

bool StreamPulse::IsDeciding(const StreamReport& report, Clock::time_point now) {
  const bool isIdle = report.posted == m_decided.posted;
  if (isIdle || GetDecisions(report) != GetDecisions(m_decided)) {
    m_decided = report;
    m_decidedAt = now;
    return true;
  }
  return now - m_decidedAt <= m_limits.decide;
}

bool StreamPulse::IsSending(const StreamReport& report, Clock::time_point now) {
  const bool isIdle = report.accepted == report.sent;
  // While events of an earlier stream go first, only what is delivered grows.
  if (isIdle || report.sent != m_sent.sent || report.delivered != m_sent.delivered ||
      report.refusals != m_sent.refusals) {
    m_sent = report;
    m_sentAt = now;
    return true;
  }
  return now - m_sentAt <= m_limits.send;
}

}  // namespace OrloAgent
