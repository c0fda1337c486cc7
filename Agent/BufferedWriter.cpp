#include "Agent/BufferedWriter.h"

#include <algorithm>

namespace OrloAgent {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A wait for the channel is cut into slices so that Refuse is seen.
constexpr milliseconds kSlice{100};

// The flusher asks a channel that takes nothing less and less often, up to this.
constexpr milliseconds kLongestDelay{100};

}  // namespace

BufferedWriter::BufferedWriter(std::unique_ptr<IChannel> channel,
                               const BufferedWriterOptions& options)
    : m_options(options), m_channel(std::move(channel)), m_buffer(options.capacity) {}

BufferedWriter::~BufferedWriter() { Stop(); }

void BufferedWriter::Start() { m_flusher = std::thread(&BufferedWriter::RunFlusher, this); }

bool BufferedWriter::Append(const std::string_view* parts, std::size_t count,
                            const FrameNotes& notes) {
  std::size_t size = 0;
  for (std::size_t i = 0; i < count; ++i) {
    size += parts[i].size();
  }
  std::unique_lock lock(m_lock);
  if (m_refusing || m_stopping) {
    return false;
  }
  if (size == 0) {
    ++m_sent;
    return true;
  }
  if ((!m_ready && !Prepare()) || !MakeRoom(size)) {
    return false;
  }
  const bool wasEmpty = m_buffer.GetUnsentFrames() == 0;
  m_buffer.Append(parts, count, size, notes);
  m_unsent.store(m_buffer.GetUnsentFrames(), std::memory_order_release);
  if (m_buffer.GetUnsent().size() >= m_options.flushSize) {
    WriteOnce(milliseconds(0));
  } else if (wasEmpty) {
    lock.unlock();
    m_notEmpty.notify_one();
  }
  return true;
}

// Writes until a frame of that size fits; false when the time is over or the channel breaks.
bool BufferedWriter::MakeRoom(std::size_t size) {
  if (m_buffer.HasRoomFor(size)) {
    return true;
  }
  const auto deadline = steady_clock::now() + m_options.sendTimeout;
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (WriteOnce(std::clamp(left, milliseconds(0), kSlice)) == Progress::NotReady) {
      return false;
    }
    if (m_buffer.HasRoomFor(size)) {
      return true;
    }
    if (m_refusing || left.count() <= 0) {
      return false;
    }
  }
}

bool BufferedWriter::Prepare() {
  const IChannel::Readiness readiness = m_channel->Prepare(m_buffer.IsAtFrameStart());
  m_ready = readiness != IChannel::Readiness::NotReady;
  if (readiness == IChannel::Readiness::ReadyAnew) {
    m_buffer.RestartFrame();
  }
  return m_ready;
}

BufferedWriter::Progress BufferedWriter::WriteOnce(milliseconds patience) {
  if (!Prepare()) {
    return Progress::NotReady;
  }
  const IChannel::WriteResult result = m_channel->Write(m_buffer.GetUnsent(), patience);
  const std::size_t before = m_buffer.GetUnsentFrames();
  m_buffer.MarkSent(result.written);
  m_sent += before - m_buffer.GetUnsentFrames();
  m_bytes += result.written;
  m_unsent.store(m_buffer.GetUnsentFrames(), std::memory_order_release);
  if (result.broken) {
    m_ready = false;
    return Progress::NotReady;
  }
  return result.written > 0 ? Progress::Some : Progress::Nothing;
}

std::vector<EndCounter> BufferedWriter::GetCounters() const {
  return Join(m_channel->GetCounters(), {{"bytes", "Bytes that were written", m_bytes}});
}

std::vector<UnsentMessage> BufferedWriter::TakeUnsentMessages() {
  const std::lock_guard lock(m_lock);
  std::vector<UnsentMessage> messages = m_buffer.TakeUnsentMessages();
  m_unsent.store(0, std::memory_order_release);
  return messages;
}

void BufferedWriter::RunFlusher() {
  std::unique_lock lock(m_lock);
  milliseconds delay = m_options.flushDelay;
  while (!m_stopping) {
    m_notEmpty.wait(lock, [this] { return m_stopping || m_buffer.GetUnsentFrames() > 0; });
    // Without the lock: this is when the buffer fills.
    m_notEmpty.wait_for(lock, delay, [this] { return m_stopping; });
    if (m_stopping || m_buffer.GetUnsentFrames() == 0) {
      delay = m_options.flushDelay;
      continue;
    }
    // Nobody is to wait behind the flusher, so it does not wait for the channel.
    delay = WriteOnce(milliseconds(0)) == Progress::Some ? m_options.flushDelay
                                                         : std::min(delay * 2, kLongestDelay);
  }
}

void BufferedWriter::Stop() {
  {
    const std::lock_guard lock(m_lock);
    if (m_stopping) {
      return;
    }
    m_stopping = true;
  }
  m_notEmpty.notify_all();
  if (m_flusher.joinable()) {
    m_flusher.join();
  }
  const std::lock_guard lock(m_lock);
  const auto deadline = steady_clock::now() + m_options.stopTimeout;
  while (m_buffer.GetUnsentFrames() > 0) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (left.count() <= 0 || WriteOnce(std::min(left, kSlice)) == Progress::NotReady) {
      break;
    }
  }
  m_channel->Close();
}

}  // namespace OrloAgent
