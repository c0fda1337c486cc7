#include "WindowsAgentCommon/MessageBlocks.h"

#include <ace/Lock_Adapter_T.h>
#include <ace/Malloc_Base.h>
#include <ace/Message_Block.h>
#include <ace/Thread_Mutex.h>

#include <algorithm>
#include <new>

#include "Platform/Windows.h"

namespace WindowsAgentCommon {

namespace {

MessageBlockAllocators currentAllocators;

ACE_Allocator& OrDefault(ACE_Allocator* allocator) {
  return allocator != nullptr ? *allocator : *ACE_Allocator::instance();
}

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

 private:
  LockedDataBlock(std::size_t size, ACE_Message_Block::ACE_Message_Type type, char* buffer,
                  ACE_Message_Block::Message_Flags flags, ACE_Allocator& bufferAllocator,
                  ACE_Allocator& dataBlockAllocator)
      : ACE_Data_Block(size, type, buffer, &bufferAllocator, nullptr, flags, &dataBlockAllocator),
        m_lock(m_mutex) {
    locking_strategy(&m_lock);
  }

  ACE_Thread_Mutex m_mutex;
  ACE_Lock_Adapter<ACE_Thread_Mutex> m_lock;
};

// ACE deletes a message block with `delete` unless it is given the allocator.
ACE_Message_Block* MakeMessageBlock(ACE_Data_Block* data, ACE_Allocator* allocator) {
  if (allocator == nullptr) {
    return new (std::nothrow) ACE_Message_Block(data);
  }
  void* const memory = allocator->malloc(sizeof(ACE_Message_Block));
  return memory == nullptr ? nullptr : new (memory) ACE_Message_Block(data, 0, allocator);
}

}  // namespace

std::uint32_t CreateDataMessageBlock(std::size_t size, ACE_Message_Block*& block) {
  block = nullptr;
  LockedDataBlock* const data = LockedDataBlock::Make(size, ACE_Message_Block::MB_DATA, 0,
                                                      OrDefault(currentAllocators.buffer),
                                                      OrDefault(currentAllocators.dataBlock));
  if (data == nullptr) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  block = MakeMessageBlock(data, currentAllocators.messageBlock);
  if (block == nullptr) {
    data->release();
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  return ERROR_SUCCESS;
}

void SetMessageBlockAllocators(const MessageBlockAllocators& allocators) {
  currentAllocators = allocators;
}

}  // namespace WindowsAgentCommon
