#include "Agent/Departure.h"

#include <algorithm>

namespace OrloAgent {

namespace {

using std::chrono::milliseconds;

// How much later than its period a chunk may come.
constexpr milliseconds kTolerance{1'000};

// A sender that was refused comes back after a second and then half a minute.
constexpr milliseconds kSenderReturns{31'000};

// For a machine that is busy.
constexpr milliseconds kMargin{20'000};

}  // namespace

Departure::Departure(const Limits& limits, Clock::time_point now)
    : m_limits(limits),
      m_deliverUntil(now + limits.deliver),
      m_decideUntil(
          now + std::max(limits.deliver, limits.chunkPeriod + limits.processingPeriod + kMargin)),
      m_sendUntil(std::max(m_decideUntil, now + kSenderReturns + 2 * limits.patience + kMargin)),
      m_rest(limits.processingPeriod, false),
      m_movedAt(now),
      m_keptSince(now) {}

Departure::Step Departure::Look(const StreamReport& report, bool isHeld, Clock::time_point now) {
  // Twice in a row: a chunk on its way from the disk makes the sum too small for a moment.
  const bool isDecided = report.undecided == 0 && !m_first && m_last.undecided == 0;
  if (m_first || report.delivered != m_last.delivered) {
    m_movedAt = now;
  }
  m_first = false;
  m_last = report;
  if (!m_keeping) {
    const bool hasHandedOver = isHeld || report.accepted == report.sent;
    const bool isAway = isDecided && hasHandedOver && now - m_movedAt >= m_limits.away;
    if (!m_rest.IsAtRest(report) && !isAway && now < m_deliverUntil) {
      return Step::Deliver;
    }
    m_keeping = true;
    m_keptSince = now;
    return Step::Keep;
  }
  // The sum need not come out even, ever: a crash or a clock that is set back can shift the number
  // of cached events for good. The sender is waited for all the same.
  m_late = !isDecided && now >= m_decideUntil;
  if (!isDecided && !m_late) {
    return Step::Keep;
  }
  return MayLeave(report, isHeld, now) ? Step::Leave : Step::Keep;
}

bool Departure::MayLeave(const StreamReport& report, bool isHeld, Clock::time_point now) {
  if (isHeld) {
    return true;
  }
  if (report.accepted != report.sent) {
    const bool isOver = now >= m_sendUntil;
    m_late = m_late || isOver;
    return isOver;
  }
  // A chunk that comes back from the disk now would make the sender wait, and would be seen.
  const milliseconds quiet =
      report.cached == 0 ? milliseconds(0) : m_limits.processingPeriod + kTolerance;
  return now - m_keptSince >= quiet;
}

}  // namespace OrloAgent
