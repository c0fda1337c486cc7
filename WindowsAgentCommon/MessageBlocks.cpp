#include "WindowsAgentCommon/MessageBlocks.h"

#include <ace/Lock.h>
#include <ace/Malloc_Allocator.h>
#include <ace/Message_Block.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <thread>

#include "Platform/Windows.h"
#include "WindowsAgentCommon/EventMemory.h"

namespace WindowsAgentCommon {

namespace {

// What passes through the agent: see EventMemory.h.
class EventAllocator : public ACE_New_Allocator {
 public:
  void* malloc(size_t bytes) override { return EventMemory::Allocate(bytes); }
  void* calloc(size_t bytes, char initial = '\0') override {
    void* const memory = malloc(bytes);
    if (memory != nullptr) {
      std::memset(memory, initial, bytes);
    }
    return memory;
  }
  void* calloc(size_t elements, size_t size, char initial = '\0') override {
    return calloc(elements * size, initial);
  }
  void free(void* memory) override { EventMemory::Free(memory); }
};

// Never destroyed: blocks may be released by destructors of other static objects.
ACE_Allocator& GetEventAllocator() {
  static ACE_Allocator& allocator = *new EventAllocator;
  return allocator;
}

MessageBlockAllocators currentAllocators;

ACE_Allocator& GetAllocatorFor(ACE_Allocator* chosen, std::size_t size) {
  if (chosen != nullptr) {
    return *chosen;
  }
  return size <= EventMemory::kLargest ? GetEventAllocator() : *ACE_Allocator::instance();
}

// The lock of one block's reference count: one atomic operation to take and a plain store to give,
// and a sixth of a mutex's memory. It is held for a few instructions, or while the memory of a
// chain is freed, and two threads hardly ever meet at it, because they would have to drop
// references to the same event at the same moment.
class CountLock final : public ACE_Lock {
 public:
  int remove() override { return 0; }
  int acquire() override {
    while (m_held.exchange(true, std::memory_order_acquire)) {
      std::this_thread::yield();
    }
    return 0;
  }
  int tryacquire() override { return m_held.exchange(true, std::memory_order_acquire) ? -1 : 0; }
  int release() override {
    m_held.store(false, std::memory_order_release);
    return 0;
  }
  int acquire_read() override { return acquire(); }
  int acquire_write() override { return acquire(); }
  int tryacquire_read() override { return tryacquire(); }
  int tryacquire_write() override { return tryacquire(); }
  int tryacquire_write_upgrade() override { return 0; }

 private:
  std::atomic<bool> m_held{false};
};

// A data block whose reference count has a lock of its own.
//
// ACE releases a chain of blocks with the head's lock held and takes the lock of each further block
// inside. Locks that unrelated blocks share would therefore be taken in different orders by
// different threads, which can end in a deadlock; and one lock for all blocks would be held by some
// thread most of the time, because ACE frees the chain's memory under it. A lock per block has
// neither problem and costs no allocation of its own.
class LockedDataBlock : public ACE_Data_Block {
 public:
  // Null when there is no memory.
  static LockedDataBlock* Make(std::size_t size, ACE_Message_Block::ACE_Message_Type type,
                               ACE_Message_Block::Message_Flags flags,
                               ACE_Allocator& bufferAllocator, ACE_Allocator& dataBlockAllocator) {
    // ACE's constructor takes the buffer as it is only if there is one, so that even an empty block
    // needs a byte.
    void* const buffer = bufferAllocator.malloc(std::max<std::size_t>(size, 1));
    if (buffer == nullptr) {
      return nullptr;
    }
    void* const memory = dataBlockAllocator.malloc(sizeof(LockedDataBlock));
    if (memory == nullptr) {
      bufferAllocator.free(buffer);
      return nullptr;
    }
    return new (memory) LockedDataBlock(size, type, static_cast<char*>(buffer), flags,
                                        bufferAllocator, dataBlockAllocator);
  }

  // The copy would otherwise use this block's lock, and might outlive it.
  ACE_Data_Block* clone_nocopy(ACE_Message_Block::Message_Flags mask,
                               std::size_t maximum) const override {
    const ACE_Message_Block::Message_Flags kept =
        flags_ &
        ~(mask | static_cast<ACE_Message_Block::Message_Flags>(ACE_Message_Block::DONT_DELETE));
    return Make(maximum == 0 ? max_size_ : maximum, type_, kept, *allocator_strategy_,
                *data_block_allocator_);
  }

  // Takes over the buffer, which came from its allocator, as this object's memory did from the
  // other.
  LockedDataBlock(std::size_t size, ACE_Message_Block::ACE_Message_Type type, char* buffer,
                  ACE_Message_Block::Message_Flags flags, ACE_Allocator& bufferAllocator,
                  ACE_Allocator& dataBlockAllocator)
      : ACE_Data_Block(size, type, buffer, &bufferAllocator, nullptr, flags, &dataBlockAllocator) {
    locking_strategy(&m_lock);
  }

 private:
  CountLock m_lock;
};

// Block, data block and buffer next to each other, where they are used together.
ACE_Message_Block* MakeTogether(std::size_t size) {
  void* pieces[3];
  if (!EventMemory::Allocate({sizeof(ACE_Message_Block), sizeof(LockedDataBlock), size}, pieces)) {
    return nullptr;
  }
  ACE_Allocator& allocator = GetEventAllocator();
  auto* const data = new (pieces[1]) LockedDataBlock(
      size, ACE_Message_Block::MB_DATA, static_cast<char*>(pieces[2]), 0, allocator, allocator);
  return new (pieces[0]) ACE_Message_Block(data, 0, &allocator);
}

}  // namespace

std::uint32_t CreateDataMessageBlock(std::size_t size, ACE_Message_Block*& block) {
  block = nullptr;
  const MessageBlockAllocators& chosen = currentAllocators;
  const bool chooses =
      chosen.messageBlock != nullptr || chosen.dataBlock != nullptr || chosen.buffer != nullptr;
  if (!chooses && size <= EventMemory::kLargest) {
    block = MakeTogether(size);
    return block == nullptr ? ERROR_NOT_ENOUGH_MEMORY : ERROR_SUCCESS;
  }
  LockedDataBlock* const data = LockedDataBlock::Make(
      size, ACE_Message_Block::MB_DATA, 0, GetAllocatorFor(chosen.buffer, size),
      GetAllocatorFor(chosen.dataBlock, sizeof(LockedDataBlock)));
  if (data == nullptr) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  // ACE deletes a message block with `delete` unless it is given the allocator.
  ACE_Allocator& allocator = GetAllocatorFor(chosen.messageBlock, sizeof(ACE_Message_Block));
  void* const memory = allocator.malloc(sizeof(ACE_Message_Block));
  if (memory == nullptr) {
    data->release();
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  block = new (memory) ACE_Message_Block(data, 0, &allocator);
  return ERROR_SUCCESS;
}

void SetMessageBlockAllocators(const MessageBlockAllocators& allocators) {
  currentAllocators = allocators;
}

}  // namespace WindowsAgentCommon
