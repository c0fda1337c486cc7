#include "Agent/FrameBuffer.h"

#include <cstring>

namespace OrloAgent {

// Twice the room, so that moving the unsent bytes to the front costs less than appending did.
FrameBuffer::FrameBuffer(std::size_t capacity) : m_capacity(capacity), m_bytes(2 * capacity) {}

bool FrameBuffer::HasRoomFor(std::size_t size) const {
  return m_begin == m_end || m_end - m_begin + size <= m_capacity;
}

void FrameBuffer::Append(const std::string_view* parts, std::size_t count, std::size_t size,
                         const FrameNotes& notes) {
  if (m_end + size > m_bytes.size()) {
    MoveToFront();
  }
  if (m_end + size > m_bytes.size()) {
    m_bytes.resize(m_end + size);
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (!parts[i].empty()) {
      std::memcpy(m_bytes.data() + m_end, parts[i].data(), parts[i].size());
      m_end += parts[i].size();
    }
  }
  m_frames.push_back({static_cast<std::uint32_t>(size), notes});
}

void FrameBuffer::MarkSent(std::size_t size) {
  m_sent += size;
  while (m_firstFrame < m_frames.size() && m_begin + m_frames[m_firstFrame].size <= m_sent) {
    m_begin += m_frames[m_firstFrame].size;
    ++m_firstFrame;
  }
  if (m_begin == m_end) {
    m_begin = m_sent = m_end = 0;
    m_frames.clear();
    m_firstFrame = 0;
    if (m_bytes.size() > 2 * m_capacity) {
      // A single large frame has passed; its memory is given back.
      m_bytes.resize(2 * m_capacity);
      m_bytes.shrink_to_fit();
    }
  }
}

std::vector<UnsentMessage> FrameBuffer::TakeUnsentMessages() {
  std::vector<UnsentMessage> messages;
  messages.reserve(GetUnsentFrames());
  std::size_t at = m_begin;
  for (std::size_t i = m_firstFrame; i < m_frames.size(); ++i) {
    const auto [size, notes] = m_frames[i];
    messages.push_back(
        {std::string(m_bytes.data() + at + notes.before, size - notes.before - notes.after),
         notes.flags});
    at += size;
  }
  MarkSent(m_end - m_sent);
  return messages;
}

void FrameBuffer::MoveToFront() {
  std::memmove(m_bytes.data(), m_bytes.data() + m_begin, m_end - m_begin);
  m_sent -= m_begin;
  m_end -= m_begin;
  m_begin = 0;
  m_frames.erase(m_frames.begin(), m_frames.begin() + static_cast<std::ptrdiff_t>(m_firstFrame));
  m_firstFrame = 0;
}

}  // namespace OrloAgent
