#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace OrloAgent {

// Frames in one piece of memory, in order, with their boundaries and a mark up to which bytes have
// been sent. No locks.
class FrameBuffer {
 public:
  explicit FrameBuffer(std::size_t capacity);

  // Bytes that a frame may have to fit now. Frames that are sent completely take no room.
  bool HasRoomFor(std::size_t size) const;

  // Appends one frame made of the parts, `size` bytes together. Requires room for it.
  void Append(const std::string_view* parts, std::size_t count, std::size_t size);

  // What is to be sent next. Valid until the next call that changes the buffer.
  std::string_view GetUnsent() const { return {m_bytes.data() + m_sent, m_end - m_sent}; }

  // So many bytes of it were sent.
  void MarkSent(std::size_t size);

  // The frame of which only a part was sent is sent again from its beginning.
  void RestartFrame() { m_sent = m_begin; }

  bool IsAtFrameStart() const { return m_sent == m_begin; }

  // The frames that were not sent completely, whole and in order; the buffer is empty then.
  std::vector<std::string> TakeUnsentFrames();

  // Frames that were not sent completely.
  std::size_t GetUnsentFrames() const { return m_sizes.size() - m_firstFrame; }

 private:
  void MoveToFront();

  const std::size_t m_capacity;
  std::vector<char> m_bytes;
  std::size_t m_begin = 0;  // of the first frame that is not sent completely
  std::size_t m_sent = 0;   // everything before has been sent
  std::size_t m_end = 0;
  std::vector<std::uint32_t> m_sizes;  // of the frames, from m_firstFrame on
  std::size_t m_firstFrame = 0;
};

}  // namespace OrloAgent
