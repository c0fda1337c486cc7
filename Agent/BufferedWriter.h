#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Agent/Channel.h"
#include "Agent/FrameBuffer.h"

namespace OrloAgent {

struct BufferedWriterOptions {
  // How many bytes may wait in the buffer. A frame that is larger is taken when the buffer is
  // empty.
  std::size_t capacity = 256 * 1024;

  // The buffer is written when it holds this much...
  std::size_t flushSize = 64 * 1024;

  // ...or when its oldest frame is this old.
  std::chrono::milliseconds flushDelay{2};

  // How long Append waits for room when the channel is behind.
  std::chrono::milliseconds sendTimeout{5'000};

  // How long Stop waits for the channel to take what is left.
  std::chrono::milliseconds stopTimeout{500};
};

// Gathers frames and writes many of them with one call. A thread of its own, the flusher, writes
// what has waited for flushDelay, so that a frame never depends on the next one to come.
//
// A frame is accepted whole or not at all, frames leave in order, and how many have not left
// completely can be told at any time. When the channel breaks, the first frame of which something
// is missing starts again.
//
// Append is called by one thread at a time; Start and Stop on the control thread; the rest from
// anywhere.
class BufferedWriter {
 public:
  BufferedWriter(std::unique_ptr<IChannel> channel, const BufferedWriterOptions& options);
  ~BufferedWriter();

  // Starts the flusher. Throws std::system_error when there is no thread to be had.
  void Start();

  // Accepts the parts as one frame, or says false: the channel is not ready, or there was no room
  // for sendTimeout. Then nothing of the frame was kept.
  bool Append(const std::string_view* parts, std::size_t count, const FrameNotes& notes = {});

  // From now on nothing is accepted, and an Append that waits ends soon. What is in the buffer is
  // still written.
  void Refuse() { m_refusing = true; }

  // Writes what is left as far as the channel takes it, and closes the channel.
  void Stop();

  // After Stop: the messages of the accepted frames that have not left completely, in order. None
  // is unsent then.
  std::vector<UnsentMessage> TakeUnsentMessages();

  // Accepted frames that have not left completely.
  std::uint64_t GetUnsentFrames() const { return m_unsent.load(std::memory_order_acquire); }

  // Accepted frames that have left completely.
  std::uint64_t GetSentFrames() const { return m_sent.load(std::memory_order_relaxed); }

  // What has been written, and what the channel has counted.
  std::vector<EndCounter> GetCounters() const;

 private:
  enum class Progress { Nothing, Some, NotReady };

  void RunFlusher();
  bool Prepare();
  bool MakeRoom(std::size_t size);
  Progress WriteOnce(std::chrono::milliseconds patience);

  const BufferedWriterOptions m_options;
  std::atomic<bool> m_refusing{false};
  std::atomic<std::uint64_t> m_unsent{0};
  std::atomic<std::uint64_t> m_sent{0};
  std::atomic<std::uint64_t> m_bytes{0};
  // Used under m_lock, but for its counters.
  const std::unique_ptr<IChannel> m_channel;

  std::mutex m_lock;
  std::condition_variable m_notEmpty;
  // Guarded by m_lock.
  FrameBuffer m_buffer;
  bool m_ready = false;
  bool m_stopping = false;

  std::thread m_flusher;
};

}  // namespace OrloAgent
