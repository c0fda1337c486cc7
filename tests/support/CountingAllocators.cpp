#include "tests/support/CountingAllocators.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "WindowsAgentCommon/MessageBlocks.h"

namespace TestSupport {

CountingAllocator::~CountingAllocator() {
  for (const auto& [memory, size] : m_alive) {
    ::operator delete(memory);
  }
}

void* CountingAllocator::malloc(size_t bytes) {
  const std::lock_guard guard(m_lock);
  if (m_failAfter == 0) {
    return nullptr;
  }
  if (m_failAfter > 0) {
    --m_failAfter;
  }
  void* const memory = ::operator new(bytes);
  m_alive.emplace(memory, bytes);
  return memory;
}

void* CountingAllocator::calloc(size_t bytes, char initial) {
  void* const memory = malloc(bytes);
  if (memory != nullptr) {
    std::memset(memory, initial, bytes);
  }
  return memory;
}

void* CountingAllocator::calloc(size_t elements, size_t size, char initial) {
  return calloc(elements * size, initial);
}

void CountingAllocator::free(void* memory) {
  if (memory == nullptr) {
    return;
  }
  const std::lock_guard guard(m_lock);
  if (m_alive.erase(memory) != 1) {
    // Released twice, or never made here.
    std::abort();
  }
  ::operator delete(memory);
}

std::size_t CountingAllocator::Alive() const {
  const std::lock_guard guard(m_lock);
  return m_alive.size();
}

std::vector<std::string> CountingAllocator::Contents() const {
  const std::lock_guard guard(m_lock);
  std::vector<std::string> contents;
  for (const auto& [memory, size] : m_alive) {
    contents.emplace_back(static_cast<const char*>(memory), size);
  }
  return contents;
}

void CountingAllocator::FailAfter(long allocations) {
  const std::lock_guard guard(m_lock);
  m_failAfter = allocations;
}

CountingAllocators::CountingAllocators() {
  WindowsAgentCommon::SetMessageBlockAllocators({&m_blocks, &m_dataBlocks, &m_buffers});
}

CountingAllocators::~CountingAllocators() { WindowsAgentCommon::SetMessageBlockAllocators({}); }

bool CountingAllocators::NothingAlive() const {
  return m_blocks.Alive() == 0 && m_dataBlocks.Alive() == 0 && m_buffers.Alive() == 0;
}

}  // namespace TestSupport
