#include "Agent/RelpFrames.h"

#include <algorithm>
#include <charconv>

namespace OrloAgent {

namespace {

constexpr std::size_t kLongestNumber = 9;
constexpr std::size_t kLongestCommand = 32;

// The text up to `end`, which is taken off; what is left stays in `rest`. False if there is no
// `end`.
bool TakeUpTo(char end, std::string_view& rest, std::string_view& text) {
  const std::size_t at = rest.find(end);
  if (at == std::string_view::npos) {
    return false;
  }
  text = rest.substr(0, at);
  rest.remove_prefix(at + 1);
  return true;
}

bool ParseNumber(std::string_view text, std::uint32_t& number) {
  if (text.empty() || text.size() > kLongestNumber) {
    return false;
  }
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

void AppendRelpFrame(std::uint32_t number, std::string_view command, std::string_view data,
                     std::string& output) {
  output += std::to_string(number);
  output += ' ';
  output += command;
  output += ' ';
  output += std::to_string(data.size());
  if (!data.empty()) {
    output += ' ';
    output += data;
  }
  output += '\n';
}

std::uint32_t AdvanceRelpNumber(std::uint32_t number, std::uint64_t distance) {
  return static_cast<std::uint32_t>((number - 1 + distance) % kLastRelpNumber) + 1;
}

std::uint32_t GetRelpDistance(std::uint32_t first, std::uint32_t number) {
  return number >= first ? number - first : kLastRelpNumber - first + number;
}

RelpAnswer ParseRelpAnswer(std::string_view data) {
  RelpAnswer answer;
  std::string_view line = data;
  std::string_view rest = data;
  if (TakeUpTo('\n', rest, line)) {
    answer.lines = rest;
  }
  answer.text = line.substr(std::min<std::size_t>(line.size(), 4));
  std::uint32_t status = 0;
  answer.isReadable = line.size() >= 3 && (line.size() == 3 || line[3] == ' ') &&
                      ParseNumber(line.substr(0, 3), status);
  answer.status = static_cast<int>(status);
  return answer;
}

bool OffersRelpCommand(std::string_view lines, std::string_view command) {
  static constexpr std::string_view kOffer = "commands=";
  while (!lines.empty()) {
    std::string_view line = lines;
    if (!TakeUpTo('\n', lines, line)) {
      lines = {};
    }
    if (line.substr(0, kOffer.size()) != kOffer) {
      continue;
    }
    line.remove_prefix(kOffer.size());
    while (!line.empty()) {
      std::string_view one = line;
      if (!TakeUpTo(',', line, one)) {
        line = {};
      }
      if (one == command) {
        return true;
      }
    }
  }
  return false;
}

void RelpFrameReader::Append(std::string_view bytes) {
  m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_begin));
  m_begin = 0;
  m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
}

RelpFrameReader::Result RelpFrameReader::Next(RelpFrame& frame) {
  static constexpr std::size_t kLongestHeader = 2 * kLongestNumber + kLongestCommand + 3;
  const std::string_view all(m_bytes.data() + m_begin, m_bytes.size() - m_begin);
  std::string_view rest = all;
  std::string_view number;
  std::string_view command;
  if (!TakeUpTo(' ', rest, number) || !TakeUpTo(' ', rest, command)) {
    return all.size() > kLongestHeader ? Result::Unreadable : Result::More;
  }
  // The length ends with a space, or with the frame's end if there is no data.
  const std::size_t end = rest.find_first_of(" \n");
  if (end == std::string_view::npos) {
    return all.size() > kLongestHeader ? Result::Unreadable : Result::More;
  }
  std::uint32_t length = 0;
  if (!ParseNumber(number, frame.number) || command.empty() || command.size() > kLongestCommand ||
      !ParseNumber(rest.substr(0, end), length) || length > kLargestData) {
    return Result::Unreadable;
  }
  const bool hasData = rest[end] == ' ';
  if (!hasData && length > 0) {
    return Result::Unreadable;
  }
  rest.remove_prefix(end + (hasData ? 1 : 0));
  if (rest.size() <= length) {
    return Result::More;
  }
  if (rest[length] != '\n') {
    return Result::Unreadable;
  }
  frame.command = command;
  frame.data = rest.substr(0, length);
  m_begin += static_cast<std::size_t>(rest.data() + length + 1 - all.data());
  return Result::Frame;
}

}  // namespace OrloAgent
