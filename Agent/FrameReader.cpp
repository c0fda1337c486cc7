#include "Agent/FrameReader.h"

#include <algorithm>

namespace OrloAgent {

namespace {

constexpr unsigned kMostDigits = 10;

// A connection that once had a long message unfinished does not keep the memory for it.
constexpr std::size_t kPartialToKeep = 4096;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The first bytes of a client that asks for TLS: a handshake record of version 3.0 to 3.4.
constexpr std::size_t kGreeting = 3;

bool MayBeTls(std::string_view begin) {
  return begin[0] == 0x16 && (begin.size() < 2 || begin[1] == 0x03) &&
         (begin.size() < 3 || static_cast<unsigned char>(begin[2]) <= 4);
}

}  // namespace

bool FrameReader::Feed(std::string_view bytes, IFrameSink& sink) {
  while (!bytes.empty()) {
    switch (m_state) {
      case State::Start:
        bytes = TakeStart(bytes);
        break;
      case State::Greeting:
        bytes = TakeGreeting(bytes);
        break;
      case State::Line:
        bytes = TakeLine(bytes, sink);
        break;
      case State::RestOfLine: {
        const std::size_t end = bytes.find('\n');
        bytes.remove_prefix(end == bytes.npos ? bytes.size() : end + 1);
        m_state = end == bytes.npos ? State::RestOfLine : State::Line;
        break;
      }
      case State::Length:
        bytes = TakeLength(bytes, sink);
        break;
      case State::Body:
        bytes = TakeBody(bytes, sink);
        break;
      case State::RestOfBody:
        bytes = PassOver(bytes);
        break;
      case State::Malformed:
      case State::Tls:
        return false;
    }
  }
  return m_state != State::Malformed && m_state != State::Tls;
}

std::string_view FrameReader::TakeStart(std::string_view bytes) {
  const bool isLine = m_options.framing == FrameReaderOptions::Framing::Newline;
  if (m_options.framing == FrameReaderOptions::Framing::DetectPlain &&
      MayBeTls(bytes.substr(0, 1))) {
    m_state = State::Greeting;
  } else {
    m_state = !isLine && IsDigit(bytes.front()) ? State::Length : State::Line;
  }
  return bytes;
}

std::string_view FrameReader::TakeGreeting(std::string_view bytes) {
  if (!MayBeTls(m_partial + bytes.front())) {
    m_state = State::Line;
    return bytes;
  }
  m_partial += bytes.front();
  if (m_partial.size() == kGreeting) {
    m_partial.clear();
    m_state = State::Tls;
  }
  return bytes.substr(1);
}

bool FrameReader::Finish(IFrameSink& sink) {
  if ((m_state == State::Line || m_state == State::Greeting) && !m_partial.empty()) {
    Deliver({}, false, false, sink);
  }
  const bool truncated = m_state == State::Body || (m_state == State::Length && m_digits > 0);
  m_partial.clear();
  m_state = State::Start;
  m_digits = 0;
  m_length = 0;
  return !truncated;
}

// Takes at most one line, or one piece of a long one.
std::string_view FrameReader::TakeLine(std::string_view bytes, IFrameSink& sink) {
  const std::size_t end = bytes.find('\n');
  const std::string_view line = bytes.substr(0, end);
  const std::size_t room = m_options.maxSize - m_partial.size();
  if (line.size() > room) {
    if (m_options.tooLong == FrameReaderOptions::TooLong::Split) {
      Deliver(line.substr(0, room), false, false, sink);
    } else {
      Deliver(line.substr(0, room), true, true, sink);
      m_state = State::RestOfLine;
    }
    return bytes.substr(room);
  }
  if (end == bytes.npos) {
    m_partial += line;
    return {};
  }
  Deliver(line, false, true, sink);
  return bytes.substr(end + 1);
}

std::string_view FrameReader::TakeLength(std::string_view bytes, IFrameSink& sink) {
  while (!bytes.empty()) {
    const char c = bytes.front();
    if (c == ' ' && m_digits > 0) {
      bytes.remove_prefix(1);
      BeginBody(sink);
      return bytes;
    }
    if (!IsDigit(c) || m_digits == kMostDigits) {
      m_state = State::Malformed;
      return bytes;
    }
    m_length = m_length * 10 + static_cast<std::uint64_t>(c - '0');
    ++m_digits;
    bytes.remove_prefix(1);
  }
  return bytes;
}

void FrameReader::BeginBody(IFrameSink& sink) {
  m_digits = 0;
  m_kept = static_cast<std::size_t>(std::min<std::uint64_t>(m_length, m_options.maxSize));
  if (m_length == 0) {
    m_state = State::Length;
    Deliver({}, false, true, sink);
  } else {
    m_state = State::Body;
  }
}

std::string_view FrameReader::TakeBody(std::string_view bytes, IFrameSink& sink) {
  const std::size_t missing = m_kept - m_partial.size();
  if (bytes.size() < missing) {
    m_partial += bytes;
    return {};
  }
  const bool cut = m_length > m_kept;
  m_length -= m_kept;
  m_state = cut ? State::RestOfBody : State::Length;
  Deliver(bytes.substr(0, missing), cut, true, sink);
  return bytes.substr(missing);
}

std::string_view FrameReader::PassOver(std::string_view bytes) {
  const auto passed = static_cast<std::size_t>(std::min<std::uint64_t>(m_length, bytes.size()));
  m_length -= passed;
  if (m_length == 0) {
    m_state = State::Length;
  }
  return bytes.substr(passed);
}

// Delivers what was kept from earlier calls followed by this piece.
void FrameReader::Deliver(std::string_view piece, bool cut, bool lineEnd, IFrameSink& sink) {
  if (m_partial.empty()) {
    sink.OnFrame({piece, cut, lineEnd});
    return;
  }
  m_partial += piece;
  sink.OnFrame({m_partial, cut, lineEnd});
  m_partial.clear();
  if (m_partial.capacity() > kPartialToKeep) {
    m_partial.shrink_to_fit();
  }
}

}  // namespace OrloAgent
