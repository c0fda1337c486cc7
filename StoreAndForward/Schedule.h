#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Windows.h"

namespace OrloStoreAndForward {

// A weekly send schedule: answers whether events may be sent now. Made from intervals of local time
// in one zone; inverted, they are the times at which nothing is sent.
//
// The clock is evaluated at most once in 20 seconds; answers in between come from the last
// evaluation, so a boundary takes effect up to 20 seconds late. No lock: the Outgoing processor
// calls it under its own.
class Schedule {
 public:
  struct Interval {
    std::int32_t lStart;  // HHMM as a decimal number, 0 to 2359
    std::int32_t lEnd;    // the same; inclusive, to its first second
    std::uint8_t nDays;   // bit 0 Sunday ... bit 6 Saturday
  };

  // Reads one interval string, HHMM-HHMM;DD;Zone: start and end of day, two upper-case hexadecimal
  // digits of weekdays (00 to 7F), an IANA zone name taken verbatim. A start later than the end and
  // an empty mask are accepted; the first never matches, the second adds nothing.
  //
  // False if the text has another form: nothing is touched or logged. With `tzInfo`, the zone is
  // resolved into it; a zone that can't be resolved gives false and an Error line, with `interval`
  // filled. Without it, the zone must only not be empty.
  static bool ParseInterval(const std::string& text, Interval& interval,
                            TIME_ZONE_INFORMATION* tzInfo = nullptr);

  // Fills `tzInfo` with the rules of an IANA zone: its name, compared exactly, is looked up in a
  // fixed table of Windows zones, whose record comes from the registry. False, with `tzInfo` as it
  // was, if the name is not in the table or the record can't be read.
  static bool ResolveTimeZone(const std::string& zoneName, TIME_ZONE_INFORMATION& tzInfo);

  Schedule(std::vector<Interval> intervals, const TIME_ZONE_INFORMATION& tzInfo, bool invert);

  // Whether sending is allowed at that time (UTC). On a local weekday without any interval the last
  // answer of a day that had one goes on. If the time can't be converted, sending is allowed
  // (inverted: refused).
  bool IsSendingAllowed(const SYSTEMTIME& utcNow);

  // The same for the current time.
  bool IsSendingAllowed();

 private:
  bool Evaluate(const SYSTEMTIME& local) const;

  // Weekday to (start, end) as HHMMSS, in the order of the intervals.
  std::multimap<std::uint8_t, std::pair<std::uint32_t, std::uint32_t>> m_intervalsByDay;
  bool bInvert;
  TIME_ZONE_INFORMATION m_tzInfo;
  std::uint64_t m_lastEvaluation = 0;  // as a FILETIME value
  bool m_bLastResult = false;          // before negation
};

}  // namespace OrloStoreAndForward
