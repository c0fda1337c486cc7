#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace OrloStoreAndForward {

// The memory through which a cache writes and reads chunks, one after the other. It only grows. A
// chunk file that turns out shorter than its entry says is parsed over what earlier chunks left
// here, so the buffer knows how much of it has ever been written. One thread.
class ChunkBuffer {
 public:
  ChunkBuffer() = default;
  ~ChunkBuffer();
  ChunkBuffer(const ChunkBuffer&) = delete;
  ChunkBuffer& operator=(const ChunkBuffer&) = delete;

  // Makes room for `size` bytes, which the caller has rounded up; the contents stay. False when
  // there is no memory: nothing has changed.
  bool Grow(std::uint64_t size);

  bool IsNull() const { return m_data == nullptr; }
  unsigned char* Data() { return m_data; }
  const unsigned char* Data() const { return m_data; }
  // The bytes that may be written.
  std::uint64_t Size() const { return m_size; }

  // The bytes from the start that have been written at some time, and so may be read.
  std::uint64_t Written() const { return m_written; }
  void SetWritten(std::uint64_t end) { m_written = std::max(m_written, end); }

  // For tests: what stands in for std::realloc; null restores it.
  using Reallocate = void* (*)(void*, std::size_t);
  static void SetReallocate(Reallocate reallocate);

 private:
  unsigned char* m_data = nullptr;
  std::uint64_t m_size = 0;
  std::uint64_t m_written = 0;
};

}  // namespace OrloStoreAndForward
