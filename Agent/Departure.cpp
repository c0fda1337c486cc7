#include "Agent/Departure.h"

#include <algorithm>

namespace OrloAgent {

namespace {

using std::chrono::milliseconds;

// How much later than its period a chunk may come.
constexpr milliseconds kTolerance{1'000};

// A sender that was refused comes back after a second and then half a minute.
constexpr milliseconds kSenderReturns{31'000};

// How long a chunk may take from the disk to the sender.
constexpr milliseconds kSlowRead{10'000};

// For a machine that is busy.
constexpr milliseconds kMargin{20'000};

}  // namespace

Departure::Departure(const Limits& limits, Clock::time_point now)
    : m_limits(limits),
      m_deliverUntil(now + limits.deliver),
      m_decided(now + limits.chunkPeriod + limits.processingPeriod),
      m_rest(limits.processingPeriod, false),
      m_movedAt(now) {}

Departure::Step Departure::Look(const StreamReport& report, bool isHeld, bool maySend,
                                Clock::time_point now) {
  // Twice in a row: a chunk on its way from the disk makes the sum too small for a moment.
  const bool isDecided = report.undecided == 0 && !m_first && m_last.undecided == 0;
  if (m_first || report.delivered != m_last.delivered) {
    m_movedAt = now;
  }
  m_first = false;
  m_last = report;
  if (!m_keptSince) {
    const bool hasHandedOver = isHeld || report.accepted == report.sent;
    const bool isAway = isDecided && hasHandedOver && now - m_movedAt >= m_limits.away;
    if (!m_rest.IsAtRest(report) && !isAway && now < m_deliverUntil) {
      return Step::Deliver;
    }
    Keep(now);
    return Step::Keep;
  }
  // The sum need not come out even, ever: a crash or a clock that is set back can shift the number
  // of cached events for good. The sender is waited for all the same.
  m_late = !isDecided && now >= m_decideUntil;
  if (!isDecided && !m_late) {
    return Step::Keep;
  }
  return MayLeave(report, isHeld, maySend, now) ? Step::Leave : Step::Keep;
}

// Both waits begin here, however long events were delivered before: a sender that has just been
// sent away takes its half minute from now.
void Departure::Keep(Clock::time_point now) {
  m_keptSince = now;
  m_couldSendAt = now;
  m_decideUntil = std::max(m_decided, now) + kMargin;
  m_sendUntil = std::max(m_decideUntil, now + kSenderReturns + 2 * m_limits.patience + kMargin);
}

bool Departure::MayLeave(const StreamReport& report, bool isHeld, bool maySend,
                         Clock::time_point now) {
  if (isHeld) {
    return true;
  }
  if (report.accepted != report.sent) {
    const bool isOver = now >= m_sendUntil;
    m_late = m_late || isOver;
    return isOver;
  }
  if (report.cached == 0) {
    return true;
  }
  // The sender has nothing, so a stage that may send brings back a chunk, for which the sender then
  // waits. While the chunk is being read nothing shows that, and a stage that is stopped then can
  // lose it. No chunk comes where the schedule forbids it, and none from a cache that is stuck.
  if (maySend) {
    m_couldSendAt = now;
  }
  const auto quiet = m_limits.processingPeriod + kTolerance;
  return now - m_couldSendAt >= quiet || now - *m_keptSince >= quiet + kSlowRead;
}

}  // namespace OrloAgent
