#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace OrloAgent {

// What is known of a frame beside its bytes.
struct FrameNotes {
  // How many of them stand before the event's message, and how many behind it.
  std::uint8_t before = 0;
  std::uint8_t after = 0;
  // The event's, see EventFlags.
  std::uint8_t flags = 0;
};

// What can be made an event again.
struct UnsentMessage {
  std::string bytes;
  std::uint8_t flags = 0;

  bool operator==(const UnsentMessage&) const = default;
};

// Frames in one piece of memory, in order, with their boundaries and a mark up to which bytes have
// been sent. No locks.
class FrameBuffer {
 public:
  explicit FrameBuffer(std::size_t capacity);

  // Bytes that a frame may have to fit now. Frames that are sent completely take no room.
  bool HasRoomFor(std::size_t size) const;

  // Appends one frame made of the parts, `size` bytes together. Requires room for it.
  void Append(const std::string_view* parts, std::size_t count, std::size_t size,
              const FrameNotes& notes = {});

  // What is to be sent next. Valid until the next call that changes the buffer.
  std::string_view GetUnsent() const { return {m_bytes.data() + m_sent, m_end - m_sent}; }

  // So many bytes of it were sent.
  void MarkSent(std::size_t size);

  // The frame of which only a part was sent is sent again from its beginning.
  void RestartFrame() { m_sent = m_begin; }

  bool IsAtFrameStart() const { return m_sent == m_begin; }

  // The messages of the frames that were not sent completely, whole and in order; the buffer is
  // empty then.
  std::vector<UnsentMessage> TakeUnsentMessages();

  // Frames that were not sent completely.
  std::size_t GetUnsentFrames() const { return m_frames.size() - m_firstFrame; }

 private:
  struct Frame {
    std::uint32_t size;
    FrameNotes notes;
  };

  void MoveToFront();

  const std::size_t m_capacity;
  std::vector<char> m_bytes;
  std::size_t m_begin = 0;  // of the first frame that is not sent completely
  std::size_t m_sent = 0;   // everything before has been sent
  std::size_t m_end = 0;
  std::vector<Frame> m_frames;
  std::size_t m_firstFrame = 0;  // that is not sent completely
};

}  // namespace OrloAgent
