#include "Platform/posix/PosixRules.h"

#include <cstddef>

namespace Platform {

namespace {

constexpr int kMaximumOffsetHours = 24;
constexpr int kMaximumRuleHours = 167;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Takes the text apart from left to right. Every function says whether it found what it expects;
// after a failure the reader is of no further use.
class Reader {
 public:
  explicit Reader(std::string_view text) : m_rest(text) {}

  bool AtEnd() const { return m_rest.empty(); }

  bool NextIs(char expected) const { return !m_rest.empty() && m_rest.front() == expected; }

  bool Skip(char expected) {
    if (!NextIs(expected)) {
      return false;
    }
    m_rest.remove_prefix(1);
    return true;
  }

  bool SkipName() {
    constexpr std::size_t kMinimumLength = 3;
    const bool bQuoted = Skip('<');
    std::size_t length = 0;
    while (length < m_rest.size() && IsNameCharacter(m_rest[length], bQuoted)) {
      ++length;
    }
    m_rest.remove_prefix(length);
    return length >= kMinimumLength && (!bQuoted || Skip('>'));
  }

  bool ReadNumber(int minimum, int maximum, int& value) {
    constexpr std::size_t kMaximumDigits = 3;
    std::size_t digits = 0;
    value = 0;
    while (digits < m_rest.size() && IsDigit(m_rest[digits])) {
      if (digits == kMaximumDigits) {
        return false;
      }
      value = value * 10 + (m_rest[digits] - '0');
      ++digits;
    }
    m_rest.remove_prefix(digits);
    return digits > 0 && value >= minimum && value <= maximum;
  }

  bool ReadNumber(int minimum, int maximum, unsigned& value) {
    int number = 0;
    const bool bRead = ReadNumber(minimum, maximum, number);
    value = static_cast<unsigned>(number);
    return bRead;
  }

  // [+-]hh[:mm[:ss]]
  bool ReadTime(int maximumHours, int& seconds) {
    const bool bNegative = NextIs('-');
    if (bNegative || NextIs('+')) {
      m_rest.remove_prefix(1);
    }
    int hours = 0;
    int minutes = 0;
    int rest = 0;
    if (!ReadNumber(0, maximumHours, hours)) {
      return false;
    }
    if (Skip(':')) {
      if (!ReadNumber(0, 59, minutes) || (Skip(':') && !ReadNumber(0, 59, rest))) {
        return false;
      }
    }
    seconds = (hours * 60 + minutes) * 60 + rest;
    if (bNegative) {
      seconds = -seconds;
    }
    return true;
  }

  bool ReadDate(PosixDate& date) {
    constexpr int kDefaultSeconds = 2 * 3600;
    date.seconds = kDefaultSeconds;
    return ReadDay(date) && (!Skip('/') || ReadTime(kMaximumRuleHours, date.seconds));
  }

 private:
  static bool IsNameCharacter(char c, bool bQuoted) {
    return IsLetter(c) || (bQuoted && (IsDigit(c) || c == '+' || c == '-'));
  }

  bool ReadDay(PosixDate& date) {
    if (Skip('M')) {
      date.form = DateForm::WeekOfMonth;
      return ReadNumber(1, 12, date.month) && Skip('.') && ReadNumber(1, 5, date.week) &&
             Skip('.') && ReadNumber(0, 6, date.weekday);
    }
    if (Skip('J')) {
      date.form = DateForm::JulianDay;
      return ReadNumber(1, 365, date.day);
    }
    date.form = DateForm::DayOfYear;
    return ReadNumber(0, 365, date.day);
  }

  std::string_view m_rest;
};

}  // namespace

std::optional<PosixZone> ParsePosixRules(std::string_view text) {
  Reader reader(text);
  PosixZone zone;
  if (!reader.SkipName() || !reader.ReadTime(kMaximumOffsetHours, zone.offset)) {
    return std::nullopt;
  }
  if (reader.AtEnd()) {
    return zone;
  }
  PosixDaylight daylight;
  if (!reader.SkipName()) {
    return std::nullopt;
  }
  daylight.offset = zone.offset - 3600;
  if (!reader.NextIs(',') && !reader.ReadTime(kMaximumOffsetHours, daylight.offset)) {
    return std::nullopt;
  }
  if (!reader.Skip(',') || !reader.ReadDate(daylight.start) || !reader.Skip(',') ||
      !reader.ReadDate(daylight.end) || !reader.AtEnd()) {
    return std::nullopt;
  }
  zone.daylight = daylight;
  return zone;
}

}  // namespace Platform
