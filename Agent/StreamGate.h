#pragma once

#include <ace/Message_Block.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "OrloStream/Stream.h"

namespace OrloAgent {

// Stands between a source and its stream, so that the stream can be taken away and replaced while
// the source keeps its connections: a source that posts through a closed gate waits, as it does
// while its stream is above its high-water mark. Closed at first.
//
// Post is called by one thread, everything else by the control thread.
class StreamGate {
 public:
  enum class Outcome {
    Taken,
    // The stream's first stage did not take the event.
    Refused,
    // Given up: no stream will come.
    Abandoned
  };

  // The block belongs to the gate from here on, whatever the outcome. Waits while the gate is
  // closed and while the stream is above its high-water mark.
  Outcome Post(ACE_Message_Block* block);

  // From now on events go to this stream, which outlives the gate's being open.
  void Open(OrloStream::Stream& stream);

  // Returns when no post is under way any more, and the stream may go. A post waits for room in the
  // queue of the first stage, which takes from it whatever its destination does: it decides about
  // each chunk within its period, and puts it on the disk if it can't be sent. So this waits
  // without bound only where the disk, or that stage's thread, hangs.
  void Close();

  // No stream will come: a post that waits, and each one after it, is given up.
  void Abandon();

  bool IsClosed() const { return m_closed; }

  // Whether a post waits because the gate is closed. Any thread.
  bool IsAwaited() const { return m_awaited; }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  OrloStream::Stream* m_stream = nullptr;  // guarded by m_lock
  // Also read without the lock: the poster, which takes the lock again and again, must give way.
  std::atomic<bool> m_closed{true};
  std::atomic<bool> m_awaited{false};
  bool m_abandoned = false;  // guarded by m_lock
};

}  // namespace OrloAgent
