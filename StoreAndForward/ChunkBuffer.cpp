#include "StoreAndForward/ChunkBuffer.h"

#include <atomic>
#include <cstdlib>
#include <limits>

namespace OrloStoreAndForward {

namespace {

std::atomic<ChunkBuffer::Reallocate> g_reallocate{&std::realloc};

}  // namespace

ChunkBuffer::~ChunkBuffer() { std::free(m_data); }

bool ChunkBuffer::Grow(std::uint64_t size) {
  if (size <= m_size && m_data != nullptr) {
    return true;
  }
  if (size > std::numeric_limits<std::size_t>::max()) {
    return false;
  }
  // A request for no bytes may give null, which would look like a failure.
  const std::size_t wanted = size == 0 ? 1 : static_cast<std::size_t>(size);
  void* grown = g_reallocate.load()(m_data, wanted);
  if (grown == nullptr) {
    return false;
  }
  m_data = static_cast<unsigned char*>(grown);
  m_size = size;
  return true;
}

void ChunkBuffer::SetReallocate(Reallocate reallocate) {
  g_reallocate = reallocate != nullptr ? reallocate : &std::realloc;
}

}  // namespace OrloStoreAndForward
