#include "StoreAndForward/Schedule.h"

#include <regex>

#include "WindowsAgentCommon/Logging.h"

namespace OrloStoreAndForward {

using WindowsAgentCommon::Log;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::LoggerFactory;

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;  // of a FILETIME
constexpr std::uint64_t kEvaluationPeriodSeconds = 20;

// "HHMM-HHMM;DD;"
constexpr std::size_t kPrefixLength = 13;

std::uint64_t ToTicks(const SYSTEMTIME& time) {
  FILETIME fileTime{};
  SystemTimeToFileTime(&time, &fileTime);
  return static_cast<std::uint64_t>(fileTime.dwHighDateTime) << 32 | fileTime.dwLowDateTime;
}

}  // namespace

bool Schedule::ParseInterval(const std::string& text, Interval& interval,
                             TIME_ZONE_INFORMATION* tzInfo) {
  const Log log = LoggerFactory::GetLog("Code.StoreAndForwardOutgoing.Schedule");

  // The form is
  // ^((?:[01][0-9]|2[0-3])[0-5][0-9])-((?:[01][0-9]|2[0-3])[0-5][0-9]);([0-7][0-9A-F]);(.+)$ The
  // zone, (.+), is matched by hand: regular expression engines recurse once per character, and the
  // length of a setting has no limit.
  static const std::regex prefix(
      "((?:[01][0-9]|2[0-3])[0-5][0-9])-((?:[01][0-9]|2[0-3])[0-5][0-9]);([0-7][0-9A-F]);");
  if (text.size() <= kPrefixLength) {
    return false;
  }
  std::smatch groups;
  const std::string start = text.substr(0, kPrefixLength);
  const std::string zoneName = text.substr(kPrefixLength);
  if (!std::regex_match(start, groups, prefix) ||
      zoneName.find_first_of("\r\n") != std::string::npos) {
    return false;
  }
  interval.lStart = std::stoi(groups[1].str());
  interval.lEnd = std::stoi(groups[2].str());
  interval.nDays = static_cast<std::uint8_t>(std::stoi(groups[3].str(), nullptr, 16));

  if (tzInfo != nullptr && !ResolveTimeZone(zoneName, *tzInfo)) {
    LogFacade::Error(log, "Failed to retrieve time zone information for %s.", zoneName);
    return false;
  }
  return true;
}

Schedule::Schedule(std::vector<Interval> intervals, const TIME_ZONE_INFORMATION& tzInfo,
                   bool invert)
    : bInvert(invert), m_tzInfo(tzInfo) {
  for (const Interval& interval : intervals) {
    for (std::uint8_t day = 0; day < 7; ++day) {
      if ((interval.nDays >> day & 1) != 0) {
        m_intervalsByDay.emplace(day, std::pair(static_cast<std::uint32_t>(interval.lStart) * 100,
                                                static_cast<std::uint32_t>(interval.lEnd) * 100));
      }
    }
  }
}

bool Schedule::IsSendingAllowed(const SYSTEMTIME& utcNow) {
  const std::uint64_t now = ToTicks(utcNow);
  // Unsigned: a clock that was stepped back gives a huge difference and is evaluated at once.
  const double elapsed =
      static_cast<double>(now - m_lastEvaluation) / static_cast<double>(kTicksPerSecond);
  if (static_cast<std::uint64_t>(elapsed) >= kEvaluationPeriodSeconds) {
    m_lastEvaluation = now;
    SYSTEMTIME local{};
    if (SystemTimeToTzSpecificLocalTime(&m_tzInfo, &utcNow, &local) == FALSE) {
      return !bInvert;
    }
    if (m_intervalsByDay.contains(static_cast<std::uint8_t>(local.wDayOfWeek))) {
      m_bLastResult = Evaluate(local);
    }
  }
  return m_bLastResult != bInvert;
}

bool Schedule::IsSendingAllowed() {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  return IsSendingAllowed(now);
}

bool Schedule::Evaluate(const SYSTEMTIME& local) const {
  const std::uint32_t time =
      (std::uint32_t{local.wHour} * 100 + local.wMinute) * 100 + local.wSecond;
  const auto today = m_intervalsByDay.equal_range(static_cast<std::uint8_t>(local.wDayOfWeek));
  for (auto entry = today.first; entry != today.second; ++entry) {
    const auto& [start, end] = entry->second;
    if (start <= time && end >= time) {
      return true;
    }
  }
  return false;
}

}  // namespace OrloStoreAndForward
