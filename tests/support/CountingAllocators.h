#pragma once

#include <ace/Malloc_Allocator.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

// Counts what is alive. What is still alive when it goes is freed then, so that a test can assert
// that blocks were abandoned without leaking them.
class CountingAllocator : public ACE_New_Allocator {
 public:
  CountingAllocator() = default;
  ~CountingAllocator() override;

  void* malloc(size_t bytes) override;
  void* calloc(size_t bytes, char initial = '\0') override;
  void* calloc(size_t elements, size_t size, char initial = '\0') override;
  void free(void* memory) override;

  std::size_t Alive() const;
  // The bytes of everything that is alive, of which some may never have been written.
  std::vector<std::string> Contents() const;

  // From now on every allocation fails after this many have succeeded; negative: never.
  void FailAfter(long allocations);

 private:
  mutable std::mutex m_lock;
  std::map<void*, std::size_t> m_alive;  // to the size
  long m_failAfter = -1;
};

// While it lives, message blocks made by the common library, and their duplicates, are counted.
class CountingAllocators {
 public:
  CountingAllocators();
  ~CountingAllocators();
  CountingAllocators(const CountingAllocators&) = delete;
  CountingAllocators& operator=(const CountingAllocators&) = delete;

  // Message blocks (heads, payloads and duplicates of both).
  std::size_t BlocksAlive() const { return m_blocks.Alive(); }
  std::size_t DataBlocksAlive() const { return m_dataBlocks.Alive(); }
  bool NothingAlive() const;

  CountingAllocator& Blocks() { return m_blocks; }
  CountingAllocator& DataBlocks() { return m_dataBlocks; }
  CountingAllocator& Buffers() { return m_buffers; }

 private:
  CountingAllocator m_blocks;
  CountingAllocator m_dataBlocks;
  CountingAllocator m_buffers;
};

}  // namespace TestSupport
