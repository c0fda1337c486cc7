#include "Agent/FollowedFile.h"

#include "Agent/PathText.h"
#include "Agent/ReceiveTime.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

FollowedFile::FollowedFile(std::unique_ptr<InputFile> file, std::filesystem::path path,
                           PositionRecord record, std::size_t maxEventSize, EventPoster& poster,
                           const WindowsAgentCommon::Log& log)
    : m_file(std::move(file)),
      m_path(std::move(path)),
      m_record(std::move(record)),
      m_maxEventSize(maxEventSize),
      m_poster(poster),
      m_log(log),
      m_header(EventOrigin::File, ToText(m_path)),
      m_position(m_record.GetPosition()),
      m_lastChange(Clock::now()) {}

void FollowedFile::SetLeft(bool left, Clock::time_point now) {
  if (left != m_left) {
    m_left = left;
    m_lastChange = now;
  }
}

void FollowedFile::ReadOn(std::vector<char>& buffer, const std::atomic<bool>& stop,
                          Clock::time_point now) {
  const auto size = m_file->GetSize();
  if (!size || *size == m_position + m_pending.size()) {
    return;
  }
  m_lastChange = now;
  if (!LookForNewContent(*size)) {
    return;
  }
  while (!stop) {
    const auto count = m_file->Read(m_position + m_pending.size(), buffer.data(), buffer.size());
    if (!count && !m_readFailed) {
      LogFacade::Warn(m_log, "The file %s can't be read; trying again.", ToText(m_path));
    }
    m_readFailed = !count;
    if (!count || *count == 0) {
      return;
    }
    m_receiveTime = GetReceiveTime();
    if (!PostLines({buffer.data(), *count})) {
      // All of it is read again.
      m_pending.clear();
      return;
    }
  }
}

bool FollowedFile::LookForNewContent(std::uint64_t size) {
  const Fingerprint known = m_record.GetFingerprint();
  if (size < m_position + m_pending.size()) {
    return StartAgain("has become shorter");
  }
  if (!known.Fits(*m_file)) {
    return StartAgain("begins with other bytes than before");
  }
  if (known.GetLength() < Fingerprint::kLongest) {
    m_record.SetFingerprint(Fingerprint::Take(*m_file));
  }
  return true;
}

bool FollowedFile::StartAgain(const char* reason) {
  // What was read and has no line end gets none any more.
  if (!Finish()) {
    return false;
  }
  LogFacade::Info(m_log, "The file %s %s; it is read from its beginning.", ToText(m_path), reason);
  m_position = 0;
  m_record.SetPosition(0);
  m_record.SetFingerprint(Fingerprint::Take(*m_file));
  return true;
}

bool FollowedFile::PostLines(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const std::string_view line = bytes.substr(0, end);
    const std::size_t room = m_maxEventSize - m_pending.size();
    if (line.size() > room) {
      m_pending.append(line.substr(0, room));
      bytes.remove_prefix(room);
      if (!PostPending(m_pending.size(), false)) {
        return false;
      }
      continue;
    }
    bytes.remove_prefix(line.size());
    if (end == line.npos) {
      m_pending.append(line);
      return true;
    }
    bytes.remove_prefix(1);
    if (m_pending.empty()) {
      if (!Post(line, line.size() + 1, true)) {
        return false;
      }
    } else {
      m_pending.append(line);
      if (!PostPending(m_pending.size() + 1, true)) {
        return false;
      }
    }
  }
  return true;
}

bool FollowedFile::PostPending(std::size_t consumed, bool lineEnd) {
  if (!Post(m_pending, consumed, lineEnd)) {
    return false;
  }
  m_pending.clear();
  return true;
}

bool FollowedFile::Post(std::string_view message, std::size_t consumed, bool lineEnd) {
  if (!m_poster.Post(m_header, lineEnd ? 0 : EventFlags::kNoLineEnd, m_receiveTime, message)) {
    return false;
  }
  // Only now: what has not been posted is read again after a crash.
  m_position += consumed;
  m_record.SetPosition(m_position);
  return true;
}

bool FollowedFile::Finish() { return m_pending.empty() || PostPending(m_pending.size(), false); }

}  // namespace OrloAgent
