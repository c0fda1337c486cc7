#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "StoreAndForward/Schedule.h"
#include "WindowsAgentCommon/Logging.h"
#include "fuzz/FuzzTarget.h"

// The input is the text of an interval.

namespace {

using Fuzz::Require;
using OrloStoreAndForward::Schedule;

constexpr Schedule::Interval kUntouched{-1, -2, 0xAA};

bool IsBetween(char c, char first, char last) { return c >= first && c <= last; }

// HHMM as a number.
std::optional<std::int32_t> RecogniseTime(std::string_view text) {
  const bool isHour = (IsBetween(text[0], '0', '1') && IsBetween(text[1], '0', '9')) ||
                      (text[0] == '2' && IsBetween(text[1], '0', '3'));
  if (!isHour || !IsBetween(text[2], '0', '5') || !IsBetween(text[3], '0', '9')) {
    return std::nullopt;
  }
  std::int32_t value = 0;
  for (const char digit : text) {
    value = value * 10 + (digit - '0');
  }
  return value;
}

std::optional<std::uint8_t> RecogniseDays(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  const std::size_t low = kDigits.find(text[1]);
  if (!IsBetween(text[0], '0', '7') || low == kDigits.npos) {
    return std::nullopt;
  }
  return static_cast<std::uint8_t>((text[0] - '0') * 16 + static_cast<int>(low));
}

// HHMM-HHMM;DD;Zone, without a line end in the zone, which is not empty.
std::optional<Schedule::Interval> Recognise(std::string_view text) {
  if (text.size() < 14 || text[4] != '-' || text[9] != ';' || text[12] != ';') {
    return std::nullopt;
  }
  const auto start = RecogniseTime(text.substr(0, 4));
  const auto end = RecogniseTime(text.substr(5, 4));
  const auto days = RecogniseDays(text.substr(10, 2));
  for (const char c : text.substr(13)) {
    if (c == '\n' || c == '\r') {
      return std::nullopt;
    }
  }
  if (!start || !end || !days) {
    return std::nullopt;
  }
  return Schedule::Interval{*start, *end, *days};
}

bool AreEqual(const Schedule::Interval& left, const Schedule::Interval& right) {
  return left.lStart == right.lStart && left.lEnd == right.lEnd && left.nDays == right.nDays;
}

// Which zones there are is not the syntax's affair; that the zone decides, is.
void ParseWithZone(const std::string& text, const std::optional<Schedule::Interval>& expected) {
  TIME_ZONE_INFORMATION zone;
  std::memset(&zone, 0x5A, sizeof(zone));
  const TIME_ZONE_INFORMATION untouched = zone;
  TIME_ZONE_INFORMATION resolved{};
  const bool isZone = expected && Schedule::ResolveTimeZone(text.substr(13), resolved);

  Schedule::Interval interval = kUntouched;
  Require(Schedule::ParseInterval(text, interval, &zone) == isZone,
          "with a zone, an interval is accepted if its zone can be resolved");
  Require(AreEqual(interval, expected.value_or(kUntouched)),
          "a well-formed interval is filled in whether or not its zone can be resolved");
  Require(std::memcmp(&zone, isZone ? &resolved : &untouched, sizeof(zone)) == 0,
          "the zone is the resolved one, or untouched");
}

// Logging would be most of the work.
bool TurnLoggingOff() {
  WindowsAgentCommon::LoggingOptions options;
  options.level = WindowsAgentCommon::LogLevel::Off;
  options.standardError = false;
  WindowsAgentCommon::LoggerFactory::Configure(options);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool bQuiet = TurnLoggingOff();
  Require(bQuiet, "logging is off");
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::optional<Schedule::Interval> expected = Recognise(text);

  Schedule::Interval interval = kUntouched;
  Require(Schedule::ParseInterval(text, interval) == expected.has_value(),
          "exactly the well-formed intervals are accepted");
  Require(AreEqual(interval, expected.value_or(kUntouched)),
          "an accepted interval has its values, a refused one is untouched");

  // A zone that exists is read from its file, which is slow: one length in eight.
  if (size % 8 == 0) {
    ParseWithZone(text, expected);
  }
  return 0;
}
