#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Agent/EndCounter.h"
#include "Agent/EventPoster.h"
#include "Agent/StreamGate.h"
#include "OrloStream/Stream.h"

namespace OrloAgent {

// A source of the agent: what the stream manager starts and stops, and what the agent asks it.
//
// A source outlives its stream if it is paused: it keeps its connections, its position and what it
// has read, posts nothing, and goes on when it is started again with the stream that follows.
class Source : public OrloStream::IStreamSource {
 public:
  // Begins, without a stream: what it reads waits, as while it is paused, until it is started.
  // Throws InitializationException; then nothing is running. `streamName` is for messages. Does
  // nothing if it has begun.
  void Prepare(const std::string& streamName);

  // Begins, or goes on if it is prepared or paused, which can't fail.
  void Start(OrloStream::Stream& stream) final;

  // Ends for good. If it is prepared or paused, what it has read and can't be read again is lost,
  // counted as not made, and reported.
  void Stop() final;

  // Returns when it posts nothing to its stream any more. What comes from now on waits where it
  // comes from, as while the stream is full.
  void Pause();

  // Whether it has begun, and Stop has not ended it.
  bool HasBegun() const { return m_begun; }

  // Events that were posted, whatever became of them then. Any thread.
  std::uint64_t GetPosted() const { return m_counts.posted.load(std::memory_order_relaxed); }

  // Events that this source has received and could not even offer to its stream. Any thread.
  std::uint64_t GetNotMade() const { return m_counts.notMade.load(std::memory_order_relaxed); }

  // What it has counted since it was made. Any thread, from the end of Start on.
  virtual std::vector<EndCounter> GetCounters() const = 0;

  // Reads again what the administrator may have replaced without a change of the configuration:
  // certificates and keys. Control thread.
  virtual void Reload() {}

 protected:
  // Begins to post through the gate; throws InitializationException, and then nothing is running.
  // `streamName` is for messages.
  virtual void Begin(const std::string& streamName) = 0;

  // Returns after the last post has returned. Does nothing if nothing is running.
  virtual void End() = 0;

  StreamGate& GetGate() { return m_gate; }
  PostCounts& GetPostCounts() { return m_counts; }

 private:
  StreamGate m_gate;
  PostCounts m_counts;
  bool m_begun = false;
};

// Called once, on the source's thread, when its input has ended and its last event is posted.
using EndOfInput = std::function<void()>;

}  // namespace OrloAgent
